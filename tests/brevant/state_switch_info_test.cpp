// The per-chip switch information: its attributes at 130 to 160, defaults,
// the signed and unsigned slice fields, the port-list collections, the
// slice counter and the free-index queues.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "../sable/ReflectiveDefaults.h"
#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/PortList.h"
#include "Brevant/SwitchInfo.h"

using Brevant::BrevantCommonSmData;
using Brevant::PortList;
using Brevant::SwitchInfo;
using Nimbet::IntfId;
using Calls = std::vector<std::string>;

namespace {

// Records one line per handler call.
class InfoLog : public SwitchInfo::NotifieeConst {
 public:
  Calls calls;
  void onSwitchName() override { calls.push_back("switchName"); }
  void onFreeMulticastIndex(U32 i) override {
    calls.push_back("freeMulticastIndex " + std::to_string(i));
  }
  void onFreeMcastDestTableIndex(U32 i) override {
    calls.push_back("freeMcastDestTableIndex " + std::to_string(i));
  }
  void onIntfNameToLogicalPortMap(const IntfId& i) override {
    calls.push_back("intfNameToLogicalPortMap " + i.name());
  }
  void onLogicalPortToIntfNameMap(U32 p) override {
    calls.push_back("logicalPortToIntfNameMap " + std::to_string(p));
  }
  void onLagToLogicalPortList(const IntfId& i) override {
    calls.push_back("lagToLogicalPortList " + i.name());
  }
  void onPeerPortList(U8 k) override { calls.push_back("peerPortList " + std::to_string(k)); }
  void onPeerLagPort(U8 k) override { calls.push_back("peerLagPort " + std::to_string(k)); }
  void onMinSlice() override { calls.push_back("minSlice"); }
  void onMaxSlice() override { calls.push_back("maxSlice"); }
  void onNumUcRoutingSlicesRequest() override { calls.push_back("numUcRoutingSlicesRequest"); }
  void onSliceFreed() override { calls.push_back("sliceFreed"); }
  void onV4UcastUseBst() override { calls.push_back("v4UcastUseBst"); }
  void onZeroReferences() override { calls.push_back("zeroReferences"); }
};

// The switch information of chip 1 (version 2) in an agent's state, observed.
struct Observed {
  Kiln::Ptr<BrevantCommonSmData> state = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<SwitchInfo> info = state->switchInfoIs(1, 2);
  Kiln::Ptr<InfoLog> log = new InfoLog;
  Observed() { log->notifierIs(info); }
};

// A port list holding the given ports, each flagged true.
PortList ports(std::initializer_list<U32> members) {
  PortList l;
  for (U32 p : members) l.portIs(p, true);
  return l;
}

TEST(SwitchInfo, AttributesTakeIndexes130To160InDeclarationOrder) {
  const std::vector<std::string> names = {"sw",
                                          "switchVersion",
                                          "switchName",
                                          "baseLag",
                                          "baseMulticastGroup",
                                          "freeMulticastIndexMetadata",
                                          "freeMulticastIndex",
                                          "freeMcastDestTableIndexMetadata",
                                          "freeMcastDestTableIndex",
                                          "intfNameToLogicalPortMap",
                                          "logicalPortToIntfNameMap",
                                          "lagToLogicalPortList",
                                          "peerPortList",
                                          "peerLagPort",
                                          "minSlice",
                                          "maxSlice",
                                          "minActionSlice",
                                          "minUcRoutingSlice",
                                          "minIp6UcRoutingSlice",
                                          "minMcRoutingSlice",
                                          "minAclSlice",
                                          "numAclSlices",
                                          "numAclSlicesRequest",
                                          "numAclSlicesInUse",
                                          "numUcRoutingSlices",
                                          "numUcRoutingSlicesRequest",
                                          "numIp6UcRoutingSlices",
                                          "numMcRoutingSlices",
                                          "sliceFreed",
                                          "allocationStatus",
                                          "v4UcastUseBst"};
  const Kiln::TypeRecord& r = SwitchInfo::kilnType();
  EXPECT_EQ(r.name(), "Brevant::SwitchInfo");
  EXPECT_EQ(r.kind(), Kiln::TypeKind::pointerInterface);
  EXPECT_EQ(r.base(), &Kiln::ptrInterfaceType());
  ASSERT_EQ(r.attributes().size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(r.ownAttributes()[i].name, names[i]);
    EXPECT_EQ(r.ownAttributes()[i].index, 130 + i);
  }
  using K = Kiln::AttributeKind;
  EXPECT_EQ(r.attribute("sw")->kind, K::key);
  EXPECT_EQ(r.attribute("switchVersion")->kind, K::constructorParameter);
  EXPECT_EQ(r.attribute("freeMcastDestTableIndex")->typeName, "U16");
  EXPECT_EQ(r.attribute("peerPortList")->typeName, "PortList");
  EXPECT_EQ(r.attribute("sliceFreed")->kind, K::counter);
}

TEST(SwitchInfo, SliceFieldsAreSignedEightBitsExceptTheRoutingRequest) {
  Observed o;
  SwitchInfo& i = *o.info;
  static_assert(std::is_same_v<decltype(i.minSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.maxSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.minActionSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.minUcRoutingSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.minIp6UcRoutingSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.minMcRoutingSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.minAclSlice()), S8>);
  static_assert(std::is_same_v<decltype(i.numAclSlices()), S8>);
  static_assert(std::is_same_v<decltype(i.numAclSlicesRequest()), S8>);
  static_assert(std::is_same_v<decltype(i.numAclSlicesInUse()), S8>);
  static_assert(std::is_same_v<decltype(i.numUcRoutingSlices()), S8>);
  static_assert(std::is_same_v<decltype(i.numUcRoutingSlicesRequest()), U32>);
  static_assert(std::is_same_v<decltype(i.numIp6UcRoutingSlices()), S8>);
  static_assert(std::is_same_v<decltype(i.numMcRoutingSlices()), S8>);
  static_assert(std::is_same_v<decltype(i.sliceFreed()), U32>);
  i.minSliceIs(-1);
  i.numUcRoutingSlicesRequestIs(300);
  const Kiln::TypeRecord& r = i.fwkType();
  EXPECT_EQ(r.get(i, "minSlice"), "-1");
  EXPECT_EQ(r.get(i, "numUcRoutingSlicesRequest"), "300");
  EXPECT_THROW(r.set(i, "maxSlice", "128"), Kiln::DeserializationException);
  r.set(i, "maxSlice", "-128");
  EXPECT_EQ(i.maxSlice(), -128);
}

TEST(SwitchInfo, FreshInfoReadsItsDefaults) {
  Observed o;
  EXPECT_EQ(o.info->maxSlice(), 23);
  EXPECT_TRUE(o.info->v4UcastUseBst());
  EXPECT_EQ(o.info->minSlice(), 0);
  EXPECT_FALSE(o.info->allocationStatus());
  EXPECT_EQ(o.info->switchName(), "");
  EXPECT_EQ(o.info->sliceFreed(), 0u);
}

TEST(SwitchInfo, ReflectiveInterfaceReadsEveryAttributeAtItsDefault) {
  Observed o;
  StateTest::expectDeclaredDefaults(
      *o.info, {{"sw", "1"},
                {"switchVersion", "2"},
                {"switchName", "''"},
                {"baseLag", "0"},
                {"baseMulticastGroup", "0"},
                {"freeMulticastIndexMetadata", StateTest::emptyQueueMetadata},
                {"freeMcastDestTableIndexMetadata", StateTest::emptyQueueMetadata},
                {"minSlice", "0"},
                {"maxSlice", "23"},
                {"minActionSlice", "0"},
                {"minUcRoutingSlice", "0"},
                {"minIp6UcRoutingSlice", "0"},
                {"minMcRoutingSlice", "0"},
                {"minAclSlice", "0"},
                {"numAclSlices", "0"},
                {"numAclSlicesRequest", "0"},
                {"numAclSlicesInUse", "0"},
                {"numUcRoutingSlices", "0"},
                {"numUcRoutingSlicesRequest", "0"},
                {"numIp6UcRoutingSlices", "0"},
                {"numMcRoutingSlices", "0"},
                {"sliceFreed", "0"},
                {"allocationStatus", "False"},
                {"v4UcastUseBst", "True"}});
}

TEST(SwitchInfo, ChipNumberAndVersionAreFixed) {
  Observed o;
  EXPECT_EQ(o.info->sw(), 1);
  EXPECT_EQ(o.info->switchVersion(), 2);
  EXPECT_THROW(o.info->fwkType().set(*o.info, "sw", "3"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(o.info->fwkType().set(*o.info, "switchVersion", "3"),
               Kiln::OperationNotSupportedException);
}

TEST(SwitchInfo, ScalarSettersNotifyOnlyOnChange) {
  Observed o;
  o.info->maxSliceIs(23);
  o.info->v4UcastUseBstIs(true);
  o.info->switchNameIs("");
  EXPECT_TRUE(o.log->calls.empty());
  o.info->maxSliceIs(20);
  o.info->v4UcastUseBstIs(false);
  o.info->switchNameIs("fm0");
  o.info->switchNameIs("fm0");
  o.info->numUcRoutingSlicesRequestIs(1000);
  EXPECT_EQ(o.log->calls,
            (Calls{"maxSlice", "v4UcastUseBst", "switchName", "numUcRoutingSlicesRequest"}));
}

TEST(SwitchInfo, SliceFreedIncOfZeroNotifiesNobody) {
  Observed o;
  EXPECT_EQ(o.info->sliceFreedInc(0), 0u);
  EXPECT_TRUE(o.log->calls.empty());
  EXPECT_EQ(o.info->sliceFreedInc(2), 2u);
  EXPECT_EQ(o.info->sliceFreedInc(3), 5u);
  EXPECT_EQ(o.info->sliceFreed(), 5u);
  EXPECT_EQ(o.log->calls, (Calls{"sliceFreed", "sliceFreed"}));
}

TEST(SwitchInfo, SliceFreedIncWrapsAndANoOpSumNotifiesNobody) {
  Observed o;
  o.info->sliceFreedIs(0xfffffffe);
  o.log->calls.clear();
  EXPECT_EQ(o.info->sliceFreedInc(3), 1u);
  // Adding 2^32 in unsigned arithmetic leaves the sum unchanged.
  o.info->sliceFreedInc(0xffffffff);
  o.info->sliceFreedInc(1);
  EXPECT_EQ(o.info->sliceFreed(), 1u);
  EXPECT_EQ(o.log->calls, (Calls{"sliceFreed", "sliceFreed", "sliceFreed"}));
}

TEST(SwitchInfo, PortListReadIsACopyOrAnEmptyList) {
  Observed o;
  EXPECT_EQ(o.info->peerPortList(4), PortList());
  EXPECT_EQ(o.info->lagToLogicalPortList(IntfId("Port-Channel1")), PortList());
  o.info->peerPortListIs(4, ports({10, 11}));
  PortList copy = o.info->peerPortList(4);
  copy.portIs(12, true);
  copy.portDel(10);
  EXPECT_EQ(o.info->peerPortList(4), ports({10, 11}));
  EXPECT_TRUE(o.info->peerPortList(4).port(10));
  EXPECT_FALSE(o.info->peerPortList(4).port(12));
}

TEST(SwitchInfo, PortListSetterWithAnEqualListNotifiesNobody) {
  Observed o;
  o.info->peerPortListIs(4, ports({10, 11}));
  o.info->peerPortListIs(4, ports({11, 10}));
  o.info->peerPortListIs(4, ports({10, 11, 12}));
  o.info->lagToLogicalPortListIs(IntfId("Port-Channel1"), ports({7}));
  o.info->lagToLogicalPortListIs(IntfId("Port-Channel1"), ports({7}));
  PortList flagged = ports({7});
  flagged.portIs(7, false);
  o.info->lagToLogicalPortListIs(IntfId("Port-Channel1"), flagged);
  EXPECT_EQ(o.info->peerPortList(4), ports({10, 11, 12}));
  EXPECT_EQ(o.log->calls,
            (Calls{"peerPortList 4", "peerPortList 4", "lagToLogicalPortList Port-Channel1",
                   "lagToLogicalPortList Port-Channel1"}));
}

TEST(SwitchInfo, PortListSetterReplacesTheWholeList) {
  Observed o;
  o.info->peerPortListIs(4, ports({10, 11}));
  o.info->peerPortListIs(4, ports({12}));
  EXPECT_EQ(o.info->peerPortList(4).port().members(), 1u);
  EXPECT_FALSE(o.info->peerPortList(4).port(10));
  EXPECT_EQ(o.info->peerPortListDel(4), ports({12}));
  EXPECT_EQ(o.info->peerPortListDel(4), PortList());
  EXPECT_EQ(o.log->calls, (Calls{"peerPortList 4", "peerPortList 4", "peerPortList 4"}));
}

TEST(SwitchInfo, PortListsCrossTheReflectiveInterfaceInTheCollectionForm) {
  Observed o;
  const Kiln::TypeRecord& r = o.info->fwkType();
  r.memberIs(*o.info, "peerPortList", "3", "{5: True}");
  EXPECT_EQ(o.info->peerPortList(3), ports({5}));
  EXPECT_EQ(r.members(*o.info, "peerPortList"), (std::vector<Kiln::MemberText>{{"3", "None"}}));
  r.memberDel(*o.info, "peerPortList", "3");
  EXPECT_TRUE(o.info->peerPortList().empty());
}

TEST(SwitchInfo, InterfaceAndLogicalPortMapsAreKeptByTheirWriters) {
  Observed o;
  o.info->intfNameToLogicalPortMapIs(IntfId("Ethernet1"), 20);
  o.info->logicalPortToIntfNameMapIs(20, IntfId("Ethernet1"));
  o.info->peerLagPortIs(1, 900);
  EXPECT_EQ(o.info->logicalPortToIntfNameMap(o.info->intfNameToLogicalPortMap(IntfId("Ethernet1"))),
            IntfId("Ethernet1"));
  EXPECT_EQ(o.info->logicalPortToIntfNameMap(21), IntfId());
  EXPECT_EQ(o.info->peerLagPort(1), 900u);
  EXPECT_EQ(o.log->calls, (Calls{"intfNameToLogicalPortMap Ethernet1",
                                 "logicalPortToIntfNameMap 20", "peerLagPort 1"}));
}

TEST(SwitchInfo, FreeIndexQueuesHandOutInArrivalOrder) {
  Observed o;
  EXPECT_EQ(o.info->freeMcastDestTableIndexDeq(), 0);
  EXPECT_EQ(o.info->freeMulticastIndexDeq(), 0u);
  EXPECT_TRUE(o.log->calls.empty());
  o.info->freeMulticastIndexEnq(4096);
  o.info->freeMulticastIndexEnq(4097);
  o.info->freeMcastDestTableIndexEnq(65535);
  EXPECT_EQ(o.info->freeMulticastIndexDeq(), 4096u);
  EXPECT_EQ(o.info->freeMcastDestTableIndexDeq(), 65535);
  EXPECT_EQ(o.info->freeMulticastIndexDeq(), 4097u);
  EXPECT_EQ(o.info->freeMulticastIndexEnq(1), 2u);
  EXPECT_EQ(o.log->calls,
            (Calls{"freeMulticastIndex 0", "freeMulticastIndex 1", "freeMcastDestTableIndex 0",
                   "freeMulticastIndex 0", "freeMcastDestTableIndex 0", "freeMulticastIndex 1",
                   "freeMulticastIndex 2"}));
}

TEST(SwitchInfo, ZeroReferencesTellsTheNotifiees) {
  Kiln::Ptr<InfoLog> log = new InfoLog;
  {
    Kiln::Ptr<BrevantCommonSmData> state = BrevantCommonSmData::BrevantCommonSmDataIs("agent");
    Kiln::Ptr<SwitchInfo> info = state->switchInfoIs(0, 1);
    info->notifieeList()->notifieeIs(log.ptr());
  }
  EXPECT_EQ(log->calls, (Calls{"zeroReferences"}));
}

}  // namespace
