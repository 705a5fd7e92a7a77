// Kiln entities: the cost of a generated scalar setter against a plain
// compare-and-store, and of notification per notifiee.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "KilnBench/Meter.h"

namespace {

using KilnBench::Meter;

// The baseline: what a setter costs with no runtime around it.
class PlainMeter {
 public:
  void countIs(U32 count) {
    if (count_ == count) return;
    count_ = count;
  }
  U32 count() const { return count_; }

 private:
  U32 count_ = 0;
};

class CountingNotifiee : public Meter::NotifieeConst {
 public:
  void onCount() override { ++calls; }
  U64 calls = 0;
};

void BM_PlainCompareAndReturn(benchmark::State& state) {
  // On the heap like an entity, and read back from memory every time.
  auto meter = std::make_unique<PlainMeter>();
  PlainMeter* m = meter.get();
  U32 value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(m);
    m->countIs(value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PlainCompareAndReturn);

void BM_ScalarSetterUnchangedNoNotifiee(benchmark::State& state) {
  Kiln::Ptr<Meter> meter = Meter::MeterIs("m");
  Meter* m = meter.ptr();
  U32 value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(m);
    m->countIs(value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ScalarSetterUnchangedNoNotifiee);

void BM_PlainStoreChanged(benchmark::State& state) {
  auto meter = std::make_unique<PlainMeter>();
  PlainMeter* m = meter.get();
  U32 value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    benchmark::DoNotOptimize(m);
    m->countIs(value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PlainStoreChanged);

void BM_ScalarSetterChangedNoNotifiee(benchmark::State& state) {
  Kiln::Ptr<Meter> meter = Meter::MeterIs("m");
  Meter* m = meter.ptr();
  U32 value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    benchmark::DoNotOptimize(m);
    m->countIs(value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ScalarSetterChangedNoNotifiee);

// Every iteration changes the value, so every notifiee's handler runs once.
void BM_ScalarSetterChangedWithNotifiees(benchmark::State& state) {
  Kiln::Ptr<Meter> meter = Meter::MeterIs("m");
  std::vector<Kiln::Ptr<CountingNotifiee>> notifiees;
  for (int i = 0; i < state.range(0); ++i) {
    notifiees.push_back(new CountingNotifiee);
    notifiees.back()->notifierIs(meter);
  }
  Meter& m = *meter;
  U32 value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    m.countIs(value);
  }
  state.counters["notifiees"] = static_cast<double>(state.range(0));
  state.counters["perNotifiee"] =
      benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ScalarSetterChangedWithNotifiees)->Arg(1)->Arg(4)->Arg(16);

}  // namespace
