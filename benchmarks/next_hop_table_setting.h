// What the next-hop table benchmarks share: the setting every one of them
// runs under, and small helpers for their data and counters.
#pragma once

#include <benchmark/benchmark.h>

#include <optional>

#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "FmSim/FmSim.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"

namespace NextHopBenchmark {

// The activity lock held (the chip calls release it), a fresh simulated
// chip, a manual clock (the defragmentation timer is armed, never fired)
// and the traces off; all given back at the end.
class TableSetting {
 public:
  TableSetting() : levels_(Brevant::nextHopTrace().levels()) {
    FmSim::reset();
    Kiln::ActivityManager::instance().clockIs(new Kiln::ManualClock(0));
    Brevant::nextHopTrace().levelsIs(Trace::noLevels);
    activity_.emplace();
  }
  ~TableSetting() {
    activity_.reset();
    Brevant::nextHopTrace().levelsIs(levels_);
    FmSim::reset();
  }
  TableSetting(const TableSetting&) = delete;
  TableSetting& operator=(const TableSetting&) = delete;

 private:
  Trace::LevelMask levels_;
  std::optional<Kiln::ActivityLockGuard> activity_;
};

// size distinct words starting at base.
inline Brevant::U64Collection wordRun(U16 size, U64 base) {
  Brevant::U64Collection c;
  for (U16 p = 0; p < size; ++p) c.dataIs(p, base + p);
  return c;
}

// Reports the time per item (entry, group, operation) besides the time per
// iteration.
inline void perItem(benchmark::State& state, const char* name, double items) {
  state.counters[name] = benchmark::Counter(
      items, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace NextHopBenchmark
