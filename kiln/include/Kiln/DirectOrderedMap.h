// Kiln::DirectOrderedMap: the ordered collection of a `direct` attribute,
// keyed by an 8- or 16-bit integer. It offers what RbTreeMap offers (members
// ascending by key, first, last, lowerBound, iterators both ways, the same
// references and allocation counts), but keeps no tree: an array holds the
// member of each key and a bitmap of the keys present, with a summary word
// per 64 bitmap words, gives the order. Finding, inserting and removing a
// member take constant time and touch no other member; stepping to the next
// member scans at most a few words. Meant for collections that hold most
// keys of their range and change key after key (the next-hop table's free
// entries).
#pragma once

#include <bit>
#include <cstddef>
#include <memory>
#include <type_traits>

#include "Kiln/Assert.h"
#include "Kiln/CollectionMember.h"
#include "Kiln/OrderedIterator.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

// Members of a DirectOrderedMap<M, K, V> need no links: derive as
//   class KilnX final : public Kiln::DirectOrderedMember<KilnX, K, V> {
//     using DirectOrderedMember::DirectOrderedMember; };
template <class M, class K, class V>
class DirectOrderedMember : public CollectionMember<M, K, V> {
 public:
  using CollectionMember<M, K, V>::CollectionMember;
};

template <class M, class K, class V>
class DirectOrderedMap {
  static_assert(std::is_integral_v<K> && !std::is_same_v<K, bool> && sizeof(K) <= 2,
                "a direct collection is keyed by an 8- or 16-bit integer");

 public:
  // Every key of K has a place in the array.
  static constexpr std::size_t keys = std::size_t(1) << (8 * sizeof(K));

  // Unlike a tree's, an iterator stays valid while other members come and
  // go.
  using Iterator = OrderedIterator<DirectOrderedMap, M>;

  DirectOrderedMap() = default;
  DirectOrderedMap(const DirectOrderedMap&) = delete;
  DirectOrderedMap& operator=(const DirectOrderedMap&) = delete;
  ~DirectOrderedMap() { clear(); }

  static bool keyEquals(const K& a, const K& b) { return a == b; }
  static bool keyLessThan(const K& a, const K& b) { return a < b; }

  U32 members() const { return members_; }
  bool empty() const { return members_ == 0; }

  // The member with this key, or nullptr.
  M* find(const K& key) const { return slots_ ? slots_->byKey[slot(key)] : nullptr; }

  // Starts loading the member with this key, if any, for a caller that
  // will reach it soon (the entries of a block are visited one after the
  // other, and their members lie scattered in memory). Inlined by force, as
  // HashMap::prefetchMembers is.
  [[gnu::always_inline]] void prefetch(const K& key) const {
    if (!slots_) return;
    // An absent key's null would cost a page walk for nothing.
    if (const M* m = slots_->byKey[slot(key)]) __builtin_prefetch(m, 1);
  }

  // Starts loading the array's place of key, which prefetch(key) reads: a
  // caller visiting keys in order asks for places further ahead than for
  // members, so that prefetching a member need not wait for its place.
  [[gnu::always_inline]] void prefetchPlace(const K& key) const {
    if (slots_) __builtin_prefetch(&slots_->byKey[slot(key)], 0);
  }

  // The member with the smallest key, or nullptr when empty.
  M* first() const { return members_ ? atOrAfter(0) : nullptr; }
  // The member with the largest key, or nullptr when empty.
  M* last() const { return members_ ? atOrBefore(keys - 1) : nullptr; }

  // The first member whose key is not less than key, or end().
  Iterator lowerBound(const K& key) const {
    return Iterator(this, members_ ? atOrAfter(slot(key)) : nullptr);
  }

  // Adds member, whose key must not be in the map yet; takes a reference.
  void insert(const Ptr<M>& member) {
    KILN_ASSERT(member.ptr() != nullptr);
    link(member.ptr());
  }

  // Builds a member M(key, value), adds it and returns it; key must not be in
  // the map yet. The map's reference is the member's only one.
  M* insertNew(const K& key, const V& value) {
    M* m = new M(key, value);
    link(m);
    return m;
  }

  // Unlinks the member with this key and returns it (null if absent); the
  // map's reference passes to the result.
  Ptr<M> remove(const K& key) {
    M* m = find(key);
    return m ? unlink(m) : nullptr;
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    M* following = next(position.ptr());
    unlink(position.ptr());
    return Iterator(this, following);
  }

  // Removes every member in ascending key order, dropping the map's
  // references, and gives back the array.
  void clear() {
    if (!slots_) return;
    std::unique_ptr<Slots> slots = std::move(slots_);
    members_ = 0;
    for (std::size_t w = 0; w < words; ++w) {
      for (U64 bits = slots->present[w]; bits; bits &= bits - 1) {
        dropReference(slots->byKey[w * 64 + std::size_t(std::countr_zero(bits))]);
      }
    }
  }

  Iterator begin() const { return Iterator(this, first()); }
  Iterator end() const { return Iterator(this, nullptr); }

 private:
  friend Iterator;

  static constexpr std::size_t words = (keys + 63) / 64;
  static constexpr std::size_t summaries = (words + 63) / 64;

  // The place of key: slots ascend as keys do (a signed key's sign bit is
  // flipped, so the most negative key takes place 0).
  static std::size_t slot(K key) {
    constexpr std::size_t signFlip = std::is_signed_v<K> ? keys / 2 : 0;
    return std::size_t(std::make_unsigned_t<K>(key)) ^ signFlip;
  }

  struct Slots {
    M* byKey[keys] = {};          // the member of each place, or null
    U64 present[words] = {};      // bit s % 64 of word s / 64: place s holds a member
    U64 summary[summaries] = {};  // bit w % 64 of word w / 64: present[w] is not 0
  };

  void link(M* m) {
    if (!slots_) slots_.reset(new Slots());
    const std::size_t s = slot(m->key());
    KILN_ASSERT(slots_->byKey[s] == nullptr);  // the key is not present yet
    m->newRef();
    slots_->byKey[s] = m;
    const std::size_t w = s / 64;
    if (slots_->present[w] == 0) slots_->summary[w / 64] |= U64(1) << (w % 64);
    slots_->present[w] |= U64(1) << (s % 64);
    ++members_;
  }

  Ptr<M> unlink(M* m) {
    const std::size_t s = slot(m->key());
    slots_->byKey[s] = nullptr;
    const std::size_t w = s / 64;
    slots_->present[w] &= ~(U64(1) << (s % 64));
    if (slots_->present[w] == 0) slots_->summary[w / 64] &= ~(U64(1) << (w % 64));
    --members_;
    return Ptr<M>::adopt(m);  // the collection's reference passes to the caller
  }

  // The member at the lowest place at or above s (s < keys), or nullptr.
  M* atOrAfter(std::size_t s) const {
    std::size_t w = s / 64;
    U64 bits = slots_->present[w] & (~U64(0) << (s % 64));
    if (!bits) {
      // The next word that holds a member, from the summary.
      std::size_t next = w + 1;
      w = words;
      for (std::size_t i = next / 64; next < words && i < summaries; ++i, next = i * 64) {
        const U64 candidates = slots_->summary[i] & (~U64(0) << (next % 64));
        if (candidates) {
          w = i * 64 + std::size_t(std::countr_zero(candidates));
          break;
        }
      }
      if (w == words) return nullptr;
      bits = slots_->present[w];
    }
    return slots_->byKey[w * 64 + std::size_t(std::countr_zero(bits))];
  }

  // The member at the highest place at or below s (s < keys), or nullptr.
  M* atOrBefore(std::size_t s) const {
    std::size_t w = s / 64;
    U64 bits = slots_->present[w] & (~U64(0) >> (63 - s % 64));
    if (!bits) {
      // The previous word that holds a member, from the summary.
      w = words;
      for (std::size_t prev = s / 64; prev-- > 0;) {
        const U64 candidates = slots_->summary[prev / 64] & (~U64(0) >> (63 - prev % 64));
        if (candidates) {
          w = (prev / 64) * 64 + 63 - std::size_t(std::countl_zero(candidates));
          break;
        }
        prev = (prev / 64) * 64;  // the summary word held nothing below prev
      }
      if (w == words) return nullptr;
      bits = slots_->present[w];
    }
    return slots_->byKey[w * 64 + 63 - std::size_t(std::countl_zero(bits))];
  }

  M* next(M* m) const {
    const std::size_t s = slot(m->key());
    return s + 1 < keys ? atOrAfter(s + 1) : nullptr;
  }
  M* previous(M* m) const {
    if (!m) return last();
    const std::size_t s = slot(m->key());
    return s > 0 ? atOrBefore(s - 1) : nullptr;
  }

  std::unique_ptr<Slots> slots_;  // null while nothing was inserted
  U32 members_ = 0;
};

}  // namespace Kiln
