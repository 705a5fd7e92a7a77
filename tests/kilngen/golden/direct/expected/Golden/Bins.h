// generated from ledger.kiln by kilngen; do not edit
//
// value Bins
//   coll bin : S16 -> U64 direct
#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiln/DirectHashMap.h"
#include "Kiln/HashMap.h"
#include "Kiln/Support.h"

namespace Golden {

class Bins {
 public:
  // Indexes of the type record's attributes.
  static constexpr U32 kilnAttributeStart = 2;
  static constexpr U32 kilnBinIndex = kilnAttributeStart + 0;  // 2

  // A member of bin: key S16, value U64.
  class KilnBin final : public Kiln::HashMapMember<KilnBin, S16, U64> {
   public:
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::DirectHashMap<KilnBin, S16, U64> BinMap;
  typedef BinMap::Iterator BinIterator;

  Bins() = default;
  // Parses the text form (see valueToStrep); throws Kiln::DeserializationException
  // on any other text.
  template <std::same_as<Kiln::TextIterator> I>
  Bins(I begin, I end) : Bins(fromStrep(std::string_view(begin, end))) {}
  static Bins fromStrep(std::string_view text);

  // The value under key, or U64() when absent.
  U64 bin(S16 key) const {
    const KilnBin* m = bin_.find(key);
    return m ? m->value() : U64();
  }
  // The collection itself, for iteration and counting.
  const BinMap& bin() const { return bin_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise nobody is told.
  void binIs(S16 key, U64 value) {
    if (KilnBin* m = bin_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      bin_.insertNew(key, value);
    }
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnBin> newBin(S16 key, U64 value) {
    if (KilnBin* m = bin_.find(key)) {
      m->valueIs(value);
      return m;
    }
    KilnBin* m = bin_.insertNew(key, value);
    return m;
  }
  // Removes key and returns its value; an absent key returns U64() and
  // tells nobody.
  U64 binDel(S16 key) {
    Kiln::Ptr<KilnBin> m = bin_.remove(key);
    if (!m) return U64();
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  BinIterator binDel(BinIterator position) {
    const S16 key = position->key();
    BinIterator next = bin_.remove(position);
    static_cast<void>(key);
    return next;
  }
  // Removes every member through binDel(iterator).
  void binDelAll() {
    while (!bin_.empty()) binDel(bin_.begin());
  }
  // Grows the buckets of bin now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void binReserve(U32 members) { bin_.reserve(members); }

  // Equal when every field is equal.
  friend bool operator==(const Bins& a, const Bins& b) { return a.bin_ == b.bin_; }
  friend bool operator!=(const Bins& a, const Bins& b) { return !(a == b); }

  // The registered record of Golden::Bins.
  static const Kiln::TypeRecord& kilnType();

 private:
  BinMap bin_;
};

// The text form: None.
std::string valueToStrep(const Bins& v);
std::ostream& operator<<(std::ostream& out, const Bins& v);
void sequenceToValue(Kiln::TextReader& in, Bins& v);

}  // namespace Golden
