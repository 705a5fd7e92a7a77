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

// Deletes a random group and creates one of random size and kind, on a
// table kept near 90% full; holes of every size make many searches long.
// With countersKept false the resource counters are paused for the timed
// steps (not for the filling), so the two runs differ only by keeping them.
void churnFragmented(benchmark::State& state, bool countersKept) {
  TableSetting setting;
  std::mt19937 random(7);
  Kiln::Ptr<NextHopManager> m = new NextHopManager();
  const U64Collection data = wordRun(128, 0x200);
  std::vector<U16> groups;
  auto create = [&](const ChurnRequest& r) {
    const S32 id = m->createECMPGroup(0, r.wide, true, r.size, data, data,
                                      Brevant::RoutingUnicastFeature, false);
    if (id > 0) groups.push_back(U16(id));
    return id > 0;
  };
  // Fills to 90%, giving up after a run of refused requests (the regions
  // have met and only requests that fit a hole succeed).
  auto fill = [&] {
    for (int refused = 0;
         refused < 200 && poolEntries - m->freeEntries().members() < poolEntries * 9 / 10;) {
      refused = create(churnRequest(random)) ? 0 : refused + 1;
    }
  };
  fill();
  // Fragment it: a fifth of the groups go, and the holes are filled again.
  for (size_t n = groups.size() / 5; n > 0; --n) {
    const size_t at = random() % groups.size();
    m->deleteECMPGroup(0, groups[at]);
    groups[at] = groups.back();
    groups.pop_back();
  }
  fill();
  const double startOccupancy =
      double(poolEntries - m->freeEntries().members()) / double(poolEntries);
  U64 failed = 0;
  std::optional<ResourcesPaused> paused;
  if (!countersKept) paused.emplace(*m);
  for (auto _ : state) {
    const size_t at = random() % groups.size();
    m->deleteECMPGroup(0, groups[at]);
    groups[at] = groups.back();
    groups.pop_back();
    failed += !create(churnRequest(random));
  }
  state.counters["failedCreates"] =
      benchmark::Counter(double(failed), benchmark::Counter::kAvgIterations);
  state.counters["startOccupancy"] = startOccupancy;
  state.counters["endOccupancy"] =
      double(poolEntries - m->freeEntries().members()) / double(poolEntries);
  paused.reset();
  m = nullptr;
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
