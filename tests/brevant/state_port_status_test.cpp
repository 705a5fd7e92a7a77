// The port status and VXLAN status entities.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "../sable/ReflectiveDefaults.h"
#include "Brevant/BrevantPortStatus.h"
#include "Brevant/Vxlan1GStatus.h"

using Brevant::BrevantPortStatus;
using Brevant::SwitchPort;
using Brevant::Vxlan1GStatus;
using Nimbet::IntfId;
using Sable::SablePortStatus;
using Calls = std::vector<std::string>;

namespace {

// --- BrevantPortStatus

class PortStatusLog : public BrevantPortStatus::NotifieeConst {
 public:
  Calls calls;
  void onLinkStatus() override { calls.push_back("linkStatus"); }
  void onFaultType() override { calls.push_back("faultType"); }
  void onPartnerAutonegAdvertisement() override { calls.push_back("partnerAutonegAdvertisement"); }
  void onAutonegResult() override { calls.push_back("autonegResult"); }
};

TEST(BrevantPortStatus, IsNamedAfterItsInterfaceAndKeepsItsChipPort) {
  Kiln::Ptr<BrevantPortStatus> s =
      BrevantPortStatus::BrevantPortStatusIs(IntfId("Ethernet7"), SwitchPort(1, 33));
  EXPECT_EQ(s->name(), "Ethernet7");
  EXPECT_EQ(s->intfName(), IntfId("Ethernet7"));
  EXPECT_EQ(s->port(), SwitchPort(1, 33));
  EXPECT_EQ(s->linkStatus(), SablePortStatus::linkUnknown);
  Kiln::Ptr<BrevantPortStatus> made =
      Brevant::brevantPortStatusFactory(IntfId("Ethernet8"), SwitchPort(0, 1));
  EXPECT_EQ(made->name(), "Ethernet8");
}

TEST(BrevantPortStatus, BaseAttributesComeFirstThenThePortAt386) {
  const Kiln::TypeRecord& r = BrevantPortStatus::kilnType();
  EXPECT_EQ(r.name(), "Brevant::BrevantPortStatus");
  EXPECT_EQ(r.base(), &SablePortStatus::kilnType());
  std::vector<std::pair<std::string, U32>> seen;
  for (const Kiln::AttributeRecord* a : r.attributes()) {
    if (a->index >= 258) seen.emplace_back(a->name, a->index);
  }
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, U32>>{{"intfName", 258},
                                                            {"linkStatus", 259},
                                                            {"faultType", 260},
                                                            {"partnerAutonegAdvertisement", 261},
                                                            {"autonegResult", 262},
                                                            {"port", 386}}));
  EXPECT_EQ(r.attribute("port")->kind, Kiln::AttributeKind::constructorParameter);
}

TEST(BrevantPortStatus, ReflectiveInterfaceReadsEveryAttributeAtItsDefault) {
  Kiln::Ptr<BrevantPortStatus> s = new BrevantPortStatus(IntfId("Ethernet7"), SwitchPort(1, 33));
  StateTest::expectDeclaredDefaults(
      *s, {{"name", "'Ethernet7'"},
           {"parent", "None"},
           {"parentAttrName", "''"},
           {"fullName", "'Ethernet7'"},
           {"entity", "Ref('Brevant::BrevantPortStatus', 'Ethernet7')"},
           {"intfName", "'Ethernet7'"},
           {"linkStatus", "linkUnknown"},
           {"faultType", "faultNone"},
           {"partnerAutonegAdvertisement", "advertisementUnknown"},
           {"autonegResult", "autonegUnknown"},
           {"port", "Value('Brevant::SwitchPort', ** {'sw': 1, 'portId': 33})"}});
}

TEST(BrevantPortStatus, NotifieeDerivesFromTheBasesAndHearsTheStatusAttributes) {
  static_assert(
      std::is_base_of_v<SablePortStatus::NotifieeConst, BrevantPortStatus::NotifieeConst>);
  Kiln::Ptr<BrevantPortStatus> s = new BrevantPortStatus(IntfId("Ethernet7"), SwitchPort(1, 33));
  Kiln::Ptr<PortStatusLog> log = new PortStatusLog;
  log->notifierIs(s);
  s->linkStatusIs(SablePortStatus::linkUp);
  s->linkStatusIs(SablePortStatus::linkUp);
  s->faultTypeIs(SablePortStatus::faultLocal);
  s->partnerAutonegAdvertisementIs(SablePortStatus::advertisement100G);
  s->autonegResultIs(SablePortStatus::autonegSucceeded);
  s->autonegResultIs(SablePortStatus::autonegSucceeded);
  EXPECT_EQ(log->calls,
            (Calls{"linkStatus", "faultType", "partnerAutonegAdvertisement", "autonegResult"}));
}

TEST(BrevantPortStatus, DerivedNotifieeDoesNotAttachToABaseStatus) {
  Kiln::Ptr<SablePortStatus> base = new SablePortStatus(IntfId("Ethernet7"));
  Kiln::Ptr<PortStatusLog> log = new PortStatusLog;
  static_cast<SablePortStatus::NotifieeConst&>(*log).notifierIs(base);
  EXPECT_EQ(log->notifier(), nullptr);
  base->linkStatusIs(SablePortStatus::linkDown);
  EXPECT_TRUE(log->calls.empty());
}

TEST(BrevantPortStatus, IsConstructedReflectivelyFromItsInterfaceAndPort) {
  Kiln::Ptr<Kiln::PtrInterface> built = BrevantPortStatus::kilnType().construct(
      {"'Ethernet2'", "Value('Brevant::SwitchPort', ** {'sw': 0, 'portId': 2})"});
  ASSERT_TRUE(built);
  EXPECT_EQ(built->fwkType().get(*built, "name"), "'Ethernet2'");
  EXPECT_EQ(built->fwkType().get(*built, 386),
            "Value('Brevant::SwitchPort', ** {'sw': 0, 'portId': 2})");
}

// --- Vxlan1GStatus

class VxlanLog : public Vxlan1GStatus::NotifieeConst {
 public:
  Calls calls;
  void onVxlan1G(const IntfId& i) override { calls.push_back("vxlan1G " + i.name()); }
  void onVxlan1GkilnImmediate() override { calls.push_back("vxlan1G immediate"); }
  void onVxlan1G() override { calls.push_back("vxlan1G"); }
  void onZeroReferences() override { calls.push_back("zeroReferences"); }
};

struct ObservedVxlan {
  Kiln::Ptr<Vxlan1GStatus> status = Brevant::vxlan1GStatusFactory("vxlan");
  Kiln::Ptr<VxlanLog> log = new VxlanLog;
  ObservedVxlan() { log->notifierIs(status); }
};

TEST(Vxlan1GStatus, IsCreatedByNameAsAnEmptySet) {
  Kiln::Ptr<Vxlan1GStatus> s = Brevant::vxlan1GStatusFactory("vxlan");
  EXPECT_EQ(s->name(), "vxlan");
  EXPECT_TRUE(s->vxlan1G().empty());
  EXPECT_EQ(s->vxlan1G().log2Buckets(), 4);
  const Kiln::TypeRecord& r = Vxlan1GStatus::kilnType();
  EXPECT_EQ(r.attribute("vxlan1G")->index, 258u);
  EXPECT_EQ(r.attribute("vxlan1G")->kind, Kiln::AttributeKind::collection);
  StateTest::expectDeclaredDefaults(*s, {{"name", "'vxlan'"},
                                         {"parent", "None"},
                                         {"parentAttrName", "''"},
                                         {"fullName", "'vxlan'"},
                                         {"entity", "Ref('Brevant::Vxlan1GStatus', 'vxlan')"}});
  EXPECT_FALSE(Kiln::Ptr<Vxlan1GStatus>(Vxlan1GStatus::Vxlan1GStatusIs("vxlan")) == s);
}

TEST(Vxlan1GStatus, SettingAMemberTwiceNotifiesOnce) {
  ObservedVxlan o;
  o.status->vxlan1GIs(IntfId("Ethernet1"), true);
  o.status->vxlan1GIs(IntfId("Ethernet1"), true);
  EXPECT_TRUE(o.status->vxlan1G(IntfId("Ethernet1")));
  EXPECT_FALSE(o.status->vxlan1G(IntfId("Ethernet2")));
  EXPECT_EQ(o.log->calls, (Calls{"vxlan1G Ethernet1"}));
}

TEST(Vxlan1GStatus, DeletingAnAbsentInterfaceReturnsFalseAndNotifiesNobody) {
  ObservedVxlan o;
  EXPECT_FALSE(o.status->vxlan1GDel(IntfId("Ethernet1")));
  EXPECT_TRUE(o.log->calls.empty());
  o.status->vxlan1GIs(IntfId("Ethernet1"), true);
  EXPECT_TRUE(o.status->vxlan1GDel(IntfId("Ethernet1")));
  EXPECT_EQ(o.log->calls, (Calls{"vxlan1G Ethernet1", "vxlan1G Ethernet1"}));
}

TEST(Vxlan1GStatus, NewMemberInsertsSilentlyAndNotifyTellsOnRequest) {
  ObservedVxlan o;
  o.status->newVxlan1G(IntfId("Ethernet3"), true);
  EXPECT_TRUE(o.status->vxlan1G(IntfId("Ethernet3")));
  EXPECT_TRUE(o.log->calls.empty());
  o.status->vxlan1GNotify(IntfId("Ethernet3"));
  EXPECT_EQ(o.log->calls, (Calls{"vxlan1G Ethernet3"}));
}

TEST(Vxlan1GStatus, DeleteByIteratorAndDeleteAllNotifyPerMember) {
  ObservedVxlan o;
  for (const char* i : {"Ethernet1", "Ethernet2", "Ethernet3"})
    o.status->vxlan1GIs(IntfId(i), true);
  o.log->calls.clear();
  Vxlan1GStatus::Vxlan1GIterator first = o.status->vxlan1G().begin();
  const std::string firstName = first->key().name();
  o.status->vxlan1GDel(first);
  EXPECT_EQ(o.log->calls, (Calls{"vxlan1G " + firstName}));
  o.status->vxlan1GDelAll();
  EXPECT_TRUE(o.status->vxlan1G().empty());
  EXPECT_EQ(o.log->calls.size(), 3u);
}

TEST(Vxlan1GStatus, ZeroReferencesVisitsTheNotifiees) {
  Kiln::Ptr<VxlanLog> log = new VxlanLog;
  {
    Kiln::Ptr<Vxlan1GStatus> s = Brevant::vxlan1GStatusFactory("vxlan");
    s->vxlan1GIs(IntfId("Ethernet1"), true);
    s->notifieeList()->notifieeIs(log.ptr());
  }
  EXPECT_EQ(log->calls, (Calls{"zeroReferences"}));
}

}  // namespace
