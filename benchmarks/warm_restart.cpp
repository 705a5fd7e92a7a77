// What a warm restart costs on a full table: 8,000 narrow groups of 8 next
// hops (64,000 entries). Saving writes the snapshot text (and the file, with
// its flush and rename); restoring parses it, fills a new manager through its
// mutators and compares the chip with it. The baseline in the same run is
// reading every group's block back through the chip API, one call per group,
// which any restore that checks the chip has to do at least.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "Brevant/NextHopAccess.h"
#include "Brevant/WarmRestart.h"
#include "next_hop_table_setting.h"

namespace {

using namespace NextHopBenchmark;
using Brevant::NextHopManager;

constexpr U16 fullTableGroups = 8000;
constexpr U16 groupSize = 8;

// The full table, in the setting of every next-hop table benchmark.
class FullTable {
 public:
  FullTable() : manager_(new NextHopManager()) {
    for (U32 g = 0; g < fullTableGroups; ++g) {
      const Brevant::U64Collection words = wordRun(groupSize, U64(g) << 16);
      manager_->createECMPGroup(0, false, true, groupSize, words, words,
                                Brevant::RoutingUnicastFeature, false);
    }
  }
  NextHopManager& manager() { return *manager_; }

 private:
  // Declared first: built before the manager, given back after it.
  TableSetting setting_;
  Kiln::Ptr<NextHopManager> manager_;
};

void perGroup(benchmark::State& state) { perItem(state, "perGroup", fullTableGroups); }

// Baseline: every group's block read back through the chip API.
void WarmRestartBaselineReadGroups(benchmark::State& state) {
  FullTable table;
  std::vector<U64> words(groupSize);
  for (auto _ : state) {
    for (const auto& placed : table.manager().hwStartToGroupId()) {
      Brevant::readNextHopInternal(placed.key(), groupSize, words.data());
      benchmark::DoNotOptimize(words.data());
    }
  }
  perGroup(state);
}
BENCHMARK(WarmRestartBaselineReadGroups)->Unit(benchmark::kMillisecond);

void WarmRestartSnapshotText(benchmark::State& state) {
  FullTable table;
  size_t bytes = 0;
  for (auto _ : state) {
    const std::string text = Brevant::snapshotText(table.manager());
    bytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.counters["bytes"] = double(bytes);
  perGroup(state);
}
BENCHMARK(WarmRestartSnapshotText)->Unit(benchmark::kMillisecond);

void WarmRestartSaveFile(benchmark::State& state) {
  FullTable table;
  const std::string path = "/tmp/brevant-benchmark-snapshot." + std::to_string(getpid());
  for (auto _ : state) Brevant::saveSnapshot(table.manager(), path);
  std::remove(path.c_str());
  perGroup(state);
}
BENCHMARK(WarmRestartSaveFile)->Unit(benchmark::kMillisecond);

void WarmRestartRestore(benchmark::State& state) {
  FullTable table;
  const std::string text = Brevant::snapshotText(table.manager());
  for (auto _ : state) {
    Brevant::RestoreResult result;
    Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManagerFromText(text, {}, &result);
    state.PauseTiming();
    if (result.outcome != Brevant::RestoreResult::Outcome::warm) state.SkipWithError("not warm");
    restored = nullptr;
    state.ResumeTiming();
  }
  perGroup(state);
}
BENCHMARK(WarmRestartRestore)->Unit(benchmark::kMillisecond);

}  // namespace
