// Defragmentation runs on the manual clock: the timer's handler, the time
// budget of each pass (a clock that moves on at every chip write makes a
// pass run out of time after a known number of moves), rescheduling, and a
// fragmented table that refuses a create until a run has compacted it.
#include <optional>
#include <string>
#include <vector>

#include "next_hop_table_fixture.h"
#include "support/ChipWriteWatch.h"

namespace {

using namespace NextHopTest;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class DefragRunTest : public NextHopTableTest {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    m().setSimulationMode(true, 116);  // swap index 108
    watch_.emplace(m());
  }
  void TearDown() override {
    EXPECT_TRUE(watch().checker().hitless()) << watch().checker().report();
    watch_.reset();
    NextHopTableTest::TearDown();
  }

  ChipWriteWatch& watch() { return *watch_; }

  // Creates groups of size next hops: `pairs` times a group to be removed
  // and a group to keep; removes the first ones and returns the kept ones.
  std::vector<U16> fragment(U16 pairs, U16 size, bool wide) {
    std::vector<U16> kept, holes;
    for (U16 i = 0; i < pairs; ++i) {
      holes.push_back(U16(create(size, wide, 0x100 * i)));
      kept.push_back(U16(create(size, wide, 0x8000 + 0x100 * i)));
    }
    for (U16 id : holes) EXPECT_EQ(m().deleteECMPGroup(0, id), 0);
    return kept;
  }

  // Arms the timer as a refused create would, then moves the clock to the
  // expiry with every chip write taking `step` seconds.
  void runOnce(Kiln::Seconds step) {
    defrag().scheduleDefragmentIs(true);
    defrag().startDefragScheduler();
    fire(step);
  }

  // Moves the clock to the pending expiry, every chip write taking `step`.
  void fire(Kiln::Seconds step) {
    watch().clockStepIs(clock_, step);
    clock_->timeIs(defrag().defragScheduler()->timeMin());
    watch().clockStepIs(clock_, 0);
  }

  U16 startOf(U16 id) { return m().ecmpGroups(id)->hwStartIndex(); }
  bool armed() { return defrag().defragScheduler()->timeMin() != Kiln::Clock::never; }

 private:
  std::optional<ChipWriteWatch> watch_;
};

TEST_F(DefragRunTest, AnExpiryThatIsNotWantedStopsTheScheduler) {
  defrag().startDefragScheduler();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  clock_->advance(5.0);
  EXPECT_THAT(capture.texts(8), ElementsAre("handleDefragSchedulerTimeOut"));
  EXPECT_THAT(capture.texts(3), ElementsAre("Stop defragment scheduler"));
  EXPECT_EQ(defrag().defragCount(), 0u);
  EXPECT_FALSE(armed());
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
}

TEST_F(DefragRunTest, AFinishedRunCountsClearsTheRequestAndDisarms) {
  const std::vector<U16> kept = fragment(3, 2, false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  runOnce(0);
  EXPECT_EQ(defrag().defragCount(), 1u);
  EXPECT_FALSE(defrag().scheduleDefragment());
  EXPECT_FALSE(armed());
  const std::vector<std::string> entries = capture.texts(8);
  EXPECT_THAT(std::vector<std::string>(entries.begin(), entries.begin() + 3),
              ElementsAre("startDefragScheduler", "handleDefragSchedulerTimeOut", "defragment"));
  EXPECT_EQ(capture.texts(3).back(), "Stop defragment scheduler");
  EXPECT_EQ(startOf(kept[0]), 3);
  EXPECT_EQ(startOf(kept[2]), 7);
  EXPECT_EQ(m().lastNarrowIndex(), 8);
}

TEST_F(DefragRunTest, ANarrowPassOutOfTimeStopsBetweenMovesAndReschedules) {
  const std::vector<U16> kept = fragment(10, 2, false);  // keeps 5..6, 9..10, ..., 41..42
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  // 0.03 s per write: the budget of 0.1 s is spent by the fourth move.
  runOnce(0.03);
  for (U16 i = 0; i < 4; ++i) EXPECT_EQ(startOf(kept[i]), 3 + 2 * i);
  EXPECT_EQ(startOf(kept[4]), 21);
  EXPECT_THAT(capture.texts(3), ElementsAre("Defrag is not complete in 100ms. Rescheduling..  ",
                                            "Rescheduling defragmet Scheduler"));
  EXPECT_THAT(capture.texts(8), Not(Contains("defragWideBlock")));
  EXPECT_EQ(m().lastNarrowIndex(), 42);
  EXPECT_TRUE(defrag().scheduleDefragment());
  EXPECT_EQ(defrag().defragCount(), 1u);
  // Re-armed defragDelay after the moment the run ended.
  EXPECT_DOUBLE_EQ(defrag().defragScheduler()->timeMin(), watch().lastSteppedTime() + 5.0);
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
}

TEST_F(DefragRunTest, AWidePassOutOfTimeStopsBetweenMovesAndReschedules) {
  const std::vector<U16> kept = fragment(6, 1, true);  // keeps 104, 100, ..., 84
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  const U16 lastWide = m().lastWideIndex();
  runOnce(0.03);
  for (U16 i = 0; i < 4; ++i) EXPECT_EQ(startOf(kept[i]), 106 - 2 * i);
  EXPECT_EQ(startOf(kept[4]), 88);
  EXPECT_THAT(capture.texts(8), Not(Contains("defragNarrowBlock")));
  EXPECT_THAT(capture.texts(3), ElementsAre("Defragment did not complete in 100ms. Rescheduling.. ",
                                            "Rescheduling defragmet Scheduler"));
  EXPECT_EQ(m().lastWideIndex(), lastWide);
  EXPECT_TRUE(defrag().scheduleDefragment());
  EXPECT_DOUBLE_EQ(defrag().defragScheduler()->timeMin(), watch().lastSteppedTime() + 5.0);
}

TEST_F(DefragRunTest, AnUnfinishedRunIsRepeatedUntilTheTableIsCompact) {
  const std::vector<U16> narrow = fragment(10, 2, false);
  const std::vector<U16> wide = fragment(6, 1, true);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(3));
  runOnce(0.03);
  U32 runs = 1;
  while (armed()) {
    EXPECT_EQ(capture.texts(3).back(), "Rescheduling defragmet Scheduler");
    fire(0.03);
    ++runs;
    ASSERT_LT(runs, 20u);
  }
  // Narrow 4 moves; narrow 4; narrow 2 and wide 4; wide 2.
  EXPECT_EQ(runs, 4u);
  EXPECT_EQ(defrag().defragCount(), runs);
  EXPECT_EQ(capture.texts(3).back(), "Stop defragment scheduler");
  EXPECT_FALSE(defrag().scheduleDefragment());
  for (U16 i = 0; i < 10; ++i) EXPECT_EQ(startOf(narrow[i]), 3 + 2 * i);
  for (U16 i = 0; i < 6; ++i) EXPECT_EQ(startOf(wide[i]), 106 - 2 * i);
  EXPECT_EQ(m().lastNarrowIndex(), 22);
  EXPECT_EQ(m().lastWideIndex(), 96);
  expectTableMatchesRecords(m());
}

TEST_F(DefragRunTest, EachPassHasItsOwnBudgetSoARunMaySpendNearlyTwice) {
  fragment(3, 2, false);
  fragment(3, 1, true);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(3));
  // Three moves of 0.03 s in each pass: 0.18 s in all, 0.09 s per pass.
  runOnce(0.03);
  EXPECT_GT(watch().lastSteppedTime() - 5.0, defrag().defragTime());
  EXPECT_THAT(capture.texts(3), ElementsAre("Defragmention is done. Check wide block ",
                                            "Defragmention is done. don't schedule again ",
                                            "Stop defragment scheduler"));
  EXPECT_FALSE(armed());
}

TEST_F(DefragRunTest, AMoveThroughTheSwapAreaIsNeverCutShortByTheBudget) {
  create(2, false);                       // 3..4
  const S32 hole = create(1, false);      // 5
  const S32 g = create(3, false, 0x500);  // 6..8: one entry away, closer than its size
  const S32 hole2 = create(2, false);     // 9..10
  const S32 h = create(2, false);         // 11..12
  m().deleteECMPGroup(0, U16(hole));
  m().deleteECMPGroup(0, U16(hole2));
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(3));
  // Each leg's write takes 0.06 s: the budget runs out inside the move.
  runOnce(0.06);
  EXPECT_EQ(startOf(U16(g)), 5);
  for (U16 i = 108; i < 116; ++i) EXPECT_TRUE(m().freeEntries(i)) << i;
  EXPECT_EQ(m().hwStartToGroupId(108), 0);
  EXPECT_EQ(startOf(U16(h)), 11);
  EXPECT_EQ(capture.texts(3).front(), "Defrag is not complete in 100ms. Rescheduling..  ");
}

TEST_F(DefragRunTest, APassStoppedWithExactlyItsBudgetSpentCountsAsFinished) {
  // The pass goes on only while the budget exceeds the time spent, and is
  // unfinished only when the time spent exceeds the budget: at equality it
  // stops as finished, with the boundary where it got to. (On the monotonic
  // clock a tie does not happen; a run would then go on with the wide pass
  // below a boundary that narrow groups still lie above.)
  const std::vector<U16> kept = fragment(4, 2, false);
  defrag().defragTimeIs(0.125);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(3));
  watch().clockStepIs(clock_, 0.0625);
  defrag().defragNarrowBlock();
  EXPECT_EQ(startOf(kept[1]), 5);
  EXPECT_EQ(startOf(kept[2]), 13);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
  EXPECT_FALSE(defrag().scheduleDefragment());
  EXPECT_THAT(capture.texts(3), ElementsAre("Defragmention is done. Check wide block "));
}

TEST_F(DefragRunTest, AFragmentedTableRefusesANarrowCreateUntilARunHasCompactedIt) {
  m().setSimulationMode(false, 116);
  m().setSimulationMode(true, 64);  // swap index 56
  // Groups of 4 with holes of 4 between them, up to 50; 51..55 is free.
  fragment(6, 4, false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(create(8), -2);
  EXPECT_EQ(create(8), -2);
  EXPECT_THAT(capture.texts(1), Contains("NexthopTable appears to be full. Schedule defragment"));
  EXPECT_THAT(capture.texts(1), Contains("Defragment is already scheduled"));
  EXPECT_TRUE(defrag().scheduleDefragment());
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 5.0);
  clock_->advance(4.9);
  EXPECT_EQ(create(8), -2);
  clock_->advance(0.1);
  EXPECT_EQ(defrag().defragCount(), 1u);
  EXPECT_FALSE(armed());
  const S32 id = create(8, false, 0x7700);
  ASSERT_GT(id, 0);
  EXPECT_EQ(startOf(U16(id)), 27);
  expectTableMatchesRecords(m());
}

TEST_F(DefragRunTest, AFragmentedTableRefusesAWideCreateUntilARunHasCompactedIt) {
  ASSERT_GT(create(60), 0);  // narrow 3..62
  fragment(11, 1, true);     // kept wide pairs at 104, 100, ..., 64
  EXPECT_EQ(create(2, true), -2);
  EXPECT_TRUE(defrag().scheduleDefragment());
  clock_->advance(5.0);
  EXPECT_EQ(m().lastWideIndex(), 86);
  const S32 id = create(2, true, 0x7700);
  ASSERT_GT(id, 0);
  EXPECT_EQ(startOf(U16(id)), 82);
  expectTableMatchesRecords(m());
}

}  // namespace

namespace {

// A delay set by name to something that is not a finite, non-negative time
// arms the timer at once: the create that asks for a run is refused as
// usual instead of throwing out of the manager.
TEST_F(DefragRunTest, ADelayThatIsNotATimeArmsTheTimerAtOnce) {
  for (const char* text : {"nan", "inf", "-1"}) {
    Brevant::DefragManager::kilnType().set(defrag(), "defragDelay", text);
    clock_->timeIs(clock_->now() + 1);
    defrag().startDefragScheduler();
    EXPECT_DOUBLE_EQ(defrag().defragScheduler()->timeMin(), clock_->now()) << text;
  }
}

}  // namespace
