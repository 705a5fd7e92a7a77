// The agent-common port status: named after its interface, four status
// attributes with small enumerations.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ReflectiveDefaults.h"
#include "Sable/SablePortStatus.h"

using Nimbet::IntfId;
using Sable::SablePortStatus;
using Calls = std::vector<std::string>;

namespace {

class PortStatusLog : public SablePortStatus::NotifieeConst {
 public:
  Calls calls;
  void onLinkStatus() override { calls.push_back("linkStatus"); }
  void onFaultType() override { calls.push_back("faultType"); }
  void onPartnerAutonegAdvertisement() override { calls.push_back("partnerAutonegAdvertisement"); }
  void onAutonegResult() override { calls.push_back("autonegResult"); }
};

TEST(SablePortStatus, IsNamedAfterItsInterface) {
  Kiln::Ptr<SablePortStatus> s = new SablePortStatus(IntfId("Ethernet3"));
  EXPECT_EQ(s->name(), "Ethernet3");
  EXPECT_EQ(s->intfName(), IntfId("Ethernet3"));
}

TEST(SablePortStatus, AttributesTakeIndexes258To262) {
  const Kiln::TypeRecord& r = SablePortStatus::kilnType();
  const std::vector<std::string> names = {"intfName", "linkStatus", "faultType",
                                          "partnerAutonegAdvertisement", "autonegResult"};
  ASSERT_EQ(r.ownAttributes().size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(r.ownAttributes()[i].name, names[i]);
    EXPECT_EQ(r.ownAttributes()[i].index, 258 + i);
  }
  EXPECT_EQ(r.attribute("intfName")->kind, Kiln::AttributeKind::constructorParameter);
}

TEST(SablePortStatus, FreshStatusReadsItsDefaults) {
  Kiln::Ptr<SablePortStatus> s = new SablePortStatus(IntfId("Ethernet3"));
  StateTest::expectDeclaredDefaults(*s, {{"name", "'Ethernet3'"},
                                         {"parent", "None"},
                                         {"parentAttrName", "''"},
                                         {"fullName", "'Ethernet3'"},
                                         {"entity", "Ref('Sable::SablePortStatus', 'Ethernet3')"},
                                         {"intfName", "'Ethernet3'"},
                                         {"linkStatus", "linkUnknown"},
                                         {"faultType", "faultNone"},
                                         {"partnerAutonegAdvertisement", "advertisementUnknown"},
                                         {"autonegResult", "autonegUnknown"}});
}

TEST(SablePortStatus, EachStatusNotifiesOnlyOnChange) {
  Kiln::Ptr<SablePortStatus> s = new SablePortStatus(IntfId("Ethernet3"));
  Kiln::Ptr<PortStatusLog> log = new PortStatusLog;
  log->notifierIs(s);
  s->linkStatusIs(SablePortStatus::linkUnknown);
  s->linkStatusIs(SablePortStatus::linkUp);
  s->linkStatusIs(SablePortStatus::linkUp);
  s->faultTypeIs(SablePortStatus::faultRemote);
  s->partnerAutonegAdvertisementIs(SablePortStatus::advertisement25G);
  s->autonegResultIs(SablePortStatus::autonegSucceeded);
  s->autonegResultIs(SablePortStatus::autonegSucceeded);
  EXPECT_EQ(log->calls,
            (Calls{"linkStatus", "faultType", "partnerAutonegAdvertisement", "autonegResult"}));
  EXPECT_EQ(s->fwkType().get(*s, "faultType"), "faultRemote");
}

TEST(SablePortStatus, EnumerationsAreFoundByNumberAndByName) {
  EXPECT_EQ(Sable::LinkStatusInstance(2), SablePortStatus::linkUp);
  EXPECT_EQ(Sable::FaultTypeInstance("faultLocal"), SablePortStatus::faultLocal);
  EXPECT_EQ(Sable::AutonegAdvertisementInstance(5), SablePortStatus::advertisement100G);
  EXPECT_EQ(Sable::AutonegResultInstance(9), std::nullopt);
  EXPECT_EQ(Kiln::strep(SablePortStatus::autonegFailed), "autonegFailed");
  EXPECT_EQ(Kiln::strepToValue<SablePortStatus::LinkStatus>("linkDown"), SablePortStatus::linkDown);
  EXPECT_NE(Kiln::typeRecord("Sable::SablePortStatus::AutonegResult"), nullptr);
}

}  // namespace
