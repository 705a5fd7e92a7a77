// The free entries of the next-hop table as runs: a bitmap of the 65,536
// entries in 64-bit words and a tree above the words that keeps, for every
// span of words, how many entries are free, the runs touching its two ends,
// its longest run, its number of runs and the free entries in its inner
// runs shorter than a given length. The resource counters read it.
#pragma once

#include <array>

#include "Kiln/Support.h"

namespace Brevant {

class FreeRunTree {
 public:
  // What the tree knows of a span of entries. A run is a maximal stretch of
  // consecutive free entries; an inner run touches neither end of the span.
  struct Span {
    U32 length = 0;      // entries in the span
    U32 free = 0;        // free entries
    U32 head = 0;        // free entries in the run at the low end (0: none)
    U32 tail = 0;        // free entries in the run at the high end
    U32 longest = 0;     // entries in the longest run
    U32 runs = 0;        // runs that lie in the span, wholly or partly
    U32 shortInner = 0;  // free entries in inner runs shorter than the short length
    bool allFree() const { return head == length; }
  };

  static constexpr U32 entries = 65536;

  // An empty table (nothing free), with runs shorter than 0 counted short.
  FreeRunTree();

  // Records entry index as free or not; a few instructions, the tree above
  // it is brought up to date by the next refresh().
  void entryIs(U16 index, bool free) {
    U64& word = words_[index >> 6];
    const U64 bit = U64(1) << (index & 63);
    if (((word & bit) != 0) == free) return;
    word ^= bit;
    freeEntries_ += free ? 1 : -1;
    staleWords_[index >> 12] |= U64(1) << ((index >> 6) & 63);
    stale_ = true;
  }
  bool entry(U16 index) const { return (words_[index >> 6] >> (index & 63)) & 1; }
  // Free entries of the whole table; exact at every moment.
  U32 freeEntries() const { return freeEntries_; }

  // Runs shorter than length count as short from now on.
  void shortLengthIs(U32 length);
  U32 shortLength() const { return shortLength_; }

  // Brings the tree up to date with the entries changed since the last
  // refresh: each changed word costs one walk to the root (ten steps).
  // Returns whether anything had changed.
  bool refresh();

  // The whole table (after refresh()): its runs, longest run, and the free
  // entries in runs shorter than the short length.
  const Span& table() const { return nodes_[1]; }
  U32 shortFreeEntries() const;

  // The entries first .. last - 1 as a span of their own (after refresh()):
  // free entries outside it do not count, so its runs are cut at its ends.
  // Costs at most two walks of ten steps.
  Span span(U32 first, U32 last) const;

 private:
  static constexpr U32 wordCount = entries / 64;
  // A word whose entries at and above length are not free.
  static Span leafOf(U64 word, U32 length, U32 shortLength);
  static Span joined(const Span& low, const Span& high, U32 shortLength);
  void rebuild();
  Span spanOf(U32 node, U32 nodeFirst, U32 nodeLength, U32 first, U32 last) const;

  std::array<U64, wordCount> words_{};
  // One bit per word changed since the last refresh.
  std::array<U64, wordCount / 64> staleWords_{};
  bool stale_ = false;
  U32 freeEntries_ = 0;
  U32 shortLength_ = 0;
  // Node 1 is the table; node n has children 2n and 2n + 1; the word w is
  // node wordCount + w.
  std::array<Span, 2 * wordCount> nodes_{};
};

}  // namespace Brevant
