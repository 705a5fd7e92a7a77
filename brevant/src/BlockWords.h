// The words of one block of table entries on their way to or from the chip.
// A block of the largest group (a wide group of 256 next hops) fits on the
// stack; only a group grown past it (by a write by name) takes its words
// from the heap.
#pragma once

#include <memory>

#include "Kiln/Types.h"

namespace Brevant {

class BlockWords {
 public:
  static constexpr U16 onStackEntries = 512;

  // Room for entries words, never null (the chip API refuses a null buffer,
  // even for 0 entries). The words are not cleared.
  explicit BlockWords(U16 entries)
      : words_(entries <= onStackEntries ? onStack_ : new U64[entries]),
        onHeap_(words_ == onStack_ ? nullptr : words_) {}
  BlockWords(const BlockWords&) = delete;
  BlockWords& operator=(const BlockWords&) = delete;

  U64* words() { return words_; }
  U64& operator[](U32 at) { return words_[at]; }

 private:
  U64 onStack_[onStackEntries];
  U64* const words_;
  const std::unique_ptr<U64[]> onHeap_;
};

}  // namespace Brevant
