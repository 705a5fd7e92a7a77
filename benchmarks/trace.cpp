// Cost of a trace line: the disabled path should cost about as much as the
// empty loop (one test of the level word); the enabled path builds the line
// and hands it to a sink that drops it. A Flashlog record is measured too.
#include <benchmark/benchmark.h>

#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"

namespace {

void TraceBaselineEmptyLoop(benchmark::State& state) {
  U16 index = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(index);
    ++index;
  }
}
BENCHMARK(TraceBaselineEmptyLoop);

void TraceLineDisabled(benchmark::State& state) {
  Brevant::nextHopTrace().levelIs(4, false);
  U16 index = 0;
  for (auto _ : state) {
    NH_TRACE(4, "Checking index " << index << " for a block of length " << 8);
    benchmark::DoNotOptimize(index);
    ++index;
  }
}
BENCHMARK(TraceLineDisabled);

void TraceLineEnabledIntoNullSink(benchmark::State& state) {
  Trace::NullSink nothing;
  Trace::Sink* previous = Trace::sinkIs(&nothing);
  Brevant::nextHopTrace().levelIs(4, true);
  U16 index = 0;
  for (auto _ : state) {
    NH_TRACE(4, "Checking index " << index << " for a block of length " << 8);
    benchmark::DoNotOptimize(index);
    ++index;
  }
  Brevant::nextHopTrace().levelIs(4, false);
  Trace::sinkIs(previous);
}
BENCHMARK(TraceLineEnabledIntoNullSink);

void FlashlogRecord(benchmark::State& state) {
  Flashlog::Handle ring("benchmark", 1024);
  Flashlog::Handle* previous = Flashlog::defaultHandle();
  Flashlog::defaultHandleIs(&ring);
  S32 status = 0;
  for (auto _ : state) {
    FLASHLOG(1, "NextHop writing to register failed with status %d", status);
    ++status;
  }
  Flashlog::defaultHandleIs(previous);
}
BENCHMARK(FlashlogRecord);

}  // namespace
