// The next-hop table's model: construction and initialisation, geometry,
// simulation mode, teardown, the features collection and access by name.
#include "Kiln/Exception.h"
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::NextHopCallback;
using FmSim::Function;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST_F(NextHopTableTest, FreshManagerHasTheFullTable) {
  EXPECT_TRUE(m().initialized());
  EXPECT_FALSE(m().simMode());
  EXPECT_EQ(m().getNextHopTableBound(), 65534);
  EXPECT_EQ(m().getNextHopTableSwapIndex(), 65278);
  EXPECT_EQ(m().lastNarrowIndex(), 2);
  EXPECT_EQ(m().lastWideIndex(), 65278);
  EXPECT_EQ(m().freeEntries().members(), 65531u);
  EXPECT_EQ(keysOf(m().freeEntries()), range(3, 65533));
  EXPECT_EQ(keysOf(m().freeGroupIds()), range(3, 65533));
  EXPECT_FALSE(m().freeGroupIds(2));
  EXPECT_EQ(m().freeGroupIds().members(), 65531u);
  for (const auto& member : m().freeEntries()) ASSERT_TRUE(member.value());
  EXPECT_EQ(m().allocatedEntries().members(), 0u);
  EXPECT_EQ(m().hwStartToGroupId().members(), 0u);
  EXPECT_EQ(m().features().members(), 0u);
  ASSERT_TRUE(m().defragManager());
  EXPECT_EQ(m().defragManager()->nhm(), &m());
}

TEST_F(NextHopTableTest, ReservedGroupsHoldTheGlortsOfTwoLogicalPorts) {
  EXPECT_THAT(keysOf(m().ecmpGroups()), ElementsAre(0, 1));
  Kiln::Ptr<ECMPGroup> g0 = m().ecmpGroups(0);
  Kiln::Ptr<ECMPGroup> g1 = m().ecmpGroups(1);
  EXPECT_FALSE(g0->wide());
  EXPECT_FALSE(g0->mcast());
  EXPECT_TRUE(g0->fixedSize());
  EXPECT_EQ(g0->size(), 1);
  EXPECT_EQ(g0->hwStartIndex(), 1);
  EXPECT_FALSE(g1->wide());
  EXPECT_TRUE(g1->mcast());
  EXPECT_TRUE(g1->fixedSize());
  EXPECT_EQ(g1->size(), 1);
  EXPECT_EQ(g1->hwStartIndex(), 2);
  EXPECT_EQ(FmSim::tableWord(1), FmSim::defaultGlort(65532));
  EXPECT_EQ(FmSim::tableWord(2), FmSim::defaultGlort(65530));
  EXPECT_EQ(FmSim::tableWord(0), 0u);
  // The reserved entries are neither allocated nor found by start index.
  EXPECT_FALSE(m().allocatedEntries(1));
  EXPECT_FALSE(m().allocatedEntries(2));
  EXPECT_EQ(m().hwStartToGroupId(1), 0);
  EXPECT_FALSE(m().freeEntries(0));
}

TEST_F(NextHopTableTest, InitialisationAsksTheChipThenWritesEachReservedEntry) {
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].function, Function::getLogicalPortGlort);
  EXPECT_EQ(calls[0].logicalPort, 65532);
  EXPECT_EQ(calls[1].function, Function::writeUINT64Mult);
  EXPECT_EQ(calls[1].address, 0x160002u);
  EXPECT_EQ(calls[1].count, 1);
  EXPECT_EQ(calls[2].function, Function::getLogicalPortGlort);
  EXPECT_EQ(calls[2].logicalPort, 65530);
  EXPECT_EQ(calls[3].address, 0x160004u);
  for (const FmSim::Call& call : calls) {
    EXPECT_EQ(call.sw, 0);
    EXPECT_FALSE(call.activityLockHeld);
  }
}

TEST_F(NextHopTableTest, ReservedEntriesHoldTheGlortsTheChipAnswers) {
  manager_ = nullptr;
  FmSim::reset();
  FmSim::glortIs(0, 65532, 0xABCD);
  FmSim::glortIs(0, 65530, 0x1234);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  manager_ = new NextHopManager();
  EXPECT_EQ(FmSim::tableWord(1), 0xABCDu);
  EXPECT_EQ(FmSim::tableWord(2), 0x1234u);
  EXPECT_THAT(capture.texts(8), ElementsAre("initHandler",
                                            "writeNextHopInternal Writing 1 next "
                                            "hop entries, starting at 1",
                                            "writeNextHopInternal Writing 1 next hop entries, "
                                            "starting at 2",
                                            "handleDefragInitialized"));
}

TEST_F(NextHopTableTest, GlortFailureThrowsOutOfTheConstructorAndTearsDownWhatWasBuilt) {
  manager_ = nullptr;
  const U64 groups = Kiln::allocationRecord<ECMPGroup>().live();
  const U64 managers = Kiln::allocationRecord<NextHopManager>().live();
  FmSim::reset();
  FmSim::faultIs(Function::getLogicalPortGlort, 5);
  try {
    Kiln::Ptr<NextHopManager> never = new NextHopManager();
    ADD_FAILURE() << "no exception";
  } catch (const FmApi::FmError& error) {
    EXPECT_EQ(error.status, 5);
    EXPECT_STREQ(error.function, "fmGetLogicalPortGlort");
    EXPECT_THAT(error.what(), MatchesRegex("fmGetLogicalPortGlort\\( 0, 65532, 0x[0-9a-f]+ \\): "
                                           "status 5 \\(Unknown status\\)"));
  }
  EXPECT_EQ(Kiln::allocationRecord<ECMPGroup>().live(), groups);
  EXPECT_EQ(Kiln::allocationRecord<NextHopManager>().live(), managers);
  // Nothing was written.
  EXPECT_EQ(FmSim::tableWord(1), 0u);
}

TEST_F(NextHopTableTest, SecondGlortFailureThrowsAfterTheFirstEntryIsWritten) {
  manager_ = nullptr;
  FmSim::reset();
  FmSim::faultIs(Function::getLogicalPortGlort, FmSim::statusFailed, 1);
  try {
    Kiln::Ptr<NextHopManager> never = new NextHopManager();
    ADD_FAILURE() << "no exception";
  } catch (const FmApi::FmError& error) {
    EXPECT_THAT(error.what(), HasSubstr("fmGetLogicalPortGlort( 0, 65530, "));
    EXPECT_THAT(error.what(), HasSubstr("): status 1 (Operation failed)"));
  }
  EXPECT_EQ(FmSim::tableWord(1), FmSim::defaultGlort(65532));
  EXPECT_EQ(FmSim::tableWord(2), 0u);
}

TEST_F(NextHopTableTest, FailedInitialisationLeavesTheTableUninitialised) {
  m().initializedIs(false);
  FmSim::faultIs(Function::getLogicalPortGlort, FmSim::statusFailed);
  EXPECT_THROW(m().initHandler(), FmApi::FmError);
  EXPECT_FALSE(m().initialized());
  // A later successful call finishes the job.
  m().initHandler();
  EXPECT_TRUE(m().initialized());
}

TEST_F(NextHopTableTest, SecondInitialisationResetsTheBoundariesAndReplacesTheDefragmenter) {
  ASSERT_EQ(create(4), 3);
  ASSERT_EQ(create(2, true), 4);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
  EXPECT_EQ(m().lastWideIndex(), 65274);
  Kiln::Ptr<Brevant::DefragManager> before = m().defragManager();
  FmSim::callsDelAll();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  m().initHandler();
  EXPECT_EQ(m().lastNarrowIndex(), 2);
  EXPECT_EQ(m().lastWideIndex(), 65278);
  EXPECT_NE(m().defragManager(), before);
  EXPECT_TRUE(m().initialized());
  // Neither the reserved groups nor the pools are rebuilt.
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_EQ(m().freeEntries().members(), 65531u - 8);
  EXPECT_EQ(m().ecmpGroups().members(), 4u);
  EXPECT_EQ(capture.texts(8).front(), "initHandler");
}

TEST_F(NextHopTableTest, EnteringSimulationModeTrimsThePools) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  m().setSimulationMode(true, 64);
  EXPECT_TRUE(capture.contains(8, "Setting simMode to 1"));
  EXPECT_TRUE(m().simMode());
  EXPECT_EQ(m().simNextHopTableBound(), 64);
  EXPECT_EQ(m().getNextHopTableBound(), 64);
  EXPECT_EQ(m().getNextHopTableSwapIndex(), 56);
  EXPECT_EQ(m().lastWideIndex(), 56);
  EXPECT_EQ(keysOf(m().freeEntries()), range(3, 63));
  EXPECT_EQ(keysOf(m().freeGroupIds()), range(3, 63));
}

TEST_F(NextHopTableTest, LeavingSimulationModeRestoresThePools) {
  m().setSimulationMode(true, 64);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  m().setSimulationMode(false, 64);
  EXPECT_TRUE(capture.contains(8, "Setting simMode to 0"));
  EXPECT_FALSE(m().simMode());
  EXPECT_EQ(keysOf(m().freeEntries()), range(3, 65533));
  EXPECT_EQ(keysOf(m().freeGroupIds()), range(3, 65533));
  EXPECT_EQ(m().lastWideIndex(), 65278);
  EXPECT_EQ(m().getNextHopTableBound(), 65534);
}

TEST_F(NextHopTableTest, NewBoundWithUnchangedModeOnlyChangesTheBound) {
  m().setSimulationMode(true, 64);
  m().setSimulationMode(true, 100);
  EXPECT_EQ(m().getNextHopTableBound(), 100);
  EXPECT_EQ(m().getNextHopTableSwapIndex(), 92);
  EXPECT_EQ(m().lastWideIndex(), 56);
  EXPECT_EQ(keysOf(m().freeEntries()), range(3, 63));
  EXPECT_EQ(keysOf(m().freeGroupIds()), range(3, 63));
}

TEST_F(NextHopTableTest, LeavingSimulationModeReaddsFromTheBoundGivenThen) {
  m().setSimulationMode(true, 64);
  m().setSimulationMode(false, 100);
  std::vector<U32> expected = range(3, 63);
  const std::vector<U32> top = range(100, 65533);
  expected.insert(expected.end(), top.begin(), top.end());
  EXPECT_EQ(keysOf(m().freeEntries()), expected);
  EXPECT_EQ(keysOf(m().freeGroupIds()), expected);
  EXPECT_FALSE(m().freeEntries(64));
  EXPECT_FALSE(m().freeGroupIds(99));
}

TEST_F(NextHopTableTest, SimulationBoundBelowEightWrapsTheSwapIndex) {
  m().setSimulationMode(true, 4);
  EXPECT_EQ(m().getNextHopTableBound(), 4);
  EXPECT_EQ(m().getNextHopTableSwapIndex(), 65532);
  EXPECT_EQ(m().lastWideIndex(), 65532);
  EXPECT_THAT(keysOf(m().freeEntries()), ElementsAre(3));
}

TEST_F(NextHopTableTest, SimulationModeKeepsGroupsAndAllocatedEntries) {
  ASSERT_EQ(create(3), 3);
  m().setSimulationMode(true, 4);
  // Entries 4 and 5 are in use above the bound and stay allocated.
  EXPECT_TRUE(m().allocatedEntries(4));
  EXPECT_TRUE(m().allocatedEntries(5));
  EXPECT_EQ(m().lastNarrowIndex(), 5);
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
  EXPECT_EQ(m().freeEntries().members(), 0u);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, SimModeIsAloneAdjustsThePoolsOnlyOnAChange) {
  m().simNextHopTableBoundIs(32);
  m().simModeIs(false);
  EXPECT_EQ(m().freeEntries().members(), 65531u);
  m().simModeIs(true);
  EXPECT_EQ(keysOf(m().freeEntries()), range(3, 31));
  m().simModeIs(true);
  EXPECT_EQ(m().freeEntries().members(), 29u);
}

TEST_F(NextHopTableTest, HandleSimulationModeWithABoundAtTheTopChangesNoPool) {
  m().simNextHopTableBoundIs(65534);
  m().simModeIs(true);
  EXPECT_EQ(m().freeEntries().members(), 65531u);
  EXPECT_EQ(m().getNextHopTableSwapIndex(), 65526);
  EXPECT_EQ(m().lastWideIndex(), 65526);
  m().handleSimulationMode();
  EXPECT_EQ(m().freeGroupIds().members(), 65531u);
}

TEST_F(NextHopTableTest, DestructionReleasesGroupsDefragmenterAndMembers) {
  manager_ = nullptr;
  const U64 groups = Kiln::allocationRecord<ECMPGroup>().live();
  const U64 defrags = Kiln::allocationRecord<Brevant::DefragManager>().live();
  const U64 schedulers = Kiln::allocationRecord<Brevant::DefragScheduler>().live();
  const U64 free = Kiln::allocationRecord<NextHopManager::KilnFreeEntries>().live();
  const U64 ids = Kiln::allocationRecord<NextHopManager::KilnFreeGroupIds>().live();
  manager_ = new NextHopManager();
  ASSERT_EQ(create(5), 3);
  ASSERT_EQ(create(2, true), 4);
  m().getECMPGroup(77);
  EXPECT_EQ(Kiln::allocationRecord<ECMPGroup>().live(), groups + 5);
  manager_ = nullptr;
  EXPECT_EQ(Kiln::allocationRecord<ECMPGroup>().live(), groups);
  EXPECT_EQ(Kiln::allocationRecord<Brevant::DefragManager>().live(), defrags);
  EXPECT_EQ(Kiln::allocationRecord<Brevant::DefragScheduler>().live(), schedulers);
  EXPECT_EQ(Kiln::allocationRecord<NextHopManager::KilnFreeEntries>().live(), free);
  EXPECT_EQ(Kiln::allocationRecord<NextHopManager::KilnFreeGroupIds>().live(), ids);
}

TEST_F(NextHopTableTest, DestructionDeletesGroupsThatOthersStillHold) {
  ASSERT_EQ(create(2), 3);
  Kiln::Ptr<ECMPGroup> held = m().ecmpGroups(3);
  Kiln::Ptr<Brevant::DefragManager> defragHeld = m().defragManager();
  manager_ = nullptr;
  // Each outlives the manager only through the extra reference.
  EXPECT_EQ(held->references(), 1u);
  EXPECT_EQ(defragHeld->references(), 1u);
  EXPECT_EQ(defragHeld->defragScheduler()->defragManager(), defragHeld.ptr());
}

class Feature : public NextHopCallback {
 public:
  using NextHopCallback::NextHopCallback;
  void updateNextHopAction(U16, U16, U16) override {}
};

TEST_F(NextHopTableTest, FeaturesAreKeyedByTheCallbacksName) {
  Kiln::Ptr<NextHopCallback> a = new Feature("uc", Brevant::RoutingUnicastFeature);
  Kiln::Ptr<NextHopCallback> b = new Feature("uc", Brevant::RoutingNatFeature);
  m().featuresIs(a);
  EXPECT_EQ(m().features("uc"), a);
  m().featuresIs(b);
  EXPECT_EQ(m().features("uc"), b);
  EXPECT_EQ(m().features().members(), 1u);
  EXPECT_EQ(m().featuresDel("uc"), b);
  EXPECT_EQ(m().featuresDel("uc"), nullptr);
  m().newFeatures(a);
  m().featuresDelAll();
  EXPECT_EQ(m().features().members(), 0u);
}

TEST_F(NextHopTableTest, NullFeatureIsRefusedWithTheMutatorsText) {
  try {
    m().featuresIs(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _features parameter to mutator for Brevant::NextHopManager::features "
                 "not allowed\"");
  }
  EXPECT_THROW(m().newFeatures(nullptr), Kiln::RangeException);
  EXPECT_EQ(m().features().members(), 0u);
}

TEST_F(NextHopTableTest, HasNoNotifieesAndItsOwnTypeRecord) {
  EXPECT_EQ(m().notifieeList(), nullptr);
  EXPECT_EQ(m().fwkType().name(), "Brevant::NextHopManager");
  EXPECT_EQ(&m().fwkType(), Kiln::typeRecord("Brevant::NextHopManager"));
  // The generic notify operations exist and do nothing.
  m().freeEntriesNotify(3);
  m().featuresNotify("x");
  m().ecmpGroupsNotify(0);
  EXPECT_EQ(m().freeEntries().members(), 65531u);
}

TEST_F(NextHopTableTest, AttributesAndOperationsAreReachableByName) {
  const Kiln::TypeRecord& record = m().fwkType();
  std::vector<std::string> names;
  for (const auto* a : record.attributes()) names.push_back(a->name);
  EXPECT_THAT(names, ElementsAre("allocatedEntries", "freeEntries", "lastNarrowIndex",
                                 "lastWideIndex", "ecmpGroups", "freeGroupIds", "hwStartToGroupId",
                                 "features", "simNextHopTableBound", "simMode", "defragManager",
                                 "initialized", "hardened"));
  EXPECT_EQ(record.attribute("allocatedEntries")->index, 130u);
  EXPECT_EQ(record.get(m(), "lastNarrowIndex"), "2");
  EXPECT_EQ(record.invoke(m(), "getNextHopTableBound", {}), "65534");
  EXPECT_EQ(record.invoke(m(), "getNextHopTableSwapIndex", {}), "65278");
  const Kiln::OperationRecord* op = record.operation("setSimulationMode");
  ASSERT_NE(op, nullptr);
  EXPECT_THAT(op->parameterNames, ElementsAre("mode", "size"));
  EXPECT_EQ(record.invoke(m(), "setSimulationMode", {"True", "64"}), "");
  EXPECT_EQ(record.get(m(), "simMode"), "True");
  EXPECT_EQ(record.get(m(), "lastWideIndex"), "56");
  EXPECT_EQ(record.members(m(), "freeEntries").size(), 61u);
  record.set(m(), "simMode", "False");
  EXPECT_EQ(m().freeEntries().members(), 65531u);
  EXPECT_EQ(record.get(m(), "defragManager"), "Ref('Brevant::DefragManager')");
  EXPECT_EQ(record.get(m(), "initialized"), "True");
  record.invoke(m(), "handleSimulationMode", {});
  record.invoke(m(), "initHandler", {});
  EXPECT_EQ(m().lastNarrowIndex(), 2);
  EXPECT_THROW(record.invoke(m(), "moveECMPGroupTo", {}), Kiln::OperationNotSupportedException);
}

TEST_F(NextHopTableTest, RelocationAndCompactionAreReachableByName) {
  ASSERT_EQ(create(2), 3);  // 3..4
  ASSERT_EQ(create(2), 4);  // 5..6
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  const Kiln::TypeRecord& record = m().fwkType();
  EXPECT_THAT(record.operation("moveECMPGroup")->parameterNames,
              ElementsAre("groupId", "newBaseIndex", "overlap"));
  EXPECT_EQ(record.invoke(m(), "moveECMPGroup", {"4", "3", "False"}), "0");
  EXPECT_EQ(m().ecmpGroups(4)->hwStartIndex(), 3);
  expectTableMatchesRecords(m());
  const Kiln::TypeRecord& defragRecord = m().defragManager()->fwkType();
  for (const char* pass : {"defragment", "defragNarrowBlock", "defragWideBlock"}) {
    ASSERT_NE(defragRecord.operation(pass), nullptr) << pass;
  }
  // A hole below a group, closed by the narrow pass.
  ASSERT_EQ(create(1), 3);  // at 5
  ASSERT_EQ(m().deleteECMPGroup(0, 4), 0);
  EXPECT_EQ(defragRecord.invoke(*m().defragManager(), "defragment", {}), "");
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, IsConstructedByNameThroughItsTypeRecord) {
  Kiln::Ptr<Kiln::PtrInterface> made = Kiln::typeRecord("Brevant::NextHopManager")->construct({});
  auto* other = dynamic_cast<NextHopManager*>(made.ptr());
  ASSERT_NE(other, nullptr);
  EXPECT_TRUE(other->initialized());
}

}  // namespace
