// Feature callbacks: registration in the manager and the dispatch that
// tells a moved group's owners its new base.
#include "Brevant/NextHopCallback.h"
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::NextHopCallback;
using Brevant::RoutingMulticastFeature;
using Brevant::RoutingNatFeature;
using Brevant::RoutingUnicastFeature;
using testing::ElementsAre;
using testing::IsEmpty;

// A feature's callback that records every call.
class Owner : public NextHopCallback {
 public:
  Owner(const Kiln::Name& name, FeatureType f) : NextHopCallback(name, f) {}
  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    calls.push_back({groupId, baseIndex, numNextHops});
  }
  std::vector<std::vector<U16>> calls;
};

class NextHopCallbackTest : public NextHopTableTest {
 protected:
  Kiln::Ptr<Owner> owner(const char* name, FeatureType f) {
    Kiln::Ptr<Owner> o = new Owner(name, f);
    m().featuresIs(o);
    return o;
  }
  // Tells the owners of group id that it now starts at base.
  void moved(U16 id, U16 base) { m().notifyGroupMoved(*m().ecmpGroups(id), base); }
};

TEST_F(NextHopCallbackTest, GroupWithoutARegisteredOwnerCallsNothing) {
  ASSERT_EQ(create(4), 3);
  moved(3, 10);
  Kiln::Ptr<Owner> nat = owner("nat", RoutingNatFeature);
  moved(3, 10);
  EXPECT_THAT(nat->calls, IsEmpty());
}

TEST_F(NextHopCallbackTest, OwnerOfAnotherFeatureIsNotCalled) {
  Kiln::Ptr<Owner> nat = owner("nat", RoutingNatFeature);
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(4, false, 0, RoutingUnicastFeature), 3);
  moved(3, 20);
  EXPECT_THAT(nat->calls, IsEmpty());
  EXPECT_THAT(uc->calls, ElementsAre(ElementsAre(3, 20, 4)));
}

TEST_F(NextHopCallbackTest, EveryOwnerOfTheFeatureIsCalledOncePerMove) {
  Kiln::Ptr<Owner> a = owner("uc-a", RoutingUnicastFeature);
  Kiln::Ptr<Owner> b = owner("uc-b", RoutingUnicastFeature);
  ASSERT_EQ(create(2), 3);
  moved(3, 30);
  EXPECT_THAT(a->calls, ElementsAre(ElementsAre(3, 30, 2)));
  EXPECT_THAT(b->calls, ElementsAre(ElementsAre(3, 30, 2)));
}

TEST_F(NextHopCallbackTest, SecondRegistrationUnderANameReplacesTheFirst) {
  Kiln::Ptr<Owner> first = owner("uc", RoutingUnicastFeature);
  Kiln::Ptr<Owner> second = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(2), 3);
  moved(3, 40);
  EXPECT_THAT(first->calls, IsEmpty());
  EXPECT_THAT(second->calls, ElementsAre(ElementsAre(3, 40, 2)));
  EXPECT_EQ(first->references(), 1u);
}

TEST_F(NextHopCallbackTest, WideGroupIsReportedByItsCountOfNextHops) {
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(4, true), 3);
  moved(3, 200);
  EXPECT_THAT(uc->calls, ElementsAre(ElementsAre(3, 200, 4)));
}

TEST_F(NextHopCallbackTest, GroupListingTwoFeaturesCallsTheOwnersOfBoth) {
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  Kiln::Ptr<Owner> mc = owner("mc", RoutingMulticastFeature);
  Kiln::Ptr<Owner> nat = owner("nat", RoutingNatFeature);
  ASSERT_EQ(create(3), 3);
  ASSERT_EQ(m().addFeatureToGroup(3, RoutingMulticastFeature), 0);
  moved(3, 50);
  EXPECT_THAT(uc->calls, ElementsAre(ElementsAre(3, 50, 3)));
  EXPECT_THAT(mc->calls, ElementsAre(ElementsAre(3, 50, 3)));
  EXPECT_THAT(nat->calls, IsEmpty());
}

TEST_F(NextHopCallbackTest, FeatureFlaggedFalseIsNotCalled) {
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(3), 3);
  m().ecmpGroups(3)->featuresSupportedIs(RoutingUnicastFeature, false);
  moved(3, 60);
  EXPECT_THAT(uc->calls, IsEmpty());
}

TEST_F(NextHopCallbackTest, RemovedRegistrationStopsTheCalls) {
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(3), 3);
  m().featuresDel("uc");
  moved(3, 70);
  EXPECT_THAT(uc->calls, IsEmpty());
}

TEST_F(NextHopCallbackTest, CreatingRewritingAndDeletingCallNobody) {
  Kiln::Ptr<Owner> uc = owner("uc", RoutingUnicastFeature);
  ASSERT_EQ(create(3), 3);
  ASSERT_EQ(m().updateECMPGroup(0, 3, words({1, 2, 3}), U64Collection()), 0);
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_THAT(uc->calls, IsEmpty());
}

TEST_F(NextHopTableDeathTest, OwnerThatDoesNotOverrideTheActionStopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->featuresIs(new NextHopCallback("plain", Brevant::RoutingUnicastFeature));
        m->createECMPGroup(0, false, true, 1, U64Collection(), U64Collection(),
                           Brevant::RoutingUnicastFeature, false);
        m->notifyGroupMoved(*m->ecmpGroups(3), 9);
      },
      testing::HasSubstr("virtual void Brevant::NextHopCallback::updateNextHopAction(U16, U16, "
                         "U16): Assertion `0' failed."));
}

}  // namespace
