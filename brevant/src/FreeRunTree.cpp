#include "Brevant/FreeRunTree.h"

#include <algorithm>
#include <bit>

namespace Brevant {

FreeRunTree::FreeRunTree(const TableBitmap& bitmap) : bitmap_(&bitmap) {}

FreeRunTree::Span FreeRunTree::leafOf(U64 word, U32 length, U32 shortLength) {
  Span s;
  s.length = length;
  if (word == 0) return s;
  s.free = U32(std::popcount(word));
  if (s.free == length) {
    s.head = s.tail = s.longest = length;
    s.runs = 1;
    return s;
  }
  // Not all free: the runs at the two ends are distinct, each under 64.
  s.head = U32(std::countr_one(word));
  s.tail = U32(std::countl_one(word << (64 - length)));
  s.runs = U32(std::popcount(word & ~(word << 1)));  // a run starts where a free entry
                                                     // follows one that is not
  s.longest = std::max(s.head, s.tail);
  // Walk the inner runs from the low bit up: at most 31 of them.
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

FreeRunTree::Span FreeRunTree::joined(const Span& low, const Span& high, U32 shortLength) {
  Span s;
  s.length = low.length + high.length;
  s.free = low.free + high.free;
  s.head = low.allFree() ? low.length + high.head : low.head;
  s.tail = high.allFree() ? high.length + low.tail : high.tail;
  const U32 middle = low.tail + high.head;
  s.longest = std::max({low.longest, high.longest, middle});
  s.runs = low.runs + high.runs - (low.tail != 0 && high.head != 0 ? 1 : 0);
  s.shortInner = low.shortInner + high.shortInner;
  // The run where the halves meet is inner unless it reaches an end.
  if (middle != 0 && !low.allFree() && !high.allFree() && middle < shortLength) {
    s.shortInner += middle;
  }
  return s;
}

FreeRunTree::Span FreeRunTree::nodeSpan(U32 n) const {
  if (n >= wordCount) return leafOf(bitmap_->word(n - wordCount), 64, shortLength_);
  if (n == 1) return table_;
  const Node& d = nodes_[n];
  return {
      entries >> (std::bit_width(n) - 1), d.free, d.head, d.tail, d.longest, d.runs, d.shortInner};
}

void FreeRunTree::nodeIs(U32 n, const Span& s) {
  if (n == 1) {
    table_ = s;
    return;
  }
  nodes_[n] = {U16(s.free),    U16(s.head), U16(s.tail),
               U16(s.longest), U16(s.runs), U16(s.shortInner)};
}

void FreeRunTree::rebuild() {
  ++refreshes_;
  for (U32 n = wordCount; n-- > 1;) nodeIs(n, joinedChildren(n));
  staleWords_.fill(0);
  stale_ = false;
  rebuildPending_ = false;
  for (RememberedSpan& r : remembered_) r.last = 0;
}

void FreeRunTree::shortLengthIs(U32 length) {
  if (length == shortLength_) return;
  shortLength_ = length;
  rebuildPending_ = true;
}

bool FreeRunTree::refresh() {
  if (rebuildPending_) {
    rebuild();
    return true;
  }
  if (!stale_) return false;
  ++refreshes_;
  // The nodes to join again, a level at a time, lowest first and each once:
  // marked words next to each other share their parents, and a node that
  // comes out as it was does not pass the walk on to its parent.
  std::array<U16, wordCount / 2> changed;
  U32 count = 0;
  auto add = [&](U32 n) {
    if (count == 0 || changed[count - 1] != n) changed[count++] = U16(n);
  };
  for (U32 group = 0; group < staleWords_.size(); ++group) {
    for (U64 bits = staleWords_[group]; bits != 0; bits &= bits - 1) {
      const U32 w = group * 64 + U32(std::countr_zero(bits));
      forgetSpansOver(w);
      add((wordCount + w) / 2);
    }
  }
  staleWords_.fill(0);
  stale_ = false;
  while (count != 0) {
    const U32 nodes = count;
    count = 0;  // the parents overwrite the level just read, never ahead of it
    for (U32 i = 0; i < nodes; ++i) {
      const U32 n = changed[i];
      const Span s = joinedChildren(n);
      if (s == nodeSpan(n)) continue;
      nodeIs(n, s);
      if (n > 1) add(n / 2);
    }
  }
  return true;
}

U32 FreeRunTree::freeBefore(U32 index) const {
  if (index >= entries) return table_.free;
  // Down from the table to index's word, adding the free entries of every
  // left half passed on the right.
  U32 total = 0;
  U32 n = 1;
  for (U32 half = entries / 2; half >= 64; half /= 2) {
    n *= 2;
    if (index & half) {
      total += n >= wordCount ? U32(std::popcount(bitmap_->word(n - wordCount))) : nodes_[n].free;
      ++n;
    }
  }
  const U64 below = (U64(1) << (index & 63)) - 1;
  return total + U32(std::popcount(bitmap_->word(index / 64) & below));
}

U32 FreeRunTree::freeIn(U32 first, U32 last) const {
  last = std::min(last, entries);
  return first >= last ? 0 : freeBefore(last) - freeBefore(first);
}

U32 FreeRunTree::shortFreeEntries() const {
  const Span& t = table();
  if (t.allFree()) return t.length < shortLength_ ? t.length : 0;
  U32 total = t.shortInner;
  if (t.head < shortLength_) total += t.head;
  if (t.tail < shortLength_) total += t.tail;
  return total;
}

void FreeRunTree::forgetSpansOver(U32 word) {
  for (RememberedSpan& r : remembered_) {
    if (r.last != 0 && r.first / 64 <= word && word <= (r.last - 1) / 64) r.last = 0;
  }
}

FreeRunTree::Span FreeRunTree::span(U32 first, U32 last) {
  last = std::min(last, entries);
  if (first >= last) return Span{};
  for (const RememberedSpan& r : remembered_) {
    if (r.first == first && r.last == last) return r.span;
  }
  RememberedSpan& r = remembered_[nextRemembered_];
  nextRemembered_ = (nextRemembered_ + 1) % rememberedSpans;
  r = {first, last, spanOf(1, 0, entries, first, last)};
  return r.span;
}

FreeRunTree::Span FreeRunTree::spanOf(U32 node, U32 nodeFirst, U32 nodeLength, U32 first,
                                      U32 last) const {
  const U32 nodeLast = nodeFirst + nodeLength;
  if (first <= nodeFirst && nodeLast <= last) return nodeSpan(node);
  if (nodeLength == 64) {
    // A word cut by the span: only its entries low .. high - 1 count,
    // shifted down so that the span's first entry is bit 0.
    const U32 low = std::max(first, nodeFirst) - nodeFirst;
    const U32 high = std::min(last, nodeLast) - nodeFirst;
    const U32 length = high - low;
    const U64 inside = bitmap_->word(node - wordCount) >> low;
    return leafOf(length == 64 ? inside : inside & ((U64(1) << length) - 1), length, shortLength_);
  }
  const U32 half = nodeLength / 2;
  const U32 middle = nodeFirst + half;
  if (last <= middle) return spanOf(2 * node, nodeFirst, half, first, last);
  if (first >= middle) return spanOf(2 * node + 1, middle, half, first, last);
  return joined(spanOf(2 * node, nodeFirst, half, first, last),
                spanOf(2 * node + 1, middle, half, first, last), shortLength_);
}

struct FreeRunTree::UpwardSearch {
  U32 from, to, length;
  U32 carry = 0;  // free entries running up to the span being looked at
};

struct FreeRunTree::DownwardSearch {
  U32 from, to, length;
  TableBitmap::RunBelow run;
};

S32 FreeRunTree::firstRun(U32 from, U32 to, U32 length) const {
  to = std::min(to, entries);
  if (length == 0 || from >= to) return -1;
  UpwardSearch search{from, to, length};
  return firstRunIn(1, 0, entries, search);
}

S32 FreeRunTree::lastRun(U32 from, U32 to, U32 length) const {
  to = std::min(to, entries);
  if (length == 0 || from >= to) return -1;
  DownwardSearch search{from, to, length, {}};
  return lastRunIn(1, 0, entries, search);
}

// Spans are visited from low to high, and a span wholly inside the range
// whose runs are all too short is passed over with its figures alone: the
// run it ends with is all it carries on. Only spans that hold the answer,
// and the two cut by the range's ends, are looked into.
S32 FreeRunTree::firstRunIn(U32 node, U32 nodeFirst, U32 nodeLength, UpwardSearch& search) const {
  const U32 nodeLast = nodeFirst + nodeLength;
  if (nodeLast <= search.from || nodeFirst >= search.to) return -1;
  if (nodeLength == 64) {
    const U64 bits = bitmap_->wordIn(nodeFirst / 64, search.from, search.to);
    return TableBitmap::firstRunInWord(bits, nodeFirst, search.length, search.carry);
  }
  if (search.from <= nodeFirst && nodeLast <= search.to) {
    const Span s = nodeSpan(node);
    if (search.carry + s.head >= search.length) return S32(nodeFirst - search.carry);
    if (s.longest < search.length) {
      search.carry = s.allFree() ? search.carry + nodeLength : s.tail;
      return -1;
    }
  }
  const U32 half = nodeLength / 2;
  const S32 found = firstRunIn(2 * node, nodeFirst, half, search);
  return found >= 0 ? found : firstRunIn(2 * node + 1, nodeFirst + half, half, search);
}

// The mirror of firstRunIn: spans from high to low.
S32 FreeRunTree::lastRunIn(U32 node, U32 nodeFirst, U32 nodeLength, DownwardSearch& search) const {
  const U32 nodeLast = nodeFirst + nodeLength;
  if (nodeLast <= search.from || nodeFirst >= search.to) return -1;
  if (nodeLength == 64) {
    const U64 bits = bitmap_->wordIn(nodeFirst / 64, search.from, search.to);
    return TableBitmap::lastRunInWord(bits, nodeFirst, search.length, search.run);
  }
  if (search.from <= nodeFirst && nodeLast <= search.to) {
    const Span s = nodeSpan(node);
    TableBitmap::RunBelow& run = search.run;
    if (run.carry == 0) run.end = nodeLast;
    if (run.carry + s.tail >= search.length) return S32(run.end - search.length);
    if (s.longest < search.length) {
      if (s.allFree()) {
        run.carry += nodeLength;
      } else {
        run.carry = s.head;
        run.end = nodeFirst + s.head;
      }
      return -1;
    }
  }
  const U32 half = nodeLength / 2;
  const S32 found = lastRunIn(2 * node + 1, nodeFirst + half, half, search);
  return found >= 0 ? found : lastRunIn(2 * node, nodeFirst, half, search);
}

}  // namespace Brevant
