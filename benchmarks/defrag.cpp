// Compacting a full-size (64K-entry) next-hop table with half its entries in
// holes, and how long one defragmentation run holds the activity thread.
//
// DefragCompactHalfHoles measures a whole compaction (both passes, no time
// budget) in entries moved per second; its baseline,
// DefragBaselineReadWriteEntries, reads and writes the same number of
// entries in blocks of the same size through the library's chip access, so
// the ratio of the two is what the bookkeeping of a move (allocator, records,
// owners) adds to the copy itself. Arg 0: holes at least as long as the
// groups (every move direct); arg 1: the first hole of each region is half a
// group, so every move of the pass goes through the swap area.
//
// DefragLongestStop runs the timer's handler on the monotonic clock until
// the table is compact, and reports the longest single run (the longest stop
// of the activity thread) against the budget: the default 0.1 s (which one
// compaction of this table does not need), and 5 ms, to see runs cut short.
// Args: the hole layout as above, the budget in microseconds.
#include <algorithm>
#include <chrono>
#include <vector>

#include <benchmark/benchmark.h>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopManager.h"
#include "FmSim/FmSim.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"

namespace {

using Brevant::NextHopManager;

// Next hops per narrow group, and entries per group of either kind.
constexpr U16 narrowSize = 8;
constexpr U16 wideSize = 4;
constexpr U16 groupEntries = 8;
// Entries of the wide region below the swap index (the rest is narrow):
// the wide search walks the region from the top for every create, so a
// full-height wide region would make building the table quadratic.
constexpr U32 wideRegion = 4096;

// Switches the activity manager to clock for the life of this object.
class ClockScope {
 public:
  explicit ClockScope(const Kiln::Ptr<Kiln::Clock>& clock)
      : saved_(Kiln::ActivityManager::instance().clock()) {
    Kiln::ActivityManager::instance().clockIs(clock);
  }
  ~ClockScope() { Kiln::ActivityManager::instance().clockIs(saved_); }

 private:
  Kiln::Ptr<Kiln::Clock> saved_;
};

S32 createGroup(NextHopManager& m, U16 size, bool wide, U64 word) {
  Brevant::U64Collection data, wideData;
  for (U16 p = 0; p < size; ++p) {
    data.dataIs(p, word + p);
    wideData.dataIs(p, ~(word + p));
  }
  return m.createECMPGroup(0, wide, true, size, data, wideData, Brevant::RoutingUnicastFeature,
                           false);
}

// A table of the full size, filled with groups of 8 entries (wide from the
// swap index down through wideRegion entries, narrow from the bottom up to
// them), of which every other one is then deleted. With firstHoleHalf, the
// first group of each region is half as long (and deleted too).
struct FragmentedTable {
  Kiln::Ptr<NextHopManager> manager;
  // The groups left, and where each started before the compaction.
  std::vector<std::pair<U16, U16>> groups;

  explicit FragmentedTable(bool firstHoleHalf) : manager(new NextHopManager()) {
    NextHopManager& m = *manager;
    std::vector<U16> holes;
    const U16 swap = m.getNextHopTableSwapIndex();
    for (U32 i = 0; m.lastWideIndex() > swap - wideRegion; ++i) {
      const U16 size = firstHoleHalf && i == 0 ? wideSize / 2 : wideSize;
      const S32 id = createGroup(m, size, true, U64(i) << 16);
      (i % 2 == 0 ? holes : kept_).push_back(U16(id));
    }
    for (U32 i = 0;; ++i) {
      const U16 size = firstHoleHalf && i == 0 ? narrowSize / 2 : narrowSize;
      const S32 id = createGroup(m, size, false, (U64(i) << 16) | 0x8000);
      if (id < 0) break;
      (i % 2 == 0 ? holes : kept_).push_back(U16(id));
    }
    for (U16 id : holes) m.deleteECMPGroup(0, id);
    // The refused last create asked for a run; the benchmark makes its own.
    m.defragManager()->scheduleDefragmentIs(false);
    for (U16 id : kept_) groups.push_back({id, m.ecmpGroups(id)->hwStartIndex()});
  }

  // Returns the entries of the groups that moved since construction.
  U64 entriesMoved() const {
    U64 moved = 0;
    for (const auto& [id, start] : groups) {
      if (manager->ecmpGroups(id)->hwStartIndex() != start) moved += groupEntries;
    }
    return moved;
  }

 private:
  std::vector<U16> kept_;
};

void DefragCompactHalfHoles(benchmark::State& state) {
  Kiln::ActivityLockGuard activity;
  ClockScope manual(new Kiln::ManualClock(0));
  U64 moved = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // A fresh table on a fresh simulated chip, as the baseline's runs: the
    // simulator keeps every word ever written and logs every call, and both
    // grown through earlier iterations made a run's chip calls slower by a
    // varying amount (a log doubling, copied and faulted in, inside a timed
    // run; words scattered by earlier runs).
    FmSim::reset();
    {
      FragmentedTable table(state.range(0) != 0);
      state.ResumeTiming();
      // The manual clock stands still: no budget runs out.
      table.manager->defragManager()->defragment();
      state.PauseTiming();
      moved += table.entriesMoved();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(S64(moved));
  state.counters["entriesPerRun"] = double(moved) / double(state.iterations());
}
BENCHMARK(DefragCompactHalfHoles)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5);

void DefragBaselineReadWriteEntries(benchmark::State& state) {
  Kiln::ActivityLockGuard activity;
  // As many entries as one compaction of DefragCompactHalfHoles moves.
  ClockScope manual(new Kiln::ManualClock(0));
  const U64 entries = FragmentedTable(false).groups.size() * U64(groupEntries);
  std::vector<U64> words(groupEntries);
  U64 copied = 0;
  for (auto _ : state) {
    state.PauseTiming();
    FmSim::reset();
    state.ResumeTiming();
    for (U64 done = 0; done < entries; done += groupEntries) {
      const U16 from = U16(3 + (done * 2) % 60000);
      Brevant::readNextHopInternal(from, groupEntries, words.data());
      Brevant::writeNextHopInternal(U16(from + groupEntries), groupEntries, words.data());
    }
    copied += entries;
  }
  state.SetItemsProcessed(S64(copied));
}
BENCHMARK(DefragBaselineReadWriteEntries)->Unit(benchmark::kMillisecond)->Iterations(5);

void DefragLongestStop(benchmark::State& state) {
  Kiln::ActivityLockGuard activity;
  ClockScope monotonic(new Kiln::MonotonicClock());
  const double budget = double(state.range(1)) * 1e-6;
  double longest = 0;
  U64 runs = 0;
  for (auto _ : state) {
    state.PauseTiming();
    FragmentedTable table(state.range(0) != 0);
    Brevant::DefragManager& defrag = *table.manager->defragManager();
    defrag.defragTimeIs(budget);
    defrag.scheduleDefragmentIs(true);
    state.ResumeTiming();
    // As the timer would: one run per expiry until a run finishes.
    while (defrag.scheduleDefragment()) {
      const auto start = std::chrono::steady_clock::now();
      defrag.handleDefragSchedulerTimeOut();
      const std::chrono::duration<double> stop = std::chrono::steady_clock::now() - start;
      longest = std::max(longest, stop.count());
      ++runs;
    }
    state.PauseTiming();
    table.manager = nullptr;
    state.ResumeTiming();
  }
  state.counters["budgetSeconds"] = budget;
  state.counters["longestStopSeconds"] = longest;
  state.counters["longestStopOverBudget"] = longest / budget;
  state.counters["runsPerCompaction"] = double(runs) / double(state.iterations());
}
BENCHMARK(DefragLongestStop)
    ->Args({0, 100000})
    ->Args({1, 100000})
    ->Args({0, 5000})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace
