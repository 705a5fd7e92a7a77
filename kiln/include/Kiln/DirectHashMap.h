// Kiln::DirectHashMap: the keyed collection of a `direct` attribute, a
// HashMap of an 8- or 16-bit integer key that also keeps an array of its
// members indexed by key. Iteration, copies, equality and the buckets are
// the HashMap's, so everything that can be seen of the collection is the
// same; only finding a member changes: one load from the array, where
// neighbouring keys are neighbours, instead of a walk from a bucket that
// lies far from the previous key's (keys are spread by their bit-reversed
// hash). Meant for collections that hold most keys of their range and are
// visited key after key (the next-hop table's allocated entries).
//
// Once the buckets are as many as the keys of K (2^16 for a 16-bit key),
// every key has a bucket of its own, found from the key alone: the map is
// then "spread". The chains and their bucket array go, and the array by key
// holds the members by itself; iteration visits the keys in bucket order,
// which is the order of their bit-reversed values. Adding or removing a
// member then no longer touches a bucket far from its neighbours' (one
// cache line per table entry). The buckets never shrink, so a map stays
// spread once it is.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "Kiln/HashMap.h"

namespace Kiln {

template <class M, class K, class V>
class DirectHashMap {
  static_assert(std::is_integral_v<K> && !std::is_same_v<K, bool> && sizeof(K) <= 2,
                "a direct collection is keyed by an 8- or 16-bit integer");

 public:
  using Map = HashMap<M, K, V>;
  static constexpr U8 keyBits = 8 * sizeof(K);
  // Every key of K has a place in the array.
  static constexpr std::size_t keys = std::size_t(1) << keyBits;

  // Iterates as a HashMap of the same buckets and chains would.
  class Iterator {
   public:
    Iterator() = default;
    M* operator->() const { return member_; }
    M& operator*() const { return *member_; }
    // The member, or nullptr at the end.
    M* ptr() const { return member_; }
    // The member's bucket; buckets() at the end.
    U32 bucket() const { return bucket_; }
    Iterator& operator++() {
      *this = map_->after(*this);
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.member_ == b.member_; }

   private:
    friend class DirectHashMap;

    const DirectHashMap* map_ = nullptr;
    typename Map::Iterator chained_;  // while the map is not spread
    M* member_ = nullptr;
    U32 bucket_ = 0;
  };

  // An empty map of 2^log2Buckets buckets; the array comes with the first
  // insertion (65,536 pointers for a 16-bit key).
  explicit DirectHashMap(U8 log2Buckets = 4) : map_(log2Buckets) {}
  // Delegates, so that the destructor releases what was copied if a member
  // cannot be built.
  DirectHashMap(const DirectHashMap& other) : DirectHashMap(other.log2Buckets()) {
    if (other.empty()) return;
    makeArray();
    if (!other.spread()) {
      map_ = other.map_;
      for (M& m : map_) place(&m);
      return;
    }
    for (std::size_t s = 0; s < keys; ++s) {
      if (const M* m = other.byKey_[s]) adopt(std::make_unique<M>(m->key(), m->value()));
    }
  }
  DirectHashMap(DirectHashMap&& other) noexcept
      : map_(std::move(other.map_)),
        byKey_(std::move(other.byKey_)),
        spreadMembers_(std::exchange(other.spreadMembers_, 0)),
        firstPosition_(std::exchange(other.firstPosition_, keys)) {}
  DirectHashMap& operator=(const DirectHashMap& other) {
    if (this != &other) {
      DirectHashMap copy(other);
      swap(copy);
    }
    return *this;
  }
  DirectHashMap& operator=(DirectHashMap&& other) noexcept {
    if (this != &other) {
      DirectHashMap taken(std::move(other));
      swap(taken);
    }
    return *this;
  }
  ~DirectHashMap() { clear(); }

  void swap(DirectHashMap& other) noexcept {
    map_.swap(other.map_);
    std::swap(byKey_, other.byKey_);
    std::swap(spreadMembers_, other.spreadMembers_);
    std::swap(firstPosition_, other.firstPosition_);
  }

  static bool keyEquals(const K& a, const K& b) { return Map::keyEquals(a, b); }
  static bool keyLessThan(const K& a, const K& b) { return Map::keyLessThan(a, b); }
  static U32 bucketOf(const K& key, U8 log2Buckets) { return Map::bucketOf(key, log2Buckets); }

  U8 log2Buckets() const { return map_.log2Buckets(); }
  U32 buckets() const { return map_.buckets(); }
  U32 members() const { return spread() ? spreadMembers_ : map_.members(); }
  bool empty() const { return members() == 0; }

  // The member with this key, or nullptr.
  M* find(const K& key) const { return byKey_ ? byKey_[slot(key)] : nullptr; }

  // Starts loading the member with this key, if any, and while the map is
  // chained the bucket that removing it walks, for a caller that will reach
  // it soon (the entries of a block are visited one after the other, and
  // their members lie scattered in memory). Inlined by force, as
  // HashMap::prefetchMembers is.
  [[gnu::always_inline]] void prefetch(const K& key) const {
    if (!byKey_) return;
    // An absent key's null would cost a page walk for nothing.
    if (const M* m = byKey_[slot(key)]) __builtin_prefetch(m, 1);
    if (!spread()) map_.prefetchBucket(key);
  }

  // Starts loading the array's place of key, which prefetch(key) reads: a
  // caller visiting keys in order asks for places further ahead than for
  // members, so that prefetching a member need not wait for its place.
  [[gnu::always_inline]] void prefetchPlace(const K& key) const {
    if (byKey_) __builtin_prefetch(&byKey_[slot(key)], 0);
  }

  // Adds member, whose key must not be in the map yet; takes a reference.
  void insert(const Ptr<M>& member) {
    M* m = member.ptr();
    KILN_ASSERT(m != nullptr);
    makeArray();
    spreadIfFull();
    if (spread()) {
      m->newRef();
      placeSpread(m);
      return;
    }
    map_.insert(member);
    place(m);
  }

  // Builds a member M(key, value), adds it and returns it; key must not be in
  // the map yet.
  M* insertNew(const K& key, const V& value) {
    makeArray();
    if (spread() || fullAfterOneMore()) {
      std::unique_ptr<M> m(new M(key, value));
      spreadIfFull();
      return adopt(std::move(m));
    }
    M* m = map_.insertNew(key, value);
    place(m);
    return m;
  }

  // Grows the buckets as HashMap::reserve does.
  void reserve(U32 members) {
    if (!spread()) {
      Map sized(log2Buckets());  // empty, it works the size out without allocating
      sized.reserve(members);
      if (sized.log2Buckets() >= keyBits) {
        spreadOut(sized.log2Buckets());
        return;
      }
    }
    map_.reserve(members);  // spread, the map holds no member and no array
  }

  // Unlinks the member with this key and returns it (null if absent); the
  // map's reference passes to the result.
  Ptr<M> remove(const K& key) {
    M* m = find(key);
    if (!m) return nullptr;
    byKey_[slot(key)] = nullptr;
    if (!spread()) return map_.remove(key);
    --spreadMembers_;
    if (positionOf(key) == firstPosition_) firstPosition_ = nextPosition(firstPosition_ + 1);
    return Ptr<M>::adopt(m);  // the collection's reference passes to the caller
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    if (!spread()) {
      byKey_[slot(position->key())] = nullptr;
      return chained(map_.remove(position.chained_));
    }
    const Iterator next = after(position);
    remove(position->key());
    return next;
  }

  // Removes every member, dropping the map's references; keeps the buckets
  // and gives back the array. A spread map releases its members in key
  // order (a HashMap, bucket by bucket); nothing else tells them apart.
  void clear() {
    if (spread() && byKey_) {
      for (std::size_t first = 0; first < keys; first += releaseBatch) {
        // Members lie scattered in memory: asking for a batch of them at
        // once lets their cache misses overlap.
        for (std::size_t s = first; s < first + releaseBatch; ++s) {
          if (byKey_[s]) __builtin_prefetch(byKey_[s], 1);
        }
        for (std::size_t s = first; s < first + releaseBatch; ++s) {
          if (M* m = std::exchange(byKey_[s], nullptr)) dropReference(m);
        }
      }
    }
    map_.clear();
    byKey_.reset();
    spreadMembers_ = 0;
    firstPosition_ = keys;
  }

  Iterator begin() const { return spread() ? fromPosition(firstPosition_) : chained(map_.begin()); }
  Iterator end() const {
    Iterator it;
    it.map_ = this;
    it.chained_ = map_.end();
    it.bucket_ = buckets();
    return it;
  }

  // True when both maps hold the same keys with equal values.
  friend bool operator==(const DirectHashMap& a, const DirectHashMap& b) {
    if (a.members() != b.members()) return false;
    for (const M& m : a) {
      const M* other = b.find(m.key());
      if (!other || !(other->value() == m.value())) return false;
    }
    return true;
  }

 private:
  // Slots whose members clear() fetches together before releasing them.
  static constexpr std::size_t releaseBatch = 16;

  static std::size_t slot(K key) { return std::size_t(std::make_unsigned_t<K>(key)); }
  // A key's place in a spread map's iteration order (its bit-reversed
  // value), and back: the same function both ways.
  static std::size_t positionOf(K key) { return slotAt(slot(key)); }
  static std::size_t slotAt(std::size_t position) {
    return bitReverse(U32(position)) >> (32 - keyBits);
  }

  bool spread() const { return map_.log2Buckets() >= keyBits; }

  // Whether one more member would double the chained buckets to a bucket
  // per key.
  bool fullAfterOneMore() const {
    return map_.members() + 1 > map_.buckets() && map_.log2Buckets() + 1 >= keyBits;
  }
  void spreadIfFull() {
    if (!spread() && fullAfterOneMore()) spreadOut(U8(map_.log2Buckets() + 1));
  }

  // Gives every key a bucket of its own (2^log2 buckets, log2 >= keyBits):
  // the array takes a reference to each member, and the chains, their
  // references and their bucket array go.
  void spreadOut(U8 log2) {
    for (M& m : map_) m.newRef();
    spreadMembers_ = map_.members();
    map_ = Map(log2);
    firstPosition_ = nextPosition(0);
  }

  // Allocates the array if there is none yet, before a member is added, so
  // that a failed allocation leaves the map as it was.
  void makeArray() {
    if (!byKey_) byKey_.reset(new M*[keys]());
  }

  void place(M* m) { byKey_[slot(m->key())] = m; }
  void placeSpread(M* m) {
    place(m);
    ++spreadMembers_;
    const std::size_t position = positionOf(m->key());
    if (position < firstPosition_) firstPosition_ = position;
  }
  // Adds a member built for a spread map, which takes its reference.
  M* adopt(std::unique_ptr<M> built) {
    M* m = built.release();
    m->newRef();
    placeSpread(m);
    return m;
  }

  Iterator chained(typename Map::Iterator at) const {
    Iterator it;
    it.map_ = this;
    it.chained_ = at;
    it.member_ = at.ptr();
    it.bucket_ = at.bucket();
    return it;
  }
  // The position of the first member at position or after it in a spread
  // map, or keys.
  std::size_t nextPosition(std::size_t position) const {
    while (byKey_ && position < keys && !byKey_[slotAt(position)]) ++position;
    return byKey_ ? position : keys;
  }
  Iterator fromPosition(std::size_t position) const {
    position = nextPosition(position);
    if (position >= keys) return end();
    Iterator it;
    it.map_ = this;
    it.member_ = byKey_[slotAt(position)];
    it.bucket_ = bucketOf(it.member_->key(), log2Buckets());
    return it;
  }
  Iterator after(Iterator it) const {
    if (!spread()) return chained(++it.chained_);
    return fromPosition(positionOf(it.member_->key()) + 1);
  }

  Map map_;
  std::unique_ptr<M*[]> byKey_;  // the member of each key, or null
  // Spread: the members (the map holds none), and the position of the
  // first (keys when there is none), so that emptying the map from its
  // front stays linear.
  U32 spreadMembers_ = 0;
  std::size_t firstPosition_ = keys;
};

}  // namespace Kiln
