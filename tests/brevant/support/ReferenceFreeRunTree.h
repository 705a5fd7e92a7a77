// The free-run tree as it was before its walks were made inline and its
// range queries bottom-up: the reference the differential test holds the
// current tree to, answer for answer (free_run_tree_test.cpp).
#pragma once

#include <algorithm>
#include <array>
#include <bit>

#include "Brevant/FreeRunTree.h"
#include "Brevant/TableBitmap.h"
#include "Kiln/Support.h"

namespace NextHopTest {

using Brevant::TableBitmap;

class ReferenceFreeRunTree {
 public:
  // What the tree knows of a span of entries: the same figures as the
  // current tree's, so that the two can be compared whole.
  using Span = Brevant::FreeRunTree::Span;

  static constexpr U32 entries = TableBitmap::indexes;

  // Summarises the free entries of bitmap (an index is free while it is in
  // the set), which must outlive the tree. Runs shorter than 0 count short.
  // The bitmap is first read by refresh(), so it may be built after the tree.
  explicit ReferenceFreeRunTree(const TableBitmap& bitmap);

  // Hears that the bitmap's entry index changed (the bitmap holds its new
  // value already, so the tree reads it from there): marks its word, a few
  // instructions. The tree above the word is brought up to date by the next
  // refresh().
  void entryChanged(U16 index) {
    const U32 w = index >> 6;
    staleWords_[w >> 6] |= U64(1) << (w & 63);
    stale_ = true;
  }

  // Runs shorter than length count as short from now on; the next
  // refresh() recomputes the tree (1,024 words).
  void shortLengthIs(U32 length);
  U32 shortLength() const { return shortLength_; }

  // Brings the tree up to date with the words marked since the last
  // refresh: each costs a walk towards the root (at most ten joins) that
  // stops where a node comes out as it was, and words side by side share
  // their walks. Returns whether anything had been marked (or the short
  // length changed).
  bool refresh();

  // The whole table (after refresh()): its free entries, runs, longest run.
  const Span& table() const { return table_; }
  // The free entries in runs shorter than the short length (after refresh()).
  U32 shortFreeEntries() const;

  // The free entries among first .. last - 1 (after refresh()): two walks
  // of ten additions.
  U32 freeIn(U32 first, U32 last) const;

  // The entries first .. last - 1 as a span of their own (after refresh()):
  // free entries outside it do not count, so its runs are cut at its ends.
  // Costs at most two walks of ten steps; the last few answers are
  // remembered until a refresh changes a word under them, so asking again
  // for the same span costs a comparison.
  Span span(U32 first, U32 last);

 private:
  static constexpr U32 wordCount = entries / 64;
  // The figures of a node below the root, whose span (at most 32,768
  // entries) bounds every one of them: 16 bits each. Its length follows
  // from its place in the tree.
  struct Node {
    U16 free = 0, head = 0, tail = 0, longest = 0, runs = 0, shortInner = 0;
  };
  // A span the tree answered for, kept until a word under it changes.
  struct RememberedSpan {
    U32 first = 0, last = 0;  // last 0: nothing remembered
    Span span;
  };
  static constexpr U32 rememberedSpans = 8;

  // A word whose entries at and above length are not free.
  static Span leafOf(U64 word, U32 length, U32 shortLength);
  static Span joined(const Span& low, const Span& high, U32 shortLength);
  // Node n: 1 is the table; n has children 2n and 2n + 1; word w is node
  // wordCount + w, computed from the bitmap.
  Span nodeSpan(U32 n) const;
  void nodeIs(U32 n, const Span& s);
  Span joinedChildren(U32 n) const {
    return joined(nodeSpan(2 * n), nodeSpan(2 * n + 1), shortLength_);
  }
  void rebuild();
  // The free entries among 0 .. index - 1.
  U32 freeBefore(U32 index) const;
  void forgetSpansOver(U32 word);
  Span spanOf(U32 node, U32 nodeFirst, U32 nodeLength, U32 first, U32 last) const;

  const TableBitmap* bitmap_;
  U32 shortLength_ = 0;
  bool stale_ = false;
  // Set until the first refresh and after the short length changes.
  bool rebuildPending_ = true;
  // One bit per word marked since the last refresh.
  std::array<U64, wordCount / 64> staleWords_{};
  Span table_;
  // Nodes 2 .. wordCount - 1 (0 and 1 unused: the table is table_).
  std::array<Node, wordCount> nodes_{};
  std::array<RememberedSpan, rememberedSpans> remembered_{};
  U32 nextRemembered_ = 0;
};

inline ReferenceFreeRunTree::ReferenceFreeRunTree(const TableBitmap& bitmap) : bitmap_(&bitmap) {}

inline ReferenceFreeRunTree::Span ReferenceFreeRunTree::leafOf(U64 word, U32 length,
                                                               U32 shortLength) {
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

inline ReferenceFreeRunTree::Span ReferenceFreeRunTree::joined(const Span& low, const Span& high,
                                                               U32 shortLength) {
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

inline ReferenceFreeRunTree::Span ReferenceFreeRunTree::nodeSpan(U32 n) const {
  if (n >= wordCount) return leafOf(bitmap_->word(n - wordCount), 64, shortLength_);
  if (n == 1) return table_;
  const Node& d = nodes_[n];
  return {
      entries >> (std::bit_width(n) - 1), d.free, d.head, d.tail, d.longest, d.runs, d.shortInner};
}

inline void ReferenceFreeRunTree::nodeIs(U32 n, const Span& s) {
  if (n == 1) {
    table_ = s;
    return;
  }
  nodes_[n] = {U16(s.free),    U16(s.head), U16(s.tail),
               U16(s.longest), U16(s.runs), U16(s.shortInner)};
}

inline void ReferenceFreeRunTree::rebuild() {
  for (U32 n = wordCount; n-- > 1;) nodeIs(n, joinedChildren(n));
  staleWords_.fill(0);
  stale_ = false;
  rebuildPending_ = false;
  for (RememberedSpan& r : remembered_) r.last = 0;
}

inline void ReferenceFreeRunTree::shortLengthIs(U32 length) {
  if (length == shortLength_) return;
  shortLength_ = length;
  rebuildPending_ = true;
}

inline bool ReferenceFreeRunTree::refresh() {
  if (rebuildPending_) {
    rebuild();
    return true;
  }
  if (!stale_) return false;
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

inline U32 ReferenceFreeRunTree::freeBefore(U32 index) const {
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

inline U32 ReferenceFreeRunTree::freeIn(U32 first, U32 last) const {
  last = std::min(last, entries);
  return first >= last ? 0 : freeBefore(last) - freeBefore(first);
}

inline U32 ReferenceFreeRunTree::shortFreeEntries() const {
  const Span& t = table();
  if (t.allFree()) return t.length < shortLength_ ? t.length : 0;
  U32 total = t.shortInner;
  if (t.head < shortLength_) total += t.head;
  if (t.tail < shortLength_) total += t.tail;
  return total;
}

inline void ReferenceFreeRunTree::forgetSpansOver(U32 word) {
  for (RememberedSpan& r : remembered_) {
    if (r.last != 0 && r.first / 64 <= word && word <= (r.last - 1) / 64) r.last = 0;
  }
}

inline ReferenceFreeRunTree::Span ReferenceFreeRunTree::span(U32 first, U32 last) {
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

inline ReferenceFreeRunTree::Span ReferenceFreeRunTree::spanOf(U32 node, U32 nodeFirst,
                                                               U32 nodeLength, U32 first,
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

}  // namespace NextHopTest
