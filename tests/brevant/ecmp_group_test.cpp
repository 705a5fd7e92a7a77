// ECMP groups: ids, creation with roll-back, placement, removal with the
// region boundaries, deletion, lookup and features.
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::RoutingMulticastFeature;
using Brevant::RoutingNatFeature;
using Brevant::RoutingUnicastFeature;
using Brevant::RoutingVxlanFeature;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(NextHopTableTest, IdsAreIssuedLowestFirstAndReused) {
  EXPECT_EQ(create(2), 3);
  EXPECT_EQ(create(2), 4);
  EXPECT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_TRUE(m().freeGroupIds(3));
  EXPECT_EQ(create(2), 3);
  EXPECT_EQ(create(2), 5);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, GenECMPGroupIdTakesTheLowestTrueMember) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  m().freeGroupIdsIs(3, false);
  EXPECT_EQ(m().genECMPGroupId(), 4);
  EXPECT_FALSE(m().freeGroupIds(4));
  EXPECT_THAT(capture.texts(8), ElementsAre("genECMPGroupId"));
  EXPECT_THAT(capture.texts(9), ElementsAre("Issuing ECMP group ID 4"));
  // The false member stays where it is.
  EXPECT_EQ(m().freeGroupIds().members(), 65530u);
}

TEST_F(NextHopTableTest, EmptyIdPoolGivesTheInvalidId) {
  m().setSimulationMode(true, 4);  // the pool holds 3 alone
  EXPECT_EQ(create(1), 3);
  EXPECT_EQ(m().genECMPGroupId(), 65535);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(create(1), -2);
  EXPECT_THAT(capture.texts(1), ElementsAre("Can not allocate ECMPGroupId"));
  EXPECT_FALSE(m().ecmpGroups(65535));
}

TEST_F(NextHopTableTest, CreatePlacesAndWritesANarrowGroup) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  U64Collection data = words({0x10, 0x20, 0x30, 0x40});
  U64Collection wideData = words({0xA, 0xB});
  ASSERT_EQ(m().createECMPGroup(7, false, true, 4, data, wideData, RoutingNatFeature, true), 3);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  ASSERT_TRUE(g);
  EXPECT_FALSE(g->wide());
  EXPECT_TRUE(g->fixedSize());
  EXPECT_TRUE(g->mcast());
  EXPECT_EQ(g->size(), 4);
  EXPECT_EQ(g->hwStartIndex(), 3);
  EXPECT_TRUE(g->featuresSupported(RoutingNatFeature));
  EXPECT_EQ(g->featuresSupported().members(), 1u);
  // Narrow entries keep no wide word.
  EXPECT_EQ(g->nextHops(0), NextHopEntry(3, false, 0x10, 0));
  EXPECT_EQ(g->nextHops(3), NextHopEntry(6, false, 0x40, 0));
  EXPECT_EQ(m().hwStartToGroupId(3), 3);
  for (U16 i = 3; i <= 6; ++i) EXPECT_TRUE(m().allocatedEntries(i));
  EXPECT_EQ(FmSim::tableWord(3), 0x10u);
  EXPECT_EQ(FmSim::tableWord(6), 0x40u);
  EXPECT_EQ(FmSim::tableWord(7), 0u);
  // One chip write for the whole block.
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.back().function, FmSim::Function::writeUINT64Mult);
  EXPECT_EQ(calls.back().count, 4);
  EXPECT_EQ(calls.back().address, 0x160006u);
  expectTableMatchesRecords(m());
  EXPECT_EQ(capture.texts(8).front(),
            "createECMPGroup: Creating a fixed sized ECMP group with 4 narrow entries for "
            "featureRoutingNatFeature");
  EXPECT_TRUE(capture.contains(8, "addECMPGroupToTable groupId: 3"));
  EXPECT_THAT(capture.texts(9),
              ElementsAre("Issuing ECMP group ID 3", "nhData 10nhWideData a",
                          "nhData 20nhWideData b", "nhData 30nhWideData 0", "nhData 40nhWideData 0",
                          "Successfully created ECMP group 3"));
  EXPECT_THAT(capture.texts(3), ElementsAre("ECMP group 3 of length 4 written to 3"));
}

TEST_F(NextHopTableTest, WideGroupOfThreeTakesSixEntriesFromAnEvenStart) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  U64Collection data = words({0x1, 0x2, 0x3});
  U64Collection wideData = words({0x91, 0x92, 0x93});
  ASSERT_EQ(m().createECMPGroup(0, true, false, 3, data, wideData, RoutingVxlanFeature, false), 3);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  const U16 start = g->hwStartIndex();
  EXPECT_EQ(start, 65272);
  EXPECT_EQ(start % 2, 0);
  EXPECT_EQ(g->nextHops(1), NextHopEntry(start + 2, true, 0x2, 0x92));
  EXPECT_EQ(FmSim::tableWord(start + 2), 0x2u);
  EXPECT_EQ(FmSim::tableWord(start + 3), 0x92u);
  EXPECT_EQ(FmSim::tableWord(start + 5), 0x93u);
  for (U32 i = start; i < start + 6u; ++i) EXPECT_TRUE(m().allocatedEntries(U16(i)));
  EXPECT_EQ(m().lastWideIndex(), start);
  expectTableMatchesRecords(m());
  EXPECT_EQ(capture.texts(8).front(),
            "createECMPGroup: Creating a variable sized ECMP group with 3 wide entries for "
            "featureRoutingVxlanFeature");
  EXPECT_TRUE(capture.contains(3, "ECMP group 3 of length 6 written to 65272"));
}

TEST_F(NextHopTableTest, MissingPositionsAreWrittenAsZero) {
  U64Collection data;
  data.dataIs(1, 0x77);
  data.dataIs(9, 0x99);  // beyond the size: ignored
  ASSERT_EQ(
      m().createECMPGroup(0, false, true, 3, data, U64Collection(), RoutingUnicastFeature, false),
      3);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  EXPECT_EQ(g->nextHops(0), NextHopEntry(3, false, 0, 0));
  EXPECT_EQ(g->nextHops(1), NextHopEntry(4, false, 0x77, 0));
  EXPECT_EQ(g->nextHops().members(), 3u);
  EXPECT_EQ(FmSim::tableWord(4), 0x77u);
}

TEST_F(NextHopTableTest, SizeOver256IsInvalidAndIssuesNoId) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(create(257), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("ECMP Group size is invalid"));
  EXPECT_TRUE(m().freeGroupIds(3));
  EXPECT_EQ(create(256), 3);
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
  EXPECT_EQ(m().lastNarrowIndex(), 258);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, FixedGroupOfSizeZeroIsInvalid) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().createECMPGroup(0, false, true, 0, U64Collection(), U64Collection(),
                                RoutingUnicastFeature, false),
            -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("ECMP Group size is invalid"));
  EXPECT_EQ(m().ecmpGroups().members(), 2u);
}

TEST_F(NextHopTableTest, VariableGroupOfSizeZeroFindsNoBlockAndIsRolledBack) {
  EXPECT_EQ(m().createECMPGroup(0, false, false, 0, U64Collection(), U64Collection(),
                                RoutingUnicastFeature, false),
            -2);
  EXPECT_FALSE(m().ecmpGroups(3));
  EXPECT_TRUE(m().freeGroupIds(3));
  // A run of length 0 never completes, and the free total is at least 0.
  EXPECT_TRUE(defrag().scheduleDefragment());
}

TEST_F(NextHopTableTest, FailedCreateRollsBackTheGroupAndTheId) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(create(50), 3);  // 3..52; 53..55 free below the swap index
  const std::vector<U32> ids = keysOf(m().freeGroupIds());
  const std::vector<U32> free = keysOf(m().freeEntries());
  const U16 narrowTop = m().lastNarrowIndex();
  const U16 wideBottom = m().lastWideIndex();
  FmSim::callsDelAll();
  Flashlog::processHandle().clear();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(create(4), -2);
  EXPECT_EQ(keysOf(m().freeGroupIds()), ids);
  EXPECT_TRUE(m().freeGroupIds(4));
  EXPECT_FALSE(m().ecmpGroups(4));
  EXPECT_EQ(m().ecmpGroups().members(), 3u);
  EXPECT_EQ(keysOf(m().freeEntries()), free);
  EXPECT_EQ(m().allocatedEntries().members(), 50u);
  EXPECT_EQ(m().lastNarrowIndex(), narrowTop);
  EXPECT_EQ(m().lastWideIndex(), wideBottom);
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_TRUE(
      capture.contains(1, "Something went wrong when creating ECMP group 4; deleting group"));
  const std::vector<Flashlog::Record> records = Flashlog::records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].format(), "Something went wrong when creating ECMP group %d");
  EXPECT_EQ(records[0].intArg(0), 4);
  // The id is recorded as a 16-bit argument.
  EXPECT_STREQ(records[0].site->argFormat, "h");
  EXPECT_EQ(records[0].text(), "Something went wrong when creating ECMP group 4");
  // 11 entries are free in all (3 below the swap area, 8 in it).
  EXPECT_TRUE(defrag().scheduleDefragment());
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, UninitialisedTableRefusesGroupOperations) {
  ASSERT_EQ(create(2), 3);
  m().initializedIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(create(2), -7);
  EXPECT_EQ(m().addECMPGroupToTable(3), -7);
  EXPECT_EQ(m().removeECMPGroupFromTable(3), -7);
  EXPECT_EQ(m().deleteECMPGroup(0, 3), -7);
  EXPECT_EQ(m().addFeatureToGroup(3, RoutingNatFeature), -7);
  EXPECT_THAT(capture.texts(1),
              ElementsAre("NexthopTable not initialized", "NexthopTable is not initialized",
                          "NexthopTable is not initialized"));
  // Nothing changed: the group is still placed, its id still issued.
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
  EXPECT_FALSE(m().ecmpGroups(3)->featuresSupported(RoutingNatFeature));
  EXPECT_FALSE(m().freeGroupIds(3));
  EXPECT_TRUE(m().freeGroupIds(4));
  EXPECT_TRUE(m().allocatedEntries(3));
}

TEST_F(NextHopTableTest, UnknownGroupsAreRefused) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().addECMPGroupToTable(40), -1);
  EXPECT_EQ(m().removeECMPGroupFromTable(40), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Invalid Group Id", "Invalid Group Id"));
  capture.clear();
  EXPECT_EQ(m().deleteECMPGroup(0, 40), -1);
  EXPECT_EQ(m().addFeatureToGroup(40, RoutingNatFeature), -1);
  EXPECT_TRUE(capture.texts(1).empty());
}

TEST_F(NextHopTableTest, DeleteFreesTheBlockAndRecyclesTheId) {
  ASSERT_EQ(create(4), 3);
  ASSERT_EQ(create(4), 4);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_THAT(capture.texts(3),
              ElementsAre("Deleting ECMP group 3", "ECMP group 3 removed from next hop table"));
  EXPECT_TRUE(capture.contains(8, "removeECMPGroupFromTablegroupId: 3"));
  EXPECT_FALSE(m().ecmpGroups(3));
  EXPECT_TRUE(m().freeGroupIds(3));
  EXPECT_EQ(m().hwStartToGroupId().members(), 1u);
  for (U16 i = 3; i <= 6; ++i) {
    EXPECT_FALSE(m().allocatedEntries(i));
    EXPECT_TRUE(m().freeEntries(i));
  }
  // The chip keeps the old words.
  EXPECT_EQ(FmSim::tableWord(3), 0x1000u);
  // Not at the top of the narrow region: the boundary stays.
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, RemovingLeavesTheRecordForReplacement) {
  ASSERT_EQ(create(3), 3);
  ASSERT_EQ(create(2), 4);
  ASSERT_EQ(m().removeECMPGroupFromTable(3), 0);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  EXPECT_EQ(g->hwStartIndex(), 3);
  EXPECT_EQ(g->nextHops().members(), 3u);
  EXPECT_EQ(m().hwStartToGroupId(3), 0);
  // Placing it again finds another block and rewrites every index.
  ASSERT_EQ(m().allocateBlock(3, 3), 0);
  ASSERT_EQ(m().addECMPGroupToTable(3), 0);
  EXPECT_EQ(g->hwStartIndex(), 8);
  EXPECT_EQ(g->nextHops(2).hwIndex(), 10);
  EXPECT_EQ(m().hwStartToGroupId(8), 3);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, PlacingAPlacedGroupAgainTakesASecondBlock) {
  ASSERT_EQ(create(2), 3);
  ASSERT_EQ(m().addECMPGroupToTable(3), 0);
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 5);
  EXPECT_TRUE(m().allocatedEntries(3));
  EXPECT_EQ(m().hwStartToGroupId(3), 3);
  EXPECT_EQ(m().hwStartToGroupId(5), 3);
}

TEST_F(NextHopTableTest, RemovingTheTopNarrowGroupPullsTheBoundaryDown) {
  ASSERT_EQ(create(4), 3);  // 3..6
  ASSERT_EQ(create(4), 4);  // 7..10
  ASSERT_EQ(create(4), 5);  // 11..14
  ASSERT_EQ(m().lastNarrowIndex(), 14);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  ASSERT_EQ(m().deleteECMPGroup(0, 5), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  EXPECT_THAT(capture.texts(4), ElementsAre(" updated Narrow index : 10"));
  capture.clear();
  // Below the top: unchanged.
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  EXPECT_TRUE(capture.texts(4).empty());
  // The scan passes over the hole that group 3 left, down to the new group
  // at 3.
  ASSERT_EQ(create(1), 3);  // at 3
  ASSERT_EQ(m().deleteECMPGroup(0, 4), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 3);
}

TEST_F(NextHopTableTest, RemovingTheOnlyNarrowGroupWrapsToTheHighestAllocatedEntry) {
  ASSERT_EQ(create(4), 3);
  ASSERT_EQ(create(2, true), 4);  // 65274..65277
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 65277);
  EXPECT_THAT(capture.texts(4), ElementsAre(" updated Narrow index : 65277"));
  // The wide search now finds nothing: it starts at or below the narrow top.
  EXPECT_EQ(m().findAvailableWideBlock(2), -2);
  // Index 0, when allocated, stops the scan before it wraps.
  ASSERT_EQ(m().allocateBlock(0, 1), 0);
  m().lastNarrowIndexIs(6);
  ASSERT_EQ(create(4), 3);
  ASSERT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 0);
}

TEST_F(NextHopTableTest, RemovingTheOnlyGroupOfTheTableComesBackToTwo) {
  ASSERT_EQ(create(4), 3);
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 2);
  EXPECT_EQ(create(4), 3);
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
}

TEST_F(NextHopTableTest, RemovingTheLowestWideGroupPullsTheBoundaryUp) {
  ASSERT_EQ(create(2, true), 3);  // 65274..65277
  ASSERT_EQ(create(3, true), 4);  // 65268..65273
  ASSERT_EQ(create(1, true), 5);  // 65266..65267
  ASSERT_EQ(m().lastWideIndex(), 65266);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  ASSERT_EQ(m().deleteECMPGroup(0, 5), 0);
  EXPECT_EQ(m().lastWideIndex(), 65268);
  EXPECT_THAT(capture.texts(4), ElementsAre(" updated Wide index : 65268"));
  // Not the lowest: unchanged.
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_EQ(m().lastWideIndex(), 65268);
  // The last one: the scan ends on the swap index itself.
  ASSERT_EQ(m().deleteECMPGroup(0, 4), 0);
  EXPECT_EQ(m().lastWideIndex(), 65278);
  expectTableMatchesRecords(m());
}

TEST_F(NextHopTableTest, ReservedGroupsAreNotProtectedFromDeletion) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().deleteECMPGroup(0, 1), 0);
  EXPECT_FALSE(m().ecmpGroups(1));
  EXPECT_TRUE(m().freeGroupIds(1));
  // Its entry is refused by the allocator and stays out of the free pool.
  EXPECT_TRUE(capture.contains(1, "Index is out of range"));
  EXPECT_FALSE(m().freeEntries(2));
  EXPECT_EQ(m().genECMPGroupId(), 1);
}

TEST_F(NextHopTableTest, GetECMPGroupReturnsThePlaceholderForUnknownIds) {
  ASSERT_EQ(create(2), 3);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().getECMPGroup(3), m().ecmpGroups(3));
  Kiln::Ptr<ECMPGroup> missing = m().getECMPGroup(5);
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->groupId(), 65535);
  EXPECT_EQ(m().ecmpGroups(65535), missing);
  EXPECT_EQ(missing->hwStartIndex(), 0);
  EXPECT_EQ(missing->size(), 0);
  EXPECT_THAT(capture.texts(8), ElementsAre("getECMPGroupgroupId: 3", "getECMPGroupgroupId: 5"));
  EXPECT_THAT(capture.texts(1), ElementsAre("Failed to get ECMP Group for :5"));
  // The placeholder is kept and reused.
  EXPECT_EQ(m().getECMPGroup(6), missing);
  EXPECT_EQ(m().ecmpGroups().members(), 4u);
}

TEST_F(NextHopTableTest, GetECMPGroupOnAnUninitialisedTableReturnsThePlaceholder) {
  ASSERT_EQ(create(2), 3);
  m().initializedIs(false);
  EXPECT_EQ(m().getECMPGroup(3)->groupId(), 65535);
}

TEST_F(NextHopTableTest, AddFeatureToGroupOnlyAddsFeatures) {
  ASSERT_EQ(create(2), 3);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().addFeatureToGroup(3, RoutingMulticastFeature), 0);
  EXPECT_EQ(m().addFeatureToGroup(3, RoutingMulticastFeature), 0);
  EXPECT_THAT(capture.texts(9),
              ElementsAre("Adding a feature to ECMP group 3", "Adding a feature to ECMP group 3"));
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  EXPECT_TRUE(g->featuresSupported(RoutingUnicastFeature));
  EXPECT_TRUE(g->featuresSupported(RoutingMulticastFeature));
  EXPECT_EQ(g->featuresSupported().members(), 2u);
  EXPECT_EQ(m().ecmpGroups().members(), 3u);
}

TEST_F(NextHopTableTest, GroupOperationsAreReachableByName) {
  const Kiln::TypeRecord& record = m().fwkType();
  EXPECT_THAT(
      record.operation("createECMPGroup")->parameterNames,
      ElementsAre("sw", "wide", "fixedSize", "size", "data", "wideData", "feature", "mcast"));
  EXPECT_EQ(record.invoke(
                m(), "createECMPGroup",
                {"0", "False", "True", "2", "{0: 5, 1: 6}", "{}", "RoutingNatFeature", "False"}),
            "3");
  EXPECT_EQ(FmSim::tableWord(4), 6u);
  EXPECT_EQ(record.invoke(m(), "addFeatureToGroup", {"3", "RoutingVxlanFeature"}), "0");
  EXPECT_EQ(record.invoke(m(), "getECMPGroup", {"3"}), "Ref('Brevant::ECMPGroup')");
  EXPECT_EQ(record.invoke(m(), "genECMPGroupId", {}), "4");
  EXPECT_EQ(record.invoke(m(), "removeECMPGroupFromTable", {"3"}), "0");
  EXPECT_EQ(record.invoke(m(), "addECMPGroupToTable", {"3"}), "0");
  EXPECT_EQ(record.invoke(m(), "deleteECMPGroup", {"0", "3"}), "0");
  // 0, 1 and the placeholder that getECMPGroup made.
  EXPECT_EQ(record.members(m(), "ecmpGroups").size(), 3u);
  EXPECT_NE(record.child(m(), "ecmpGroups", "0"), nullptr);
}

TEST_F(NextHopTableDeathTest, RemovingAWideGroupBelowAnOddAllocatedEntryStopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        U64Collection none;
        m->createECMPGroup(0, true, true, 1, none, none, Brevant::RoutingUnicastFeature, false);
        m->createECMPGroup(0, true, true, 1, none, none, Brevant::RoutingUnicastFeature, false);
        m->freeBlock(65276, 1);  // leaves 65277 allocated, alone
        m->deleteECMPGroup(0, 4);
      },
      HasSubstr("Assertion `index % 2 == 0' failed."));
}

TEST_F(NextHopTableDeathTest, WideGroupOverHalfTheLargestBlockStopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        U64Collection none;
        m->createECMPGroup(0, true, true, 129, none, none, Brevant::RoutingUnicastFeature, false);
      },
      HasSubstr("Assertion `length <= 256' failed."));
}

}  // namespace
