// The chip agent's shared state entity: its attributes after the agent-common
// base's, defaults, the notification rules of every kind, the per-chip switch
// information, the queues, notifiee filtering and the order of destruction.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "../sable/ReflectiveDefaults.h"
#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/NextHopManager.h"
#include "Bridging/Config.h"
#include "Bridging/HwCapabilities.h"
#include "Errdisable/CauseStatus.h"
#include "FmSim/FmSim.h"
#include "Gantry/TimerWheel.h"
#include "Hardware/Brevant/Config.h"
#include "HwEpoch/Status.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"
#include "support/HeldActivityLock.h"

using Brevant::BrevantCommonSmData;
using Brevant::LagIndex;
using Brevant::NextHopManager;
using Brevant::PortEventCounter;
using Brevant::SwitchInfo;
using Brevant::SwitchPort;
using Nimbet::EthAddr;
using Nimbet::IntfId;
using Calls = std::vector<std::string>;

namespace {

// Records one line per handler call of the state entity's own attributes,
// and of one base attribute.
class StateLog : public BrevantCommonSmData::NotifieeConst {
 public:
  Calls calls;
  void onOperationalMode() override { calls.push_back("operationalMode"); }
  void onSwitchInfo(U8 sw) override { calls.push_back("switchInfo " + std::to_string(sw)); }
  void onLinecardEpochName() override { calls.push_back("linecardEpochName"); }
  void onIntfNameToFocalPointPortMap(const IntfId& i) override {
    calls.push_back("intfNameToFocalPointPortMap " + i.name());
  }
  void onFocalPointPortToIntfNameMap(const SwitchPort& p) override {
    calls.push_back("focalPointPortToIntfNameMap " + p.stringValue());
  }
  void onLagIndex(const IntfId& i) override { calls.push_back("lagIndex " + i.name()); }
  void onLagIndexToLagName(const LagIndex& l) override {
    calls.push_back("lagIndexToLagName " + Kiln::strep(l));
  }
  void onVeloMirrorGroup() override { calls.push_back("veloMirrorGroup"); }
  void onCpuMacAddress() override { calls.push_back("cpuMacAddress"); }
  void onFreeExternalLAGIndexMetadata() override {
    calls.push_back("freeExternalLAGIndexMetadata");
  }
  void onFreeExternalLAGIndex(U32 i) override {
    calls.push_back("freeExternalLAGIndex " + std::to_string(i));
  }
  void onFlowcontrolMode() override { calls.push_back("flowcontrolMode"); }
  void onTimerWheel() override { calls.push_back("timerWheel"); }
  void onBridgingConfig() override { calls.push_back("bridgingConfig"); }
  void onBridgingHwCapabilities() override { calls.push_back("bridgingHwCapabilities"); }
  void onHwEpochStatus() override { calls.push_back("hwEpochStatus"); }
  void onNextHopManager() override { calls.push_back("nextHopManager"); }
  void onMlagMirrorGroup() override { calls.push_back("mlagMirrorGroup"); }
  void onVlanIntfDeferredQueue(U32 i) override {
    calls.push_back("vlanIntfDeferredQueue " + std::to_string(i));
  }
  void onConfig() override { calls.push_back("config"); }
  void onIntfNameToPortEventCount(const IntfId& i) override {
    calls.push_back("intfNameToPortEventCount " + i.name());
  }
  void onPortEventInterval() override { calls.push_back("portEventInterval"); }
  void onLinkInterruptStormCauseStatus() override {
    calls.push_back("linkInterruptStormCauseStatus");
  }
  void onZeroReferences() override { calls.push_back("zeroReferences"); }
};

// A notifiee of the agent-common base class only.
class BaseLog : public Sable::SableCommonSmData::NotifieeConst {
 public:
  Calls calls;
  void onOperationalMode() override { calls.push_back("operationalMode"); }
  void onIntf(const IntfId& i) override { calls.push_back("intf " + i.name()); }
};

struct Observed {
  Kiln::Ptr<BrevantCommonSmData> state = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<StateLog> log = new StateLog;
  Observed() { log->notifierIs(state); }
};

// For the tests that create the next-hop manager, which programs the chip at
// once: a fresh simulated chip, a manual clock, and the activity lock held as
// on the agent's thread.
class BrevantCommonSmDataWithChip : public testing::Test {
 protected:
  void SetUp() override {
    FmSim::reset();
    Kiln::ActivityManager::instance().clockIs(new Kiln::ManualClock(0));
    activity_.take();
    o_.emplace();
  }
  void TearDown() override {
    // The state and its manager go while the lock is still held.
    o_.reset();
    activity_.release();
    EXPECT_EQ(FmSim::lockViolations(), 0u);
  }

  Observed& o() { return *o_; }

 private:
  NextHopTest::HeldActivityLock activity_;
  std::optional<Observed> o_;
};

const std::string reinstantiationText(const std::string& newVersion,
                                      const std::string& currentVersion) {
  return "Reinstantiating the pointer interface where constructor parameter attribute "
         "_switchVersion has a different value of " +
         newVersion + " than the current value of " + currentVersion + " not allowed";
}

// --- The type record

TEST(BrevantCommonSmData, OwnAttributesTakeIndexes386To431AfterTheBases) {
  const std::vector<std::string> names = {"switchInfo",
                                          "linecardEpochName",
                                          "intfNameToFocalPointPortMap",
                                          "focalPointPortToIntfNameMap",
                                          "loopbackPortId",
                                          "loopbackPortVlan",
                                          "ebiPortId",
                                          "numLags",
                                          "lagIndex",
                                          "lagIndexToLagName",
                                          "peerChipDynamicTrigId",
                                          "peerDynamicTrigId",
                                          "peerStaticTrigId",
                                          "dropMacTrigId",
                                          "veloMirrorGroup",
                                          "cpuMacAddress",
                                          "purgeRequestsToSw",
                                          "pendingLagDelete",
                                          "freeExternalLAGIndexMetadata",
                                          "freeExternalLAGIndex",
                                          "flowcontrolMode",
                                          "timerWheel",
                                          "bridgingConfig",
                                          "bridgingHwCapabilities",
                                          "hwEpochStatus",
                                          "pdpModeEnabled",
                                          "nextHopManager",
                                          "latestTimestamp",
                                          "ingressTimestampUserRequestor",
                                          "ingressTimestampPtpRequestor",
                                          "mcIndexRestrictedFlood",
                                          "mcIndexRestrictedFloodCpu",
                                          "mlagMirrorGroup",
                                          "mlagMirrorGroupRsvd",
                                          "vlanIntfDeferredQueueMetadata",
                                          "vlanIntfDeferredQueue",
                                          "physicalMirrorDest",
                                          "tapAggMode",
                                          "l2Mtu",
                                          "config",
                                          "trafficSteeringMacAclMatchIp",
                                          "intfNameToPortEventCount",
                                          "maxPortEventCount",
                                          "portEventInterval",
                                          "linkInterruptStormCauseStatus",
                                          "programDefaultEPQPolicy"};
  const Kiln::TypeRecord& r = BrevantCommonSmData::kilnType();
  EXPECT_EQ(r.name(), "Brevant::BrevantCommonSmData");
  EXPECT_EQ(r.kind(), Kiln::TypeKind::entity);
  EXPECT_EQ(r.base(), &Sable::SableCommonSmData::kilnType());
  ASSERT_EQ(r.ownAttributes().size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(r.ownAttributes()[i].name, names[i]);
    EXPECT_EQ(r.ownAttributes()[i].index, 386 + i);
  }
  // Every attribute: the entity's five, the agent-common 258..295, then these.
  const std::vector<const Kiln::AttributeRecord*> all = r.attributes();
  ASSERT_EQ(all.size(), 5 + 38 + names.size());
  EXPECT_EQ(all[0]->name, "name");
  EXPECT_EQ(all[5]->index, 258u);
  EXPECT_EQ(all[5 + 37]->index, 295u);
  EXPECT_EQ(all[5 + 38]->index, 386u);
  EXPECT_EQ(r.attribute(431)->name, "programDefaultEPQPolicy");
}

TEST(BrevantCommonSmData, AttributeKindsAreAsDeclared) {
  const Kiln::TypeRecord& r = BrevantCommonSmData::kilnType();
  using K = Kiln::AttributeKind;
  EXPECT_EQ(r.attribute("switchInfo")->kind, K::collection);
  EXPECT_EQ(r.attribute("switchInfo")->keyTypeName, "U8");
  EXPECT_EQ(r.attribute("lagIndexToLagName")->keyTypeName, "LagIndex");
  EXPECT_EQ(r.attribute("numLags")->typeName, "S16");
  EXPECT_EQ(r.attribute("freeExternalLAGIndex")->kind, K::queue);
  EXPECT_EQ(r.attribute("vlanIntfDeferredQueueMetadata")->kind, K::queueMetadata);
  EXPECT_EQ(r.attribute("flowcontrolMode")->kind, K::scalar);
  EXPECT_EQ(r.attribute("timerWheel")->kind, K::reference);
  EXPECT_EQ(r.attribute("bridgingConfig")->typeName, "const Bridging::Config");
  EXPECT_EQ(r.attribute("hwEpochStatus")->typeName, "const HwEpoch::Status");
  EXPECT_EQ(r.attribute("config")->typeName, "const Hardware::Brevant::Config");
  EXPECT_EQ(r.attribute("pdpModeEnabled")->kind, K::recordOnly);
  EXPECT_EQ(r.attribute("pdpModeEnabled")->index, 411u);
  EXPECT_EQ(r.attribute("nextHopManager")->kind, K::singleton);
  EXPECT_EQ(r.attribute("portEventInterval")->typeName, "Kiln::Seconds");
}

// pdpModeEnabled is listed in the record only: no storage and no accessor.
template <class T>
concept HasPdpModeAccessor = requires(T& t) {
  t.pdpModeEnabled();
};
static_assert(!HasPdpModeAccessor<BrevantCommonSmData>);

TEST(BrevantCommonSmData, PdpModeEnabledCannotBeReadOrWritten) {
  Kiln::Ptr<BrevantCommonSmData> s = Brevant::brevantCommonSmDataFactory("agent");
  EXPECT_THROW(s->fwkType().get(*s, "pdpModeEnabled"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(s->fwkType().set(*s, 411, "True"), Kiln::OperationNotSupportedException);
}

// --- Construction and defaults

TEST(BrevantCommonSmData, FreshEntityReadsTheDeclaredDefaults) {
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  EXPECT_EQ(s->veloMirrorGroup(), 4);
  EXPECT_EQ(s->mlagMirrorGroup(), 255);
  EXPECT_EQ(s->maxPortEventCount(), 128);
  EXPECT_EQ(s->portEventInterval(), 60.0);
  EXPECT_EQ(s->flowcontrolMode(), BrevantCommonSmData::none);
  EXPECT_EQ(s->cpuMacAddress(), EthAddr());
  EXPECT_EQ(s->numLags(), 0);
  EXPECT_EQ(s->linecardEpochName(), "");
  EXPECT_EQ(s->nextHopManager(), nullptr);
}

TEST(BrevantCommonSmData, ReflectiveInterfaceReadsEveryAttributeAtItsDefault) {
  Kiln::Ptr<BrevantCommonSmData> s = Brevant::brevantCommonSmDataFactory("agent");
  StateTest::DefaultTexts defaults =
      StateTest::sableCommonSmDataDefaults("agent", "Brevant::BrevantCommonSmData");
  defaults.insert(
      {{"linecardEpochName", "''"},
       {"loopbackPortId", "0"},
       {"ebiPortId", "0"},
       {"numLags", "0"},
       {"peerChipDynamicTrigId", "0"},
       {"peerDynamicTrigId", "0"},
       {"peerStaticTrigId", "0"},
       {"dropMacTrigId", "0"},
       {"veloMirrorGroup", "4"},
       {"cpuMacAddress", "Value('Nimbet::EthAddr', ** {'word0': 0, 'word1': 0, 'word2': 0})"},
       {"freeExternalLAGIndexMetadata", StateTest::emptyQueueMetadata},
       {"flowcontrolMode", "none"},
       {"timerWheel", "None"},
       {"bridgingConfig", "None"},
       {"bridgingHwCapabilities", "None"},
       {"hwEpochStatus", "None"},
       {"nextHopManager", "None"},
       {"ingressTimestampUserRequestor", "False"},
       {"ingressTimestampPtpRequestor", "False"},
       {"mcIndexRestrictedFlood", "0"},
       {"mcIndexRestrictedFloodCpu", "0"},
       {"mlagMirrorGroup", "255"},
       {"mlagMirrorGroupRsvd", "False"},
       {"vlanIntfDeferredQueueMetadata", StateTest::emptyQueueMetadata},
       {"tapAggMode", "False"},
       {"config", "None"},
       {"trafficSteeringMacAclMatchIp", "False"},
       {"maxPortEventCount", "128"},
       {"portEventInterval", "60.0"},
       {"linkInterruptStormCauseStatus", "None"},
       {"programDefaultEPQPolicy", "False"}});
  StateTest::expectDeclaredDefaults(*s, defaults);
}

TEST(BrevantCommonSmData, CollectionsStartEmptyWithInitialBucketParameterFour) {
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  const std::vector<U8> log2Buckets = {s->switchInfo().log2Buckets(),
                                       s->intfNameToFocalPointPortMap().log2Buckets(),
                                       s->focalPointPortToIntfNameMap().log2Buckets(),
                                       s->loopbackPortVlan().log2Buckets(),
                                       s->lagIndex().log2Buckets(),
                                       s->lagIndexToLagName().log2Buckets(),
                                       s->purgeRequestsToSw().log2Buckets(),
                                       s->pendingLagDelete().log2Buckets(),
                                       s->latestTimestamp().log2Buckets(),
                                       s->physicalMirrorDest().log2Buckets(),
                                       s->l2Mtu().log2Buckets(),
                                       s->intfNameToPortEventCount().log2Buckets()};
  EXPECT_EQ(log2Buckets, std::vector<U8>(12, 4));
  EXPECT_TRUE(s->switchInfo().empty());
  EXPECT_TRUE(s->l2Mtu().empty());
}

TEST(BrevantCommonSmData, QueuesStartEmptyAtIndexZero) {
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  EXPECT_TRUE(s->freeExternalLAGIndex().empty());
  EXPECT_TRUE(s->vlanIntfDeferredQueue().empty());
  EXPECT_EQ(s->freeExternalLAGIndexMetadata(), (Kiln::LinkQueueMetadata{0, 0}));
  EXPECT_EQ(s->vlanIntfDeferredQueueMetadata(), (Kiln::LinkQueueMetadata{0, 0}));
}

TEST(BrevantCommonSmData, EachCreationByNameMakesANewEntity) {
  Kiln::Ptr<BrevantCommonSmData> a = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<BrevantCommonSmData> b = Brevant::brevantCommonSmDataFactory("agent");
  EXPECT_FALSE(a == b);
  EXPECT_EQ(b->name(), "agent");
  Kiln::Ptr<Kiln::PtrInterface> c = BrevantCommonSmData::kilnType().construct({"'other'"});
  ASSERT_TRUE(c);
  EXPECT_EQ(c->fwkType().name(), "Brevant::BrevantCommonSmData");
  EXPECT_EQ(c->fwkType().get(*c, "name"), "'other'");
  EXPECT_EQ(c->fwkType().get(*c, "veloMirrorGroup"), "4");
}

// --- Scalars

TEST(BrevantCommonSmData, SettingADefaultOnAFreshEntityNotifiesNobody) {
  Observed o;
  o.state->mlagMirrorGroupIs(255);
  o.state->veloMirrorGroupIs(4);
  o.state->flowcontrolModeIs(BrevantCommonSmData::none);
  o.state->cpuMacAddressIs(EthAddr());
  o.state->portEventIntervalIs(60.0);
  o.state->linecardEpochNameIs("");
  EXPECT_TRUE(o.log->calls.empty());
}

TEST(BrevantCommonSmData, ScalarSettersStoreAndNotifyOnlyOnChange) {
  Observed o;
  o.state->mlagMirrorGroupIs(7);
  o.state->mlagMirrorGroupIs(7);
  o.state->flowcontrolModeIs(BrevantCommonSmData::pfc);
  o.state->flowcontrolModeIs(BrevantCommonSmData::pfc);
  o.state->cpuMacAddressIs(EthAddr(0x001c, 0x7301, 0x0203));
  o.state->cpuMacAddressIs(EthAddr(0x001c, 0x7301, 0x0203));
  o.state->portEventIntervalIs(30.5);
  o.state->portEventIntervalIs(30.5);
  o.state->linecardEpochNameIs("epoch1");
  EXPECT_EQ(o.state->mlagMirrorGroup(), 7);
  EXPECT_EQ(o.state->flowcontrolMode(), BrevantCommonSmData::pfc);
  EXPECT_EQ(o.state->cpuMacAddress().stringValue(), "00:1c:73:01:02:03");
  EXPECT_EQ(o.state->portEventInterval(), 30.5);
  EXPECT_EQ(o.log->calls, (Calls{"mlagMirrorGroup", "flowcontrolMode", "cpuMacAddress",
                                 "portEventInterval", "linecardEpochName"}));
}

TEST(BrevantCommonSmData, NumLagsIsSignedSixteenBits) {
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  static_assert(std::is_same_v<decltype(s->numLags()), S16>);
  s->numLagsIs(-2);
  EXPECT_EQ(s->fwkType().get(*s, "numLags"), "-2");
  s->fwkType().set(*s, "numLags", "32767");
  EXPECT_EQ(s->numLags(), 32767);
  EXPECT_THROW(s->fwkType().set(*s, "numLags", "32768"), Kiln::DeserializationException);
}

// --- Keyed collections

TEST(BrevantCommonSmData, CollectionSetterTwiceNotifiesOnce) {
  Observed o;
  o.state->intfNameToFocalPointPortMapIs(IntfId("Ethernet1"), SwitchPort(0, 5));
  o.state->intfNameToFocalPointPortMapIs(IntfId("Ethernet1"), SwitchPort(0, 5));
  o.state->intfNameToFocalPointPortMapIs(IntfId("Ethernet1"), SwitchPort(0, 6));
  EXPECT_EQ(o.state->intfNameToFocalPointPortMap(IntfId("Ethernet1")), SwitchPort(0, 6));
  EXPECT_EQ(o.log->calls, (Calls{"intfNameToFocalPointPortMap Ethernet1",
                                 "intfNameToFocalPointPortMap Ethernet1"}));
}

TEST(BrevantCommonSmData, DeletingAnAbsentKeyReturnsTheDefaultAndNotifiesNobody) {
  Observed o;
  EXPECT_EQ(o.state->intfNameToFocalPointPortMapDel(IntfId("Ethernet9")), SwitchPort());
  EXPECT_EQ(o.state->focalPointPortToIntfNameMapDel(SwitchPort(1, 1)), IntfId());
  EXPECT_EQ(o.state->l2MtuDel(IntfId("Ethernet9")), 0u);
  EXPECT_TRUE(o.log->calls.empty());
  o.state->intfNameToFocalPointPortMapIs(IntfId("Ethernet1"), SwitchPort(0, 5));
  EXPECT_EQ(o.state->intfNameToFocalPointPortMapDel(IntfId("Ethernet1")), SwitchPort(0, 5));
  EXPECT_EQ(o.log->calls, (Calls{"intfNameToFocalPointPortMap Ethernet1",
                                 "intfNameToFocalPointPortMap Ethernet1"}));
}

TEST(BrevantCommonSmData, PortKeysThatShareABucketAreKeptApart) {
  Observed o;
  o.state->focalPointPortToIntfNameMapIs(SwitchPort(1, 2), IntfId("Ethernet12"));
  o.state->focalPointPortToIntfNameMapIs(SwitchPort(2, 1), IntfId("Ethernet21"));
  o.state->focalPointPortToIntfNameMapIs(SwitchPort(3, 0), IntfId("Ethernet30"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMap(SwitchPort(1, 2)), IntfId("Ethernet12"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMap(SwitchPort(2, 1)), IntfId("Ethernet21"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMap(SwitchPort(3, 0)), IntfId("Ethernet30"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMapDel(SwitchPort(2, 1)), IntfId("Ethernet21"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMap(SwitchPort(1, 2)), IntfId("Ethernet12"));
  EXPECT_EQ(o.state->focalPointPortToIntfNameMap(SwitchPort(2, 1)), IntfId());
  EXPECT_EQ(o.log->calls,
            (Calls{"focalPointPortToIntfNameMap 1.2", "focalPointPortToIntfNameMap 2.1",
                   "focalPointPortToIntfNameMap 3.0", "focalPointPortToIntfNameMap 2.1"}));
}

TEST(BrevantCommonSmData, LagIndexMapsKeyByInterfaceAndByIndex) {
  Observed o;
  o.state->lagIndexIs(IntfId("Port-Channel1"), LagIndex(3));
  o.state->lagIndexToLagNameIs(LagIndex(3), IntfId("Port-Channel1"));
  o.state->lagIndexToLagNameIs(LagIndex(LagIndex::invalidLag), IntfId("Port-Channel9"));
  EXPECT_EQ(o.state->lagIndex(IntfId("Port-Channel1")), LagIndex(3));
  EXPECT_EQ(o.state->lagIndex(IntfId("Port-Channel2")), LagIndex());
  EXPECT_EQ(o.state->lagIndexToLagName(LagIndex(-1)), IntfId("Port-Channel9"));
  const Kiln::TypeRecord& r = o.state->fwkType();
  EXPECT_EQ(r.members(*o.state, "lagIndex"),
            (std::vector<Kiln::MemberText>{{"'Port-Channel1'", "3"}}));
  EXPECT_EQ(o.log->calls,
            (Calls{"lagIndex Port-Channel1", "lagIndexToLagName 3", "lagIndexToLagName -1"}));
}

TEST(BrevantCommonSmData, SetsOfBoolKeepMembersByPresence) {
  Observed o;
  o.state->loopbackPortVlanIs(100, true);
  o.state->purgeRequestsToSwIs(1, true);
  o.state->physicalMirrorDestIs(IntfId("Ethernet5"), true);
  EXPECT_TRUE(o.state->loopbackPortVlan(100));
  EXPECT_FALSE(o.state->loopbackPortVlan(101));
  EXPECT_EQ(o.state->purgeRequestsToSw().members(), 1u);
  EXPECT_TRUE(o.state->physicalMirrorDestDel(IntfId("Ethernet5")));
  EXPECT_FALSE(o.state->physicalMirrorDestDel(IntfId("Ethernet5")));
  o.state->pendingLagDeleteIs(2, 9);
  o.state->latestTimestampIs(IntfId("Ethernet5"), 1234567890123ull);
  EXPECT_EQ(o.state->pendingLagDelete(2), 9);
  EXPECT_EQ(o.state->latestTimestamp(IntfId("Ethernet5")), 1234567890123ull);
}

TEST(BrevantCommonSmData, DeleteAllNotifiesOncePerMember) {
  Observed o;
  o.state->lagIndexIs(IntfId("Port-Channel1"), LagIndex(1));
  o.state->lagIndexIs(IntfId("Port-Channel2"), LagIndex(2));
  o.log->calls.clear();
  o.state->lagIndexDelAll();
  EXPECT_TRUE(o.state->lagIndex().empty());
  std::sort(o.log->calls.begin(), o.log->calls.end());
  EXPECT_EQ(o.log->calls, (Calls{"lagIndex Port-Channel1", "lagIndex Port-Channel2"}));
}

TEST(BrevantCommonSmData, PortEventCounterWithANanTimestampIsNeverTheSameValue) {
  Observed o;
  const PortEventCounter counted(100.0, 2);
  o.state->intfNameToPortEventCountIs(IntfId("Ethernet1"), counted);
  o.state->intfNameToPortEventCountIs(IntfId("Ethernet1"), counted);
  const PortEventCounter unknown(std::nan(""), 2);
  o.state->intfNameToPortEventCountIs(IntfId("Ethernet1"), unknown);
  o.state->intfNameToPortEventCountIs(IntfId("Ethernet1"), unknown);
  EXPECT_EQ(o.log->calls, Calls(3, "intfNameToPortEventCount Ethernet1"));
  EXPECT_TRUE(std::isnan(o.state->intfNameToPortEventCount(IntfId("Ethernet1")).timestamp()));
}

// --- Switch information

TEST(BrevantCommonSmData, SwitchInfoIsTwiceYieldsOneEntityAndNotifiesOnce) {
  Observed o;
  Kiln::Ptr<SwitchInfo> first = o.state->switchInfoIs(0, 1);
  Kiln::Ptr<SwitchInfo> second = o.state->switchInfoIs(0, 1);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->sw(), 0);
  EXPECT_EQ(first->switchVersion(), 1);
  EXPECT_EQ(o.state->switchInfo(0), first);
  EXPECT_EQ(o.log->calls, (Calls{"switchInfo 0"}));
}

TEST(BrevantCommonSmData, SwitchInfoWithAnotherVersionThrowsAndKeepsTheFirst) {
  Observed o;
  Kiln::Ptr<SwitchInfo> first = o.state->switchInfoIs(0, 1);
  try {
    o.state->switchInfoIs(0, 2);
    FAIL() << "no exception";
  } catch (const Kiln::NameInUseException& e) {
    EXPECT_EQ(std::string(e.what()), reinstantiationText("2", "1"));
  }
  EXPECT_EQ(o.state->switchInfo(0), first);
  EXPECT_EQ(o.state->switchInfo(0)->switchVersion(), 1);
  EXPECT_EQ(o.log->calls, (Calls{"switchInfo 0"}));
}

TEST(BrevantCommonSmData, ReinstantiatingChipThreeWithAnotherVersionLeavesItInPlace) {
  Observed o;
  Kiln::Ptr<SwitchInfo> three = o.state->switchInfoIs(3, 1);
  three->switchNameIs("chip3");
  EXPECT_THROW(o.state->switchInfoIs(3, 2), Kiln::NameInUseException);
  EXPECT_EQ(o.state->switchInfo(3), three);
  EXPECT_EQ(o.state->switchInfo(3)->switchName(), "chip3");
  EXPECT_EQ(o.state->switchInfo().members(), 1u);
}

TEST(BrevantCommonSmData, SwitchInfoDelDropsTheCollectionsReference) {
  Observed o;
  Kiln::Ptr<SwitchInfo> info = o.state->switchInfoIs(2, 1);
  EXPECT_EQ(info->references(), 2u);
  EXPECT_EQ(o.state->switchInfoDel(2), info);
  EXPECT_EQ(info->references(), 1u);
  EXPECT_EQ(o.state->switchInfoDel(2), nullptr);
  EXPECT_EQ(o.state->switchInfo(2), nullptr);
  EXPECT_EQ(o.log->calls, (Calls{"switchInfo 2", "switchInfo 2"}));
}

TEST(BrevantCommonSmData, SwitchInfoIsReachedThroughTheReflectiveInterface) {
  Observed o;
  o.state->switchInfoIs(1, 3);
  const Kiln::TypeRecord& r = o.state->fwkType();
  EXPECT_EQ(r.members(*o.state, "switchInfo"),
            (std::vector<Kiln::MemberText>{{"1", "Ref('Brevant::SwitchInfo')"}}));
  Kiln::Ptr<Kiln::PtrInterface> info = r.child(*o.state, "switchInfo", "1");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->fwkType().get(*info, "switchVersion"), "3");
  EXPECT_EQ(r.child(*o.state, "switchInfo", "2"), nullptr);
}

// --- Queues

TEST(BrevantCommonSmData, DequeueOfAnEmptyQueueReturnsTheDefaultAndNotifiesNobody) {
  Observed o;
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 0u);
  EXPECT_EQ(o.state->vlanIntfDeferredQueueDeq(), IntfId());
  EXPECT_TRUE(o.log->calls.empty());
}

TEST(BrevantCommonSmData, FreeLagIndexesAreHandedOutInArrivalOrder) {
  Observed o;
  for (U32 lag : {40u, 41u, 42u}) o.state->freeExternalLAGIndexEnq(lag);
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 40u);
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 41u);
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 42u);
  // Emptied: the index sequence goes on, nothing is reused.
  EXPECT_EQ(o.state->freeExternalLAGIndexEnq(40), 3u);
  EXPECT_EQ(o.state->freeExternalLAGIndexMetadata(), (Kiln::LinkQueueMetadata{3, 4}));
  EXPECT_EQ(o.log->calls,
            (Calls{"freeExternalLAGIndex 0", "freeExternalLAGIndex 1", "freeExternalLAGIndex 2",
                   "freeExternalLAGIndex 0", "freeExternalLAGIndex 1", "freeExternalLAGIndex 2",
                   "freeExternalLAGIndex 3"}));
}

TEST(BrevantCommonSmData, DeferredVlanInterfacesKeepTheirArrivalOrder) {
  Observed o;
  o.state->vlanIntfDeferredQueueEnq(IntfId("Vlan10"));
  o.state->vlanIntfDeferredQueueEnq(IntfId("Vlan5"));
  o.state->vlanIntfDeferredQueueIs(7, IntfId("Vlan7"));
  std::vector<std::string> order;
  for (const auto& m : o.state->vlanIntfDeferredQueue()) order.push_back(m.value().name());
  EXPECT_EQ(order, (std::vector<std::string>{"Vlan10", "Vlan5", "Vlan7"}));
  EXPECT_EQ(o.state->vlanIntfDeferredQueue(1), IntfId("Vlan5"));
  EXPECT_EQ(o.state->vlanIntfDeferredQueueDel(1), IntfId("Vlan5"));
  EXPECT_EQ(o.state->vlanIntfDeferredQueueDeq(), IntfId("Vlan10"));
  EXPECT_EQ(o.log->calls,
            (Calls{"vlanIntfDeferredQueue 0", "vlanIntfDeferredQueue 1", "vlanIntfDeferredQueue 7",
                   "vlanIntfDeferredQueue 1", "vlanIntfDeferredQueue 0"}));
}

TEST(BrevantCommonSmData, EnqueueIntoAFullIndexSpaceThrows) {
  Observed o;
  o.state->freeExternalLAGIndexIs(5, 50);
  o.state->freeExternalLAGIndexMetadataIs({5, 4});
  o.log->calls.clear();
  try {
    o.state->freeExternalLAGIndexEnq(60);
    FAIL() << "no exception";
  } catch (const Kiln::RangeException& e) {
    EXPECT_EQ(std::string(e.what()), "linkqueue index space full");
  }
  EXPECT_EQ(o.state->freeExternalLAGIndex().members(), 1u);
  EXPECT_TRUE(o.log->calls.empty());
}

TEST(BrevantCommonSmData, LagIndexesPlacedAtBothEndsOfTheIndexSpaceLeaveNoRoomToEnqueue) {
  Observed o;
  o.state->freeExternalLAGIndexIs(0, 1);
  o.state->freeExternalLAGIndexIs(0xFFFFFFFEu, 2);
  EXPECT_EQ(o.state->freeExternalLAGIndexMetadata(), (Kiln::LinkQueueMetadata{0, 0xFFFFFFFFu}));
  o.log->calls.clear();
  for (U32 lag : {3u, 4u}) {
    try {
      o.state->freeExternalLAGIndexEnq(lag);
      FAIL() << "no exception";
    } catch (const Kiln::RangeException& e) {
      EXPECT_EQ(std::string(e.what()), "linkqueue index space full");
    }
  }
  EXPECT_TRUE(o.log->calls.empty());
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 1u);
  EXPECT_EQ(o.state->freeExternalLAGIndexDeq(), 2u);
}

TEST(BrevantCommonSmData, QueueMetadataSetterAlwaysNotifies) {
  Observed o;
  o.state->freeExternalLAGIndexMetadataIs({0, 0});
  o.state->freeExternalLAGIndexMetadataIs({0, 0});
  EXPECT_EQ(o.log->calls, (Calls{"freeExternalLAGIndexMetadata", "freeExternalLAGIndexMetadata"}));
}

// --- References

TEST(BrevantCommonSmData, ReferencesNotifyOnlyWhenThePointerDiffers) {
  Observed o;
  Kiln::Ptr<Gantry::TimerWheel> wheel = Gantry::timerWheelFactory("wheel");
  Kiln::Ptr<Gantry::TimerWheel> sameName = Gantry::timerWheelFactory("wheel");
  o.state->timerWheelIs(wheel);
  o.state->timerWheelIs(wheel);
  o.state->timerWheelIs(sameName);
  Kiln::Ptr<const Bridging::Config> config = Bridging::configFactory("bridging");
  o.state->bridgingConfigIs(config);
  o.state->bridgingConfigIs(config);
  o.state->bridgingHwCapabilitiesIs(Bridging::hwCapabilitiesFactory("caps"));
  o.state->hwEpochStatusIs(HwEpoch::statusFactory("epoch"));
  o.state->configIs(Hardware::Brevant::configFactory("hw"));
  o.state->linkInterruptStormCauseStatusIs(Errdisable::causeStatusFactory("storm"));
  o.state->linkInterruptStormCauseStatusIs(nullptr);
  EXPECT_EQ(o.state->timerWheel(), sameName);
  EXPECT_EQ(o.state->bridgingConfig(), config);
  EXPECT_EQ(o.state->fwkType().get(*o.state, "bridgingConfig"),
            "Ref('Bridging::Config', 'bridging')");
  EXPECT_EQ(o.log->calls,
            (Calls{"timerWheel", "timerWheel", "bridgingConfig", "bridgingHwCapabilities",
                   "hwEpochStatus", "config", "linkInterruptStormCauseStatus",
                   "linkInterruptStormCauseStatus"}));
}

// --- Notifiees

TEST(BrevantCommonSmData, DerivedNotifieeHearsTheBasesAttributesToo) {
  Observed o;
  o.state->operationalModeIs(3);
  o.state->veloMirrorGroupIs(5);
  EXPECT_EQ(o.log->calls, (Calls{"operationalMode", "veloMirrorGroup"}));
}

TEST(BrevantCommonSmData, BaseNotifieeHearsOnlyTheBasesAttributes) {
  Observed o;
  Kiln::Ptr<BaseLog> base = new BaseLog;
  base->notifierIs(o.state);
  ASSERT_EQ(base->notifier(), o.state);
  o.state->operationalModeIs(3);
  o.state->intfIs(IntfId("Ethernet2"), true);
  o.state->switchInfoIs(0, 1);
  o.state->veloMirrorGroupIs(5);
  o.state->l2MtuIs(IntfId("Ethernet2"), 9214);
  o.state->freeExternalLAGIndexEnq(1);
  EXPECT_EQ(base->calls, (Calls{"operationalMode", "intf Ethernet2"}));
  EXPECT_EQ(o.log->calls, (Calls{"operationalMode", "switchInfo 0", "veloMirrorGroup",
                                 "freeExternalLAGIndex 0"}));
}

TEST(BrevantCommonSmData, DerivedNotifieeDoesNotAttachToABaseEntity) {
  Kiln::Ptr<Sable::SableCommonSmData> base = Sable::sableCommonSmDataFactory("sable");
  Kiln::Ptr<StateLog> log = new StateLog;
  static_cast<Sable::SableCommonSmData::NotifieeConst&>(*log).notifierIs(base);
  EXPECT_EQ(log->notifier(), nullptr);
  base->operationalModeIs(3);
  EXPECT_TRUE(log->calls.empty());
  EXPECT_TRUE(base->notifieeList()->empty());
}

TEST(BrevantCommonSmData, NotifieeClassDerivesFromTheBasesNotifiee) {
  static_assert(std::is_base_of_v<Sable::SableCommonSmData::NotifieeConst,
                                  BrevantCommonSmData::NotifieeConst>);
  static_assert(std::is_base_of_v<Sable::SableCommonSmData, BrevantCommonSmData>);
  // Handlers are virtual and empty by default: a notifiee overriding nothing
  // hears every change without effect.
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<BrevantCommonSmData::NotifieeConst> silent = new BrevantCommonSmData::NotifieeConst;
  silent->notifierIs(s);
  s->operationalModeIs(1);
  s->switchInfoIs(0, 1);
  EXPECT_EQ(s->notifieeList()->size(), 1u);
}

// --- The next-hop manager

TEST(BrevantCommonSmData, AbsentManagerIsNotAValidPointer) {
  Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  try {
    Kiln::validPtr(s->nextHopManager());
    FAIL() << "no exception";
  } catch (const Kiln::RangeException& e) {
    EXPECT_EQ(std::string(e.what()), "null ValidPtr");
  }
}

TEST_F(BrevantCommonSmDataWithChip, NextHopManagerIsTwiceConstructsOneManager) {
  const Kiln::AllocationRecord& managers = Kiln::allocationRecord<NextHopManager>();
  const U64 before = managers.live();
  Kiln::Ptr<NextHopManager> first = o().state->nextHopManagerIs();
  Kiln::Ptr<NextHopManager> second = o().state->nextHopManagerIs();
  ASSERT_TRUE(first);
  EXPECT_EQ(first, second);
  EXPECT_EQ(o().state->nextHopManager(), first);
  EXPECT_EQ(managers.live(), before + 1);
  EXPECT_TRUE(first->initialized());
  EXPECT_EQ(o().log->calls, (Calls{"nextHopManager"}));
  EXPECT_EQ(o().state->fwkType().get(*o().state, "nextHopManager"),
            "Ref('Brevant::NextHopManager')");
  EXPECT_EQ(o().state->fwkType().child(*o().state, "nextHopManager"), first);
}

TEST_F(BrevantCommonSmDataWithChip, NewNextHopManagerOnlyConstructs) {
  Kiln::Ptr<NextHopManager> made = o().state->newNextHopManager();
  ASSERT_TRUE(made);
  EXPECT_EQ(o().state->nextHopManager(), nullptr);
  EXPECT_TRUE(o().log->calls.empty());
  EXPECT_EQ(made->references(), 1u);
}

TEST_F(BrevantCommonSmDataWithChip, NextHopManagerDelClearsAndNotifiesOnlyWhenThereIsOne) {
  o().state->nextHopManagerDel();
  EXPECT_TRUE(o().log->calls.empty());
  Kiln::Ptr<NextHopManager> held = o().state->nextHopManagerIs();
  EXPECT_EQ(held->references(), 2u);
  o().state->nextHopManagerDel();
  EXPECT_EQ(o().state->nextHopManager(), nullptr);
  EXPECT_EQ(held->references(), 1u);
  o().state->nextHopManagerDel();
  EXPECT_EQ(o().log->calls, (Calls{"nextHopManager", "nextHopManager"}));
}

// --- Destruction

TEST_F(BrevantCommonSmDataWithChip, DestructionTellsARegisteredNotifieeAboutChipsThenTheManager) {
  Kiln::Ptr<StateLog> log = new StateLog;
  Kiln::Ptr<SwitchInfo> survivor;
  {
    Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
    s->switchInfoIs(0, 1);
    s->switchInfoIs(1, 1);
    survivor = s->switchInfoIs(2, 1);
    s->nextHopManagerIs();
    s->l2MtuIs(IntfId("Ethernet1"), 1500);
    s->lagIndexIs(IntfId("Port-Channel1"), LagIndex(1));
    s->freeExternalLAGIndexEnq(7);
    // Listed without holding a reference, so that the entity goes when the
    // agent drops it while the notifiee is still registered.
    s->notifieeList()->notifieeIs(log.ptr());
  }
  ASSERT_EQ(log->calls.size(), 5u);
  EXPECT_EQ(log->calls[0], "zeroReferences");
  // Chips in the collection's order, whatever it is; then the manager; the
  // other collections and queues are released without a word.
  std::vector<std::string> chips(log->calls.begin() + 1, log->calls.begin() + 4);
  std::sort(chips.begin(), chips.end());
  EXPECT_EQ(chips, (Calls{"switchInfo 0", "switchInfo 1", "switchInfo 2"}));
  EXPECT_EQ(log->calls[4], "nextHopManager");
  // The collection's reference went with the entity; this test's is the last.
  EXPECT_EQ(survivor->references(), 1u);
}

TEST(BrevantCommonSmData, DestructionReleasesEverythingItHeld) {
  const Kiln::AllocationRecord& infos = Kiln::allocationRecord<SwitchInfo>();
  const Kiln::AllocationRecord& members = Kiln::allocationRecord<BrevantCommonSmData::KilnL2Mtu>();
  const U64 liveInfos = infos.live();
  const U64 liveMembers = members.live();
  Kiln::Ptr<Gantry::TimerWheel> wheel = Gantry::timerWheelFactory("wheel");
  {
    Kiln::Ptr<BrevantCommonSmData> s = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
    s->switchInfoIs(0, 1);
    s->l2MtuIs(IntfId("Ethernet1"), 1500);
    s->timerWheelIs(wheel);
    EXPECT_EQ(wheel->references(), 2u);
  }
  EXPECT_EQ(infos.live(), liveInfos);
  EXPECT_EQ(members.live(), liveMembers);
  EXPECT_EQ(wheel->references(), 1u);
}

}  // namespace
