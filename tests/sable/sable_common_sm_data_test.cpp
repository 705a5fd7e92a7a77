// The agent-common shared state: its attributes at 258 to 295, their
// defaults through the reflective interface, and their notification rules.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Gantry/TimerWheel.h"
#include "ReflectiveDefaults.h"
#include "Sable/SableCommonSmData.h"

using Nimbet::EthAddr;
using Nimbet::IntfId;
using Sable::SableCommonSmData;
using Calls = std::vector<std::string>;

namespace {

// Records one line per handler call, for a sample of every attribute kind.
class SableLog : public SableCommonSmData::NotifieeConst {
 public:
  Calls calls;
  void onOperationalMode() override { calls.push_back("operationalMode"); }
  void onVlanHelper() override { calls.push_back("vlanHelper"); }
  void onIntf(const IntfId& i) override { calls.push_back("intf " + i.name()); }
  void onVirtualMac() override { calls.push_back("virtualMac"); }
  void onInternalVlan(U16 v) override { calls.push_back("internalVlan " + std::to_string(v)); }
  void onFreeMirrorSessionMetadata() override { calls.push_back("freeMirrorSessionMetadata"); }
  void onFreeMirrorSession(U32 i) override {
    calls.push_back("freeMirrorSession " + std::to_string(i));
  }
  void onParityEvent() override { calls.push_back("parityEvent"); }
  void onFlashlogLevels(const Kiln::Name& k) override { calls.push_back("flashlogLevels " + k); }
  void onHandleInitialized() override { calls.push_back("handleInitialized"); }
};

struct Observed {
  Kiln::Ptr<SableCommonSmData> state = SableCommonSmData::SableCommonSmDataIs("sable");
  Kiln::Ptr<SableLog> log = new SableLog;
  Observed() { log->notifierIs(state); }
};

TEST(SableCommonSmData, AttributesTakeIndexes258To295InDeclarationOrder) {
  const std::vector<std::string> names = {"operationalMode",
                                          "vlanHelper",
                                          "intf",
                                          "minIntfs",
                                          "unusedIntf",
                                          "cpuIntf",
                                          "mlagPeerLinkPort",
                                          "mlagIntfPort",
                                          "lagToPortConfig",
                                          "lagToFeatureSet",
                                          "hasInitialLagColls",
                                          "initialPortToLag",
                                          "initialLagToPort",
                                          "portToLag",
                                          "lagToPort",
                                          "lagToLagType",
                                          "virtualMac",
                                          "peerRouterMac",
                                          "internalVlan",
                                          "vlanStatus",
                                          "encapVlan",
                                          "portVlanTpidData",
                                          "cliConfig",
                                          "freeMirrorSessionMetadata",
                                          "freeMirrorSession",
                                          "isFabricSlice",
                                          "parityEvent",
                                          "verifyData",
                                          "verifySm",
                                          "vlanIntf",
                                          "flashlogLevels",
                                          "doCleanup",
                                          "zeltFastBoot",
                                          "zeltRenice",
                                          "zeltReniceValue",
                                          "initialized",
                                          "pfcWatchdogDropActionSupported",
                                          "handleInitialized"};
  const Kiln::TypeRecord& r = SableCommonSmData::kilnType();
  ASSERT_EQ(r.ownAttributes().size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(r.ownAttributes()[i].name, names[i]);
    EXPECT_EQ(r.ownAttributes()[i].index, 258 + i);
  }
  EXPECT_EQ(r.attribute(295)->name, "handleInitialized");
  EXPECT_EQ(r.attribute("freeMirrorSession")->kind, Kiln::AttributeKind::queue);
  EXPECT_EQ(r.attribute("freeMirrorSessionMetadata")->kind, Kiln::AttributeKind::queueMetadata);
  EXPECT_EQ(r.base(), &Kiln::Entity::kilnType());
}

TEST(SableCommonSmData, FreshEntityReadsItsDefaultsByNameAndByIndex) {
  Kiln::Ptr<SableCommonSmData> s = Sable::sableCommonSmDataFactory("sable");
  StateTest::expectDeclaredDefaults(
      *s, StateTest::sableCommonSmDataDefaults("sable", "Sable::SableCommonSmData"));
}

TEST(SableCommonSmData, ScalarSetterNotifiesOnlyOnChange) {
  Observed o;
  o.state->operationalModeIs(0);
  o.state->operationalModeIs(2);
  o.state->operationalModeIs(2);
  o.state->virtualMacIs(EthAddr());
  o.state->virtualMacIs(EthAddr(1, 2, 3));
  o.state->virtualMacIs(EthAddr(1, 2, 3));
  o.state->handleInitializedIs(true);
  EXPECT_EQ(o.state->operationalMode(), 2u);
  EXPECT_EQ(o.state->virtualMac(), EthAddr(1, 2, 3));
  EXPECT_EQ(o.log->calls, (Calls{"operationalMode", "virtualMac", "handleInitialized"}));
}

TEST(SableCommonSmData, ParityEventIncOfZeroNotifiesNobody) {
  Observed o;
  EXPECT_EQ(o.state->parityEventInc(0), 0u);
  EXPECT_EQ(o.state->parityEventInc(3), 3u);
  EXPECT_EQ(o.log->calls, (Calls{"parityEvent"}));
}

TEST(SableCommonSmData, ReferenceNotifiesWhenThePointerDiffers) {
  Observed o;
  Kiln::Ptr<Kiln::Entity> helper = Gantry::timerWheelFactory("helper");
  o.state->vlanHelperIs(helper);
  o.state->vlanHelperIs(helper);
  o.state->vlanHelperIs(nullptr);
  EXPECT_EQ(o.log->calls, (Calls{"vlanHelper", "vlanHelper"}));
}

TEST(SableCommonSmData, CollectionsNotifyPerKeyAndOnlyOnChange) {
  Observed o;
  o.state->intfIs(IntfId("Ethernet1"), true);
  o.state->intfIs(IntfId("Ethernet1"), true);
  o.state->internalVlanIs(4094, true);
  o.state->flashlogLevelsIs("BrevantNextHop", 3);
  EXPECT_FALSE(o.state->intfDel(IntfId("Ethernet9")));
  EXPECT_TRUE(o.state->intfDel(IntfId("Ethernet1")));
  EXPECT_EQ(o.state->flashlogLevels("BrevantNextHop"), 3u);
  EXPECT_EQ(o.log->calls, (Calls{"intf Ethernet1", "internalVlan 4094",
                                 "flashlogLevels BrevantNextHop", "intf Ethernet1"}));
}

TEST(SableCommonSmData, FreeMirrorSessionsAreHandedOutInArrivalOrder) {
  Observed o;
  EXPECT_EQ(o.state->freeMirrorSessionDeq(), 0);
  EXPECT_TRUE(o.log->calls.empty());
  o.state->freeMirrorSessionEnq(5);
  o.state->freeMirrorSessionEnq(2);
  EXPECT_EQ(o.state->freeMirrorSessionDeq(), 5);
  EXPECT_EQ(o.state->freeMirrorSessionDeq(), 2);
  EXPECT_EQ(o.state->freeMirrorSessionEnq(7), 2u);
  EXPECT_EQ(o.state->freeMirrorSessionMetadata(), (Kiln::LinkQueueMetadata{2, 3}));
  o.state->freeMirrorSessionMetadataIs(o.state->freeMirrorSessionMetadata());
  EXPECT_EQ(o.log->calls,
            (Calls{"freeMirrorSession 0", "freeMirrorSession 1", "freeMirrorSession 0",
                   "freeMirrorSession 1", "freeMirrorSession 2", "freeMirrorSessionMetadata"}));
}

TEST(SableCommonSmData, ReflectiveWritesGoThroughTheMutators) {
  Observed o;
  const Kiln::TypeRecord& r = o.state->fwkType();
  r.set(*o.state, "operationalMode", "4");
  r.set(*o.state, 295, "True");
  r.memberIs(*o.state, "intf", "'Ethernet4'", "True");
  EXPECT_EQ(o.state->operationalMode(), 4u);
  EXPECT_TRUE(o.state->handleInitialized());
  EXPECT_EQ(r.members(*o.state, "intf"), (std::vector<Kiln::MemberText>{{"'Ethernet4'", "True"}}));
  EXPECT_EQ(o.log->calls, (Calls{"operationalMode", "handleInitialized", "intf Ethernet4"}));
}

}  // namespace
