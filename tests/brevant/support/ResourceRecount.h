// The figures of the table's resource counters recounted from the
// manager's records by walking every entry, and a check of every figure
// against that recount. The resource tests run it after every step of their
// random runs; the warm restart tests run it on a restored manager.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopResources.h"

namespace NextHopTest {

// The figures of NextHopResources, recounted from the manager's records by
// walking every entry.
struct Recount {
  U32 narrowUsed = 0, narrowFree = 0, wideUsed = 0, wideFree = 0, swapUsed = 0, swapFree = 0;
  U32 totalFree = 0;
  double usedPercent = 0;
  U32 narrowGroups = 0, wideGroups = 0;
  U32 largestNarrowBlock = 0, largestWideBlock = 0;
  U32 freeRuns = 0;
  double fragmentationPercent = 0;
};

// The longest run of free entries among first .. last - 1.
inline U32 longestRun(const std::vector<bool>& free, U32 first, U32 last) {
  U32 longest = 0;
  U32 run = 0;
  for (U32 i = first; i < last; ++i) {
    run = free[i] ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return longest;
}

inline Recount recount(Brevant::NextHopManager& m, U32 shortLength) {
  Recount r;
  std::vector<bool> free(65536, false);
  for (const auto& member : m.freeEntries()) {
    if (member.value()) free[member.key()] = true;
  }
  const U32 bound = m.getNextHopTableBound();
  const U32 swapIndex = m.getNextHopTableSwapIndex();
  const U32 swapFirst = std::min(swapIndex, bound);
  const U32 narrowLast = std::min<U32>(m.lastNarrowIndex() + 1, swapFirst);
  const U32 wideFirst = std::max<U32>(m.lastWideIndex(), narrowLast);
  auto count = [&](U32 first, U32 last, U32* used, U32* freeCount) {
    for (U32 i = first; i < last; ++i) (free[i] ? *freeCount : *used) += 1;
  };
  count(3, narrowLast, &r.narrowUsed, &r.narrowFree);
  count(wideFirst, swapFirst, &r.wideUsed, &r.wideFree);
  count(swapFirst, bound, &r.swapUsed, &r.swapFree);
  r.totalFree = U32(std::count(free.begin(), free.end(), true));
  r.usedPercent = 100.0 * (bound > r.totalFree ? bound - r.totalFree : 0) / bound;
  for (const auto& placed : m.hwStartToGroupId()) {
    (m.ecmpGroups(placed.value())->wide() ? r.wideGroups : r.narrowGroups) += 1;
  }
  r.largestNarrowBlock = std::min(256u, longestRun(free, 0, m.lastWideIndex()));
  r.largestWideBlock = swapIndex > U32(m.lastNarrowIndex()) + 1
                           ? std::min(256u, longestRun(free, m.lastNarrowIndex() + 1, swapIndex))
                           : 0;
  U32 shortFree = 0;
  for (U32 i = 0; i < 65536;) {
    if (!free[i]) {
      ++i;
      continue;
    }
    U32 end = i;
    while (end < 65536 && free[end]) ++end;
    ++r.freeRuns;
    if (end - i < shortLength) shortFree += end - i;
    i = end;
  }
  r.fragmentationPercent = r.totalFree == 0 ? 0.0 : 100.0 * shortFree / r.totalFree;
  return r;
}

// Every figure of m.resources() that its records determine equals its
// recount; shortLength is the longest block any placement asked for.
inline void expectFiguresMatchRecount(Brevant::NextHopManager& m, U32 shortLength) {
  const Brevant::NextHopResources& res = *m.resources();
  const Recount r = recount(m, shortLength);
  EXPECT_EQ(res.narrowUsed(), r.narrowUsed);
  EXPECT_EQ(res.narrowFree(), r.narrowFree);
  EXPECT_EQ(res.wideUsed(), r.wideUsed);
  EXPECT_EQ(res.wideFree(), r.wideFree);
  EXPECT_EQ(res.swapUsed(), r.swapUsed);
  EXPECT_EQ(res.swapFree(), r.swapFree);
  EXPECT_EQ(res.totalFree(), r.totalFree);
  EXPECT_DOUBLE_EQ(res.usedPercent(), r.usedPercent);
  EXPECT_EQ(res.narrowGroups(), r.narrowGroups);
  EXPECT_EQ(res.wideGroups(), r.wideGroups);
  EXPECT_EQ(res.largestNarrowBlock(), r.largestNarrowBlock);
  EXPECT_EQ(res.largestWideBlock(), r.largestWideBlock);
  EXPECT_EQ(res.freeRuns(), r.freeRuns);
  EXPECT_EQ(res.largestGroupSeen(), shortLength);
  EXPECT_DOUBLE_EQ(res.fragmentationPercent(), r.fragmentationPercent);
}

}  // namespace NextHopTest
