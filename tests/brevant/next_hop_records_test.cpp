// The records the next-hop table shares: FeatureType, NextHopEntry,
// U64Collection, ECMPGroup and NextHopCallback.
#include <sstream>

#include "Brevant/ECMPGroup.h"
#include "Brevant/FeatureType.h"
#include "Brevant/NextHopCallback.h"
#include "Brevant/NextHopEntry.h"
#include "Brevant/U64Collection.h"
#include "Kiln/Exception.h"
#include "Kiln/TypeRecord.h"
#include "next_hop_table_fixture.h"

namespace {

using namespace Brevant;
using testing::ElementsAre;
using testing::HasSubstr;

template <class T>
std::string streamed(const T& v) {
  std::ostringstream out;
  out << v;
  return out.str();
}

TEST(FeatureType, HasFixedValuesAndNames) {
  EXPECT_EQ(RoutingUnicastFeature, 0);
  EXPECT_EQ(RoutingMulticastFeature, 1);
  EXPECT_EQ(RoutingNatFeature, 2);
  EXPECT_EQ(RoutingVxlanFeature, 3);
  EXPECT_EQ(RoutingVxlanTunnelFeature, 4);
  const Kiln::TypeRecord* record = Kiln::typeRecord("Brevant::FeatureType");
  ASSERT_NE(record, nullptr);
  std::vector<std::string> names;
  for (const auto& v : record->enumValues()) names.push_back(v.name);
  EXPECT_THAT(names,
              ElementsAre("RoutingUnicastFeature", "RoutingMulticastFeature", "RoutingNatFeature",
                          "RoutingVxlanFeature", "RoutingVxlanTunnelFeature"));
}

TEST(FeatureType, OfValueThreePrintsAsRoutingVxlanFeature) {
  EXPECT_EQ(streamed(FeatureType(3)), "RoutingVxlanFeature");
  EXPECT_EQ(stringValue(RoutingVxlanTunnelFeature), "RoutingVxlanTunnelFeature");
  EXPECT_EQ(valueToStrep(RoutingNatFeature), "RoutingNatFeature");
}

TEST(FeatureType, IsFoundByNumberAndByName) {
  EXPECT_EQ(FeatureTypeInstance(1), RoutingMulticastFeature);
  EXPECT_EQ(FeatureTypeInstance(std::string("RoutingNatFeature")), RoutingNatFeature);
  EXPECT_EQ(FeatureTypeInstance(5), std::nullopt);
  EXPECT_EQ(Kiln::strepToValue<FeatureType>("RoutingVxlanFeature"), RoutingVxlanFeature);
  EXPECT_THROW(Kiln::strepToValue<FeatureType>("RoutingFeature"), Kiln::DeserializationException);
}

TEST(NextHopEntry, DefaultsToZero) {
  const NextHopEntry e;
  EXPECT_EQ(e.hwIndex(), 0);
  EXPECT_FALSE(e.wide());
  EXPECT_EQ(e.data(), 0u);
  EXPECT_EQ(e.wideData(), 0u);
}

TEST(NextHopEntry, ValuesDifferingOnlyInWideDataAreUnequal) {
  const NextHopEntry a(7, true, 0x11, 0x22);
  const NextHopEntry b(7, true, 0x11, 0x23);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  EXPECT_EQ(a, NextHopEntry(7, true, 0x11, 0x22));
}

TEST(NextHopEntry, PrintsAsAValueTupleAndParsesBack) {
  const NextHopEntry e(104, true, 18446744073709551615u, 5);
  const std::string text =
      "Value('Brevant::NextHopEntry', ** {'hwIndex': 104, 'wide': True, "
      "'data': 18446744073709551615, 'wideData': 5})";
  EXPECT_EQ(valueToStrep(e), text);
  EXPECT_EQ(streamed(e), text);
  EXPECT_EQ(NextHopEntry::fromStrep(text), e);
  EXPECT_EQ(Kiln::strepToValue<NextHopEntry>(text), e);
  EXPECT_THROW(NextHopEntry::fromStrep("Value('Brevant::NextHopEntry', ** {'hwIndex': 1})"),
               Kiln::DeserializationException);
}

TEST(NextHopEntry, IsBuiltFromConstructorArgumentsByName) {
  const Kiln::TypeRecord* record = Kiln::typeRecord("Brevant::NextHopEntry");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->constructValue({"3", "False", "9", "0"}),
            valueToStrep(NextHopEntry(3, false, 9, 0)));
  EXPECT_EQ(record->getValue(valueToStrep(NextHopEntry(3, false, 9, 0)), "data"), "9");
  EXPECT_EQ(record->attribute("hwIndex")->index, 2u);
  EXPECT_EQ(record->attribute("wideData")->index, 5u);
}

TEST(U64Collection, PrintsNoneWhetherEmptyOrNot) {
  U64Collection c;
  EXPECT_EQ(valueToStrep(c), "None");
  EXPECT_EQ(streamed(c), "None");
  c.dataIs(0, 0x1234);
  c.dataIs(5, 0x99);
  EXPECT_EQ(valueToStrep(c), "None");
  EXPECT_EQ(streamed(c), "None");
}

TEST(U64Collection, ReadsMissingPositionsAsZero) {
  U64Collection c;
  c.dataIs(2, 42);
  EXPECT_EQ(c.data(2), 42u);
  EXPECT_EQ(c.data(0), 0u);
  EXPECT_EQ(c.dataDel(2), 42u);
  EXPECT_EQ(c.dataDel(2), 0u);
  c.newData(1, 3);
  c.dataDelAll();
  EXPECT_EQ(c.data().members(), 0u);
}

TEST(U64Collection, ComparesMemberByMember) {
  U64Collection a = NextHopTest::words({1, 2});
  U64Collection b = NextHopTest::words({1, 2});
  EXPECT_TRUE(a == b);
  b.dataIs(1, 3);
  EXPECT_TRUE(a != b);
  b.dataIs(1, 2);
  b.dataIs(2, 0);
  EXPECT_FALSE(a == b);
}

TEST(U64Collection, ParsesTheCollectionTextForm) {
  const U64Collection c = Kiln::strepToValue<U64Collection>("{0: 17, 3: 18446744073709551615}");
  EXPECT_EQ(c.data(0), 17u);
  EXPECT_EQ(c.data(3), 18446744073709551615u);
  EXPECT_EQ(c.data().members(), 2u);
  EXPECT_THROW(Kiln::strepToValue<U64Collection>("{0 17}"), Kiln::DeserializationException);
}

TEST(ECMPGroup, StartsUnplacedAndEmpty) {
  Kiln::Ptr<ECMPGroup> g = new ECMPGroup(12);
  EXPECT_EQ(g->groupId(), 12);
  EXPECT_EQ(g->hwStartIndex(), 0);
  EXPECT_EQ(g->size(), 0);
  EXPECT_FALSE(g->wide());
  EXPECT_FALSE(g->fixedSize());
  EXPECT_FALSE(g->mcast());
  EXPECT_EQ(g->nextHops().members(), 0u);
  EXPECT_EQ(g->featuresSupported().members(), 0u);
  EXPECT_EQ(&g->fwkType(), Kiln::typeRecord("Brevant::ECMPGroup"));
}

TEST(ECMPGroup, KeepsNextHopsByPositionAndFeatures) {
  Kiln::Ptr<ECMPGroup> g = new ECMPGroup(3);
  g->nextHopsIs(1, NextHopEntry(11, false, 5, 0));
  EXPECT_EQ(g->nextHops(1), NextHopEntry(11, false, 5, 0));
  EXPECT_EQ(g->nextHops(0), NextHopEntry());
  g->featuresSupportedIs(RoutingNatFeature, true);
  EXPECT_TRUE(g->featuresSupported(RoutingNatFeature));
  EXPECT_FALSE(g->featuresSupported(RoutingUnicastFeature));
  EXPECT_EQ(g->nextHopsDel(1), NextHopEntry(11, false, 5, 0));
  EXPECT_EQ(g->nextHopsDel(1), NextHopEntry());
}

TEST(ECMPGroup, DestructionEmptiesBothCollections) {
  const U64 before = Kiln::allocationRecord<ECMPGroup::KilnNextHops>().live();
  const U64 featuresBefore = Kiln::allocationRecord<ECMPGroup::KilnFeaturesSupported>().live();
  {
    Kiln::Ptr<ECMPGroup> g = new ECMPGroup(4);
    for (U16 p = 0; p < 10; ++p) g->nextHopsIs(p, NextHopEntry(p, false, p, 0));
    g->featuresSupportedIs(RoutingVxlanFeature, true);
    EXPECT_EQ(Kiln::allocationRecord<ECMPGroup::KilnNextHops>().live(), before + 10);
  }
  EXPECT_EQ(Kiln::allocationRecord<ECMPGroup::KilnNextHops>().live(), before);
  EXPECT_EQ(Kiln::allocationRecord<ECMPGroup::KilnFeaturesSupported>().live(), featuresBefore);
}

TEST(ECMPGroup, AttributesFollowDeclarationOrder) {
  const Kiln::TypeRecord* record = Kiln::typeRecord("Brevant::ECMPGroup");
  ASSERT_NE(record, nullptr);
  std::vector<std::string> names;
  for (const auto* a : record->attributes()) names.push_back(a->name);
  EXPECT_THAT(names, ElementsAre("groupId", "wide", "fixedSize", "mcast", "size", "hwStartIndex",
                                 "nextHops", "featuresSupported"));
  EXPECT_EQ(record->attribute("groupId")->index, 130u);
  Kiln::Ptr<ECMPGroup> g = new ECMPGroup(9);
  g->featuresSupportedIs(RoutingMulticastFeature, true);
  EXPECT_EQ(record->get(*g, "groupId"), "9");
  record->set(*g, "size", "4");
  EXPECT_EQ(g->size(), 4);
  EXPECT_THAT(record->members(*g, "featuresSupported"),
              ElementsAre(Kiln::MemberText("RoutingMulticastFeature", "True")));
}

// A callback that records what it is told.
class RecordingCallback : public NextHopCallback {
 public:
  RecordingCallback(const Kiln::Name& name, FeatureType f) : NextHopCallback(name, f) {}
  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    calls.push_back({groupId, baseIndex, numNextHops});
  }
  std::vector<std::vector<U16>> calls;
};

TEST(NextHopCallback, KeepsItsNameAndFeature) {
  Kiln::Ptr<NextHopCallback> cb = new RecordingCallback("nat", RoutingNatFeature);
  EXPECT_EQ(cb->name(), "nat");
  EXPECT_EQ(cb->fType(), RoutingNatFeature);
  EXPECT_EQ(cb->fwkType().name(), "Brevant::NextHopCallback");
  cb->nameIsFromBackup("nat2");
  EXPECT_EQ(cb->name(), "nat2");
  EXPECT_NE(cb->notifieeList(), nullptr);
}

TEST(NextHopCallback, ReadsFTypeAndInvokesTheActionByName) {
  Kiln::Ptr<RecordingCallback> cb = new RecordingCallback("uc", RoutingUnicastFeature);
  const Kiln::TypeRecord& record = cb->fwkType();
  EXPECT_EQ(record.get(*cb, "fType"), "RoutingUnicastFeature");
  EXPECT_EQ(record.get(*cb, "name"), "'uc'");
  EXPECT_EQ(record.invoke(*cb, "updateNextHopAction", {"5", "200", "4"}), "");
  EXPECT_THAT(cb->calls, ElementsAre(ElementsAre(5, 200, 4)));
  const Kiln::OperationRecord* op = record.operation("updateNextHopAction");
  ASSERT_NE(op, nullptr);
  EXPECT_THAT(op->parameterNames, ElementsAre("groupId", "baseIndex", "numNextHops"));
}

TEST(NextHopCallback, RefusesEverythingElseAsNotSupported) {
  Kiln::Ptr<RecordingCallback> cb = new RecordingCallback("uc", RoutingUnicastFeature);
  const Kiln::TypeRecord& record = cb->fwkType();
  EXPECT_THROW(record.set(*cb, "fType", "RoutingNatFeature"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(record.members(*cb, "fType"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(record.get(*cb, "updateNextHopAction"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(record.invoke(*cb, "fType", {}), Kiln::OperationNotSupportedException);
  EXPECT_THROW(record.get(*cb, "baseIndex"), Kiln::OperationNotSupportedException);
  EXPECT_EQ(cb->fType(), RoutingUnicastFeature);
}

TEST(NextHopCallback, IsConstructedByNameThroughItsTypeRecord) {
  const Kiln::TypeRecord* record = Kiln::typeRecord("Brevant::NextHopCallback");
  ASSERT_NE(record, nullptr);
  Kiln::Ptr<Kiln::PtrInterface> made = record->construct({"'mc'", "RoutingMulticastFeature"});
  auto* cb = dynamic_cast<NextHopCallback*>(made.ptr());
  ASSERT_NE(cb, nullptr);
  EXPECT_EQ(cb->name(), "mc");
  EXPECT_EQ(cb->fType(), RoutingMulticastFeature);
}

TEST(NextHopCallbackDeathTest, BaseActionFailsWithItsFunctionText) {
  Kiln::Ptr<NextHopCallback> cb = new NextHopCallback("base", RoutingUnicastFeature);
  EXPECT_DEATH(cb->updateNextHopAction(1, 2, 3),
               HasSubstr("virtual void Brevant::NextHopCallback::updateNextHopAction(U16, U16, "
                         "U16): Assertion `0' failed."));
}

TEST(NextHopTypes, AreRegisteredInOrder) {
  std::vector<std::string> ours;
  for (const Kiln::TypeRecord* r : Kiln::typeRecords()) {
    for (const char* name : {"Brevant::DefragManager", "Brevant::NextHopManager",
                             "Brevant::FeatureType", "Brevant::NextHopEntry", "Brevant::ECMPGroup",
                             "Brevant::U64Collection", "Brevant::NextHopCallback"}) {
      if (r->name() == name) ours.push_back(name);
    }
  }
  EXPECT_THAT(
      ours, ElementsAre("Brevant::DefragManager", "Brevant::NextHopManager", "Brevant::FeatureType",
                        "Brevant::NextHopEntry", "Brevant::ECMPGroup", "Brevant::U64Collection",
                        "Brevant::NextHopCallback"));
}

}  // namespace
