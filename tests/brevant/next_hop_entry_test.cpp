// Rewriting and reading the next hops of placed groups.
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using testing::ElementsAre;

class NextHopEntryTest : public NextHopTableTest {
 protected:
  // A wide group of three next hops placed at 100 (a simulated table whose
  // swap index is 106); returns its id.
  U16 wideGroupAt100() {
    m().setSimulationMode(true, 114);
    const S32 id = create(3, true, 0x500);
    EXPECT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), 100);
    return U16(id);
  }
};

TEST_F(NextHopEntryTest, WideNextHopIsWrittenAsTwoWordsAndReadBack) {
  const U16 g = wideGroupAt100();
  FmSim::callsDelAll();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  const NextHopEntry e(104, true, 0xAB, 0xCD);
  EXPECT_EQ(m().updateNextHop(g, 2, e), 0);
  EXPECT_EQ(FmSim::tableWord(104), 0xABu);
  EXPECT_EQ(FmSim::tableWord(105), 0xCDu);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].address, 0x1600D0u);
  EXPECT_EQ(calls[0].count, 2);
  EXPECT_EQ(m().ecmpGroups(g)->nextHops(2), e);
  EXPECT_THAT(capture.texts(8), ElementsAre("checkNextHopType",
                                            "writeNextHopInternal Writing 2 next hop entries, "
                                            "starting at 104"));
  EXPECT_THAT(capture.texts(3), ElementsAre("Modifying next hop 2 of ECMP group 3"));
  EXPECT_THAT(capture.texts(2), ElementsAre("write nhData[0]:ab", "write nhData[1]:cd"));
  capture.clear();
  EXPECT_EQ(m().readNextHop(g, 2), e);
  EXPECT_THAT(capture.texts(8), ElementsAre("readNextHopgroupId: 3NexthopId: 2",
                                            "readNextHopInternal Reading 2 next hop entries, "
                                            "starting at 104"));
  EXPECT_THAT(capture.texts(2), ElementsAre("Reading next hop number 2 of group 3 at index 104"));
  expectTableMatchesRecords(m());
}

TEST_F(NextHopEntryTest, NarrowNextHopIsOneWordAndBothDataLinesAreTraced) {
  ASSERT_EQ(create(4), 3);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateNextHop(3, 1, NextHopEntry(0, false, 0x1F, 0x0)), 0);
  EXPECT_EQ(FmSim::tableWord(4), 0x1Fu);
  EXPECT_EQ(FmSim::tableWord(5), 0x1002u);
  EXPECT_THAT(capture.texts(2), ElementsAre("write nhData[0]:1f", "write nhData[1]:0"));
  EXPECT_EQ(m().readNextHop(3, 1), NextHopEntry(4, false, 0x1F, 0));
  expectTableMatchesRecords(m());
}

TEST_F(NextHopEntryTest, CallersHwIndexIsKeptUntilTheGroupIsPlacedAgain) {
  ASSERT_EQ(create(2), 3);
  ASSERT_EQ(m().updateNextHop(3, 0, NextHopEntry(999, false, 0x42, 0)), 0);
  EXPECT_EQ(m().ecmpGroups(3)->nextHops(0).hwIndex(), 999);
  EXPECT_EQ(FmSim::tableWord(3), 0x42u);
  ASSERT_EQ(m().removeECMPGroupFromTable(3), 0);
  ASSERT_EQ(m().addECMPGroupToTable(3), 0);
  EXPECT_EQ(m().ecmpGroups(3)->nextHops(0), NextHopEntry(3, false, 0x42, 0));
}

TEST_F(NextHopEntryTest, PositionAtTheSizeIsRefusedAndNothingIsWritten) {
  ASSERT_EQ(create(4), 3);
  FmSim::callsDelAll();
  EXPECT_EQ(m().updateNextHop(3, 4, NextHopEntry(0, false, 1, 0)), -1);
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_EQ(FmSim::tableWord(7), 0u);
}

TEST_F(NextHopEntryTest, WideEntryOnANarrowGroupIsRefusedAfterTheTypeCheck) {
  ASSERT_EQ(create(4), 3);
  FmSim::callsDelAll();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateNextHop(3, 0, NextHopEntry(0, true, 1, 2)), -3);
  EXPECT_THAT(capture.texts(8), ElementsAre("checkNextHopType"));
  EXPECT_TRUE(capture.texts(3).empty());
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_EQ(m().ecmpGroups(3)->nextHops(0).data(), 0x1000u);
}

TEST_F(NextHopEntryTest, NarrowEntryOnAWideGroupIsRefused) {
  const U16 g = wideGroupAt100();
  EXPECT_EQ(m().updateNextHop(g, 0, NextHopEntry(0, false, 1, 0)), -3);
}

TEST_F(NextHopEntryTest, UnplacedOrHalfPlacedGroupIsRefused) {
  const U16 g = wideGroupAt100();
  ASSERT_EQ(m().freeBlock(103, 1), 0);  // the wide word of position 1
  EXPECT_EQ(m().updateNextHop(g, 1, NextHopEntry(0, true, 1, 2)), -1);
  EXPECT_EQ(m().readNextHop(g, 1), NextHopEntry());
  EXPECT_EQ(m().updateNextHop(g, 0, NextHopEntry(0, true, 1, 2)), 0);
  ASSERT_EQ(m().removeECMPGroupFromTable(g), 0);
  FmSim::callsDelAll();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateNextHop(g, 0, NextHopEntry(0, true, 1, 2)), -1);
  EXPECT_EQ(m().readNextHop(g, 0), NextHopEntry());
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_TRUE(capture.texts(1).empty());
}

TEST_F(NextHopEntryTest, UnknownGroupOrUninitialisedTableIsRefusedSilently) {
  ASSERT_EQ(create(2), 3);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateNextHop(9, 0, NextHopEntry()), -1);
  m().initializedIs(false);
  EXPECT_EQ(m().updateNextHop(3, 0, NextHopEntry()), -7);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(NextHopEntryTest, ReadOnAnUninitialisedTableIsAllZero) {
  ASSERT_EQ(create(2), 3);
  m().initializedIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  const NextHopEntry e = m().readNextHop(3, 0);
  EXPECT_EQ(e.hwIndex(), 0);
  EXPECT_FALSE(e.wide());
  EXPECT_EQ(e.data(), 0u);
  EXPECT_EQ(e.wideData(), 0u);
  EXPECT_THAT(capture.texts(1), ElementsAre("NextHoptable is not initiliazed"));
}

TEST_F(NextHopEntryTest, ReadRefusesUnknownGroupsAndPositionsPastTheSize) {
  ASSERT_EQ(create(3), 3);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().readNextHop(8, 0), NextHopEntry());
  EXPECT_EQ(m().readNextHop(3, 3), NextHopEntry());
  EXPECT_THAT(capture.texts(1),
              ElementsAre("Invalid ECMP Group ", "NextHopId is greater than Ecmp group Size : 3"));
}

TEST_F(NextHopEntryTest, ReadComesFromTheChipNotFromTheRecord) {
  ASSERT_EQ(create(3), 3);
  FmSim::tableWordIs(4, 0xDEAD);
  EXPECT_EQ(m().readNextHop(3, 1), NextHopEntry(4, false, 0xDEAD, 0));
  EXPECT_EQ(m().ecmpGroups(3)->nextHops(1).data(), 0x1001u);
}

TEST_F(NextHopEntryTest, UpdateECMPGroupRewritesEveryPosition) {
  const U16 g = wideGroupAt100();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateECMPGroup(0, g, words({0x11, 0x12, 0x13, 0x14}), words({0x21, 0x22})), 0);
  EXPECT_EQ(FmSim::tableWord(100), 0x11u);
  EXPECT_EQ(FmSim::tableWord(101), 0x21u);
  EXPECT_EQ(FmSim::tableWord(103), 0x22u);
  EXPECT_EQ(FmSim::tableWord(104), 0x13u);
  EXPECT_EQ(FmSim::tableWord(105), 0u);
  // Entries rewritten this way carry hwIndex 0 until the group is placed again.
  EXPECT_EQ(m().ecmpGroups(g)->nextHops(1), NextHopEntry(0, true, 0x12, 0x22));
  EXPECT_EQ(capture.texts(8).front(), "updateECMPGroup : 3");
  EXPECT_THAT(capture.texts(9), ElementsAre("nhData 11nhWideData 21", "nhData 12nhWideData 22",
                                            "nhData 13nhWideData 0"));
  expectTableMatchesRecords(m());
}

TEST_F(NextHopEntryTest, UpdateECMPGroupWritesZeroForAMissingPosition) {
  ASSERT_EQ(create(3), 3);
  U64Collection data;
  data.dataIs(0, 0x70);
  data.dataIs(2, 0x72);
  EXPECT_EQ(valueToStrep(data), "None");
  EXPECT_EQ(m().updateECMPGroup(0, 3, data, words({9, 9, 9})), 0);
  EXPECT_EQ(FmSim::tableWord(3), 0x70u);
  EXPECT_EQ(FmSim::tableWord(4), 0u);
  EXPECT_EQ(FmSim::tableWord(5), 0x72u);
  // A narrow group keeps no wide words.
  EXPECT_EQ(m().ecmpGroups(3)->nextHops(2), NextHopEntry(0, false, 0x72, 0));
}

TEST_F(NextHopEntryTest, UpdateECMPGroupUsesTheLowSixteenBitsOfTheId) {
  ASSERT_EQ(create(1), 3);
  EXPECT_EQ(m().updateECMPGroup(0, 0x10003, words({0x55}), U64Collection()), 0);
  EXPECT_EQ(FmSim::tableWord(3), 0x55u);
}

TEST_F(NextHopEntryTest, UpdateECMPGroupStopsAtTheFirstFailureWithoutRollBack) {
  ASSERT_EQ(create(3), 3);
  ASSERT_EQ(m().freeBlock(4, 1), 0);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateECMPGroup(0, 3, words({0x81, 0x82, 0x83}), U64Collection()), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Failed to update nextHop at index : 1"));
  EXPECT_EQ(FmSim::tableWord(3), 0x81u);
  EXPECT_EQ(FmSim::tableWord(4), 0x1001u);
  EXPECT_EQ(FmSim::tableWord(5), 0x1002u);
}

TEST_F(NextHopEntryTest, UpdateECMPGroupRefusesMissingGroupsAndUninitialisedTables) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateECMPGroup(0, 12, words({1}), U64Collection()), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Invalid Group Id"));
  m().initializedIs(false);
  capture.clear();
  EXPECT_EQ(m().updateECMPGroup(0, 12, words({1}), U64Collection()), -7);
  EXPECT_THAT(capture.texts(1), ElementsAre("NexthopTable not initialized"));
}

TEST_F(NextHopEntryTest, UpdateECMPGroupOfSizeZeroReturnsAtOnce) {
  m().ecmpGroupsIs(50);
  FmSim::callsDelAll();
  EXPECT_EQ(m().updateECMPGroup(0, 50, words({1}), U64Collection()), 0);
  EXPECT_TRUE(FmSim::calls().empty());
}

TEST_F(NextHopEntryTest, EntryOperationsAreReachableByName) {
  ASSERT_EQ(create(2), 3);
  const Kiln::TypeRecord& record = m().fwkType();
  EXPECT_THAT(record.operation("updateNextHop")->parameterNames,
              ElementsAre("groupId", "nhId", "entry"));
  EXPECT_EQ(record.invoke(m(), "updateNextHop",
                          {"3", "1",
                           "Value('Brevant::NextHopEntry', ** {'hwIndex': 4, 'wide': "
                           "False, 'data': 77, 'wideData': 0})"}),
            "0");
  EXPECT_EQ(record.invoke(m(), "readNextHop", {"3", "1"}),
            "Value('Brevant::NextHopEntry', ** {'hwIndex': 4, 'wide': False, 'data': 77, "
            "'wideData': 0})");
  EXPECT_EQ(record.invoke(m(), "updateECMPGroup", {"0", "3", "{0: 8, 1: 9}", "{}"}), "0");
  EXPECT_EQ(FmSim::tableWord(4), 9u);
}

}  // namespace
