// Randomized churn on small simulated tables: groups of both kinds are
// created, deleted, rewritten and moved, and the timer's defragmentation runs
// whenever a create is refused, with and without a budget that runs out.
// The hitless checker looks at every chip write; between operations the
// table must agree with the groups' own words, and every finished run must
// leave both regions packed.
#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "next_hop_table_fixture.h"
#include "support/ChipWriteWatch.h"

namespace {

using namespace NextHopTest;

struct ChurnCase {
  U32 seed;
  // The simulated bound: the swap area is the 8 entries below it.
  U16 bound;
  // Seconds the clock moves on at each chip write during a run (0: runs
  // never run out of time).
  Kiln::Seconds stepPerWrite;
  U32 operations;
};

std::ostream& operator<<(std::ostream& out, const ChurnCase& c) {
  return out << "seed " << c.seed << " bound " << c.bound << " step " << c.stepPerWrite;
}

class DefragChurnTest : public NextHopTableTest, public testing::WithParamInterface<ChurnCase> {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    m().setSimulationMode(true, GetParam().bound);
    swap_ = m().getNextHopTableSwapIndex();
    rng_.seed(GetParam().seed);
    watch_.emplace(m());
    // A narrow group that stays at 3, so that removing the lowest narrow
    // group never sends the narrow boundary's scan round the table.
    anchor_ = createGroup(1, false);
    ASSERT_EQ(m().ecmpGroups(anchor_)->hwStartIndex(), 3);
  }
  void TearDown() override {
    watch_.reset();
    NextHopTableTest::TearDown();
  }

  ChipWriteWatch& watch() { return *watch_; }
  U32 random(U32 below) { return std::uniform_int_distribution<U32>(0, below - 1)(rng_); }

  // Words never seen before, so that a foreign or stale entry never matches.
  U64 freshWord() { return 0xC0DE000000000000ull + (++words_); }

  // Creates a group of fresh words; returns its id, or 0 when refused.
  U16 createGroup(U16 size, bool wide) {
    U64Collection data, wideData;
    std::vector<std::pair<U64, U64>> model;
    for (U16 p = 0; p < size; ++p) {
      model.push_back({freshWord(), wide ? freshWord() : 0});
      data.dataIs(p, model.back().first);
      wideData.dataIs(p, model.back().second);
    }
    const auto feature = static_cast<FeatureType>(random(5));
    const S32 id = m().createECMPGroup(0, wide, true, size, data, wideData, feature, false);
    if (id < 0) {
      EXPECT_EQ(id, -2);
      ++refused_;
      return 0;
    }
    model_[U16(id)] = model;
    return U16(id);
  }

  U16 anyGroup() {
    auto it = model_.begin();
    std::advance(it, random(U32(model_.size())));
    return it->first;
  }

  void deleteGroup() {
    if (model_.size() < 2) return;
    const U16 id = anyGroup();
    if (id == anchor_) return;
    ASSERT_EQ(m().deleteECMPGroup(0, id), 0);
    model_.erase(id);
  }

  // Rewrites a group's words: not a move, so the records follow the chip
  // only once the write is made, and the checker looks away meanwhile.
  void rewriteGroup() {
    const U16 id = anyGroup();
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    U64Collection data, wideData;
    for (U16 p = 0; p < g->size(); ++p) {
      model_[id][p] = {freshWord(), g->wide() ? freshWord() : 0};
      data.dataIs(p, model_[id][p].first);
      wideData.dataIs(p, model_[id][p].second);
    }
    watch().checkingIs(false);
    ASSERT_EQ(m().updateECMPGroup(0, id, data, wideData), 0);
    watch().checkingIs(true);
  }

  // Moves a group to a random place of its own region that is free (or its
  // own), through the swap area when the two blocks overlap.
  void moveGroup() {
    const U16 id = anyGroup();
    if (id == anchor_) return;
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    const U16 length = U16((g->wide() ? 2 : 1) * g->size());
    const U16 from = g->hwStartIndex();
    const U32 lo = g->wide() ? m().lastWideIndex() : 4;
    const U32 hi = g->wide() ? swap_ : m().lastNarrowIndex() + 1u;  // one past the last entry
    std::vector<U16> places;
    for (U32 to = lo; to + length <= hi; to += g->wide() ? 2 : 1) {
      bool usable = to != from;
      for (U32 i = to; i < to + length && usable; ++i) {
        usable = m().freeEntries(U16(i)) || (i >= from && i < from + length);
      }
      if (usable) places.push_back(U16(to));
    }
    if (places.empty()) return;
    const U16 to = places[random(U32(places.size()))];
    const bool overlap = to < from + length && from < to + length;
    ASSERT_EQ(m().moveECMPGroup(id, to, overlap), 0);
    ++moves_;
  }

  // Lets the pending defragmentation run fire, with the clock moving on at
  // every write of the run.
  void fire() {
    watch().clockStepIs(clock_, GetParam().stepPerWrite);
    clock_->timeIs(std::max(clock_->now(), defrag().defragScheduler()->timeMin()));
    watch().clockStepIs(clock_, 0);
    ++runs_;
    if (defrag().scheduleDefragment()) {
      ++unfinishedRuns_;
    } else {
      expectPacked();
    }
  }

  bool armed() { return defrag().defragScheduler()->timeMin() != Kiln::Clock::never; }

  // Between operations: the chip holds every group's own words at the
  // group's place, the owners agree, and the allocator's records are exactly
  // the groups' blocks.
  void expectConsistent() {
    ASSERT_EQ(watch().checker().checkSettled(), 0u) << watch().checker().report();
    std::set<U16> used;
    for (const auto& [id, words] : model_) {
      Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
      ASSERT_TRUE(g) << id;
      const U16 step = g->wide() ? 2 : 1;
      for (U16 p = 0; p < g->size(); ++p) {
        const U16 index = U16(g->hwStartIndex() + step * p);
        ASSERT_EQ(FmSim::tableWord(index), words[p].first) << "group " << id << " position " << p;
        if (g->wide()) {
          ASSERT_EQ(FmSim::tableWord(index + 1), words[p].second);
        }
        for (U16 k = 0; k < step; ++k) ASSERT_TRUE(used.insert(U16(index + k)).second);
      }
    }
    for (U32 i = 3; i < GetParam().bound; ++i) {
      const bool inUse = used.count(U16(i)) != 0;
      ASSERT_EQ(m().allocatedEntries(U16(i)), inUse) << "entry " << i;
      ASSERT_EQ(m().freeEntries(U16(i)), !inUse) << "entry " << i;
    }
  }

  // After a finished run: narrow groups fill 3 upward without a hole, wide
  // groups fill down from the swap index without a hole.
  void expectPacked() {
    U32 narrowEnd = 2, wideStart = swap_;
    for (const auto& [id, words] : model_) {
      Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
      if (g->wide()) {
        wideStart = std::min<U32>(wideStart, g->hwStartIndex());
      } else {
        narrowEnd = std::max<U32>(narrowEnd, g->hwStartIndex() + g->size() - 1);
      }
    }
    for (U32 i = 3; i <= narrowEnd; ++i) EXPECT_TRUE(m().allocatedEntries(U16(i))) << i;
    for (U32 i = wideStart; i < swap_; ++i) EXPECT_TRUE(m().allocatedEntries(U16(i))) << i;
    ++packedChecks_;
  }

  U16 swap_ = 0;
  U16 anchor_ = 0;
  std::mt19937 rng_;
  std::optional<ChipWriteWatch> watch_;
  std::map<U16, std::vector<std::pair<U64, U64>>> model_;
  U64 words_ = 0;
  U32 refused_ = 0, moves_ = 0, runs_ = 0, unfinishedRuns_ = 0, packedChecks_ = 0;
};

TEST_P(DefragChurnTest, EveryWriteIsHitlessAndEveryFinishedRunPacksTheTable) {
  for (U32 op = 0; op < GetParam().operations; ++op) {
    const U32 dice = random(100);
    if (dice < 35) {
      createGroup(U16(1 + random(8)), false);
    } else if (dice < 55) {
      createGroup(U16(1 + random(4)), true);
    } else if (dice < 80) {
      deleteGroup();
    } else if (dice < 85) {
      rewriteGroup();
    } else if (dice < 90) {
      const U16 id = anyGroup();
      m().addFeatureToGroup(id, static_cast<FeatureType>(random(5)));
    } else {
      moveGroup();
    }
    if (armed() && random(3) == 0) fire();
    expectConsistent();
    if (HasFatalFailure() || !watch().checker().hitless()) break;
  }
  while (armed()) fire();
  expectConsistent();
  EXPECT_TRUE(watch().checker().hitless()) << watch().checker().report();
  // The churn must have exercised what it is for.
  U32 swapWrites = 0;
  for (const FmSim::Call& c : FmSim::calls()) {
    if (c.function == FmSim::Function::writeUINT64Mult &&
        c.address == FmSim::nextHopTableBase + 2u * swap_) {
      ++swapWrites;
    }
  }
  EXPECT_GT(refused_, 50u);
  EXPECT_GT(runs_, 50u);
  EXPECT_GT(packedChecks_, 20u);
  EXPECT_GT(moves_, 50u);
  EXPECT_GT(swapWrites, 100u);
  if (GetParam().stepPerWrite > 0) {
    EXPECT_GT(unfinishedRuns_, 10u);
  }
  EXPECT_GT(watch().checker().checks(), 5000u);
  RecordProperty("swapWrites", int(swapWrites));
  RecordProperty("runs", int(runs_));
  RecordProperty("unfinishedRuns", int(unfinishedRuns_));
}

INSTANTIATE_TEST_SUITE_P(SmallTables, DefragChurnTest,
                         testing::Values(ChurnCase{1, 96, 0, 4000}, ChurnCase{2, 96, 0.03, 4000},
                                         ChurnCase{3, 160, 0.045, 4000}, ChurnCase{4, 160, 0, 4000},
                                         ChurnCase{5, 64, 0.035, 4000}));

}  // namespace
