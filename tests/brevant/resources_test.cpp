// The table's resource counters (NextHopManager::resources()): every figure
// against a recount from the manager's records after every step of long
// random runs, the watermarks and their alarms, the placement query, and
// the type record of NextHopResources.
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <tuple>

#include "Brevant/NextHopResources.h"
#include "Kiln/Exception.h"
#include "Kiln/TypeRecord.h"
#include "next_hop_table_fixture.h"
#include "support/RecordingOwner.h"
#include "support/ResourceRecount.h"

namespace {

using namespace NextHopTest;
using Brevant::GroupPlacement;
using Brevant::NextHopResources;

// What the tests count themselves: refusals by code and compaction work.
struct Tally {
  std::map<S32, U32> refused;
  U32 shortLength = 0;
  U32 runs = 0, runsCut = 0, groupsMoved = 0, swapAreaLegs = 0;
  U64 entriesMoved = 0;
  double time = 0, longest = 0;
};

void expectMatches(NextHopManager& m, const Tally& t, const std::string& step) {
  SCOPED_TRACE(step);
  expectFiguresMatchRecount(m, t.shortLength);
  const NextHopResources& res = *m.resources();
  for (S32 code : {-1, -2, -7}) {
    const auto it = t.refused.find(code);
    EXPECT_EQ(res.createsRefused(code), it == t.refused.end() ? 0u : it->second) << code;
  }
  EXPECT_EQ(res.compactionRuns(), t.runs);
  EXPECT_EQ(res.compactionRunsCut(), t.runsCut);
  EXPECT_EQ(res.groupsMoved(), t.groupsMoved);
  EXPECT_EQ(res.entriesMoved(), t.entriesMoved);
  EXPECT_EQ(res.swapAreaLegs(), t.swapAreaLegs);
  EXPECT_DOUBLE_EQ(res.compactionTime(), t.time);
  EXPECT_DOUBLE_EQ(res.longestCompactionRun(), t.longest);
}

class ResourcesRandomTest : public RandomTableTest {
 protected:
  void SetUp() override {
    RandomTableTest::SetUp();
    for (U32 f = 0; f <= 4; ++f) {
      owners_.push_back(new RecordingOwner("owner" + std::to_string(f), FeatureType(f)));
      m().featuresIs(owners_.back());
    }
  }

  std::vector<U16> groups() {
    std::vector<U16> ids;
    for (const auto& placed : m().hwStartToGroupId()) ids.push_back(placed.value());
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  bool hasFreeId() {
    for (const auto& member : m().freeGroupIds()) {
      if (member.value()) return true;
    }
    return false;
  }

  void createOne() {
    const bool wide = pick(0, 2) == 0;
    const bool fixed = pick(0, 7) != 0;
    U16 size = U16(pick(0, 9) == 0 ? pick(0, wide ? 128 : 256) : pick(1, wide ? 8 : 16));
    // A small table's swap area holds 8 entries: larger groups could not be
    // compacted (the move stops the process), so they are not created.
    if (bound()) size = U16(pick(0, wide ? 4 : 8));
    if (pick(0, 40) == 0) size = 257;  // refused as invalid
    const bool valid = !(fixed && size == 0) && size <= 256;
    if (valid && hasFreeId())
      tally_.shortLength = std::max<U32>(tally_.shortLength, size * (wide ? 2 : 1));
    const S32 rc = m().createECMPGroup(0, wide, fixed, size, wordRun(size, 0x100),
                                       wordRun(size, 0x900), FeatureType(pick(0, 4)), false);
    if (rc < 0) ++tally_.refused[rc];
  }

  void deleteOne() {
    const std::vector<U16> ids = groups();
    if (ids.empty()) return;
    ASSERT_EQ(m().deleteECMPGroup(0, ids[pick(0, U32(ids.size() - 1))]), 0);
  }

  // Moves a group by hand into a free block of its own region (or one
  // entry down, through the swap area), as compaction would.
  void moveOne() {
    const std::vector<U16> ids = groups();
    if (ids.empty()) return;
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(ids[pick(0, U32(ids.size() - 1))]);
    const U32 length = g->size() * (g->wide() ? 2u : 1u);
    const U32 start = g->hwStartIndex();
    if (!g->wide() && start > 3 && m().freeEntries(U16(start - 1)) && pick(0, 1)) {
      recordMove(m().moveECMPGroup(g->groupId(), U16(start - 1), true), length, true);
      return;
    }
    // The lowest free block of the narrow region, or the highest of the wide one.
    const U32 first = g->wide() ? m().lastWideIndex() : 3;
    const U32 last = g->wide() ? m().getNextHopTableSwapIndex() : m().lastNarrowIndex() + 1u;
    U32 run = 0;
    for (U32 k = 0; k < (last > first ? last - first : 0); ++k) {
      const U32 i = g->wide() ? last - 1 - k : first + k;
      run = m().freeEntries(U16(i)) ? run + 1 : 0;
      if (run >= length && length > 0) {
        const U32 to = g->wide() ? i : i + 1 - length;
        if (g->wide() && to % 2 != 0) continue;
        recordMove(m().moveECMPGroup(g->groupId(), U16(to), false), length, false);
        return;
      }
    }
  }

  void recordMove(S32 rc, U32 length, bool overlap) {
    if (rc != 0) return;  // refused (a destination out of range): nothing moved
    ++tally_.groupsMoved;
    tally_.entriesMoved += overlap ? 2 * length : length;
    tally_.swapAreaLegs += overlap;
  }

  // One timer expiry with a run wanted; the clock moves on at every leg so
  // that some runs are cut by their budget.
  void compactOne() {
    for (auto& o : owners_) o->told.clear();
    defrag().scheduleDefragmentIs(true);
    stepping_ = true;
    const double start = clock_->now();
    defrag().handleDefragSchedulerTimeOut();
    const double spent = clock_->now() - start;
    ++tally_.runs;
    tally_.runsCut += defrag().scheduleDefragment();
    tally_.time += spent;
    tally_.longest = std::max(tally_.longest, spent);
    // A move through the swap area tells its owner twice, the same base.
    for (auto& o : owners_) {
      for (size_t i = 0; i < o->told.size(); ++i) {
        Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(o->told[i].groupId);
        const U32 length = g->size() * (g->wide() ? 2u : 1u);
        const bool viaSwap = i + 1 < o->told.size() && o->told[i + 1] == o->told[i];
        ++tally_.groupsMoved;
        tally_.entriesMoved += viaSwap ? 2 * length : length;
        tally_.swapAreaLegs += viaSwap;
        if (viaSwap) ++i;
      }
    }
  }

  // Groups placed across a switch end up in the other table's regions (a
  // narrow pass would then slide wide groups by their size in next hops),
  // so the owner clears the table first, as an agent does before resizing.
  void switchSimulation() {
    if (!bound() || pick(0, 3) != 0) return;
    for (U16 id : groups()) ASSERT_EQ(m().deleteECMPGroup(0, id), 0);
    m().setSimulationMode(!m().simMode(), bound());
  }

  std::vector<Kiln::Ptr<RecordingOwner>> owners_;
  Tally tally_;
  bool stepping_ = false;
};

TEST_P(ResourcesRandomTest, EveryCounterEqualsItsRecountAfterEveryStep) {
  // The clock moves 0.03 s at every chip write of a compaction run.
  FmSim::writeObserverIs([this](const FmSim::Call&, const U64*) {
    if (stepping_) clock_->advance(0.03);
  });
  expectMatches(m(), tally_, "start");
  const int steps = this->steps();
  for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
    stepping_ = false;
    const U32 op = pick(0, 99);
    std::string name;
    if (op < 50) {
      name = "create";
      createOne();
    } else if (op < 80) {
      name = "delete";
      deleteOne();
    } else if (op < 90) {
      name = "move";
      moveOne();
    } else if (op < 97) {
      name = "compaction run";
      compactOne();
    } else {
      name = "simulation switch";
      switchSimulation();
    }
    expectMatches(m(), tally_, "step " + std::to_string(step) + ": " + name);
    if (testing::Test::HasFailure()) break;
  }
  FmSim::writeObserverIs({});
  EXPECT_GT(tally_.groupsMoved, 0u);
}

INSTANTIATE_TEST_SUITE_P(FullTable, ResourcesRandomTest,
                         testing::Values(std::make_tuple(1u, U16(0), 1500),
                                         std::make_tuple(2u, U16(0), 1500)));
INSTANTIATE_TEST_SUITE_P(SmallTable, ResourcesRandomTest,
                         testing::Values(std::make_tuple(3u, U16(64), 3000),
                                         std::make_tuple(4u, U16(128), 3000),
                                         std::make_tuple(5u, U16(512), 3000)));

}  // namespace

namespace {

using namespace NextHopTest;
using Brevant::GroupPlacement;
using Brevant::NextHopResources;

// Counts the alarm handlers called.
class AlarmWatch : public NextHopResources::NotifieeConst {
 public:
  void onUsedAlarm() override { ++usedCalls; }
  void onFragmentationAlarm() override { ++fragmentationCalls; }
  int usedCalls = 0;
  int fragmentationCalls = 0;
};

TEST_F(NextHopTableTest, UsedWatermarksNotifyOncePerCrossingWithHysteresis) {
  m().setSimulationMode(true, 100);  // bound 100, 3 entries never free
  NextHopResources& res = *m().resources();
  AlarmWatch watch;
  watch.notifierIs(m().resources());
  res.usedHighWatermarkIs(50);
  res.usedLowWatermarkIs(30);
  ASSERT_EQ(create(40), 3);  // 43% used
  EXPECT_FALSE(res.usedAlarm());
  ASSERT_EQ(create(10), 4);  // 53%: raised
  EXPECT_TRUE(res.usedAlarm());
  EXPECT_EQ(watch.usedCalls, 1);
  ASSERT_EQ(create(5), 5);  // still above: no new call
  ASSERT_EQ(m().deleteECMPGroup(0, 5), 0);
  ASSERT_EQ(m().deleteECMPGroup(0, 4), 0);  // 43%: between the watermarks, still raised
  EXPECT_TRUE(res.usedAlarm());
  EXPECT_EQ(watch.usedCalls, 1);
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);  // 3%: cleared
  EXPECT_FALSE(res.usedAlarm());
  EXPECT_EQ(watch.usedCalls, 2);
  ASSERT_EQ(create(60), 3);  // raised again
  EXPECT_EQ(watch.usedCalls, 3);
  res.usedHighWatermarkIs(0);  // off: cleared
  EXPECT_FALSE(res.usedAlarm());
  EXPECT_EQ(watch.usedCalls, 4);
}

TEST_F(NextHopTableTest, AlarmsAreTraced) {
  m().setSimulationMode(true, 100);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  m().resources()->usedHighWatermarkIs(50);
  m().resources()->usedLowWatermarkIs(10);
  ASSERT_EQ(create(60), 3);
  EXPECT_THAT(capture.texts(3),
              testing::Contains("Next-hop table use 63% reached the high watermark 50%"));
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  EXPECT_THAT(capture.texts(3),
              testing::Contains("Next-hop table use 3% is back at the low watermark 10%"));
}

TEST_F(NextHopTableTest, FragmentationWatermarkFollowsShortRuns) {
  m().setSimulationMode(true, 64);
  NextHopResources& res = *m().resources();
  res.fragmentationHighWatermarkIs(40);
  res.fragmentationLowWatermarkIs(10);
  for (int i = 0; i < 10; ++i) ASSERT_GE(create(4), 3);  // 3..42
  EXPECT_FALSE(res.fragmentationAlarm());
  for (U16 id : {3, 5, 7, 9}) ASSERT_EQ(m().deleteECMPGroup(0, id), 0);
  // Four holes of 4 entries; while the largest group is 4 none is short.
  EXPECT_EQ(res.fragmentationPercent(), 0.0);
  ASSERT_EQ(m().createECMPGroup(0, false, true, 8, wordRun(8, 1), wordRun(8, 2),
                                Brevant::RoutingUnicastFeature, false),
            3);  // 43..50; holes of 4 are now shorter than the largest group, 8
  EXPECT_EQ(res.largestGroupSeen(), 8);
  EXPECT_EQ(res.fragmentationPercent(), 100.0 * 16 / res.totalFree());
  EXPECT_TRUE(res.fragmentationAlarm());
}

TEST_F(NextHopTableTest, ABoundMovedWhileSimulatingIsPublishedByTheNextOperation) {
  m().setSimulationMode(true, 100);  // swap area 92..99, free
  ASSERT_EQ(create(4), 3);           // 3..6
  ASSERT_EQ(create(4), 4);           // 7..10
  ASSERT_EQ(m().deleteECMPGroup(0, 3), 0);
  NextHopResources& res = *m().resources();
  EXPECT_EQ(res.swapFree(), 8u);
  EXPECT_EQ(res.swapUsed(), 0u);
  // Already simulating: the bound moves and nothing is published, the
  // pools stay trimmed at 100.
  m().setSimulationMode(true, 200);
  EXPECT_EQ(res.swapFree(), 8u);
  // A search that changes no entry and no boundary (it finds the hole at
  // 3) still publishes for the new bound, whose swap area 192..199 holds
  // no free entry.
  ASSERT_EQ(m().findAvailableBlock(4, false), 3);
  EXPECT_EQ(res.swapFree(), 0u);
  EXPECT_EQ(res.swapUsed(), 8u);
  EXPECT_EQ(res.totalFree(), 100u - 3 - 4);
}

TEST_F(NextHopTableTest, WatermarksOutsideZeroToHundredAreRefused) {
  NextHopResources& res = *m().resources();
  EXPECT_THROW(res.usedHighWatermarkIs(101), Kiln::RangeException);
  EXPECT_THROW(res.fragmentationLowWatermarkIs(-1), Kiln::RangeException);
  EXPECT_THROW(res.usedLowWatermarkIs(std::nan("")), Kiln::RangeException);
  EXPECT_EQ(res.usedHighWatermark(), 0.0);
}

TEST_F(NextHopTableTest, PlacementQuerySaysNowCompactionOrNeverAndChangesNothing) {
  m().setSimulationMode(true, 64);  // free 3..55 for groups, swap 56..63
  NextHopResources& res = *m().resources();
  for (int i = 0; i < 13; ++i) ASSERT_GE(create(4), 3);  // 3..54
  ASSERT_EQ(m().deleteECMPGroup(0, 4), 0);               // hole 7..10
  ASSERT_EQ(m().deleteECMPGroup(0, 6), 0);               // hole 15..18
  const U16 lastNarrow = m().lastNarrowIndex();
  EXPECT_EQ(res.groupPlacement(4, false), GroupPlacement::placeNow);
  EXPECT_EQ(res.groupPlacement(6, false), GroupPlacement::needsCompaction);
  EXPECT_EQ(res.groupPlacement(30, false), GroupPlacement::cannotFit);
  EXPECT_EQ(res.groupPlacement(0, false), GroupPlacement::cannotFit);
  EXPECT_EQ(res.groupPlacement(200, true), GroupPlacement::cannotFit);
  EXPECT_FALSE(m().defragManager()->scheduleDefragment());
  EXPECT_EQ(m().lastNarrowIndex(), lastNarrow);
  EXPECT_EQ(m().fwkType().get(m(), "lastNarrowIndex"), std::to_string(lastNarrow));
  const Kiln::TypeRecord& record = res.fwkType();
  EXPECT_EQ(record.invoke(res, "groupPlacement", {"4", "False"}), "placeNow");
}

TEST_F(NextHopTableTest, ResourcesHaveATypeRecordOfTheirOwn) {
  EXPECT_EQ(Kiln::typeRecord("Brevant::NextHopResources"), &NextHopResources::kilnType());
  const Kiln::TypeRecord& record = m().resources()->fwkType();
  EXPECT_EQ(record.attribute("narrowUsed")->index, 130u);
  record.set(*m().resources(), "usedHighWatermark", "75.0");
  EXPECT_EQ(m().resources()->usedHighWatermark(), 75.0);
  EXPECT_EQ(create(0), -1);
  EXPECT_EQ(m().resources()->createsRefused(-1), 1u);
}

}  // namespace
