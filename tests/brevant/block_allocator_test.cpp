// The block allocator: narrow and wide searches, allocation and release,
// and the request for defragmentation when the table is fragmented.
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(NextHopTableTest, NarrowRequestOnAFreshTableStartsAtThree) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(4, false), 3);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
  EXPECT_THAT(capture.texts(8), ElementsAre("findAvailableBlock length: 4 Wide: 0",
                                            "findAvailableNarrowBlockLength: 4"));
  EXPECT_THAT(capture.texts(4),
              ElementsAre("finding narrow block from index: 3length: 4",
                          "Found narrow block at index: 3Last narrow index is : 6"));
  EXPECT_THAT(capture.texts(2), ElementsAre("Found a block at index 3"));
  // Finding reserves nothing.
  EXPECT_TRUE(m().freeEntries(3));
  EXPECT_EQ(m().findAvailableNarrowBlock(4), 3);
}

TEST_F(NextHopTableTest, WideRequestOnAFreshTableEndsBelowTheSwapIndex) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(4, true), 65274);
  EXPECT_EQ(m().lastWideIndex(), 65274);
  EXPECT_THAT(capture.texts(8), ElementsAre("findAvailableBlock length: 4 Wide: 1",
                                            "findAvailableWideBlock length: 4"));
  EXPECT_THAT(capture.texts(4), ElementsAre("finding wide block from index: 65277 of length: 4",
                                            "Found wide block at index( last wide index ): 65274"));
  EXPECT_THAT(capture.texts(2), ElementsAre("Found a block at index 65274"));
}

TEST_F(NextHopTableTest, NarrowHoleIsReusedBeforeTheRegionGrows) {
  ASSERT_EQ(m().findAvailableNarrowBlock(30), 3);  // moves lastNarrowIndex to 32
  ASSERT_EQ(m().allocateBlock(3, 30), 0);
  ASSERT_EQ(m().freeBlock(10, 5), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 32);
  EXPECT_EQ(m().findAvailableBlock(4, false), 10);
  EXPECT_EQ(m().findAvailableBlock(5, false), 10);
  EXPECT_EQ(m().lastNarrowIndex(), 32);
  // Too long for the hole: the region grows.
  EXPECT_EQ(m().findAvailableBlock(6, false), 33);
  EXPECT_EQ(m().lastNarrowIndex(), 38);
}

TEST_F(NextHopTableTest, WideHoleIsReusedFromTheTop) {
  ASSERT_EQ(m().findAvailableWideBlock(20), 65258);
  ASSERT_EQ(m().allocateBlock(65258, 20), 0);
  ASSERT_EQ(m().freeBlock(65262, 4), 0);
  EXPECT_EQ(m().findAvailableBlock(4, true), 65262);
  EXPECT_EQ(m().lastWideIndex(), 65258);
  EXPECT_EQ(m().findAvailableBlock(6, true), 65252);
  EXPECT_EQ(m().lastWideIndex(), 65252);
}

TEST_F(NextHopTableTest, BlockOf256IsAccepted) {
  EXPECT_EQ(m().findAvailableBlock(256, false), 3);
  EXPECT_EQ(m().lastNarrowIndex(), 258);
  EXPECT_EQ(m().findAvailableBlock(256, true), 65022);
}

TEST_F(NextHopTableTest, NarrowSearchStaysBelowTheWideRegion) {
  m().setSimulationMode(true, 64);  // swap index 56
  ASSERT_EQ(m().allocateBlock(3, 40), 0);
  ASSERT_EQ(m().findAvailableWideBlock(8), 48);
  ASSERT_EQ(m().allocateBlock(48, 8), 0);
  // 43..47 are free below lastWideIndex 48.
  EXPECT_EQ(m().findAvailableNarrowBlock(5), 43);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableNarrowBlock(6), -2);
  EXPECT_THAT(capture.texts(1), ElementsAre("NOT found narrow block of length 6"));
}

TEST_F(NextHopTableTest, WideSearchStopsAtTheNarrowRegionWithoutAnError) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 40), 0);
  m().lastNarrowIndexIs(42);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableWideBlock(14), -2);
  EXPECT_TRUE(capture.texts(1).empty());
  EXPECT_THAT(capture.texts(4), ElementsAre("finding wide block from index: 55 of length: 14"));
  EXPECT_EQ(m().findAvailableWideBlock(12), 44);
  EXPECT_EQ(m().lastWideIndex(), 44);
}

TEST_F(NextHopTableTest, WideSearchFromAtOrBelowTheNarrowTopFindsNothing) {
  m().setSimulationMode(true, 64);
  m().lastNarrowIndexIs(55);
  EXPECT_EQ(m().findAvailableWideBlock(2), -2);
}

TEST_F(NextHopTableTest, WideSearchAcrossAnUnevenRunKeepsTheTopmostFit) {
  m().setSimulationMode(true, 64);
  // Free 54, 55; 52, 53 taken; 44..51 free.
  ASSERT_EQ(m().allocateBlock(52, 2), 0);
  EXPECT_EQ(m().findAvailableWideBlock(2), 54);
  EXPECT_EQ(m().findAvailableWideBlock(4), 48);
  EXPECT_EQ(m().lastWideIndex(), 48);
}

TEST_F(NextHopTableTest, OnlyTheSwapAreaFreeSchedulesDefragmentation) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 53), 0);  // 3..55; the swap area 56..63 stays free
  EXPECT_EQ(m().freeEntries().members(), 8u);
  clock_->timeIs(1.0);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(8, false), -2);
  EXPECT_THAT(capture.texts(1),
              ElementsAre("NOT found narrow block of length 8",
                          "NexthopTable appears to be full. Schedule defragment"));
  EXPECT_TRUE(defrag().scheduleDefragment());
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 6.0);
  EXPECT_TRUE(capture.contains(8, "startDefragScheduler"));
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
}

TEST_F(NextHopTableTest, SecondFailedSearchDoesNotStartTheSchedulerAgain) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 53), 0);
  ASSERT_EQ(m().findAvailableBlock(4, true), -2);
  clock_->timeIs(2.0);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(4, true), -2);
  EXPECT_THAT(capture.texts(1), ElementsAre("Defragment is already scheduled"));
  EXPECT_FALSE(capture.contains(8, "startDefragScheduler"));
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 5.0);
}

TEST_F(NextHopTableTest, TooFewFreeEntriesCanNotBeDefragmented) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 53), 0);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(9, false), -2);
  EXPECT_TRUE(capture.contains(1, "NextHopTable is FULL. Can not defragment"));
  EXPECT_FALSE(defrag().scheduleDefragment());
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), Kiln::Clock::never);
}

TEST_F(NextHopTableTest, LengthZeroFindsNothingAndSchedulesDefragmentation) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(0, false), -2);
  EXPECT_TRUE(capture.contains(1, "NOT found narrow block of length 0"));
  EXPECT_TRUE(capture.contains(1, "NexthopTable appears to be full. Schedule defragment"));
  EXPECT_TRUE(defrag().scheduleDefragment());
  EXPECT_EQ(m().findAvailableWideBlock(0), -2);
}

TEST_F(NextHopTableTest, NoFreeEntryAtAllFindsNothing) {
  m().setSimulationMode(true, 16);
  ASSERT_EQ(m().allocateBlock(3, 13), 0);
  ASSERT_EQ(m().freeEntries().members(), 0u);
  EXPECT_EQ(m().findAvailableNarrowBlock(1), -2);
  EXPECT_EQ(m().findAvailableWideBlock(2), -2);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(1, false), -2);
  EXPECT_TRUE(capture.contains(1, "NextHopTable is FULL. Can not defragment"));
}

TEST_F(NextHopTableTest, UninitialisedTableRefusesEveryAllocatorOperation) {
  m().initializedIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().findAvailableBlock(4, false), -7);
  EXPECT_EQ(m().allocateBlock(3, 4), -7);
  EXPECT_EQ(m().freeBlock(3, 4), -7);
  EXPECT_EQ(m().updateNextHopHWIndex(3, true), -7);
  EXPECT_THAT(capture.texts(1),
              ElementsAre("NexthopTable is not initialized", "NexthopTable is not initialized",
                          "NexthopTable is not initialized", "NexthopTable is not initialized"));
  EXPECT_TRUE(m().freeEntries(3));
  EXPECT_EQ(m().allocatedEntries().members(), 0u);
}

TEST_F(NextHopTableTest, AllocateAcceptsIndexZeroButNotTheReservedEntries) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().allocateBlock(0, 1), 0);
  EXPECT_TRUE(m().allocatedEntries(0));
  EXPECT_THAT(capture.texts(8), ElementsAre("allocateBlock at 0 of length 1",
                                            "updateNextHopHWIndexNextHop at 0allocate: 1"));
  capture.clear();
  EXPECT_EQ(m().allocateBlock(1, 1), -1);
  EXPECT_EQ(m().allocateBlock(2, 5), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Index is out of range", "Index is out of range"));
  EXPECT_FALSE(m().allocatedEntries(2));
  EXPECT_TRUE(m().freeEntries(3));
  EXPECT_THAT(Flashlog::texts(), ElementsAre("allocateBlock: Index is out of range",
                                             "allocateBlock: Index is out of range"));
  EXPECT_EQ(Flashlog::records().at(0).textArg(0), std::string("allocateBlock"));
}

TEST_F(NextHopTableTest, AllocateMayNotPassTheBound) {
  EXPECT_EQ(m().allocateBlock(65530, 5), -1);
  EXPECT_TRUE(m().freeEntries(65530));
  EXPECT_EQ(m().allocateBlock(65530, 4), 0);
  EXPECT_EQ(keysOf(m().allocatedEntries()).size(), 4u);
  EXPECT_FALSE(m().freeEntries(65533));
  // The sum is taken without 16-bit wrap.
  EXPECT_EQ(m().allocateBlock(65535, 2), -1);
  m().setSimulationMode(true, 64);
  EXPECT_EQ(m().allocateBlock(60, 5), -1);
  EXPECT_EQ(m().allocateBlock(60, 4), 0);
}

TEST_F(NextHopTableTest, AllocateAndFreeKeepPerEntryRecords) {
  ASSERT_EQ(m().allocateBlock(10, 3), 0);
  EXPECT_THAT(keysOf(m().allocatedEntries()).size(), 3u);
  EXPECT_TRUE(m().allocatedEntries(11));
  EXPECT_FALSE(m().freeEntries(11));
  EXPECT_EQ(m().freeEntries().members(), 65528u);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  ASSERT_EQ(m().freeBlock(10, 3), 0);
  EXPECT_EQ(capture.texts(8).front(), "freeBlock at 10 of length 3");
  // Released entries stay members with the value false.
  EXPECT_EQ(m().allocatedEntries().members(), 3u);
  EXPECT_FALSE(m().allocatedEntries(11));
  EXPECT_TRUE(m().freeEntries(11));
  EXPECT_EQ(m().freeEntries().members(), 65531u);
  EXPECT_EQ(m().allocateBlock(10, 0), 0);
  EXPECT_EQ(m().freeEntries().members(), 65531u);
}

TEST_F(NextHopTableTest, FreeRefusesTheReservedEntriesAndPastTheBound) {
  EXPECT_EQ(m().freeBlock(1, 1), -1);
  EXPECT_EQ(m().freeBlock(65533, 2), -1);
  EXPECT_FALSE(m().freeEntries(1));
  EXPECT_THAT(Flashlog::texts(),
              ElementsAre("freeBlock: Index is out of range", "freeBlock: Index is out of range"));
}

TEST_F(NextHopTableTest, FreeingDoesNotMoveTheBoundaries) {
  ASSERT_EQ(m().findAvailableNarrowBlock(8), 3);
  ASSERT_EQ(m().allocateBlock(3, 8), 0);
  ASSERT_EQ(m().findAvailableWideBlock(8), 65270);
  ASSERT_EQ(m().allocateBlock(65270, 8), 0);
  ASSERT_EQ(m().freeBlock(3, 8), 0);
  ASSERT_EQ(m().freeBlock(65270, 8), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  EXPECT_EQ(m().lastWideIndex(), 65270);
}

TEST_F(NextHopTableTest, UpdateNextHopHWIndexFlagsOneEntry) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(m().updateNextHopHWIndex(500, true), 0);
  EXPECT_TRUE(m().allocatedEntries(500));
  EXPECT_FALSE(m().freeEntries(500));
  EXPECT_EQ(m().updateNextHopHWIndex(500, false), 0);
  EXPECT_TRUE(m().freeEntries(500));
  EXPECT_THAT(capture.texts(8), ElementsAre("updateNextHopHWIndexNextHop at 500allocate: 1",
                                            "updateNextHopHWIndexNextHop at 500allocate: 0"));
}

TEST_F(NextHopTableTest, AllocatorOperationsAreReachableByName) {
  const Kiln::TypeRecord& record = m().fwkType();
  EXPECT_THAT(record.operation("findAvailableBlock")->parameterNames, ElementsAre("size", "wide"));
  EXPECT_THAT(record.operation("allocateBlock")->parameterNames, ElementsAre("startIndex", "size"));
  EXPECT_THAT(record.operation("freeBlock")->parameterNames, ElementsAre("startIndex", "size"));
  EXPECT_THAT(record.operation("updateNextHopHWIndex")->parameterNames,
              ElementsAre("index", "value"));
  EXPECT_THAT(record.operation("findAvailableNarrowBlock")->parameterNames, ElementsAre("size"));
  EXPECT_EQ(record.invoke(m(), "findAvailableBlock", {"4", "False"}), "3");
  EXPECT_EQ(record.invoke(m(), "allocateBlock", {"3", "4"}), "0");
  EXPECT_EQ(record.invoke(m(), "findAvailableNarrowBlock", {"2"}), "7");
  EXPECT_EQ(record.invoke(m(), "findAvailableWideBlock", {"2"}), "65276");
  EXPECT_EQ(record.invoke(m(), "freeBlock", {"1", "1"}), "-1");
  EXPECT_EQ(record.invoke(m(), "updateNextHopHWIndex", {"9", "True"}), "0");
  EXPECT_TRUE(m().allocatedEntries(9));
  EXPECT_EQ(record.members(m(), "allocatedEntries").size(), 5u);
}

TEST_F(NextHopTableDeathTest, NarrowRequestOver256StopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->findAvailableBlock(257, false);
      },
      HasSubstr("Assertion `length <= 256' failed."));
}

TEST_F(NextHopTableDeathTest, WideRequestOver256StopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->findAvailableWideBlock(258);
      },
      HasSubstr("Assertion `length <= 256' failed."));
}

TEST_F(NextHopTableDeathTest, NarrowBlockFoundAtZeroStopsTheProcess) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->allocateBlock(0, 1);
        m->freeBlock(0, 1);  // index 0 becomes free, which nothing else does
        m->findAvailableNarrowBlock(1);
      },
      HasSubstr("Assertion `narrowIndex != 0' failed."));
}

TEST_F(NextHopTableDeathTest, OddSimulationBoundLandsAWideBlockOnAnOddStart) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->setSimulationMode(true, 65);  // swap index 57: the search starts at 56
        m->findAvailableBlock(4, true);
      },
      HasSubstr("Assertion `(index % 2) == 0' failed."));
}

}  // namespace
