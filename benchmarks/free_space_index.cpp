// What the table's free-space index buys: the searches and boundary scans
// that used to step through the collections one index at a time.
//
// NextHopSearchFailed* ask for a block that a fragmented full table does not
// hold (about half the entries free, in holes of 1 to 3), so every search
// walks its whole region. Each runs beside two baselines on the same state:
// the per-index scan the library used to make (kept by the tests in
// PerIndexReference.h), and a plain scan of a 64-bit-word bitmap of the same
// free entries, the cost of looking at every word once. A failed search
// moves no boundary, so every iteration starts from the same state.
//
// NextHopRemoveOnlyNarrowGroupAt3 removes, and creates again, the only narrow
// group, at index 3: the narrow boundary scan goes down from index 2 and
// wraps round the 16-bit index space. With nothing else in the table the
// scan wraps all the way back to index 2; with the wide region full it stops
// at the highest wide group. Its baseline is the per-index scan alone, on
// the same state; the library's scan alone is measured too.
#include <algorithm>
#include <array>
#include <bit>
#include <random>

#include <benchmark/benchmark.h>

#include "Brevant/NextHopManager.h"
#include "FmSim/FmSim.h"
#include "PerIndexReference.h"
#include "next_hop_table_setting.h"

namespace {

using Brevant::NextHopManager;
using NextHopBenchmark::TableSetting;

// The length asked for: longer than every hole of the fragmented table.
constexpr U16 missingLength = 16;

// A new manager whose entries from index 3 up to the swap index are
// allocated and free in turn, each run 1 to 3 long; the boundaries stay
// where a new manager has them, so the searches walk the whole table.
Kiln::Ptr<NextHopManager> fragmentedFullTable() {
  Kiln::Ptr<NextHopManager> m = new NextHopManager();
  std::mt19937 random(11);
  std::uniform_int_distribution<U32> runLength(1, 3);
  const U32 swap = m->getNextHopTableSwapIndex();
  for (U32 i = 3; i < swap;) {
    const U32 used = std::min(runLength(random), swap - i);
    m->allocateBlock(U16(i), U16(used));
    i += used + runLength(random);
  }
  return m;
}

// The free entries of m as 64-bit words, bit i of word w for index 64w + i.
using PlainBitmap = std::array<U64, 1024>;

PlainBitmap plainBitmap(NextHopManager& m) {
  PlainBitmap bits{};
  for (const auto& member : m.freeEntries()) {
    if (member.value()) bits[member.key() / 64] |= U64(1) << (member.key() % 64);
  }
  return bits;
}

// Bit i set when bits i to i + length - 1 of bits all are (1 <= length <= 64).
U64 runStarts(U64 bits, U32 length) {
  for (U32 covered = 1; covered < length && bits; ++covered) bits &= bits >> 1;
  return bits;
}

// The lowest start of a run of length set bits in [from, to), or -1: each
// word once, a carry for the run reaching into it.
S32 plainFirstRun(const PlainBitmap& bits, U32 from, U32 to, U32 length) {
  U32 run = 0;
  for (U32 w = from / 64; w * 64 < to; ++w) {
    U64 word = bits[w];
    if (w * 64 < from) word &= ~U64(0) << (from - w * 64);
    if (to < w * 64 + 64) word &= (U64(1) << (to - w * 64)) - 1;
    if (run + U32(std::countr_one(word)) >= length) return S32(w * 64 - run);
    if (const U64 starts = runStarts(word, length)) return S32(w * 64 + std::countr_zero(starts));
    run = word == ~U64(0) ? run + 64 : U32(std::countl_one(word));
  }
  return -1;
}

// The highest start of such a run, scanning down from to.
S32 plainLastRun(const PlainBitmap& bits, U32 from, U32 to, U32 length) {
  U32 run = 0;
  for (S32 w = S32((to - 1) / 64); w >= 0 && U32(w) * 64 + 64 > from; --w) {
    const U32 base = U32(w) * 64;
    U64 word = bits[U32(w)];
    if (base < from) word &= ~U64(0) << (from - base);
    if (to < base + 64) word &= (U64(1) << (to - base)) - 1;
    if (run + U32(std::countl_one(word)) >= length) return S32(base + 64 + run - length);
    if (const U64 starts = runStarts(word, length)) {
      return S32(base + 63 - std::countl_zero(starts));
    }
    run = word == ~U64(0) ? run + 64 : U32(std::countr_one(word));
  }
  return -1;
}

// What each of the three ways runs: the library, the per-index scan, the
// plain bitmap.
enum class Way { library = 0, perIndex = 1, plainBitmap = 2 };

// Arg: the way. The search must fail every way; the per-index scan and the
// bitmap scan say where the run is they would have found otherwise.
void NextHopSearchFailedNarrow(benchmark::State& state) {
  TableSetting setting;
  Kiln::Ptr<NextHopManager> m = fragmentedFullTable();
  const PlainBitmap bits = plainBitmap(*m);
  const U32 from = m->freeEntries().first()->key();
  const U32 to = m->lastWideIndex();
  S32 found = 0;
  for (auto _ : state) {
    switch (Way(state.range(0))) {
      case Way::library: found = m->findAvailableNarrowBlock(missingLength); break;
      case Way::perIndex:
        found = PerIndexReference::findAvailableNarrowBlock(*m, missingLength).result;
        break;
      case Way::plainBitmap:
        found = plainFirstRun(bits, from, to, missingLength) < 0 ? -2 : 0;
        break;
    }
    benchmark::DoNotOptimize(found);
  }
  if (found != -2) state.SkipWithError("the narrow search found a block");
  state.counters["freeShare"] = double(m->freeEntries().members()) / double(to - 3);
}
BENCHMARK(NextHopSearchFailedNarrow)
    ->ArgName("way")
    ->Arg(int(Way::library))
    ->Arg(int(Way::perIndex))
    ->Arg(int(Way::plainBitmap))
    ->Unit(benchmark::kMicrosecond);

void NextHopSearchFailedWide(benchmark::State& state) {
  TableSetting setting;
  Kiln::Ptr<NextHopManager> m = fragmentedFullTable();
  const PlainBitmap bits = plainBitmap(*m);
  const U32 from = U32(m->lastNarrowIndex()) + 1;
  const U32 to = m->getNextHopTableSwapIndex();
  S32 found = 0;
  for (auto _ : state) {
    switch (Way(state.range(0))) {
      case Way::library: found = m->findAvailableWideBlock(missingLength); break;
      case Way::perIndex:
        found = PerIndexReference::findAvailableWideBlock(*m, missingLength).result;
        break;
      case Way::plainBitmap:
        found = plainLastRun(bits, from, to, missingLength) < 0 ? -2 : 0;
        break;
    }
    benchmark::DoNotOptimize(found);
  }
  if (found != -2) state.SkipWithError("the wide search found a block");
}
BENCHMARK(NextHopSearchFailedWide)
    ->ArgName("way")
    ->Arg(int(Way::library))
    ->Arg(int(Way::perIndex))
    ->Arg(int(Way::plainBitmap))
    ->Unit(benchmark::kMicrosecond);

// Checks that the bitmap scans find what the per-index scans find when a
// block of the length exists, so that their failures above mean the same.
void NextHopSearchPlainBitmapAgrees(benchmark::State& state) {
  TableSetting setting;
  Kiln::Ptr<NextHopManager> m = fragmentedFullTable();
  const PlainBitmap bits = plainBitmap(*m);
  const U32 to = m->lastWideIndex();
  for (auto _ : state) {
    for (U16 length = 1; length <= 3; ++length) {
      const S32 narrow = PerIndexReference::findAvailableNarrowBlock(*m, length).result;
      if (narrow != plainFirstRun(bits, 3, to, length)) {
        state.SkipWithError("the narrow bitmap scan disagrees");
      }
    }
  }
}
BENCHMARK(NextHopSearchPlainBitmapAgrees)->Iterations(1)->Unit(benchmark::kMicrosecond);

constexpr U16 onlyNarrowSize = 4;

// What NextHopRemoveOnlyNarrowGroupAt3 runs: the library deletes the group
// and creates it again (at index 3); the per-index narrow boundary scan that
// deleting it makes, alone; the library's scan alone (on the table with the
// group deleted, as the scan sees it).
enum class RemoveWay { libraryDeleteCreate = 0, perIndexScan = 1, libraryScan = 2 };

// Args: the way; 0 the table otherwise empty, 1 the wide region full.
void NextHopRemoveOnlyNarrowGroupAt3(benchmark::State& state) {
  TableSetting setting;
  const RemoveWay way = RemoveWay(state.range(0));
  Kiln::Ptr<NextHopManager> m = new NextHopManager();
  Brevant::U64Collection data;
  for (U16 p = 0; p < 128; ++p) data.dataIs(p, 0x300 + p);
  auto createNarrow = [&] {
    return m->createECMPGroup(0, false, true, onlyNarrowSize, data, data,
                              Brevant::RoutingUnicastFeature, false);
  };
  S32 id = createNarrow();
  if (id <= 0 || m->ecmpGroups(U16(id))->hwStartIndex() != 3) {
    state.SkipWithError("the narrow group is not at index 3");
    return;
  }
  if (state.range(1) != 0) {
    while (m->createECMPGroup(0, true, true, 64, data, data, Brevant::RoutingUnicastFeature,
                              false) > 0) {
    }
  }
  if (way == RemoveWay::libraryScan) m->deleteECMPGroup(0, U16(id));
  S32 boundary = 0;
  // The simulated chip logs every call, and a run of the library's steps
  // makes hundreds of thousands: the log's growth (copies, fresh pages)
  // would be timed as part of them. It is emptied, untimed, every few
  // thousand steps.
  constexpr U32 stepsBetweenEmptyingTheLog = 4096;
  U32 stepsLogged = 0;
  for (auto _ : state) {
    switch (way) {
      case RemoveWay::libraryDeleteCreate:
        m->deleteECMPGroup(0, U16(id));
        id = createNarrow();
        boundary = m->lastNarrowIndex();
        if (++stepsLogged == stepsBetweenEmptyingTheLog) {
          state.PauseTiming();
          FmSim::callsDelAll();
          state.ResumeTiming();
          stepsLogged = 0;
        }
        break;
      case RemoveWay::perIndexScan:
        boundary = PerIndexReference::boundaryAfterRemoving(*m, false, 3, onlyNarrowSize).result;
        break;
      case RemoveWay::libraryScan: boundary = m->narrowBoundaryAfterRemoving(3); break;
    }
    benchmark::DoNotOptimize(boundary);
  }
  if (way == RemoveWay::libraryDeleteCreate) {
    if (id <= 0 || m->ecmpGroups(U16(id))->hwStartIndex() != 3) {
      state.SkipWithError("the narrow group did not come back at index 3");
    }
  } else if (state.range(1) == 0 && boundary != 2) {
    state.SkipWithError("the scan did not wrap round to 2");
  }
}
BENCHMARK(NextHopRemoveOnlyNarrowGroupAt3)
    ->ArgNames({"way", "wideFull"})
    ->ArgsProduct({{0, 1, 2}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
