// The two compaction passes on hand-made layouts: which group moves where,
// whether through the swap area, and where the region boundaries end.
#include <string>
#include <vector>

#include "next_hop_table_fixture.h"
#include "support/ChipWriteWatch.h"

namespace {

using namespace NextHopTest;
using Brevant::DefragManager;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class DefragPassTest : public NextHopTableTest {
 protected:
  // A simulated table: bound 64 gives swap index 56, bound 116 swap 108.
  void tableIs(U16 bound) { m().setSimulationMode(true, bound); }

  // Creates a group and checks where it landed.
  U16 groupAt(U16 start, U16 size, bool wide = false) {
    const S32 id = create(size, wide, 0x100 * (nextWords_++));
    EXPECT_GT(id, 0);
    EXPECT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), start);
    return U16(id);
  }
  void remove(U16 id) { ASSERT_EQ(m().deleteECMPGroup(0, id), 0); }
  U16 startOf(U16 id) { return m().ecmpGroups(id)->hwStartIndex(); }

  // The move line traced on entry to moveECMPGroup.
  static std::string moveLine(U16 id, U16 to, bool overlap) {
    return "moveECMPGroupgroupId: " + std::to_string(id) + " to index " + std::to_string(to) +
           " overlap : " + (overlap ? "1" : "0");
  }
  static std::vector<std::string> moveLines(const Trace::Capture& capture) {
    std::vector<std::string> lines;
    for (const std::string& t : capture.texts(8)) {
      if (t.rfind("moveECMPGroup", 0) == 0) lines.push_back(t);
    }
    return lines;
  }

 private:
  U64 nextWords_ = 1;
};

// Narrow pass.

TEST_F(DefragPassTest, ANarrowGroupCloserThanItsSizeToItsNewPlaceGoesThroughTheSwapArea) {
  tableIs(64);
  groupAt(3, 5);
  const U16 hole = groupAt(8, 2);
  const U16 g = groupAt(10, 3);
  remove(hole);  // free 8, 9
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(g, 8, true)));
  EXPECT_EQ(startOf(g), 8);
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  EXPECT_EQ(capture.texts(3).back(), "Defragmention is done. Check wide block ");
  EXPECT_THAT(capture.texts(4), Contains("last Narrow index is 10"));
  EXPECT_FALSE(defrag().scheduleDefragment());
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, ANarrowGroupAtLeastItsSizeAwayMovesDirectly) {
  tableIs(64);
  groupAt(3, 5);
  const U16 hole = groupAt(8, 4);
  const U16 g = groupAt(12, 3);
  remove(hole);  // free 8..11
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(g, 8, false)));
  EXPECT_EQ(startOf(g), 8);
  EXPECT_EQ(m().lastNarrowIndex(), 10);
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, OnceANarrowMoveNeededTheSwapAreaEveryLaterOneInThePassDoes) {
  tableIs(64);
  groupAt(3, 5);
  const U16 hole1 = groupAt(8, 2);
  const U16 c = groupAt(10, 3);
  const U16 hole2 = groupAt(13, 5);
  const U16 e = groupAt(18, 2);
  remove(hole1);  // free 8, 9: c is 2 away, closer than its size
  remove(hole2);  // free 13..17: e is then 7 away, farther than its size
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(c, 8, true), moveLine(e, 11, true)));
  EXPECT_EQ(m().lastNarrowIndex(), 12);
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, WithoutAnOverlappingMoveTheNarrowPassMovesDirectly) {
  tableIs(64);
  groupAt(3, 5);
  const U16 hole1 = groupAt(8, 4);
  const U16 c = groupAt(12, 3);
  const U16 hole2 = groupAt(15, 5);
  const U16 e = groupAt(20, 2);
  remove(hole1);
  remove(hole2);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(c, 8, false), moveLine(e, 11, false)));
  EXPECT_EQ(m().lastNarrowIndex(), 12);
}

TEST_F(DefragPassTest, ANarrowPassThatVisitsNoGroupLeavesTheNarrowBoundary) {
  tableIs(64);
  groupAt(3, 5);
  m().lastNarrowIndexIs(20);  // above every narrow group
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), IsEmpty());
  EXPECT_EQ(m().lastNarrowIndex(), 20);
  EXPECT_THAT(capture.texts(4), Contains("last Narrow index is 20"));
}

TEST_F(DefragPassTest, ANarrowPassStopsAtTheWideRegion) {
  tableIs(64);
  groupAt(3, 2);
  const U16 hole = groupAt(5, 2);
  const U16 g = groupAt(7, 2);
  const U16 w = groupAt(52, 2, true);
  remove(hole);
  defrag().defragNarrowBlock();
  EXPECT_EQ(startOf(g), 5);
  EXPECT_EQ(startOf(w), 52);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
}

// Wide pass.

TEST_F(DefragPassTest, AWideGroupAsFarAsItsLengthFromItsNewPlaceMovesDirectly) {
  tableIs(116);  // swap index 108
  const U16 hole = groupAt(104, 2, true);
  const U16 g = groupAt(100, 2, true);
  remove(hole);  // free 104..107
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(g, 104, false)));
  EXPECT_THAT(capture.texts(4), Contains(" Shuffling block from 100to 104 length: 4"));
  EXPECT_EQ(startOf(g), 104);
  EXPECT_EQ(m().lastWideIndex(), 104);
  EXPECT_EQ(capture.texts(3).back(), "Defragmention is done. don't schedule again ");
  EXPECT_THAT(capture.texts(4), Contains(" Last Wide index : 104"));
  EXPECT_FALSE(defrag().scheduleDefragment());
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, AWideGroupCloserThanItsLengthGoesThroughTheSwapArea) {
  tableIs(116);
  const U16 hole = groupAt(106, 1, true);
  const U16 g = groupAt(102, 2, true);
  remove(hole);  // free 106, 107
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(g, 104, true)));
  EXPECT_THAT(capture.texts(4), Contains(" Shuffling block from 102to 104 length: 4"));
  EXPECT_EQ(startOf(g), 104);
  EXPECT_EQ(m().lastWideIndex(), 104);
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, OnceAWideMoveNeededTheSwapAreaEveryLaterOneInThePassDoes) {
  tableIs(116);
  const U16 hole1 = groupAt(106, 1, true);
  const U16 b = groupAt(102, 2, true);
  const U16 hole2 = groupAt(96, 3, true);
  const U16 d = groupAt(94, 1, true);
  remove(hole1);
  remove(hole2);  // d is then 8 entries below its new place, with 2 entries
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(b, 104, true), moveLine(d, 102, true)));
  EXPECT_EQ(m().lastWideIndex(), 102);
  expectTableMatchesRecords(m());
}

TEST_F(DefragPassTest, AWideGroupWithoutAHoleAboveItStaysAndBecomesTheBoundary) {
  tableIs(116);
  const U16 a = groupAt(104, 2, true);
  const U16 b = groupAt(100, 2, true);
  m().lastWideIndexIs(90);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), IsEmpty());
  EXPECT_EQ(startOf(a), 104);
  EXPECT_EQ(startOf(b), 100);
  EXPECT_EQ(m().lastWideIndex(), 100);
}

TEST_F(DefragPassTest, AWidePassThatVisitsNoGroupLeavesTheWideBoundary) {
  tableIs(116);
  groupAt(3, 4);
  m().lastWideIndexIs(90);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_EQ(m().lastWideIndex(), 90);
  EXPECT_THAT(capture.texts(4), Contains(" Last Wide index : 90"));
}

TEST_F(DefragPassTest, AWidePassStopsAtTheNarrowRegion) {
  tableIs(116);
  groupAt(3, 4);
  const U16 hole = groupAt(104, 2, true);
  const U16 g = groupAt(100, 2, true);
  remove(hole);
  defrag().defragWideBlock();
  EXPECT_EQ(startOf(g), 104);
  EXPECT_EQ(m().ecmpGroups(3)->hwStartIndex(), 3);
}

// Both passes together.

TEST_F(DefragPassTest, DefragmentRunsTheNarrowPassOnlyWhenAHoleLiesBelowTheNarrowBoundary) {
  tableIs(116);
  groupAt(3, 4);
  groupAt(7, 4);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragment();
  EXPECT_THAT(capture.texts(8), ElementsAre("defragment", "defragWideBlock"));
  capture.clear();
  remove(3);  // free 3..6 below the boundary 10
  defrag().defragment();
  EXPECT_THAT(capture.texts(8),
              testing::IsSupersetOf({"defragment", "defragNarrowBlock", "defragWideBlock"}));
  EXPECT_EQ(startOf(4), 3);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
}

TEST_F(DefragPassTest, AFinishedNarrowPassGoesStraightOnToTheWidePass) {
  tableIs(116);
  groupAt(3, 2);
  const U16 hole = groupAt(5, 3);
  const U16 n = groupAt(8, 2);
  const U16 wideHole = groupAt(104, 2, true);
  const U16 w = groupAt(100, 2, true);
  remove(hole);
  remove(wideHole);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragment();
  EXPECT_THAT(capture.texts(3), ElementsAre("Defragmention is done. Check wide block ",
                                            "Defragmention is done. don't schedule again "));
  EXPECT_EQ(startOf(n), 5);
  EXPECT_EQ(startOf(w), 104);
  EXPECT_EQ(m().lastNarrowIndex(), 6);
  EXPECT_EQ(m().lastWideIndex(), 104);
}

TEST_F(DefragPassTest, WithNoFreeEntryAtAllNothingMovesAndNothingFails) {
  tableIs(64);
  const U16 g = groupAt(3, 53);            // 3..55
  ASSERT_EQ(m().allocateBlock(56, 8), 0);  // even the swap area
  ASSERT_EQ(m().freeEntries().members(), 0u);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragment();
  EXPECT_THAT(capture.texts(8), ElementsAre("defragment", "defragWideBlock"));
  defrag().defragNarrowBlock();
  EXPECT_EQ(startOf(g), 3);
  EXPECT_EQ(m().lastNarrowIndex(), 55);
  EXPECT_EQ(m().lastWideIndex(), 56);
  EXPECT_FALSE(defrag().scheduleDefragment());
}

TEST_F(DefragPassTest, CompactingBothRegionsIsHitless) {
  tableIs(116);
  ChipWriteWatch watch(m());
  std::vector<U16> narrowHoles, wideHoles;
  for (U16 i = 0; i < 8; ++i) {
    const U16 id = groupAt(U16(3 + 5 * i), 5);
    if (i % 2 == 0) narrowHoles.push_back(id);
  }
  for (U16 i = 0; i < 6; ++i) {
    const U16 id = groupAt(U16(108 - 6 * (i + 1)), 3, true);
    if (i % 3 != 2) wideHoles.push_back(id);
  }
  for (U16 id : narrowHoles) remove(id);
  for (U16 id : wideHoles) remove(id);
  const U64 writesBefore = watch.writes();
  defrag().defragment();
  // Four narrow and two wide groups, each moved directly: one write each.
  EXPECT_EQ(watch.writes() - writesBefore, 6u);
  EXPECT_TRUE(watch.checker().hitless()) << watch.checker().report();
  EXPECT_EQ(watch.checker().checkSettled(), 0u) << watch.checker().report();
  // Both regions are packed: every entry up to the narrow boundary and
  // from the wide boundary to the swap index is in use.
  EXPECT_EQ(m().lastNarrowIndex(), 22);
  EXPECT_EQ(m().lastWideIndex(), 96);
  for (U16 i = 3; i <= 22; ++i) EXPECT_TRUE(m().allocatedEntries(i)) << i;
  for (U16 i = 96; i < 108; ++i) EXPECT_TRUE(m().allocatedEntries(i)) << i;
  expectTableMatchesRecords(m());
}

// Program faults.

using DefragPassDeathTest = NextHopTableDeathTest;

// Builds a table of bound 116 inside a death test's statement.
Kiln::Ptr<NextHopManager> wideTable() {
  Kiln::Ptr<NextHopManager> m = new NextHopManager();
  m->setSimulationMode(true, 116);
  return m;
}

S32 createIn(NextHopManager& m, U16 size, bool wide) {
  return m.createECMPGroup(0, wide, true, size, wordRun(size, 1), wordRun(size, 2),
                           Brevant::RoutingUnicastFeature, false);
}

TEST_F(DefragPassDeathTest, DefragmentWithoutATableIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        DefragManager::DefragManagerIs(nullptr)->defragment();
      },
      HasSubstr("Assertion `nhm != __null' failed."));
}

TEST_F(DefragPassDeathTest, TheNarrowPassWithoutATableIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        DefragManager::DefragManagerIs(nullptr)->defragNarrowBlock();
      },
      HasSubstr("Assertion `nhm != __null' failed."));
}

TEST_F(DefragPassDeathTest, AStrayFreeEntryInTheWideRegionIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Flashlog::defaultHandleIs(&Flashlog::processHandle());
        Kiln::Ptr<NextHopManager> m = wideTable();
        createIn(*m, 2, true);  // 104..107
        createIn(*m, 2, true);  // 100..103
        m->freeBlock(107, 1);   // the odd hole
        m->defragManager()->defragWideBlock();
      },
      testing::AllOf(HasSubstr("level 1: defragWideBlock BlockLength: 1"),
                     HasSubstr("level 1: defragWideBlock newBaseIndex: 105"),
                     HasSubstr("Assertion `blockLength % 2 == 0' failed.")));
}

TEST_F(DefragPassDeathTest, AWideGroupAtAnOddStartIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Flashlog::defaultHandleIs(&Flashlog::processHandle());
        Kiln::Ptr<NextHopManager> m = wideTable();
        const U16 id = U16(createIn(*m, 1, true));  // 106..107
        // Moved by hand to 105..106, leaving 107 allocated under it.
        m->hwStartToGroupIdDel(106);
        m->allocateBlock(105, 1);
        m->ecmpGroups(id)->hwStartIndexIs(105);
        m->hwStartToGroupIdIs(105, id);
        m->defragManager()->defragWideBlock();
      },
      testing::AllOf(HasSubstr("level 1: defragWideBlock BlockLength: 0"),
                     HasSubstr("level 1: defragWideBlock newBaseIndex: 105"),
                     HasSubstr("Assertion `newBaseIndex % 2 == 0' failed.")));
}

TEST_F(DefragPassDeathTest, ANarrowGroupInTheWideRegionIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Flashlog::defaultHandleIs(&Flashlog::processHandle());
        Kiln::Ptr<NextHopManager> m = wideTable();
        createIn(*m, 3, false);  // 3..5
        m->lastNarrowIndexIs(2);
        m->defragManager()->defragWideBlock();
      },
      testing::AllOf(HasSubstr("level 1: defragWideBlock index: 3"),
                     HasSubstr("level 1: defragWideBlock last Narrow index: 2"),
                     HasSubstr("Assertion `g->wide()' failed.")));
}

// The walk down for the group's start finds none in the whole index space
// and comes back to the entry it started from.
TEST_F(DefragPassDeathTest, AnAllocatedEntryWithoutAGroupIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Brevant::nextHopTrace().levelIs(1, true);
        Kiln::Ptr<NextHopManager> m = wideTable();
        m->allocateBlock(100, 2);
        m->defragManager()->defragWideBlock();
      },
      testing::AllOf(HasSubstr("BrevantNextHop 1: Can not find group for index : 101"),
                     HasSubstr("Assertion `0' failed.")));
}

TEST_F(DefragPassDeathTest, AStartMappedToTheInvalidGroupIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Brevant::nextHopTrace().levelIs(1, true);
        Kiln::Ptr<NextHopManager> m = wideTable();
        m->allocateBlock(100, 2);
        m->hwStartToGroupIdIs(100, 65535);
        m->defragManager()->defragWideBlock();
      },
      testing::AllOf(HasSubstr("BrevantNextHop 1: Can not find group for index : 100"),
                     HasSubstr("Assertion `0' failed.")));
}

TEST_F(DefragPassDeathTest, TheNarrowPassReportsAStartMappedToNoGroupTheSameWay) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Brevant::nextHopTrace().levelIs(1, true);
        Kiln::Ptr<NextHopManager> m = wideTable();
        m->allocateBlock(10, 2);
        m->hwStartToGroupIdIs(10, 77);
        m->defragManager()->defragNarrowBlock();
      },
      testing::AllOf(HasSubstr("BrevantNextHop 1: Can not find group for index : 10"),
                     HasSubstr("Assertion `0' failed.")));
}

}  // namespace

namespace {

// A wide group whose block straddles lastNarrowIndex is found at its real
// start: the walk down from its top entry is not bounded by the narrow
// boundary.
TEST_F(DefragPassTest, TheWidePassFindsAGroupStraddlingTheNarrowBoundaryAtItsStart) {
  tableIs(116);  // swap index 108
  const U16 hole = groupAt(104, 2, true);
  const U16 g = groupAt(100, 2, true);  // 100..103
  remove(hole);                         // free 104..107
  m().lastNarrowIndexIs(101);           // the boundary inside g's block
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), ElementsAre(moveLine(g, 104, false)));
  EXPECT_EQ(startOf(g), 104);
  EXPECT_EQ(m().lastWideIndex(), 104);
  EXPECT_THAT(capture.texts(1), Not(Contains(HasSubstr("Can not find group for index"))));
}

// Hardened, the narrow pass leaves a wide group where it is and ends there.
TEST_F(DefragPassTest, HardenedTheNarrowPassNeverMovesAWideGroup) {
  tableIs(64);
  m().hardenedIs(true);
  const U16 w = groupAt(54, 1, true);  // 54..55
  const U16 n = groupAt(3, 1);
  remove(n);                  // the narrow region is empty again
  m().lastNarrowIndexIs(55);  // as if the boundary had been lost above it
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragNarrowBlock();
  EXPECT_THAT(moveLines(capture), IsEmpty());
  EXPECT_EQ(startOf(w), 54);
  expectTableMatchesRecords(m());
}

// Hardened, the wide pass ends at a narrow group instead of stopping the
// process on "g->wide()".
TEST_F(DefragPassTest, HardenedTheWidePassNeverMovesANarrowGroup) {
  tableIs(64);  // swap index 56
  m().hardenedIs(true);
  const U16 n = groupAt(3, 1);
  m().lastNarrowIndexIs(2);  // as if the boundary had been lost below it
  m().lastWideIndexIs(4);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().defragWideBlock();
  EXPECT_THAT(moveLines(capture), IsEmpty());
  EXPECT_EQ(startOf(n), 3);
  expectTableMatchesRecords(m());
}

// Hardened, a wide group of more than 128 next hops is refused with -1; the
// reference behaviour stops on the allocator's assertion (death test below).
TEST_F(DefragPassTest, HardenedAWideGroupOfMoreThan128NextHopsIsRefused) {
  m().hardenedIs(true);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(create(129, true, 0x10), -1);
  EXPECT_THAT(capture.texts(1), Contains("ECMP Group size is invalid"));
  EXPECT_GT(create(128, true, 0x20), 0);
}

TEST_F(DefragPassDeathTest, AWideGroupOfMoreThan128NextHopsStopsOnTheAllocatorsLimit) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        createIn(*m, 129, true);
      },
      HasSubstr("length <= 256"));
}

}  // namespace
