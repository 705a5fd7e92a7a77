#include "Brevant/FreeRunTree.h"

#include <algorithm>
#include <bit>

namespace Brevant {

FreeRunTree::FreeRunTree() { rebuild(); }

FreeRunTree::Span FreeRunTree::leafOf(U64 word, U32 length, U32 shortLength) {
  Span s;
  s.length = length;
  s.free = U32(std::popcount(word));
  s.head = std::min(U32(std::countr_one(word)), length);
  s.tail = s.free == length ? length : U32(std::countl_one(word << (64 - length)));
  // Walk the runs from the low bit up: at most 32 of them.
  U32 position = 0;
  while (word != 0) {
    const U32 skip = U32(std::countr_zero(word));
    word >>= skip;
    position += skip;
    const U32 run = U32(std::countr_one(word));
    ++s.runs;
    s.longest = std::max(s.longest, run);
    const bool inner = position != 0 && position + run != length;
    if (inner && run < shortLength) s.shortInner += run;
    position += run;
    word = run == 64 ? 0 : word >> run;
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

void FreeRunTree::rebuild() {
  for (U32 w = 0; w < wordCount; ++w) nodes_[wordCount + w] = leafOf(words_[w], 64, shortLength_);
  for (U32 n = wordCount; n-- > 1;)
    nodes_[n] = joined(nodes_[2 * n], nodes_[2 * n + 1], shortLength_);
  staleWords_.fill(0);
  stale_ = false;
}

void FreeRunTree::shortLengthIs(U32 length) {
  if (length == shortLength_) return;
  shortLength_ = length;
  rebuild();
  stale_ = true;  // the next refresh() reports the change
}

bool FreeRunTree::refresh() {
  if (!stale_) return false;
  for (U32 group = 0; group < staleWords_.size(); ++group) {
    for (U64 bits = staleWords_[group]; bits != 0; bits &= bits - 1) {
      const U32 w = group * 64 + U32(std::countr_zero(bits));
      U32 n = wordCount + w;
      nodes_[n] = leafOf(words_[w], 64, shortLength_);
      for (n /= 2; n >= 1; n /= 2)
        nodes_[n] = joined(nodes_[2 * n], nodes_[2 * n + 1], shortLength_);
    }
    staleWords_[group] = 0;
  }
  stale_ = false;
  return true;
}

U32 FreeRunTree::shortFreeEntries() const {
  const Span& t = table();
  if (t.allFree()) return t.length < shortLength_ ? t.length : 0;
  U32 total = t.shortInner;
  if (t.head < shortLength_) total += t.head;
  if (t.tail < shortLength_) total += t.tail;
  return total;
}

FreeRunTree::Span FreeRunTree::span(U32 first, U32 last) const {
  last = std::min(last, entries);
  if (first >= last) return Span{};
  return spanOf(1, 0, entries, first, last);
}

FreeRunTree::Span FreeRunTree::spanOf(U32 node, U32 nodeFirst, U32 nodeLength, U32 first,
                                      U32 last) const {
  const U32 nodeLast = nodeFirst + nodeLength;
  if (first <= nodeFirst && nodeLast <= last) return nodes_[node];
  if (nodeLength == 64) {
    // A word cut by the span: only its entries low .. high - 1 count,
    // shifted down so that the span's first entry is bit 0.
    const U32 low = std::max(first, nodeFirst) - nodeFirst;
    const U32 high = std::min(last, nodeLast) - nodeFirst;
    const U32 length = high - low;
    const U64 inside = words_[node - wordCount] >> low;
    return leafOf(length == 64 ? inside : inside & ((U64(1) << length) - 1), length, shortLength_);
  }
  const U32 half = nodeLength / 2;
  const U32 middle = nodeFirst + half;
  if (last <= middle) return spanOf(2 * node, nodeFirst, half, first, last);
  if (first >= middle) return spanOf(2 * node + 1, middle, half, first, last);
  return joined(spanOf(2 * node, nodeFirst, half, first, last),
                spanOf(2 * node + 1, middle, half, first, last), shortLength_);
}

}  // namespace Brevant
