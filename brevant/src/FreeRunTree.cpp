#include "Brevant/FreeRunTree.h"

#include <algorithm>
#include <bit>

namespace Brevant {
namespace {

using Span = FreeRunTree::Span;

// How far a remembered longest run's check reads the runs through a change:
// the largest block a search hands out, so at most a few words each side.
constexpr U32 keptRunsReadUpTo = 256;

// The set bits of x. std::popcount is a call into the compiler's support
// library here (the build does not assume the processor's instruction), and
// the walks below count a word at nearly every step: the same arithmetic,
// inline.
inline U32 onesIn(U64 x) {
  x -= (x >> 1) & 0x5555555555555555u;
  x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
  x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0fu;
  return U32((x * 0x0101010101010101u) >> 56);
}

// The figures of a word of length entries (1 to 64) whose bits at and
// above length are clear.
[[gnu::always_inline]] inline Span leafOf(U64 word, U32 length, U32 shortLength) {
  Span s;
  s.length = length;
  if (word == 0) return s;
  const U32 head = U32(std::countr_one(word));
  if (head == length) {
    s.free = s.head = s.tail = s.longest = length;
    s.runs = 1;
    return s;
  }
  // Not all free: the runs at the two ends are distinct, each under 64.
  s.free = onesIn(word);
  s.head = head;
  s.tail = U32(std::countl_one(word << (64 - length)));
  // A run starts where a free entry follows one that is not.
  s.runs = onesIn(word & ~(word << 1));
  s.longest = std::max(s.head, s.tail);
  // The inner runs, from the low bit up: at most 31 of them.
  const U32 innerRuns = s.runs - (s.head != 0) - (s.tail != 0);
  if (innerRuns == 0) return s;
  U64 inner = word & (~U64(0) << s.head);
  if (s.tail != 0) inner &= (U64(1) << (length - s.tail)) - 1;
  while (inner != 0) {
    const U32 position = U32(std::countr_zero(inner));
    const U32 run = U32(std::countr_one(inner >> position));
    s.longest = std::max(s.longest, run);
    if (run < shortLength) s.shortInner += run;
    inner &= ~U64(0) << (position + run);  // position + run stays below 64
  }
  return s;
}

using Ends = FreeRunTree::Ends;

inline Ends spanEnds(const Span& s) { return {s.length, s.head, s.tail, s.longest}; }

// The ends and longest run of a whole word, without counting its free
// entries or runs: what the tree's lowest nodes join.
[[gnu::always_inline]] inline Ends wordEnds(U64 word) {
  if (word == ~U64(0)) return {64, 64, 64, 64};
  const U32 head = U32(std::countr_one(word)), tail = U32(std::countl_one(word));
  U32 longest = std::max(head, tail);
  // The inner runs, from the low bit up; the bit above each is clear.
  for (U64 inner = word & (~U64(0) << head) & (~U64(0) >> tail); inner != 0;) {
    const U32 position = U32(std::countr_zero(inner));
    const U32 run = U32(std::countr_one(inner >> position));
    longest = std::max(longest, run);
    inner &= ~U64(0) << (position + run);
  }
  return {64, head, tail, longest};
}

// The ends of low followed by high. An empty span (length 0) joins as
// nothing, so the queries start from one. Without branches: the walks join
// at every level, and which way each test goes is anybody's guess.
[[gnu::always_inline]] inline Ends joined(const Ends& low, const Ends& high) {
  const bool lowAllFree = low.head == low.length, highAllFree = high.head == high.length;
  // The run where the halves meet; a half all free is all of it (its head
  // and tail are its length).
  const U32 middle = low.tail + high.head;
  return {low.length + high.length, lowAllFree ? middle : low.head,
          highAllFree ? middle : high.tail, std::max(std::max(low.longest, high.longest), middle)};
}

// The span of low followed by high.
[[gnu::always_inline]] inline Span joined(const Span& low, const Span& high, U32 shortLength) {
  const Ends ends = joined(spanEnds(low), spanEnds(high));
  // The run where the halves meet is inner unless it reaches an end; short
  // inner runs count.
  const U32 middle = low.tail + high.head;
  const bool middleShortInner =
      U32(middle != 0) & U32(!low.allFree()) & U32(!high.allFree()) & U32(middle < shortLength);
  Span s;
  s.length = ends.length;
  s.free = low.free + high.free;
  s.head = ends.head;
  s.tail = ends.tail;
  s.longest = ends.longest;
  s.runs = low.runs + high.runs - U32((low.tail != 0) & (high.head != 0));
  s.shortInner = low.shortInner + high.shortInner + (middle & -U32(middleShortInner));
  return s;
}

}  // namespace

FreeRunTree::FreeRunTree(const TableBitmap& bitmap) : bitmap_(&bitmap) {}

[[gnu::always_inline]] inline FreeRunTree::Ends FreeRunTree::storedEnds(U32 n, U32 length) const {
  const Node& d = nodes_[n];
  return {length, d.head, d.tail, d.longest};
}

[[gnu::always_inline]] inline FreeRunTree::Ends FreeRunTree::nodeEnds(U32 n, U32 length) const {
  if (n >= wordCount) return wordEnds(bitmap_->word(n - wordCount));
  if (n == 1) return spanEnds(table_);
  return storedEnds(n, length);
}

[[gnu::always_inline]] inline bool FreeRunTree::nodeIs(U32 n, const Ends& s) {
  const Node node{U16(s.head), U16(s.tail), U16(s.longest)};
  if (node == nodes_[n]) return false;
  nodes_[n] = node;
  return true;
}

[[gnu::always_inline]] inline bool FreeRunTree::joinWords(U32 n) {
  const U32 w = 2 * n - wordCount;
  return nodeIs(n, joined(wordEnds(bitmap_->word(w)), wordEnds(bitmap_->word(w + 1))));
}

[[gnu::always_inline]] inline bool FreeRunTree::joinStored(U32 n, U32 childLength) {
  return nodeIs(n, joined(storedEnds(2 * n, childLength), storedEnds(2 * n + 1, childLength)));
}

void FreeRunTree::joinRoot() {
  const Ends ends = joined(storedEnds(2, entries / 2), storedEnds(3, entries / 2));
  table_.length = entries;
  table_.head = ends.head;
  table_.tail = ends.tail;
  table_.longest = ends.longest;
}

void FreeRunTree::settleTable() {
  // The short free entries less the end runs that are short (a table all
  // free is one run that is no inner run).
  table_.shortInner = 0;
  if (table_.allFree()) return;
  const auto shortOnly = [&](U32 run) { return run < shortLength_ ? run : 0; };
  table_.shortInner = shortFree_ - shortOnly(table_.head) - shortOnly(table_.tail);
}

template <typename WordOf>
FreeRunTree::RunTally FreeRunTree::runsOf(U32 first, U32 last, U32 below, U32 above,
                                          WordOf wordOf) const {
  RunTally tally;
  const auto count = [&](U32 run) {
    tally.runs += U32(run != 0);
    if (run < shortLength_) tally.shortFree += run;
    tally.longest = std::max(tally.longest, run);
  };
  U32 open = below;  // free entries running up to the word being read
  for (U32 w = first; w <= last; ++w) {
    const U64 word = wordOf(w);
    if (word == ~U64(0)) {
      open += 64;
      continue;
    }
    const U32 head = U32(std::countr_one(word)), tail = U32(std::countl_one(word));
    count(open + head);
    // The inner runs, from the low bit up; the bit above each is clear.
    for (U64 inner = word & (~U64(0) << head) & (~U64(0) >> tail); inner != 0;) {
      const U32 position = U32(std::countr_zero(inner));
      const U32 run = U32(std::countr_one(inner >> position));
      count(run);
      inner &= ~U64(0) << (position + run);
    }
    open = tail;
  }
  count(open + above);
  return tally;
}

template <typename WordOf>
U32 FreeRunTree::freeRunDownFrom(S32 w, U32 limit, WordOf wordOf) const {
  U32 run = 0;
  for (; w >= 0 && run < limit; --w) {
    const U64 word = wordOf(U32(w));
    run += U32(std::countl_one(word));
    if (word != ~U64(0)) break;
  }
  return run;
}

template <typename WordOf>
U32 FreeRunTree::freeRunUpFrom(U32 w, U32 limit, WordOf wordOf) const {
  U32 run = 0;
  for (; w < wordCount && run < limit; ++w) {
    const U64 word = wordOf(w);
    run += U32(std::countr_one(word));
    if (word != ~U64(0)) break;
  }
  return run;
}

U64 FreeRunTree::wordAsBefore(U32 w) const {
  const bool marked = (staleWords_[w / 64] >> (w % 64)) & 1;
  return marked ? wordsBefore_[w] : bitmap_->word(w);
}

void FreeRunTree::rebuild() {
  ++refreshes_;
  // A level at a time from the lowest: nodes first .. 2 * first - 1 have
  // children of childLength entries.
  for (U32 n = wordCount / 2; n < wordCount; ++n) joinWords(n);
  for (U32 first = wordCount / 4, childLength = 128; first > 1; first /= 2, childLength *= 2) {
    for (U32 n = first; n < 2 * first; ++n) joinStored(n, childLength);
  }
  joinRoot();
  U32 free = 0;
  for (U32 w = 0; w < wordCount; ++w) free += onesIn(bitmap_->word(w));
  const RunTally tally = runsOf(0, wordCount - 1, 0, 0, [&](U32 w) { return bitmap_->word(w); });
  table_.free = free;
  table_.runs = tally.runs;
  shortFree_ = tally.shortFree;
  settleTable();
  staleWords_.fill(0);
  staleGroups_ = 0;
  unwalkedWords_.fill(0);
  unwalkedGroups_ = 0;
  rebuildPending_ = false;
  for (RememberedSpan& r : remembered_) r.last = 0;
  knownFree_.fill({});  // words may have changed unmarked before the rebuild
  cuts_.fill(0);
  freeBelowCuts_.fill(0);
}

void FreeRunTree::shortLengthIs(U32 length) {
  if (length == shortLength_) return;
  shortLength_ = length;
  rebuildPending_ = true;
}

[[gnu::always_inline]] inline void FreeRunTree::knownFreeTaken(U32 first, U32 last) {
  const U32 firstEntry = first * 64, endEntry = (last + 1) * 64;
  for (KnownFree& known : knownFree_) {
    if (known.first >= endEntry || known.last <= firstEntry) continue;  // none known: last 0
    // The lowest and highest entries of the stretch that were taken.
    U32 lowTaken = entries, highTaken = 0;
    const U32 lastWord = std::min(last, (known.last - 1) / 64);
    for (U32 w = std::max(first, known.first / 64); w <= lastWord; ++w) {
      const U64 takenHere =
          wordsBefore_[w] & ~bitmap_->word(w) & TableBitmap::bitsIn(w, known.first, known.last);
      if (takenHere == 0) continue;
      lowTaken = std::min(lowTaken, w * 64 + U32(std::countr_zero(takenHere)));
      highTaken = w * 64 + 63 - U32(std::countl_zero(takenHere));
    }
    if (lowTaken == entries) continue;
    // The longer of the parts below and above them is still all free.
    if (lowTaken - known.first >= known.last - highTaken - 1) {
      known.last = lowTaken;
    } else {
      known.first = highTaken + 1;
    }
    if (known.first >= known.last) known = {};
  }
}

void FreeRunTree::stretchChanged(U32 first, U32 last) {
  // Negative changes wrap, and wrap back when added.
  U32 freeChange = 0;
  U64 taken = 0, given = 0;  // entries that stopped or started being free
  for (U32 w = first; w <= last; ++w) {
    const U64 before = wordsBefore_[w], now = bitmap_->word(w);
    taken |= before & ~now;
    given |= now & ~before;
    freeChange += onesIn(now) - onesIn(before);
  }
  if (!taken && !given) return;
  if (taken) knownFreeTaken(first, last);
  // The runs that lie in the stretch or touch it, as they were and as they
  // are: the rest of the table is the same in both. Stretches are taken from
  // the lowest, so the words below are read as they are now and the marked
  // words above as they were.
  const auto now = [&](U32 w) { return bitmap_->word(w); };
  const auto asBefore = [&](U32 w) { return wordAsBefore(w); };
  // Read far enough for the short runs and for the remembered longest runs
  // (with none remembered, a run's first entry tells that it is there).
  const bool anyRemembered = std::any_of(remembered_.begin(), remembered_.end(),
                                         [](const RememberedSpan& r) { return r.last != 0; });
  const U32 limit = std::max(shortLength_, anyRemembered ? keptRunsReadUpTo + 1 : 1);
  const U32 below = freeRunDownFrom(S32(first) - 1, limit, now);
  const U32 above = freeRunUpFrom(last + 1, limit, asBefore);
  const RunTally was = runsOf(first, last, below, above, [&](U32 w) { return wordsBefore_[w]; });
  const RunTally is = runsOf(first, last, below, above, now);
  table_.free += freeChange;
  table_.runs += is.runs - was.runs;
  shortFree_ += is.shortFree - was.shortFree;
  const U32 firstEntry = first * 64, endEntry = (last + 1) * 64;
  for (U32 i = 0; i < cutCount; ++i) {
    const U32 cut = cuts_[i];
    if (cut >= endEntry) {
      freeBelowCuts_[i] += freeChange;
    } else if (cut > firstEntry) {
      freeBelowCuts_[i] += freeIn(firstEntry, cut) - freeBeforeBetween(firstEntry, cut);
    }
  }
  // A remembered span that holds every entry the runs above were read
  // over (down to the entry that ended the run below, up to the one that
  // ended the run above) sees the same runs: their longest decide. For
  // others those runs may reach past the span's ends and overstate its own
  // (safe, but the answer would be forgotten more often), so they read
  // their own entries again.
  for (RememberedSpan& r : remembered_) {
    if (r.last == 0 || r.first / 64 > last || first > (r.last - 1) / 64) continue;
    const bool readInside = r.first + below + 1 <= firstEntry && endEntry + above + 1 <= r.last;
    const bool kept = !r.whole && (readInside ? longestStays(r.span.longest, taken != 0, given != 0,
                                                             was.longest, is.longest)
                                              : longestKept(r, first, last));
    if (!kept) r.last = 0;
  }
}

bool FreeRunTree::longestKept(const RememberedSpan& r, U32 first, U32 last) const {
  // Only the span's own entries count.
  const auto inSpan = [&](U32 w) {
    const U32 base = w * 64;
    const U32 low = std::max(r.first, base), high = std::min(r.last, base + 64);
    if (low >= high) return U64(0);
    const U64 fromLow = ~U64(0) << (low - base);
    return high - base == 64 ? fromLow : fromLow & ((U64(1) << (high - base)) - 1);
  };
  U64 taken = 0, given = 0;
  for (U32 w = first; w <= last; ++w) {
    const U64 before = wordsBefore_[w], now = bitmap_->word(w), mask = inSpan(w);
    taken |= before & ~now & mask;
    given |= now & ~before & mask;
  }
  if (!taken && !given) return true;
  if (taken && given) return false;
  // Only the runs through the stretch matter, each read no further than one
  // entry past the longest (or past a block's largest length).
  const U32 longest = r.span.longest;
  const U32 limit = std::min(longest, keptRunsReadUpTo) + 1;
  const auto now = [&](U32 w) { return bitmap_->word(w) & inSpan(w); };
  const auto asBefore = [&](U32 w) { return wordAsBefore(w) & inSpan(w); };
  const U32 below = freeRunDownFrom(S32(first) - 1, limit, now);
  const U32 above = freeRunUpFrom(last + 1, limit, asBefore);
  const auto before = [&](U32 w) { return wordsBefore_[w] & inSpan(w); };
  return longestStays(longest, taken != 0, given != 0,
                      taken ? runsOf(first, last, below, above, before).longest : 0,
                      given ? runsOf(first, last, below, above, now).longest : 0);
}

bool FreeRunTree::longestStays(U32 longest, bool taken, bool given, U32 cutLongest,
                               U32 joinedLongest) {
  if (!taken && !given) return true;
  if (taken && given) return false;
  // Entries taken: the longest run stays unless a run they cut was as long
  // as it. Entries given back: it stays unless a run they joined grew
  // longer. A run read up to past a block's largest length is not looked
  // into further, and the answer is joined again.
  const U32 readUpTo = std::min(longest, keptRunsReadUpTo);
  return taken ? cutLongest < longest && cutLongest <= readUpTo : joinedLongest <= readUpTo;
}

bool FreeRunTree::refreshMarked() {
  if (rebuildPending_) {
    rebuild();
    return true;
  }
  ++refreshes_;
  // Answers nobody asked for since the last refresh are not kept up to date
  // any longer (a boundary moved away from them).
  for (RememberedSpan& r : remembered_) {
    if (!r.asked) r.last = 0;
    r.asked = false;
  }
  // The table's figures move stretch by stretch of marked words; the words
  // wait for the next walk of the nodes.
  U32 stretchFirst = 0, previous = 0;
  bool inStretch = false;
  for (U32 groups = staleGroups_; groups != 0; groups &= groups - 1) {
    const U32 group = U32(std::countr_zero(groups));
    const U64 marked = staleWords_[group];
    unwalkedWords_[group] |= marked;
    for (U64 bits = marked; bits != 0; bits &= bits - 1) {
      const U32 w = group * 64 + U32(std::countr_zero(bits));
      if (inStretch && w != previous + 1) stretchChanged(stretchFirst, previous);
      if (!inStretch || w != previous + 1) stretchFirst = w;
      inStretch = true;
      previous = w;
    }
  }
  if (inStretch) stretchChanged(stretchFirst, previous);
  // The marks are cleared only now: a stretch reads the words above it as
  // they were through them.
  for (U32 groups = staleGroups_; groups != 0; groups &= groups - 1) {
    staleWords_[std::countr_zero(groups)] = 0;
  }
  unwalkedGroups_ |= staleGroups_;
  staleGroups_ = 0;
  return true;
}

void FreeRunTree::walkUnwalked() {
  // The nodes to join again, a level at a time, lowest first and each once:
  // words next to each other share their parents, and a node that comes
  // out as it was does not pass the walk on to its parent.
  std::array<U16, wordCount / 2> changed;
  U32 count = 0;
  auto add = [&](U32 n) {
    if (count == 0 || changed[count - 1] != n) changed[count++] = U16(n);
  };
  for (U32 groups = unwalkedGroups_; groups != 0; groups &= groups - 1) {
    const U32 group = U32(std::countr_zero(groups));
    for (U64 bits = unwalkedWords_[group]; bits != 0; bits &= bits - 1) {
      add((wordCount + group * 64 + U32(std::countr_zero(bits))) / 2);
    }
    unwalkedWords_[group] = 0;
  }
  unwalkedGroups_ = 0;
  // The pairs of words, then the nodes above, up to the root's children
  // (all of a level alike).
  U32 nodes = count;
  count = 0;  // the parents overwrite the level just read, never ahead of it
  for (U32 i = 0; i < nodes; ++i) {
    const U32 n = changed[i];
    if (joinWords(n)) add(n / 2);
  }
  for (U32 childLength = 128; count != 0 && changed[0] > 1; childLength *= 2) {
    nodes = count;
    count = 0;
    for (U32 i = 0; i < nodes; ++i) {
      const U32 n = changed[i];
      if (joinStored(n, childLength)) add(n / 2);
    }
  }
  if (count != 0) joinRoot();
  settleTable();
}

U32 FreeRunTree::freeIn(U32 first, U32 last) const {
  last = std::min(last, entries);
  U32 n = 0;
  for (U32 w = first / 64; first < last; ++w, first = w * 64) {
    n += onesIn(bitmap_->wordIn(w, first, last));
  }
  return n;
}

U32 FreeRunTree::freeBeforeBetween(U32 first, U32 last) const {
  U32 n = 0;
  for (U32 w = first / 64; first < last; ++w, first = w * 64) {
    n += onesIn(wordsBefore_[w] & TableBitmap::bitsIn(w, first, last));
  }
  return n;
}

const FreeRunTree::Cuts& FreeRunTree::freeBelowMoved(const Cuts& cuts) {
  for (U32 i = 0; i < cutCount; ++i) {
    const U32 from = cuts_[i], to = std::min(cuts[i], entries);
    if (to > from) freeBelowCuts_[i] += freeIn(from, to);
    if (to < from) freeBelowCuts_[i] -= freeIn(to, from);
    cuts_[i] = to;
  }
  return freeBelowCuts_;
}

U32 FreeRunTree::shortFreeEntries() const { return shortFree_; }

FreeRunTree::Span FreeRunTree::span(U32 first, U32 last) {
  last = std::min(last, entries);
  if (first >= last) return Span{};
  for (RememberedSpan& r : remembered_) {
    if (r.first == first && r.last == last && r.whole) {
      r.asked = true;
      return r.span;
    }
  }
  // Word by word: the tree keeps no sums for its nodes.
  Span s;
  for (U32 w = first / 64; w * 64 < last; ++w) {
    const U32 low = std::max(first, w * 64) - w * 64, high = std::min(last, w * 64 + 64) - w * 64;
    s = joined(s, partOfWord(w, low, high), shortLength_);
  }
  return remember(first, last, s, true);
}

U32 FreeRunTree::longestRunJoined(U32 first, U32 last) {
  walkNodes();
  return rememberLongest(first, last, endsIn(first, last));
}

U32 FreeRunTree::rememberLongest(U32 first, U32 last, const Ends& ends) {
  Span s;
  s.length = ends.length;
  s.head = ends.head;
  s.tail = ends.tail;
  s.longest = ends.longest;
  return remember(first, last, s, false).longest;
}

U32 FreeRunTree::longestRunCappedJoined(U32 first, U32 last, U32 cap) {
  if (cap == 0) return 0;
  walkNodes();
  const Ends ends = endsIn(first, last);
  // An answer under the cap is exact, and kept as the uncapped one is.
  if (ends.longest < cap) return rememberLongest(first, last, ends);
  // One at the cap is kept as the lowest run of cap entries, which lasts
  // until entries in it are taken.
  const U32 start = U32(firstRun(first, last, cap));
  knownFreeIs(start, start + cap, cap);
  return cap;
}

void FreeRunTree::knownFreeIs(U32 first, U32 last, U32 widen) {
  KnownFree& slot = knownFree_[nextKnownFree_];
  nextKnownFree_ = (nextKnownFree_ + 1) % knownFreeStretches;
  slot = {first - freeEntriesDownFrom(first, widen), last + freeEntriesUpFrom(last, widen)};
}

U32 FreeRunTree::freeEntriesUpFrom(U32 index, U32 limit) const {
  U32 run = 0;
  while (run < limit && index < entries) {
    // The bits shifted in above the word's top are clear, so the count
    // stops there at the latest.
    const U32 offset = index % 64;
    const U32 ones = U32(std::countr_one(bitmap_->word(index / 64) >> offset));
    run += ones;
    index += ones;
    if (ones < 64 - offset) break;
  }
  return run;
}

U32 FreeRunTree::freeEntriesDownFrom(U32 index, U32 limit) const {
  U32 run = 0;
  while (run < limit && index > 0) {
    // Entry index - 1 moved to the word's top bit; the bits shifted in below
    // are clear.
    const U32 top = (index - 1) % 64;
    const U32 ones = U32(std::countl_one(bitmap_->word((index - 1) / 64) << (63 - top)));
    run += ones;
    index -= ones;
    if (ones < top + 1) break;
  }
  return run;
}

const FreeRunTree::Span& FreeRunTree::remember(U32 first, U32 last, const Span& s, bool whole) {
  // A span asked for again in full replaces its ends-only answer.
  RememberedSpan* slot = nullptr;
  for (RememberedSpan& r : remembered_) {
    if (r.first == first && r.last == last) slot = &r;
  }
  if (!slot) {
    slot = &remembered_[nextRemembered_];
    nextRemembered_ = (nextRemembered_ + 1) % rememberedSpans;
  }
  *slot = {first, last, whole, true, s};
  return slot->span;
}

FreeRunTree::Span FreeRunTree::partOfWord(U32 w, U32 low, U32 high) const {
  // Shifted down so that low is bit 0.
  const U32 length = high - low;
  const U64 inside = bitmap_->word(w) >> low;
  return leafOf(length == 64 ? inside : inside & ((U64(1) << length) - 1), length, shortLength_);
}

FreeRunTree::Ends FreeRunTree::endsIn(U32 first, U32 last) const {
  const U32 firstWord = first / 64, lastWord = (last - 1) / 64;
  if (firstWord == lastWord) {
    return spanEnds(partOfWord(firstWord, first % 64, last - firstWord * 64));
  }
  // The words cut at either end, then the whole words between them from
  // the bottom of the tree up: a node whose sibling lies outside the words
  // joins the low or the high side, and the walk goes on from its parents.
  Ends low{}, high{};
  U32 l = firstWord, r = lastWord + 1;
  if (first % 64 != 0) low = spanEnds(partOfWord(l++, first % 64, 64));
  if (last % 64 != 0) high = spanEnds(partOfWord(--r, 0, last % 64));
  for (U32 length = 64, n = l + wordCount, end = r + wordCount; n < end;
       n /= 2, end /= 2, length *= 2) {
    if (n & 1) low = joined(low, nodeEnds(n++, length));
    if (end & 1) high = joined(nodeEnds(--end, length), high);
  }
  return joined(low, high);
}

// The searches visit spans from the range's first word on (or last, going
// down), each the largest node that starts where the last one ended and
// lies wholly inside the range: they climb while a node is the first half
// of a parent that still fits, and split a node that reaches past the
// range's end. A short request in a fragmented table mostly ends in the
// first words, a few steps, where a descent from the root would first walk
// ten levels down to the range's start. A span whose runs are all too short
// is passed over with its figures alone (the run it ends with is all it
// carries on); the first that holds the answer is looked into, half by
// half. The climbs never reach the root (which has no stored figures):
// going up, only a span starting at entry 0 could climb to it, and going
// down only one ending at the table's end, and those entries lie in the
// range's first (last) word, looked at before any node.
S32 FreeRunTree::firstRun(U32 from, U32 to, U32 length) {
  to = std::min(to, entries);
  if (length == 0 || from >= to) return -1;
  U32 carry = 0;  // free entries running up to the span being looked at
  U32 n = wordCount + from / 64, nodeFirst = from / 64 * 64, nodeLength = 64;
  const U64 firstBits = bitmap_->wordIn(from / 64, from, to);
  if (const S32 found = TableBitmap::firstRunInWord(firstBits, nodeFirst, length, carry);
      found >= 0) {
    return found;
  }
  walkNodes();  // only now: the first word reads the bitmap alone
  for (;;) {
    // The next span.
    ++n;
    nodeFirst += nodeLength;
    if (nodeFirst >= to) return -1;
    while (n % 2 == 0 && nodeFirst + 2 * nodeLength <= to) {
      n /= 2;
      nodeLength *= 2;
    }
    while (nodeFirst + nodeLength > to && nodeLength > 64) {
      n *= 2;
      nodeLength /= 2;
    }
    // Looked into, down its first halves, while it holds the answer; a half
    // passed over leaves the second half as the next span.
    for (;;) {
      if (nodeLength == 64) {
        const U64 bits = bitmap_->wordIn(n - wordCount, from, to);
        const S32 found = TableBitmap::firstRunInWord(bits, nodeFirst, length, carry);
        if (found >= 0) return found;
        break;
      }
      const Node& node = nodes_[n];
      if (carry + node.head >= length) return S32(nodeFirst - carry);
      if (node.longest < length) {
        carry = node.head == nodeLength ? carry + nodeLength : node.tail;
        break;
      }
      n *= 2;
      nodeLength /= 2;
    }
  }
}

// The mirror of firstRun: spans from high to low.
S32 FreeRunTree::lastRun(U32 from, U32 to, U32 length) {
  to = std::min(to, entries);
  if (length == 0 || from >= to) return -1;
  TableBitmap::RunBelow run;
  U32 n = wordCount + (to - 1) / 64, nodeFirst = (to - 1) / 64 * 64, nodeLength = 64;
  const U64 lastBits = bitmap_->wordIn((to - 1) / 64, from, to);
  if (const S32 found = TableBitmap::lastRunInWord(lastBits, nodeFirst, length, run); found >= 0) {
    return found;
  }
  walkNodes();
  for (;;) {
    if (nodeFirst <= from) return -1;
    --n;
    nodeFirst -= nodeLength;
    while (n % 2 == 1 && nodeFirst >= from + nodeLength) {
      n /= 2;
      nodeFirst -= nodeLength;
      nodeLength *= 2;
    }
    while (nodeFirst < from && nodeLength > 64) {
      n = 2 * n + 1;
      nodeLength /= 2;
      nodeFirst += nodeLength;
    }
    for (;;) {
      if (nodeLength == 64) {
        const U64 bits = bitmap_->wordIn(n - wordCount, from, to);
        const S32 found = TableBitmap::lastRunInWord(bits, nodeFirst, length, run);
        if (found >= 0) return found;
        break;
      }
      const Node& node = nodes_[n];
      if (run.carry == 0) run.end = nodeFirst + nodeLength;
      if (run.carry + node.tail >= length) return S32(run.end - length);
      if (node.longest < length) {
        if (node.head == nodeLength) {
          run.carry += nodeLength;
        } else {
          run.carry = node.head;
          run.end = nodeFirst + node.head;
        }
        break;
      }
      n = 2 * n + 1;
      nodeLength /= 2;
      nodeFirst += nodeLength;
    }
  }
}

}  // namespace Brevant
