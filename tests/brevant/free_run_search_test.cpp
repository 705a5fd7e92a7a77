// The run searches of the free-run tree and of the bitmap against a search
// entry by entry: random bitmaps of every run length, random ranges (within
// a word, across words, cut anywhere, the whole table, empty) and lengths
// (0, within a word, a word, longer, the largest block and beyond), entries
// changed between refreshes.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Brevant/FreeRunTree.h"

namespace {

using Brevant::FreeRunTree;
using Brevant::TableBitmap;

constexpr U32 entries = FreeRunTree::entries;

// The lowest (or, downward, highest) start of length free entries in
// [from, to), looked for index by index; -1 when none or length is 0.
S32 searchedEntryByEntry(const std::vector<bool>& free, U32 from, U32 to, U32 length,
                         bool downward) {
  if (length == 0 || from >= to || to - from < length) return -1;
  S32 found = -1;
  U32 run = 0;
  for (U32 i = from; i < to; ++i) {
    run = free[i] ? run + 1 : 0;
    if (run >= length) {
      found = S32(i + 1 - length);
      if (!downward) return found;
    }
  }
  return found;
}

class FreeRunSearchTest : public ::testing::Test {
 protected:
  U32 pick(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random_); }

  void entryIs(U32 index, bool isFree) {
    bitmap_.set(index, isFree);
    free_[index] = isFree;
    tree_.entryChanged(U16(index));
  }

  // Alternating used and free runs of random lengths up to maxRun.
  void runsFrom(U32 first, U32 last, U32 maxRun, bool startFree) {
    bool isFree = startFree;
    for (U32 i = first; i < last; isFree = !isFree) {
      const U32 end = std::min(last, i + pick(1, maxRun));
      for (; i < end; ++i) entryIs(i, isFree);
    }
  }

  std::pair<U32, U32> randomRange() {
    switch (pick(0, 4)) {
      case 0: {
        const U32 from = pick(0, entries - 1);
        return {from, std::min(entries, from + pick(1, 200))};
      }
      case 1: {
        const U32 a = pick(0, entries), b = pick(0, entries);
        return {std::min(a, b), std::max(a, b)};
      }
      case 2: {
        const U32 a = pick(0, 1024) * 64, b = pick(0, 1024) * 64;
        return {std::min(a, b), std::max(a, b)};
      }
      case 3: return {pick(0, 10), entries - pick(0, 300)};
      default: return {0, entries};
    }
  }

  U32 randomLength() {
    constexpr U32 lengths[] = {0, 1, 2, 3, 8, 31, 63, 64, 65, 100, 128, 200, 256, 257, 5000};
    return pick(0, 3) == 0 ? pick(1, 260) : lengths[pick(0, std::size(lengths) - 1)];
  }

  // Both searches of the tree and of the bitmap give the answer found entry
  // by entry.
  void expectSearchesMatch(U32 from, U32 to, U32 length) {
    SCOPED_TRACE(::testing::Message() << "[" << from << ", " << to << ") length " << length);
    const S32 first = searchedEntryByEntry(free_, from, to, length, false);
    const S32 last = searchedEntryByEntry(free_, from, to, length, true);
    EXPECT_EQ(tree_.firstRun(from, to, length), first);
    EXPECT_EQ(bitmap_.findFirstRun(from, to, length), first);
    EXPECT_EQ(tree_.lastRun(from, to, length), last);
    EXPECT_EQ(bitmap_.findLastRun(from, to, length), last);
  }

  std::mt19937 random_{1123};
  TableBitmap bitmap_;
  std::vector<bool> free_ = std::vector<bool>(entries, false);
  FreeRunTree tree_{bitmap_};
};

TEST_F(FreeRunSearchTest, NothingIsFoundInAnEmptyTableOrForLengthZero) {
  tree_.refresh();
  expectSearchesMatch(0, entries, 1);
  for (U32 i = 0; i < entries; ++i) entryIs(i, true);
  tree_.refresh();
  EXPECT_EQ(tree_.firstRun(0, entries, 0), -1);
  EXPECT_EQ(tree_.lastRun(0, entries, 0), -1);
  EXPECT_EQ(tree_.firstRun(100, 100, 1), -1);
  EXPECT_EQ(tree_.firstRun(3, entries, 256), 3);
  EXPECT_EQ(tree_.lastRun(3, 65278, 256), 65278 - 256);
  expectSearchesMatch(0, entries, entries);
}

TEST_F(FreeRunSearchTest, RandomBitmapsRangesAndLengths) {
  for (U32 round = 0; round < 30; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    const U32 maxRun = std::array<U32, 6>{1, 4, 20, 70, 300, 5000}[round % 6];
    runsFrom(0, entries, maxRun, round % 2 == 0);
    tree_.refresh();
    for (U32 n = 0; n < 60; ++n) {
      const auto [from, to] = randomRange();
      expectSearchesMatch(from, to, randomLength());
    }
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunSearchTest, RunsAcrossSpanEndsAreFound) {
  // A run of exactly the length asked, across a word, across a span of 128
  // and across the middle of the table; nothing else free.
  for (const U32 start : {60U, 120U, 32700U, 4090U}) {
    for (const U32 length : {2U, 8U, 64U, 100U, 256U}) {
      for (U32 i = start; i < start + length; ++i) entryIs(i, true);
      tree_.refresh();
      expectSearchesMatch(0, entries, length);
      expectSearchesMatch(start, start + length, length);
      expectSearchesMatch(start + 1, entries, length);
      expectSearchesMatch(0, start + length - 1, length);
      expectSearchesMatch(0, entries, length + 1);
      for (U32 i = start; i < start + length; ++i) entryIs(i, false);
    }
  }
}

TEST_F(FreeRunSearchTest, StaysExactAsEntriesChangeBetweenRefreshes) {
  runsFrom(0, entries, 40, true);
  for (U32 step = 0; step < 1500; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const U32 first = pick(0, entries - 1);
    const bool isFree = pick(0, 1) == 0;
    for (U32 i = first, end = std::min(entries, first + pick(1, 300)); i < end; ++i) {
      entryIs(i, isFree);
    }
    tree_.refresh();
    const auto [from, to] = randomRange();
    expectSearchesMatch(from, to, randomLength());
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunSearchTest, ARefreshThatFindsAChangeIsCounted) {
  const U64 before = tree_.refreshes();
  tree_.refresh();  // the first refresh builds the tree
  EXPECT_EQ(tree_.refreshes(), before + 1);
  tree_.refresh();
  EXPECT_EQ(tree_.refreshes(), before + 1);
  entryIs(5, true);
  tree_.refresh();
  EXPECT_EQ(tree_.refreshes(), before + 2);
}

}  // namespace
