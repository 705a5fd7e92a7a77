// What the next-hop table benchmarks share: the setting they run under and
// a per-item counter.
#pragma once

#include <benchmark/benchmark.h>

#include <optional>

#include "Brevant/NextHopTrace.h"
#include "FmSim/FmSim.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"

// What every table benchmark runs under: the activity lock held (the chip
// calls release it), a fresh simulated chip, a manual clock (the
// defragmentation timer is armed, never fired) and the traces off.
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

 private:
  Trace::LevelMask levels_;
  std::optional<Kiln::ActivityLockGuard> activity_;
};

// Reports the time per item (entry, group, operation) besides the time per
// iteration.
inline void perItem(benchmark::State& state, const char* name, double items) {
  state.counters[name] = benchmark::Counter(
      items, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
