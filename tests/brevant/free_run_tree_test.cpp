// The free-run tree against a brute-force count: random bitmaps, random
// spans, entries changed between refreshes, short lengths changed on the
// way, and the same spans asked again after the words under them changed.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Brevant/FreeRunTree.h"
#include "support/ReferenceFreeRunTree.h"

namespace {

using Brevant::FreeRunTree;
using Brevant::TableBitmap;
using Span = FreeRunTree::Span;

constexpr U32 entries = FreeRunTree::entries;

// The figures of entries first .. last - 1 counted entry by entry.
Span bruteForceSpan(const std::vector<bool>& free, U32 first, U32 last, U32 shortLength) {
  Span s;
  if (first >= last) return s;
  s.length = last - first;
  for (U32 i = first; i < last;) {
    if (!free[i]) {
      ++i;
      continue;
    }
    U32 end = i;
    while (end < last && free[end]) ++end;
    const U32 run = end - i;
    ++s.runs;
    s.free += run;
    s.longest = std::max(s.longest, run);
    if (i == first) s.head = run;
    if (end == last) s.tail = run;
    if (i != first && end != last && run < shortLength) s.shortInner += run;
    i = end;
  }
  return s;
}

// The free entries in runs shorter than shortLength, counted entry by entry.
U32 bruteForceShortFree(const std::vector<bool>& free, U32 shortLength) {
  U32 total = 0;
  for (U32 i = 0; i < entries;) {
    U32 end = i;
    while (end < entries && free[end]) ++end;
    if (end - i < shortLength) total += end - i;
    i = std::max(end, i + 1);
  }
  return total;
}

void expectSpan(const Span& got, const Span& want, U32 first, U32 last) {
  SCOPED_TRACE(::testing::Message() << "span " << first << " .. " << last);
  EXPECT_EQ(got.length, want.length);
  EXPECT_EQ(got.free, want.free);
  EXPECT_EQ(got.head, want.head);
  EXPECT_EQ(got.tail, want.tail);
  EXPECT_EQ(got.longest, want.longest);
  EXPECT_EQ(got.runs, want.runs);
  EXPECT_EQ(got.shortInner, want.shortInner);
}

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

// A bitmap, its brute-force copy and the tree over it, changed together.
class FreeRunTreeTest : public ::testing::Test {
 protected:
  U32 pick(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random_); }

  void entryIs(U32 index, bool isFree) {
    tree_.entryChanging(U16(index));
    bitmap_.set(index, isFree);
    free_[index] = isFree;
  }

  // Alternating used and free runs of random lengths up to maxRun from
  // first to last - 1, starting with a free run when startFree.
  void runsFrom(U32 first, U32 last, U32 maxRun, bool startFree) {
    bool isFree = startFree;
    for (U32 i = first; i < last; isFree = !isFree) {
      const U32 end = std::min(last, i + pick(1, maxRun));
      for (; i < end; ++i) entryIs(i, isFree);
    }
  }

  // A span of a random kind: within a word, across a few words, long,
  // aligned to words, the whole table, empty.
  std::pair<U32, U32> randomSpan() {
    switch (pick(0, 5)) {
      case 0: {
        const U32 first = pick(0, entries - 1);
        return {first, std::min(entries, first + pick(1, 64))};
      }
      case 1: {
        const U32 first = pick(0, entries - 1);
        return {first, std::min(entries, first + pick(1, 1000))};
      }
      case 2: {
        const U32 a = pick(0, entries), b = pick(0, entries);
        return {std::min(a, b), std::max(a, b)};
      }
      case 3: {
        const U32 a = pick(0, 1024) * 64, b = pick(0, 1024) * 64;
        return {std::min(a, b), std::max(a, b)};
      }
      case 4: return {0, entries};
      default: {
        const U32 first = pick(0, entries);
        return {first, first};
      }
    }
  }

  void expectTableMatches() {
    expectSpan(tree_.table(), bruteForceSpan(free_, 0, entries, tree_.shortLength()), 0, entries);
    EXPECT_EQ(tree_.shortFreeEntries(), bruteForceShortFree(free_, tree_.shortLength()));
  }

  void expectSpanMatches(U32 first, U32 last) {
    const Span want = bruteForceSpan(free_, first, last, tree_.shortLength());
    // The longest run alone first: a span asked for in full after it is
    // joined in full, not taken from the remembered ends.
    EXPECT_EQ(tree_.longestRunIn(first, last), want.longest) << first << " .. " << last;
    expectSpan(tree_.span(first, last), want, first, last);
    EXPECT_EQ(tree_.longestRunIn(first, last), want.longest) << first << " .. " << last;
    EXPECT_EQ(tree_.freeIn(first, last), want.free) << first << " .. " << last;
  }

  // A block length to search for: 0, within a word, a word, longer, the
  // largest block and beyond.
  U32 randomLength() {
    constexpr U32 lengths[] = {0, 1, 2, 3, 8, 31, 63, 64, 65, 100, 128, 200, 256, 257, 5000};
    return pick(0, 3) == 0 ? pick(1, 260) : lengths[pick(0, std::size(lengths) - 1)];
  }

  // Both run searches of the tree give the answer found entry by entry.
  void expectSearchesMatch(U32 from, U32 to, U32 length) {
    SCOPED_TRACE(::testing::Message() << "[" << from << ", " << to << ") length " << length);
    const S32 first = searchedEntryByEntry(free_, from, to, length, false);
    const S32 last = searchedEntryByEntry(free_, from, to, length, true);
    EXPECT_EQ(tree_.firstRun(from, to, length), first);
    EXPECT_EQ(tree_.lastRun(from, to, length), last);
  }

  std::mt19937 random_{2026};
  TableBitmap bitmap_;
  std::vector<bool> free_ = std::vector<bool>(entries, false);
  FreeRunTree tree_{bitmap_};
};

// The short lengths worth trying: none, within a word, about a word, the
// churn's largest groups, longer than the table.
constexpr U32 shortLengths[] = {0, 1, 2, 5, 62, 63, 64, 65, 128, 256, 4096, 70000};

TEST_F(FreeRunTreeTest, AnEmptyBitmapHasNoRuns) {
  EXPECT_TRUE(tree_.refresh());
  expectTableMatches();
  expectSpanMatches(0, entries);
  expectSpanMatches(3, 100);
  EXPECT_FALSE(tree_.refresh());
}

TEST_F(FreeRunTreeTest, EverySpanMatchesABruteForceCountOnRandomBitmaps) {
  for (U32 round = 0; round < 24; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    // Short runs, long runs, everything free, nothing free.
    const U32 maxRun = std::array<U32, 6>{1, 3, 20, 70, 300, 5000}[round % 6];
    runsFrom(0, entries, maxRun, round % 2 == 0);
    if (round % 8 == 7) runsFrom(0, entries, entries, round % 16 == 7);
    tree_.shortLengthIs(shortLengths[pick(0, std::size(shortLengths) - 1)]);
    EXPECT_TRUE(tree_.refresh());
    expectTableMatches();
    for (U32 n = 0; n < 200; ++n) {
      const auto [first, last] = randomSpan();
      expectSpanMatches(first, last);
      expectSpanMatches(first, last);  // the remembered answer
    }
  }
}

TEST_F(FreeRunTreeTest, StaysExactAsEntriesChangeBetweenRefreshes) {
  runsFrom(0, entries, 40, true);
  // Spans asked after every step, as the resource counters ask for theirs:
  // their remembered answers must go when a word under them changes.
  const std::vector<std::pair<U32, U32>> asked{{3, 30000},     {0, 40000}, {30001, 65278},
                                               {65278, 65536}, {100, 164}, {640, 641}};
  for (U32 step = 0; step < 3000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    // A block allocated or freed, a scattering of single entries, or
    // entries written with the value they hold already.
    switch (pick(0, 3)) {
      case 0:
      case 1: {
        const U32 first = pick(0, entries - 1);
        const bool isFree = pick(0, 1) == 0;
        for (U32 i = first, end = std::min(entries, first + pick(1, 300)); i < end; ++i) {
          entryIs(i, isFree);
        }
        break;
      }
      case 2:
        for (U32 n = pick(1, 20); n > 0; --n) entryIs(pick(0, entries - 1), pick(0, 1) == 0);
        break;
      default: {
        const U32 index = pick(0, entries - 1);
        entryIs(index, free_[index]);
        break;
      }
    }
    if (step % 500 == 250) tree_.shortLengthIs(shortLengths[pick(0, std::size(shortLengths) - 1)]);
    EXPECT_TRUE(tree_.refresh());
    EXPECT_FALSE(tree_.refresh());
    expectTableMatches();
    for (const auto& [first, last] : asked) expectSpanMatches(first, last);
    const auto [first, last] = randomSpan();
    expectSpanMatches(first, last);
    if (HasFailure()) return;
  }
}

// A longest run asked for alone is kept across changes that cannot have
// changed it (entries taken from shorter runs, entries given back to runs
// that stay no longer) and joined again after any other: after every step
// it equals a count entry by entry, for windows that stay, creep and jump.
TEST_F(FreeRunTreeTest, LongestRunsKeptAcrossChangesStayExact) {
  runsFrom(0, entries, 30, true);
  std::vector<std::pair<U32, U32>> windows{{0, 30000}, {30001, 65528}, {100, 700}, {0, entries}};
  for (U32 step = 0; step < 1500; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    switch (pick(0, 4)) {
      case 0:
      case 1: {  // a block taken or given back, as a churn step does
        const U32 first = pick(0, entries - 1);
        const U32 length = pick(0, 9) == 0 ? pick(1, 300) : pick(1, 16);
        const bool isFree = pick(0, 1) == 0;
        for (U32 i = first; i < std::min(entries, first + length); ++i) entryIs(i, isFree);
        break;
      }
      case 2: {  // a block given back next to a run, or inside a window's edge
        const auto& [first, last] = windows[pick(0, 2)];
        const U32 at = pick(0, 1) == 0 ? first : last;
        for (U32 i = at >= 8 ? at - 8 : 0; i < std::min(entries, at + 8); ++i) {
          entryIs(i, pick(0, 3) != 0);
        }
        break;
      }
      case 3:  // scattered, both ways at once
        for (U32 n = pick(1, 6); n > 0; --n) entryIs(pick(0, entries - 1), pick(0, 1) == 0);
        break;
      default: {  // a window moves
        auto& [first, last] = windows[pick(0, 2)];
        first = std::min(first + pick(0, 64), entries - 1);
        last = std::max(first + 1,
                        std::min(entries, last + pick(0, 64) - std::min(last, pick(0, 64))));
        break;
      }
    }
    if (step % 500 == 250) tree_.shortLengthIs(shortLengths[pick(0, std::size(shortLengths) - 1)]);
    tree_.refresh();
    for (const auto& [first, last] : windows) {
      EXPECT_EQ(tree_.longestRunIn(first, last),
                bruteForceSpan(free_, first, last, tree_.shortLength()).longest)
          << first << " .. " << last;
    }
    if (HasFailure()) return;
  }
}

// The counts below a few cuts follow every change, whether the change lies
// below a cut, above it or around it, and whether the cuts stay, creep as a
// region's boundary does, jump, meet or pass each other.
TEST_F(FreeRunTreeTest, CountsBelowCutsStayExactAsEntriesAndCutsMove) {
  runsFrom(0, entries, 40, true);
  FreeRunTree::Cuts cuts{3, 30000, 30001, 65528, entries};
  for (U32 step = 0; step < 3000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const U32 first = pick(0, entries - 1), length = pick(0, 5) == 0 ? pick(1, 300) : pick(1, 16);
    const bool isFree = pick(0, 1) == 0;
    for (U32 i = first; i < std::min(entries, first + length); ++i) entryIs(i, isFree);
    if (pick(0, 2) == 0) entryIs(pick(0, entries - 1), pick(0, 1) == 0);  // a second stretch
    switch (pick(0, 5)) {
      case 0:  // a boundary creeps
        cuts[1 + pick(0, 2)] = pick(0, entries);
        break;
      case 1: {
        U32& cut = cuts[1 + pick(0, 3)];
        cut = std::min(entries, cut + pick(0, 200) - std::min(cut, pick(0, 200)));
        break;
      }
      case 2:  // they meet
        cuts[2] = cuts[1];
        break;
      default:  // they stay
        break;
    }
    if (step % 700 == 350) tree_.shortLengthIs(shortLengths[pick(0, std::size(shortLengths) - 1)]);
    tree_.refresh();
    const FreeRunTree::Cuts got = tree_.freeBelow(cuts);
    for (U32 i = 0; i < FreeRunTree::cutCount; ++i) {
      const U32 want = U32(std::count(free_.begin(), free_.begin() + cuts[i], true));
      EXPECT_EQ(got[i], want) << "cut " << i << " at " << cuts[i];
    }
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunTreeTest, AShortLengthChangeIsReportedByTheNextRefresh) {
  runsFrom(0, entries, 10, true);
  EXPECT_TRUE(tree_.refresh());
  EXPECT_FALSE(tree_.refresh());
  tree_.shortLengthIs(0);  // as it was: nothing to do
  EXPECT_FALSE(tree_.refresh());
  tree_.shortLengthIs(8);
  EXPECT_TRUE(tree_.refresh());
  expectTableMatches();
  expectSpanMatches(5, 5000);
}

// A free index with the tree and the tree as it was over it, both told of
// every change, and the random changes the side-by-side tests below make.
struct TreeBesideReference {
  explicit TreeBesideReference(U32 seed) : random(seed) {}
  U32 pick(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random); }
  void entryIs(U32 index, bool isFree) {
    tree.entryChanging(U16(index));
    bitmap.set(index, isFree);
    reference.entryChanged(U16(index));
  }
  // A block, mostly small, sometimes long and across words, taken or given
  // back.
  void blockChanges() {
    const U32 first = pick(0, entries - 1);
    const bool isFree = pick(0, 1) == 0;
    const U32 length = pick(0, 9) == 0 ? pick(1, 300) : pick(1, 16);
    for (U32 i = first; i < std::min(entries, first + length); ++i) entryIs(i, isFree);
  }
  // A few entries scattered over the table, each taken or given back.
  void scatteredEntriesChange() {
    for (U32 n = pick(1, 8); n > 0; --n) entryIs(pick(0, entries - 1), pick(0, 1) == 0);
  }
  // A cap for a longest run of entries first .. last - 1: none, one, within
  // a word, a search's largest block, the span's length, beyond it.
  U32 randomCap(U32 first, U32 last) {
    const U32 length = last > first ? last - first : 0;
    const U32 caps[] = {0, 1, 2, 63, 64, 65, 256, 256, 256, length, length + 1, pick(0, 300)};
    return caps[pick(0, std::size(caps) - 1)];
  }
  // Both count runs shorter than one of shortLengths as short from now on.
  void shortLengthChanges() {
    const U32 length = shortLengths[pick(0, std::size(shortLengths) - 1)];
    tree.shortLengthIs(length);
    reference.shortLengthIs(length);
  }

  std::mt19937 random;
  TableBitmap bitmap;
  FreeRunTree tree{bitmap};
  NextHopTest::ReferenceFreeRunTree reference{bitmap};
};

// The tree against the tree as it was (its walks through calls, its range
// queries top-down): both hear the same changes and must give the same
// answer to every question, including whether a refresh had work to do.
TEST(FreeRunTree, AnswersAsThePreviousTreeOnRandomChanges) {
  TreeBesideReference trees(4242);
  auto pick = [&](U32 lo, U32 hi) { return trees.pick(lo, hi); };
  const TableBitmap& bitmap = trees.bitmap;
  FreeRunTree& tree = trees.tree;
  NextHopTest::ReferenceFreeRunTree& reference = trees.reference;
  auto expectSame = [&](U32 first, U32 last) {
    const Span want = reference.span(first, last);
    const U32 cap = trees.randomCap(first, last);
    EXPECT_EQ(tree.longestRunIn(first, last, cap), std::min(want.longest, cap))
        << first << " .. " << last << " capped at " << cap;
    EXPECT_EQ(tree.longestRunIn(first, last), want.longest) << first << " .. " << last;
    expectSpan(tree.span(first, last), want, first, last);
    EXPECT_EQ(tree.freeIn(first, last), reference.freeIn(first, last)) << first << " .. " << last;
  };
  // The windows a manager asks for, whose ends move as its boundaries do.
  U32 narrowEnd = 30000, wideStart = 30001;
  for (U32 step = 0; step < 20000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    switch (pick(0, 5)) {
      case 0:
      case 1: trees.blockChanges(); break;
      case 2: trees.scatteredEntriesChange(); break;
      case 3: {  // an entry written with the value it holds
        const U32 index = pick(0, entries - 1);
        trees.entryIs(index, bitmap.test(index));
        break;
      }
      case 4:  // the boundaries move
        narrowEnd = pick(0, entries);
        wideStart = pick(0, entries);
        break;
      default:  // nothing changed
        break;
    }
    if (step % 997 == 0) trees.shortLengthChanges();
    EXPECT_EQ(tree.refresh(), reference.refresh());
    expectSpan(tree.table(), reference.table(), 0, entries);
    EXPECT_EQ(tree.shortFreeEntries(), reference.shortFreeEntries());
    expectSame(0, narrowEnd);
    expectSame(wideStart, 65528);
    expectSame(3, narrowEnd);
    const U32 a = pick(0, entries), b = pick(0, entries);
    expectSame(std::min(a, b), std::max(a, b));
    const U32 near = pick(0, entries - 1);
    expectSame(near, std::min(entries, near + pick(0, 130)));
    if (::testing::Test::HasFailure()) return;
  }
}

// The walk of the nodes is put off until a question needs them: several
// refreshes pass with only the sums asked for (free entries, runs, short
// free entries, counts below cuts, as the published counters read them),
// then the searches, longest runs, spans and the table's ends come in a
// random order, each of which may be the one that walks the words of all
// those refreshes at once. Every answer equals the previous tree's (or,
// for the searches, a search entry by entry), and so does every refresh's
// report of work.
TEST(FreeRunTree, AnswersAsThePreviousTreeWithTheWalkPutOff) {
  TreeBesideReference trees(1515);
  auto pick = [&](U32 lo, U32 hi) { return trees.pick(lo, hi); };
  const TableBitmap& bitmap = trees.bitmap;
  FreeRunTree& tree = trees.tree;
  NextHopTest::ReferenceFreeRunTree& reference = trees.reference;
  auto searched = [&](U32 from, U32 to, U32 length, bool downward) {
    std::vector<bool> free(entries);
    for (U32 i = from; i < std::min(to, entries); ++i) free[i] = bitmap.test(i);
    return searchedEntryByEntry(free, from, std::min(to, entries), length, downward);
  };
  auto randomRange = [&]() {
    const U32 a = pick(0, entries), b = pick(0, 3) == 0 ? pick(0, entries) : a + pick(0, 700);
    return std::pair{std::min(a, b), std::min(entries, std::max(a, b))};
  };
  // Mostly used, in runs, as the churn's table is.
  for (U32 i = 0; i < entries; ++i) trees.entryIs(i, pick(0, 9) == 0);
  U32 narrowEnd = 30000, wideStart = 30001;
  U32 walksAsked = 0, refreshesBetweenWalks = 0, mostRefreshesBetweenWalks = 0;
  for (U32 step = 0; step < 12000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    switch (pick(0, 5)) {
      case 0:
      case 1:
      case 2: trees.blockChanges(); break;  // a group's block, now and then a long one
      case 3: trees.scatteredEntriesChange(); break;
      case 4:  // the boundaries move
        narrowEnd = pick(0, entries);
        wideStart = pick(0, entries);
        break;
      default:  // nothing changed
        break;
    }
    if (step % 1499 == 700) trees.shortLengthChanges();
    ASSERT_EQ(tree.refresh(), reference.refresh());
    // The sums, the counts below cuts and the remembered longest runs, as a
    // publication reads them: none of them needs the nodes unless its
    // remembered answer went.
    EXPECT_EQ(tree.freeEntries(), reference.table().free);
    EXPECT_EQ(tree.runCount(), reference.table().runs);
    EXPECT_EQ(tree.shortFreeEntries(), reference.shortFreeEntries());
    const FreeRunTree::Cuts cuts{3, narrowEnd, std::max(narrowEnd, wideStart), 65528, entries};
    const FreeRunTree::Cuts below = tree.freeBelow(cuts);
    for (U32 i = 0; i < FreeRunTree::cutCount; ++i) {
      EXPECT_EQ(below[i], reference.freeIn(0, cuts[i])) << "cut " << i << " at " << cuts[i];
    }
    switch (pick(0, 2)) {
      case 0:
        EXPECT_EQ(tree.longestRunIn(0, narrowEnd), reference.span(0, narrowEnd).longest);
        EXPECT_EQ(tree.longestRunIn(wideStart, 65528), reference.span(wideStart, 65528).longest);
        break;
      case 1:  // capped at a search's largest block, as published
        EXPECT_EQ(tree.longestRunIn(0, narrowEnd, 256),
                  std::min(reference.span(0, narrowEnd).longest, 256u));
        EXPECT_EQ(tree.longestRunIn(wideStart, 65528, 256),
                  std::min(reference.span(wideStart, 65528).longest, 256u));
        break;
      default: break;
    }
    ++refreshesBetweenWalks;
    // Now and then, after one to several refreshes, the questions that need
    // the nodes, a few of them in a random order.
    if (pick(0, 3) != 0) continue;
    ++walksAsked;
    mostRefreshesBetweenWalks = std::max(mostRefreshesBetweenWalks, refreshesBetweenWalks);
    refreshesBetweenWalks = 0;
    for (U32 n = pick(1, 4); n > 0; --n) {
      const auto [first, last] = randomRange();
      switch (pick(0, 5)) {
        case 0: {
          const U32 length = pick(0, 3) == 0 ? pick(0, 300) : pick(1, 16);
          EXPECT_EQ(tree.firstRun(first, last, length), searched(first, last, length, false))
              << "[" << first << ", " << last << ") length " << length;
          break;
        }
        case 1: {
          const U32 length = pick(0, 3) == 0 ? pick(0, 300) : pick(1, 16);
          EXPECT_EQ(tree.lastRun(first, last, length), searched(first, last, length, true))
              << "[" << first << ", " << last << ") length " << length;
          break;
        }
        case 2:
          EXPECT_EQ(tree.longestRunIn(first, last), reference.span(first, last).longest)
              << first << " .. " << last;
          break;
        case 3: expectSpan(tree.span(first, last), reference.span(first, last), first, last); break;
        case 4: {
          const U32 cap = trees.randomCap(first, last);
          EXPECT_EQ(tree.longestRunIn(first, last, cap),
                    std::min(reference.span(first, last).longest, cap))
              << first << " .. " << last << " capped at " << cap;
          break;
        }
        default: expectSpan(tree.table(), reference.table(), 0, entries); break;
      }
    }
    if (::testing::Test::HasFailure()) return;
  }
  // The walk was put off across several refreshes, and asked for often.
  EXPECT_GT(walksAsked, 2000u);
  EXPECT_GE(mostRefreshesBetweenWalks, 10u);
}

// A longest run capped: on a table mostly free, in long runs (so that most
// answers reach the cap and come from stretches the tree knows to be free),
// blocks are taken and given back, now and then inside those stretches, and
// random spans are asked with random caps, beside the exact questions, the
// searches and the table's figures. Every capped answer is the previous
// tree's exact one, capped.
TEST(FreeRunTree, CappedLongestRunsAnswerAsThePreviousTreeCapped) {
  TreeBesideReference trees(777);
  auto pick = [&](U32 lo, U32 hi) { return trees.pick(lo, hi); };
  FreeRunTree& tree = trees.tree;
  NextHopTest::ReferenceFreeRunTree& reference = trees.reference;
  for (U32 i = 0; i < entries;) {
    const U32 freeEnd = std::min(entries, i + pick(1, 3000));
    for (; i < freeEnd; ++i) trees.entryIs(i, true);
    for (const U32 usedEnd = std::min(entries, i + pick(1, 40)); i < usedEnd; ++i) {
      trees.entryIs(i, false);
    }
  }
  auto randomSpan = [&]() -> std::pair<U32, U32> {
    const U32 first = pick(0, entries);
    switch (pick(0, 4)) {
      case 0: return {first, first};                         // empty
      case 1: return {first, std::min(entries, first + 1)};  // one entry
      case 2: return {first, std::min(entries, first + pick(2, 600))};
      case 3: return {0, first};  // a narrow region's
      default: return {first, std::min(entries, first + pick(0, entries))};
    }
  };
  // Spans asked again and again, as a manager's regions are, whose ends
  // now and then move.
  std::array<std::pair<U32, U32>, 3> regions{{{0, 30000}, {30001, 65528}, {3, 260}}};
  U32 capped = 0, atTheCap = 0;
  for (U32 step = 0; step < 8000; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    switch (pick(0, 6)) {
      case 0:
      case 1: trees.blockChanges(); break;
      case 2: {  // a group's block taken at a region's start, as a first fit does
        const U32 at = regions[pick(0, 2)].first + pick(0, 300);
        const bool isFree = pick(0, 2) == 0;
        for (U32 i = at; i < std::min(entries, at + pick(1, 16)); ++i) trees.entryIs(i, isFree);
        break;
      }
      case 3: trees.scatteredEntriesChange(); break;
      case 4: {  // a region's end moves
        auto& [first, last] = regions[pick(0, 2)];
        first = std::min(entries, first + pick(0, 8) - std::min(first, pick(0, 8)));
        last = std::min(entries, last + pick(0, 8) - std::min(last, pick(0, 8)));
        break;
      }
      default: break;  // nothing changed
    }
    if (step % 1999 == 1000) trees.shortLengthChanges();
    ASSERT_EQ(tree.refresh(), reference.refresh());
    const auto expectCapped = [&](U32 first, U32 last, U32 cap) {
      const U32 want = std::min(reference.span(first, last).longest, cap);
      EXPECT_EQ(tree.longestRunIn(first, last, cap), want)
          << first << " .. " << last << " capped at " << cap;
      ++capped;
      atTheCap += U32(want == cap && cap != 0);
    };
    for (const auto& [first, last] : regions) expectCapped(first, last, 256);
    for (U32 n = pick(0, 3); n > 0; --n) {
      const auto [first, last] = randomSpan();
      switch (pick(0, 4)) {
        case 0:
        case 1: expectCapped(first, last, trees.randomCap(first, last)); break;
        case 2:
          EXPECT_EQ(tree.longestRunIn(first, last), reference.span(first, last).longest)
              << first << " .. " << last;
          break;
        case 3: {
          const U32 length = pick(1, 300);
          EXPECT_EQ(tree.firstRun(first, last, length) >= 0,
                    reference.span(first, last).longest >= length)
              << "[" << first << ", " << last << ") length " << length;
          break;
        }
        default: expectSpan(tree.table(), reference.table(), 0, entries); break;
      }
    }
    if (::testing::Test::HasFailure()) return;
  }
  // Both kinds of answer were given often: at the cap and under it.
  EXPECT_GT(atTheCap, capped / 4);
  EXPECT_GT(capped - atTheCap, capped / 10);
}

// A run of the cap's length the tree knows to be free answers until entries
// in it are taken; then its longer free part does, if it is still that long,
// and the answer is sought again if not.
TEST_F(FreeRunTreeTest, ACappedAnswerFollowsEntriesTakenFromTheRunThatGaveIt) {
  for (U32 i = 1000; i < 1600; ++i) entryIs(i, true);  // one run of 600
  tree_.refresh();
  EXPECT_EQ(tree_.longestRunIn(0, entries, 256), 256u);
  EXPECT_EQ(tree_.longestRunIn(1100, 1300, 256), 200u);  // the span is shorter
  EXPECT_EQ(tree_.longestRunIn(0, 1255, 256), 255u);
  entryIs(1000, false);  // the run's lowest entry
  tree_.refresh();
  EXPECT_EQ(tree_.longestRunIn(0, 1256, 256), 255u);
  EXPECT_EQ(tree_.longestRunIn(0, 1257, 256), 256u);
  entryIs(1300, false);  // 299 below, 299 above
  tree_.refresh();
  EXPECT_EQ(tree_.longestRunIn(0, entries, 256), 256u);
  // Up to the entry taken, and one past it: that entry does not count.
  EXPECT_EQ(tree_.longestRunIn(0, 1300, 300), 299u);
  EXPECT_EQ(tree_.longestRunIn(0, 1301, 300), 299u);
  EXPECT_EQ(tree_.longestRunIn(1300, entries, 300), 299u);
  EXPECT_EQ(tree_.longestRunIn(1301, entries, 299), 299u);
  entryIs(1200, false);  // runs of 199, 99, 199 and 99: nothing of 256 is left
  entryIs(1500, false);
  tree_.refresh();
  EXPECT_EQ(tree_.longestRunIn(0, entries, 256), 199u);
  EXPECT_EQ(tree_.longestRunIn(0, entries, 199), 199u);
  EXPECT_EQ(tree_.longestRunIn(0, entries, 100), 100u);
  entryIs(1200, true);  // given back: a run of 299 again
  tree_.refresh();
  EXPECT_EQ(tree_.longestRunIn(0, entries, 256), 256u);
  EXPECT_EQ(tree_.longestRunIn(0, entries, 300), 299u);
  EXPECT_EQ(tree_.longestRunIn(5, 5, 256), 0u);
  EXPECT_EQ(tree_.longestRunIn(1400, 1401, 256), 1u);
  EXPECT_EQ(tree_.longestRunIn(1400, 1401, 0), 0u);
  EXPECT_EQ(tree_.longestRunIn(1300, 1301, 1), 0u);
}

// The free index (8,320 bytes) and its summary stay within 32 KiB per manager.
TEST(FreeRunTree, TakesWithTheFreeIndexUnder32KiB) {
  EXPECT_LT(sizeof(FreeRunTree) + sizeof(TableBitmap), 32u * 1024);
}

// The run searches: the tree's descent against a search entry by entry.
TEST_F(FreeRunTreeTest, SearchesFindNothingInAnEmptyTableOrForLengthZero) {
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

TEST_F(FreeRunTreeTest, SearchesMatchAnEntryByEntrySearchOnRandomBitmaps) {
  for (U32 round = 0; round < 30; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    const U32 maxRun = std::array<U32, 6>{1, 4, 20, 70, 300, 5000}[round % 6];
    runsFrom(0, entries, maxRun, round % 2 == 0);
    tree_.refresh();
    for (U32 n = 0; n < 60; ++n) {
      const auto [from, to] = randomSpan();
      expectSearchesMatch(from, to, randomLength());
    }
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunTreeTest, SearchesFindRunsAcrossSpanEnds) {
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

TEST_F(FreeRunTreeTest, SearchesMatchWithRangeEndsOnEveryNodeEdge) {
  // The searches start at the range's first (or last) word and climb
  // through the nodes that follow, splitting the one that reaches past the
  // other end: ends on, just inside and just outside a node of every size,
  // with runs that cross those edges.
  for (U32 round = 0; round < 6; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    runsFrom(0, entries, std::array<U32, 3>{6, 70, 700}[round % 3], round % 2 == 0);
    tree_.refresh();
    for (U32 nodeLength = 64; nodeLength <= entries / 2; nodeLength *= 2) {
      const U32 edge = pick(1, entries / nodeLength - 1) * nodeLength;
      for (const U32 from : {edge - 1, edge, edge + 1}) {
        for (const U32 to : {edge + nodeLength - 1, edge + nodeLength, edge + nodeLength + 1,
                             edge + 2 * nodeLength + 3, entries}) {
          expectSearchesMatch(from, std::min(to, entries), randomLength());
        }
        expectSearchesMatch(pick(0, from), from + 1, randomLength());
        expectSearchesMatch(pick(0, edge - 1), edge, randomLength());
      }
    }
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunTreeTest, SearchesStayExactAsEntriesChangeBetweenRefreshes) {
  runsFrom(0, entries, 40, true);
  for (U32 step = 0; step < 1500; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const U32 first = pick(0, entries - 1);
    const bool isFree = pick(0, 1) == 0;
    for (U32 i = first, end = std::min(entries, first + pick(1, 300)); i < end; ++i) {
      entryIs(i, isFree);
    }
    tree_.refresh();
    const auto [from, to] = randomSpan();
    expectSearchesMatch(from, to, randomLength());
    if (HasFailure()) return;
  }
}

TEST_F(FreeRunTreeTest, ARefreshThatFindsAChangeIsCounted) {
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
