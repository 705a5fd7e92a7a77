// What the next-hop table costs: building a manager (the full table's two
// free pools), filling the table with narrow groups, and churn on a
// fragmented table. Each has a baseline in the same run: the same pools as
// std::map, or the raw chip writes of the same words. Traces are off.
#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <random>
#include <vector>

#include "Brevant/NextHopAccess.h"
#include "next_hop_table_setting.h"

namespace {

using namespace NextHopBenchmark;
using Brevant::NextHopManager;
using Brevant::U64Collection;

// Entries of each free pool of a new manager: 3 to 65533.
constexpr U32 poolEntries = 65531;

void NextHopManagerConstruct(benchmark::State& state) {
  TableSetting setting;
  for (auto _ : state) {
    Kiln::Ptr<NextHopManager> m = new NextHopManager();
    benchmark::DoNotOptimize(m.ptr());
    state.PauseTiming();
    m = nullptr;
    FmSim::reset();
    state.ResumeTiming();
  }
  perItem(state, "perPoolEntry", 2.0 * poolEntries);
}
BENCHMARK(NextHopManagerConstruct)->Unit(benchmark::kMillisecond);

// Baseline: the same two pools as std::map, filled in the same order.
void NextHopManagerConstructBaselineStdMap(benchmark::State& state) {
  for (auto _ : state) {
    std::map<U16, bool> freeEntries;
    std::map<U16, bool> freeGroupIds;
    for (U32 i = 3; i < 3 + poolEntries; ++i) {
      freeEntries[U16(i)] = true;
      freeGroupIds[U16(i)] = true;
    }
    benchmark::DoNotOptimize(freeEntries.size());
    state.PauseTiming();
    freeEntries.clear();
    freeGroupIds.clear();
    state.ResumeTiming();
  }
  perItem(state, "perPoolEntry", 2.0 * poolEntries);
}
BENCHMARK(NextHopManagerConstructBaselineStdMap)->Unit(benchmark::kMillisecond);

void NextHopManagerDestroy(benchmark::State& state) {
  TableSetting setting;
  for (auto _ : state) {
    state.PauseTiming();
    Kiln::Ptr<NextHopManager> m = new NextHopManager();
    state.ResumeTiming();
    m = nullptr;
  }
  perItem(state, "perPoolEntry", 2.0 * poolEntries);
}
BENCHMARK(NextHopManagerDestroy)->Unit(benchmark::kMillisecond);

// Narrow groups of 8 fill the table from index 3 up to the swap index.
constexpr U16 fillGroupSize = 8;
constexpr U32 fillGroups = (65278 - 3) / fillGroupSize;

void NextHopTableFillNarrowGroupsOf8(benchmark::State& state) {
  TableSetting setting;
  const U64Collection data = wordRun(fillGroupSize, 0x100);
  const U64Collection none;
  U32 groups = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Kiln::Ptr<NextHopManager> m = new NextHopManager();
    state.ResumeTiming();
    groups = 0;
    while (m->createECMPGroup(0, false, true, fillGroupSize, data, none,
                              Brevant::RoutingUnicastFeature, false) > 0) {
      ++groups;
    }
    state.PauseTiming();
    m = nullptr;
    FmSim::reset();
    state.ResumeTiming();
  }
  if (groups != fillGroups) state.SkipWithError("the table did not fill as expected");
  perItem(state, "perGroup", fillGroups);
}
BENCHMARK(NextHopTableFillNarrowGroupsOf8)->Unit(benchmark::kMillisecond);

// Baseline: only the chip writes of the same groups.
void NextHopTableFillBaselineChipWrites(benchmark::State& state) {
  TableSetting setting;
  std::vector<U64> words(fillGroupSize);
  for (U16 p = 0; p < fillGroupSize; ++p) words[p] = 0x100 + p;
  for (auto _ : state) {
    for (U32 g = 0; g < fillGroups; ++g) {
      Brevant::writeNextHopInternal(U16(3 + g * fillGroupSize), fillGroupSize, words.data());
    }
    state.PauseTiming();
    FmSim::reset();
    state.ResumeTiming();
  }
  perItem(state, "perGroup", fillGroups);
}
BENCHMARK(NextHopTableFillBaselineChipWrites)->Unit(benchmark::kMillisecond);

// One step of churn: the size and kind of the group created.
struct ChurnRequest {
  bool wide;
  U16 size;
};

// Mostly small groups, some large; one in four wide.
ChurnRequest churnRequest(std::mt19937& random) {
  auto pick = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random); };
  const bool wide = pick(0, 3) == 0;
  const U32 size = pick(0, 9) == 0 ? pick(1, wide ? 64 : 128) : pick(1, wide ? 8 : 16);
  return {wide, U16(size)};
}

// Holds the manager's resource counters where they are: refreshResources()
// waits while resourcesHeld is positive (as it does through a move's
// steps), so the table's changes are only marked for a refresh that never
// comes.
class ResourcesPaused {
 public:
  explicit ResourcesPaused(NextHopManager& manager) : manager_(manager) {
    ++manager_.resourcesHeld;
  }
  ~ResourcesPaused() { --manager_.resourcesHeld; }
  ResourcesPaused(const ResourcesPaused&) = delete;
  ResourcesPaused& operator=(const ResourcesPaused&) = delete;

 private:
  NextHopManager& manager_;
};

// A table kept near 90% full, fragmented, and the churn on it: each step
// deletes a random group and creates one of random size and kind; holes of
// every size make many searches long. Two tables built alike are equal, and
// stay equal step for step.
class ChurnTable {
 public:
  ChurnTable() {
    fill();
    // Fragment it: a fifth of the groups go, and the holes are filled again.
    for (size_t n = groups_.size() / 5; n > 0; --n) deleteAt(random_() % groups_.size());
    fill();
  }
  ChurnTable(const ChurnTable&) = delete;
  ChurnTable& operator=(const ChurnTable&) = delete;

  double occupancy() const {
    return double(poolEntries - manager->freeEntries().members()) / double(poolEntries);
  }

  // What one step did: the group deleted, and the one created (0 if refused).
  struct Step {
    U16 deleted;
    ChurnRequest request;
    U16 created;
  };
  Step step() {
    const U16 deleted = deleteAt(random_() % groups_.size());
    const ChurnRequest r = churnRequest(random_);
    return {deleted, r, create(r)};
  }

  const Kiln::Ptr<NextHopManager> manager = new NextHopManager();

 private:
  U16 create(const ChurnRequest& r) {
    const S32 id = manager->createECMPGroup(0, r.wide, true, r.size, data_, data_,
                                            Brevant::RoutingUnicastFeature, false);
    if (id <= 0) return 0;
    groups_.push_back(U16(id));
    return U16(id);
  }
  U16 deleteAt(size_t at) {
    const U16 id = groups_[at];
    manager->deleteECMPGroup(0, id);
    groups_[at] = groups_.back();
    groups_.pop_back();
    return id;
  }
  // Fills to 90%, giving up after a run of refused requests (the regions
  // have met and only requests that fit a hole succeed).
  void fill() {
    for (int refused = 0;
         refused < 200 && poolEntries - manager->freeEntries().members() < poolEntries * 9 / 10;) {
      refused = create(churnRequest(random_)) ? 0 : refused + 1;
    }
  }

  std::mt19937 random_{7};
  const U64Collection data_ = wordRun(128, 0x200);
  std::vector<U16> groups_;
};

// With countersKept false the resource counters are paused for the timed
// steps (not for the filling), so the two runs differ only by keeping them.
void churnFragmented(benchmark::State& state, bool countersKept) {
  TableSetting setting;
  ChurnTable table;
  const double startOccupancy = table.occupancy();
  U64 failed = 0;
  std::optional<ResourcesPaused> paused;
  if (!countersKept) paused.emplace(*table.manager);
  for (auto _ : state) failed += table.step().created == 0;
  state.counters["failedCreates"] =
      benchmark::Counter(double(failed), benchmark::Counter::kAvgIterations);
  state.counters["startOccupancy"] = startOccupancy;
  state.counters["endOccupancy"] = table.occupancy();
}

// The table drifts as the churn goes on (its occupancy falls slowly), so
// both runs take the same number of steps: the same requests on the same
// tables, step for step.
constexpr benchmark::IterationCount churnSteps = 20000;

void NextHopTableChurnFragmented(benchmark::State& state) { churnFragmented(state, true); }
BENCHMARK(NextHopTableChurnFragmented)->Unit(benchmark::kMicrosecond)->Iterations(churnSteps);

// Baseline: the same churn with the resource counters paused.
void NextHopTableChurnFragmentedCountersPaused(benchmark::State& state) {
  churnFragmented(state, false);
}
BENCHMARK(NextHopTableChurnFragmentedCountersPaused)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(churnSteps);

// Baseline: the records a churn step must keep, and nothing else. The steps
// are played on one table and noted (which group went, which came and
// where); a second table built alike then goes through the same steps
// changing only the records: the group with a next-hop member per next hop,
// the start map, the group ids, and per entry an allocated member and a
// free member added or removed. No search, no chip write, no counters: what
// a step costs at the least while the table keeps these records.
void NextHopTableChurnBaselineRecordsOnly(benchmark::State& state) {
  TableSetting setting;
  struct Placed {
    ChurnTable::Step step;
    U16 start;
  };
  std::vector<Placed> steps;
  U32 freeAfterPlaying = 0;
  {
    ChurnTable played;
    for (auto n = state.max_iterations; n > 0; --n) {
      const ChurnTable::Step step = played.step();
      steps.push_back(
          {step, step.created ? played.manager->ecmpGroups(step.created)->hwStartIndex() : U16(0)});
    }
    freeAfterPlaying = played.manager->freeEntries().members();
  }
  ChurnTable table;
  NextHopManager& m = *table.manager;
  const ResourcesPaused paused(m);
  size_t at = 0;
  for (auto _ : state) {
    const auto& [step, start] = steps[at++];
    const Kiln::Ptr<Brevant::ECMPGroup> gone = m.ecmpGroups(step.deleted);
    const U16 goneStart = gone->hwStartIndex();
    m.hwStartToGroupIdDel(goneStart);
    const U32 goneEnd = goneStart + gone->size() * (gone->wide() ? 2U : 1U);
    for (U32 i = goneStart; i < goneEnd; ++i) m.updateNextHopHWIndex(U16(i), false);
    m.ecmpGroupsDel(step.deleted);
    m.freeGroupIdsIs(step.deleted, true);
    if (step.created == 0) continue;
    const ChurnRequest& r = step.request;
    m.freeGroupIdsDel(step.created);
    const Kiln::Ptr<Brevant::ECMPGroup> group = m.ecmpGroupsIs(step.created);
    group->wideIs(r.wide);
    group->fixedSizeIs(true);
    group->sizeIs(r.size);
    group->hwStartIndexIs(start);
    group->featuresSupportedIs(Brevant::RoutingUnicastFeature, true);
    for (U16 p = 0; p < r.size; ++p) {
      group->nextHopsIs(p, Brevant::NextHopEntry(U16(start + p * (r.wide ? 2 : 1)), r.wide,
                                                 0x200 + p, r.wide ? 0x200 + p : 0));
    }
    const U32 end = start + r.size * (r.wide ? 2U : 1U);
    for (U32 i = start; i < end; ++i) m.updateNextHopHWIndex(U16(i), true);
    m.hwStartToGroupIdIs(start, step.created);
  }
  if (m.freeEntries().members() != freeAfterPlaying) {
    state.SkipWithError("the records went apart from the table they were noted from");
  }
}
BENCHMARK(NextHopTableChurnBaselineRecordsOnly)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(churnSteps);

// Baseline: only the chip writes of the same stream of requests.
void NextHopTableChurnBaselineChipWrites(benchmark::State& state) {
  TableSetting setting;
  std::mt19937 random(7);
  std::vector<U64> words(256, 0x200);
  for (auto _ : state) {
    const ChurnRequest r = churnRequest(random);
    Brevant::writeNextHopInternal(3, U16(r.size * (r.wide ? 2 : 1)), words.data());
  }
}
BENCHMARK(NextHopTableChurnBaselineChipWrites)->Unit(benchmark::kMicrosecond);

}  // namespace
