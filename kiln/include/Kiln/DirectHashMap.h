// Kiln::DirectHashMap: the keyed collection of a `direct` attribute, a
// HashMap of an 8- or 16-bit integer key that also keeps an array of its
// members indexed by key. Iteration, copies, equality and the buckets are
// the HashMap's own, so everything that can be seen of the collection is
// the same; only finding a member changes: one load from the array, where
// neighbouring keys are neighbours, instead of a walk from a bucket that
// lies far from the previous key's (keys are spread by their bit-reversed
// hash). Meant for collections that hold most keys of their range and are
// visited key after key (the next-hop table's allocated entries).
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
  using Iterator = typename Map::Iterator;
  // Every key of K has a place in the array.
  static constexpr std::size_t keys = std::size_t(1) << (8 * sizeof(K));

  // An empty map of 2^log2Buckets buckets; the array comes with the first
  // insertion (65,536 pointers for a 16-bit key).
  explicit DirectHashMap(U8 log2Buckets = 4) : map_(log2Buckets) {}
  DirectHashMap(const DirectHashMap& other) : map_(other.map_) {
    if (!map_.empty()) makeArray();
    for (M& m : map_) place(&m);
  }
  DirectHashMap(DirectHashMap&& other) noexcept = default;
  DirectHashMap& operator=(const DirectHashMap& other) {
    if (this != &other) {
      DirectHashMap copy(other);
      swap(copy);
    }
    return *this;
  }
  DirectHashMap& operator=(DirectHashMap&& other) noexcept = default;
  ~DirectHashMap() = default;

  void swap(DirectHashMap& other) noexcept {
    map_.swap(other.map_);
    std::swap(byKey_, other.byKey_);
  }

  static bool keyEquals(const K& a, const K& b) { return Map::keyEquals(a, b); }
  static bool keyLessThan(const K& a, const K& b) { return Map::keyLessThan(a, b); }
  static U32 bucketOf(const K& key, U8 log2Buckets) { return Map::bucketOf(key, log2Buckets); }

  U8 log2Buckets() const { return map_.log2Buckets(); }
  U32 buckets() const { return map_.buckets(); }
  U32 members() const { return map_.members(); }
  bool empty() const { return map_.empty(); }

  // The member with this key, or nullptr.
  M* find(const K& key) const { return byKey_ ? byKey_[slot(key)] : nullptr; }

  // Starts loading the member with this key, if any, for a caller that
  // will reach it soon (the entries of a block are visited one after the
  // other, and their members lie scattered in memory).
  void prefetch(const K& key) const {
    if (byKey_) __builtin_prefetch(byKey_[slot(key)], 1);
  }

  // Adds member, whose key must not be in the map yet; takes a reference.
  void insert(const Ptr<M>& member) {
    makeArray();
    map_.insert(member);
    place(member.ptr());
  }

  // Builds a member M(key, value), adds it and returns it; key must not be in
  // the map yet.
  M* insertNew(const K& key, const V& value) {
    makeArray();
    M* m = map_.insertNew(key, value);
    place(m);
    return m;
  }

  // Grows the buckets as HashMap::reserve does.
  void reserve(U32 members) { map_.reserve(members); }

  // Unlinks the member with this key and returns it (null if absent); the
  // map's reference passes to the result.
  Ptr<M> remove(const K& key) {
    if (!find(key)) return nullptr;
    byKey_[slot(key)] = nullptr;
    return map_.remove(key);
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    byKey_[slot(position->key())] = nullptr;
    return map_.remove(position);
  }

  // Removes every member, dropping the map's references; keeps the buckets
  // and gives back the array.
  void clear() {
    map_.clear();
    byKey_.reset();
  }

  Iterator begin() const { return map_.begin(); }
  Iterator end() const { return map_.end(); }

  // True when both maps hold the same keys with equal values.
  friend bool operator==(const DirectHashMap& a, const DirectHashMap& b) {
    return a.map_ == b.map_;
  }

 private:
  static std::size_t slot(K key) { return std::size_t(std::make_unsigned_t<K>(key)); }

  // Allocates the array if there is none yet, before a member is added, so
  // that a failed allocation leaves the map as it was.
  void makeArray() {
    if (!byKey_) byKey_.reset(new M*[keys]());
  }

  void place(M* m) { byKey_[slot(m->key())] = m; }

  Map map_;
  std::unique_ptr<M*[]> byKey_;  // the member of each key, or null
};

}  // namespace Kiln
