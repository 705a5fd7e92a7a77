// Brevant::TableBitmap: one bit per index of the next-hop table's 16-bit
// index space, with a summary level that finds the next non-empty word in a
// few steps. The manager keeps three of them beside its collections (which
// entries are free, which are allocated, which start a group), so that its
// searches and scans look at 64 entries per step instead of one.
#pragma once

#include <bit>
#include <cstring>

#include "Kiln/Types.h"

namespace Brevant {

// A set of table indexes, 0 to 65535. Ranges are half-open, [from, to), with
// `to` up to 65536; every search answers the index found or -1. 8,320 bytes.
class TableBitmap {
 public:
  static constexpr U32 indexes = 65536;

  TableBitmap() { clear(); }

  // True when index is in the set.
  bool test(U32 index) const { return (words_[index / 64] >> (index % 64)) & 1; }

  // The indexes 64 * w to 64 * w + 63 of the set, index 64 * w as bit 0.
  U64 word(U32 w) const { return words_[w]; }

  // Puts index in the set (value true) or takes it out.
  void set(U32 index, bool value) {
    const U32 w = index / 64;
    const U64 bit = U64(1) << (index % 64);
    if (value) {
      words_[w] |= bit;
      summary_[w / 64] |= U64(1) << (w % 64);
    } else if ((words_[w] &= ~bit) == 0) {
      summary_[w / 64] &= ~(U64(1) << (w % 64));
    }
  }

  // Empties the set.
  void clear() {
    std::memset(words_, 0, sizeof words_);
    std::memset(summary_, 0, sizeof summary_);
  }

  // The number of indexes of the set in [from, to).
  U32 count(U32 from, U32 to) const {
    U32 n = 0;
    for (U32 w = from / 64; from < to; w++, from = w * 64) n += std::popcount(wordIn(w, from, to));
    return n;
  }

  // The lowest index of the set in [from, to), or -1.
  S32 findFirst(U32 from, U32 to) const {
    if (from >= to) return -1;
    for (S32 w = S32(from / 64); w >= 0 && U32(w) * 64 < to; w = nextWord(U32(w) + 1, to)) {
      if (const U64 bits = wordIn(U32(w), from, to))
        return S32(U32(w) * 64 + std::countr_zero(bits));
    }
    return -1;
  }

  // The highest index of the set in [from, to), or -1.
  S32 findLast(U32 from, U32 to) const {
    if (from >= to) return -1;
    for (S32 w = S32((to - 1) / 64); w >= 0 && U32(w + 1) * 64 > from;
         w = previousWord(from, U32(w))) {
      if (const U64 bits = wordIn(U32(w), from, to)) {
        return S32(U32(w) * 64 + 63 - std::countl_zero(bits));
      }
    }
    return -1;
  }

  // Word w restricted to [from, to): its indexes outside the range cleared.
  U64 wordIn(U32 w, U32 from, U32 to) const { return words_[w] & bitsIn(w, from, to); }

  // The bits of word w whose indexes lie in [from, to).
  static U64 bitsIn(U32 w, U32 from, U32 to) {
    U64 bits = ~U64(0);
    const U32 base = w * 64;
    if (from > base) bits &= ~U64(0) << (from - base);
    if (to < base + 64) bits &= (U64(1) << (to - base)) - 1;
    return bits;
  }

  // One word of an upward search for a run of consecutive indexes of the
  // set (the free-run tree's first fit, inside a word): bits are the indexes base .. base + 63
  // (those outside the range cleared), carry the indexes of the set running up to base. Answers the
  // lowest start of a run of length (length > 0) that ends in this word, or -1 with carry set for
  // the next word.
  static S32 firstRunInWord(U64 bits, U32 base, U32 length, U32& carry) {
    if (carry + U32(std::countr_one(bits)) >= length) return S32(base - carry);
    if (length <= 64) {
      if (const U64 starts = runStarts(bits, length)) return S32(base + std::countr_zero(starts));
    }
    carry = bits == ~U64(0) ? carry + 64 : U32(std::countl_one(bits));
    return -1;
  }

  // What a downward run search carries from word to word: the indexes of the
  // set running down to the word being looked at, and one past the highest
  // of them.
  struct RunBelow {
    U32 carry = 0;
    U32 end = 0;
  };

  // One word of a downward run search (the mirror of firstRunInWord):
  // answers the highest start of a run of length that begins in this word,
  // or -1 with run set for the word below.
  static S32 lastRunInWord(U64 bits, U32 base, U32 length, RunBelow& run) {
    if (run.carry == 0) run.end = base + 64;
    if (run.carry + U32(std::countl_one(bits)) >= length) return S32(run.end - length);
    if (length <= 64) {
      if (const U64 starts = runStarts(bits, length)) {
        return S32(base + 63 - std::countl_zero(starts));
      }
    }
    if (bits == ~U64(0)) {
      run.carry += 64;
    } else {
      run.carry = U32(std::countr_one(bits));
      run.end = base + run.carry;
    }
    return -1;
  }

 private:
  static constexpr U32 wordCount = indexes / 64;

  // Bit i set when bits i to i + length - 1 of bits all are (1 <= length <= 64).
  static U64 runStarts(U64 bits, U32 length) {
    for (U32 covered = 1; covered < length && bits;) {
      const U32 shift = covered < length - covered ? covered : length - covered;
      bits &= bits >> shift;
      covered += shift;
    }
    return bits;
  }

  // The first non-empty word from w on whose indexes start below to, or -1.
  S32 nextWord(U32 w, U32 to) const {
    const U32 lastWord = (to - 1) / 64;
    while (w <= lastWord) {
      const U64 s = summary_[w / 64] & (~U64(0) << (w % 64));
      if (s) {
        const U32 found = (w / 64) * 64 + U32(std::countr_zero(s));
        return found <= lastWord ? S32(found) : -1;
      }
      w = (w / 64 + 1) * 64;
    }
    return -1;
  }

  // The last non-empty word below w whose indexes reach from, or -1.
  S32 previousWord(U32 from, U32 w) const {
    const U32 firstWord = from / 64;
    while (w > firstWord) {
      --w;
      const U64 s = summary_[w / 64] & (~U64(0) >> (63 - w % 64));
      if (s) {
        const U32 found = (w / 64) * 64 + 63 - U32(std::countl_zero(s));
        return found >= firstWord ? S32(found) : -1;
      }
      w = (w / 64) * 64;
    }
    return -1;
  }

  U64 words_[wordCount];
  U64 summary_[wordCount / 64];  // bit w: word w is not empty
};

}  // namespace Brevant
