// Kiln::HashMap: the keyed collection of entity attributes. An array of
// 2^b buckets, each a singly linked chain of reference-counted members. A
// key's bucket is the top b bits of its bit-reversed 32-bit hash, so that
// consecutive small integer keys land in buckets far apart and a bucket of
// 2^b buckets splits into buckets 2i and 2i+1 when the array doubles.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Kiln/Allocator.h"
#include "Kiln/Assert.h"
#include "Kiln/CollectionMember.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

// Key hashes. Integers hash to their value (64-bit ones folded to 32 bits),
// bool to 0 or 1, enumerations to their underlying value, texts to their
// FNV-1a hash. Other key types supply their own `U32 kilnHash(const K&)`
// beside the type, where argument-dependent lookup finds it.
template <class T>
requires std::integral<T>
constexpr U32 kilnHash(T key) {
  if constexpr (sizeof(T) > sizeof(U32)) {
    U64 wide = static_cast<U64>(key);
    return static_cast<U32>(wide ^ (wide >> 32));
  } else {
    return static_cast<U32>(key);
  }
}

template <class T>
requires std::is_enum_v<T>
constexpr U32 kilnHash(T key) { return kilnHash(static_cast<std::underlying_type_t<T>>(key)); }

U32 kilnHash(const std::string& key);

// Returns v with bit 0 moved to bit 31, bit 1 to bit 30, and so on.
constexpr U32 bitReverse(U32 v) {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
  return __builtin_bswap32(v);
}

template <class M, class K, class V, U32 InlineBuckets = 0>
class HashMap;

// Base of the members of a HashMap<M, K, V>: the key, the value and the link
// to the next member of the bucket. Derive as
//   class KilnX final : public Kiln::HashMapMember<KilnX, K, V> {
//     using HashMapMember::HashMapMember; };
template <class M, class K, class V>
class HashMapMember : public CollectionMember<M, K, V> {
 public:
  using CollectionMember<M, K, V>::CollectionMember;

 private:
  template <class, class, class, U32>
  friend class HashMap;

  M* next_ = nullptr;
};

// Keyed collection of members M (derived from HashMapMember<M, K, V>).
//
// The map holds one reference to each member. Iteration runs bucket by
// bucket in bucket-array order, and within a bucket in chain order (a new
// member goes to the front of its chain); it is not the key order. Inserting
// and removing invalidate iterators, except the one remove(Iterator) returns.
//
// Growth: the bucket array doubles whenever an insertion makes the members
// outnumber the buckets (up to 2^30 buckets); it never shrinks, not even on
// clear(). The array itself is only allocated by the first insertion, so an
// empty map costs no allocation. reserve(n) grows it at once to the size
// that n members would grow it to, so that filling it rehashes nothing.
//
// Copying a map deep-copies it: every member is rebuilt as new M(key, value)
// in the same bucket and chain position, so the copy iterates in the same
// order as the original.
//
// InlineBuckets (0 or a power of two): a map of that many buckets or fewer
// keeps its bucket array inside the map object instead of on the heap, for
// maps that stay small and come and go often (a group's next hops): no
// allocation, and the buckets lie beside the map's owner instead of one
// pointer further away. Buckets, hashing and order are the same as without.
template <class M, class K, class V, U32 InlineBuckets>
class HashMap {
 public:
  static constexpr U8 maxLog2Buckets = 30;
  static_assert((InlineBuckets & (InlineBuckets - 1)) == 0 &&
                    InlineBuckets <= (U32(1) << maxLog2Buckets),
                "InlineBuckets is 0 or a power of two");

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
      member_ = member_->next_;
      if (!member_) *this = map_->firstFrom(bucket_ + 1);
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.member_ == b.member_; }

   private:
    friend class HashMap;
    Iterator(const HashMap* map, M* member, U32 bucket)
        : map_(map), member_(member), bucket_(bucket) {}

    const HashMap* map_ = nullptr;
    M* member_ = nullptr;
    U32 bucket_ = 0;
  };

  // An empty map of 2^log2Buckets buckets.
  explicit HashMap(U8 log2Buckets = 4)
      : log2Buckets_(log2Buckets < maxLog2Buckets ? log2Buckets : maxLog2Buckets) {}
  HashMap(const HashMap& other) : log2Buckets_(other.log2Buckets_) {
    try {
      copyFrom(other);
    } catch (...) {
      // No destructor runs for a constructor that throws: the members
      // copied so far and a heap array go back here.
      clear();
      releaseBuckets();
      throw;
    }
  }
  HashMap(HashMap&& other) noexcept : log2Buckets_(other.log2Buckets_) { adopt(other); }
  HashMap& operator=(const HashMap& other) {
    if (this != &other) {
      HashMap copy(other);
      swap(copy);
    }
    return *this;
  }
  HashMap& operator=(HashMap&& other) noexcept {
    if (this != &other) {
      HashMap taken(std::move(other));
      swap(taken);
    }
    return *this;
  }
  ~HashMap() {
    clear();
    releaseBuckets();
  }

  void swap(HashMap& other) noexcept {
    if (!bucketsInline() && !other.bucketsInline()) {
      std::swap(buckets_, other.buckets_);
      std::swap(members_, other.members_);
      std::swap(log2Buckets_, other.log2Buckets_);
      return;
    }
    // An inline array cannot change hands: its pointers are copied over.
    HashMap held(std::move(other));
    other.adopt(*this);
    adopt(held);
  }

  static bool keyEquals(const K& a, const K& b) { return a == b; }
  static bool keyLessThan(const K& a, const K& b) { return a < b; }

  // The bucket of key in an array of 2^log2Buckets buckets: the top
  // log2Buckets bits of the bit-reversed hash.
  static U32 bucketOf(const K& key, U8 log2Buckets) {
    if (log2Buckets == 0) return 0;  // a shift by 32 would be undefined
    return bitReverse(kilnHash(key)) >> (32 - log2Buckets);
  }

  // The base-2 logarithm of the bucket count.
  U8 log2Buckets() const { return log2Buckets_; }
  U32 buckets() const { return U32(1) << log2Buckets_; }
  U32 members() const { return members_; }
  bool empty() const { return members_ == 0; }
  // True when the bucket array is the one inside the map object.
  bool bucketsInline() const {
    if constexpr (InlineBuckets > 0) {
      return buckets_ == inline_.buckets;
    } else {
      return false;
    }
  }

  // The member with this key, or nullptr.
  M* find(const K& key) const {
    if (!buckets_) return nullptr;
    for (M* m = buckets_[bucketOf(key, log2Buckets_)]; m; m = m->next_) {
      if (keyEquals(m->key_, key)) return m;
    }
    return nullptr;
  }

  // Starts loading the first member of every bucket, for a caller that
  // will visit or release the members soon and has other work to do
  // meanwhile (the members lie scattered in memory). Inlined by force: the
  // compiler takes a function that only prefetches for one without effects
  // and drops its calls.
  [[gnu::always_inline]] void prefetchMembers() const {
    if (!buckets_) return;
    // Once as many chains as members have started, the rest are empty.
    U32 unseen = members_;
    for (U32 b = 0, n = buckets(); b < n && unseen > 0; ++b) {
      if (buckets_[b]) {
        prefetchMember(buckets_[b]);
        --unseen;
      }
    }
  }

  // Starts loading the bucket of key, which finding, adding or removing key
  // reads first.
  [[gnu::always_inline]] void prefetchBucket(const K& key) const {
    if (buckets_) __builtin_prefetch(&buckets_[bucketOf(key, log2Buckets_)], 1);
  }

  // Adds member, whose key must not be in the map yet; takes a reference.
  void insert(const Ptr<M>& member) {
    M* m = member.ptr();
    KILN_ASSERT(m != nullptr);
    roomForOneMore();
    linkNew(m);
  }

  // Builds a member M(key, value), adds it and returns it; key must not be in
  // the map yet. The map's reference is the member's only one. When building
  // or growing fails, the map stays as it was.
  M* insertNew(const K& key, const V& value) {
    std::unique_ptr<M> m(new M(key, value));
    roomForOneMore();
    linkNew(m.get());
    return m.release();
  }

  // Grows the bucket array now to the size that holding `members` members
  // would grow it to, so that inserting up to that many rehashes nothing.
  // Once the map holds that many, its buckets and iteration order are the
  // ones it would have had without the call. Never shrinks the array (an
  // empty map allocates at its first insertion); invalidates iterators.
  void reserve(U32 members) {
    U8 log2 = log2Buckets_;
    while (log2 < maxLog2Buckets && members > (U32(1) << log2)) ++log2;
    if (log2 == log2Buckets_) return;
    if (buckets_) {
      growTo(log2);
    } else {
      log2Buckets_ = log2;
    }
  }

  // Unlinks the member with this key and returns it (null if absent); the
  // map's reference passes to the result.
  Ptr<M> remove(const K& key) {
    if (!buckets_) return nullptr;
    M** link = &buckets_[bucketOf(key, log2Buckets_)];
    while (*link && !keyEquals((*link)->key_, key)) link = &(*link)->next_;
    return *link ? unlink(link) : nullptr;
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    M* m = position.member_;
    Iterator next = position;
    ++next;
    M** link = &buckets_[position.bucket_];
    while (*link != m) link = &(*link)->next_;
    unlink(link);
    return next;
  }

  // Removes every member, dropping the map's references; keeps the buckets.
  void clear() {
    if (!buckets_) return;
    // The buckets after the last member's are empty: the walk ends there.
    U32 left = members_;
    for (U32 first = 0, n = buckets(); first < n && left > 0; first += releaseBatch) {
      const U32 end = first + releaseBatch < n ? first + releaseBatch : n;
      // Members lie scattered in memory: asking for a batch of them at once
      // lets their cache misses overlap instead of coming one after another.
      for (U32 b = first; b < end; ++b) {
        if (buckets_[b]) prefetchMember(buckets_[b]);
      }
      for (U32 b = first; b < end; ++b) {
        M* m = std::exchange(buckets_[b], nullptr);
        while (m) {
          M* next = m->next_;
          m->next_ = nullptr;
          dropReference(m);
          --left;
          m = next;
        }
      }
    }
    members_ = 0;
  }

  Iterator begin() const { return firstFrom(0); }
  Iterator end() const { return Iterator(this, nullptr, buckets()); }

  // True when both maps hold the same keys with equal values.
  friend bool operator==(const HashMap& a, const HashMap& b) {
    if (a.members_ != b.members_) return false;
    for (const M& m : a) {
      const M* other = b.find(m.key());
      if (!other || !(other->value() == m.value())) return false;
    }
    return true;
  }

 private:
  // Buckets whose members clear() fetches together before releasing them.
  static constexpr U32 releaseBatch = 16;

  // Starts loading both ends of m (a member may straddle two cache lines)
  // for writing.
  [[gnu::always_inline]] static void prefetchMember(const M* m) {
    __builtin_prefetch(m, 1);
    __builtin_prefetch(reinterpret_cast<const char*>(m) + sizeof(M) - 1, 1);
  }

  static constexpr bool fitsInline(U8 log2Buckets) {
    return (std::size_t(1) << log2Buckets) <= InlineBuckets;
  }

  // A cleared array of 2^log2Buckets buckets: the inline one when it is
  // large enough (its previous contents are lost), otherwise a heap array.
  M** newBuckets(U8 log2Buckets) {
    if constexpr (InlineBuckets > 0) {
      if (fitsInline(log2Buckets)) {
        std::fill_n(inline_.buckets, std::size_t(1) << log2Buckets, nullptr);
        return inline_.buckets;
      }
    }
    return new M*[std::size_t(1) << log2Buckets]();
  }

  // Gives back a heap array; the map then has none.
  void releaseBuckets() noexcept {
    if (!bucketsInline()) delete[] buckets_;
    buckets_ = nullptr;
  }

  // Takes over the array and members of from, which has no array left
  // (log2Buckets() unchanged). This map must have no array.
  void adopt(HashMap& from) noexcept {
    log2Buckets_ = from.log2Buckets_;
    members_ = std::exchange(from.members_, 0);
    if (from.bucketsInline()) {
      if constexpr (InlineBuckets > 0) {
        std::copy_n(from.inline_.buckets, buckets(), inline_.buckets);
        buckets_ = inline_.buckets;
      }
    } else {
      buckets_ = from.buckets_;
    }
    from.buckets_ = nullptr;
  }

  // Allocates or grows the bucket array for one more member, before it is
  // linked (so that a failed allocation changes nothing): the array doubles
  // when the members would come to outnumber the buckets. A chain keeps its
  // order when it splits, so growing first lays the chains out as linking
  // first and growing after would.
  void roomForOneMore() {
    if (!buckets_) {
      buckets_ = newBuckets(log2Buckets_);
    } else if (members_ + 1 > buckets() && log2Buckets_ < maxLog2Buckets) {
      growTo(log2Buckets_ + 1);
    }
  }

  // Takes a reference to m and links it into the room made for it.
  void linkNew(M* m) {
    m->newRef();
    link(m, buckets_, log2Buckets_);
    ++members_;
  }

  // Puts m at the front of its chain.
  static void link(M* m, M** buckets, U8 log2Buckets) {
    M*& head = buckets[bucketOf(m->key_, log2Buckets)];
    m->next_ = head;
    head = m;
  }

  // Unlinks *link from its chain and hands over the map's reference.
  Ptr<M> unlink(M** link) {
    M* m = *link;
    *link = m->next_;
    m->next_ = nullptr;
    --members_;
    return Ptr<M>::adopt(m);  // the collection's reference passes to the caller
  }

  // Enlarges the bucket array to 2^log2 buckets. Bucket i splits into the
  // buckets whose numbers begin with i's bits (2i and 2i+1 on doubling);
  // walking each old chain from its back keeps the chain order in the new
  // buckets.
  void growTo(U8 log2) {
    // An inline array growing into itself is read from a copy.
    std::array<M*, InlineBuckets> inlineBefore;
    M** before = buckets_;
    if constexpr (InlineBuckets > 0) {
      if (fitsInline(log2)) {
        std::copy_n(buckets_, buckets(), inlineBefore.data());
        before = inlineBefore.data();
      }
    }
    const bool heapBefore = !bucketsInline();
    M** bigger = newBuckets(log2);
    for (U32 b = 0, n = buckets(); b < n; ++b) {
      M* reversed = nullptr;
      for (M* m = before[b]; m;) {
        M* next = m->next_;
        m->next_ = reversed;
        reversed = m;
        m = next;
      }
      while (reversed) {
        M* next = reversed->next_;
        link(reversed, bigger, log2);
        reversed = next;
      }
    }
    if (heapBefore) delete[] buckets_;
    buckets_ = bigger;
    log2Buckets_ = log2;
  }

  void copyFrom(const HashMap& other) {
    if (!other.buckets_) return;
    buckets_ = newBuckets(log2Buckets_);
    for (U32 b = 0, n = buckets(); b < n; ++b) {
      M** tail = &buckets_[b];
      for (M* m = other.buckets_[b]; m; m = m->next_) {
        M* copy = new M(m->key_, m->value_);
        copy->newRef();
        *tail = copy;
        tail = &copy->next_;
        ++members_;
      }
    }
  }

  // The first member in bucket b or after it.
  Iterator firstFrom(U32 b) const {
    for (U32 n = buckets_ ? buckets() : 0; b < n; ++b) {
      if (buckets_[b]) return Iterator(this, buckets_[b], b);
    }
    return end();
  }

  struct NoInlineBuckets {};
  struct InlineBucketArray {
    M* buckets[InlineBuckets > 0 ? InlineBuckets : 1];
  };

  // Null until the first insertion, then inline_.buckets or a heap array.
  M** buckets_ = nullptr;
  U32 members_ = 0;
  U8 log2Buckets_;
  [[no_unique_address]] std::conditional_t<InlineBuckets == 0, NoInlineBuckets, InlineBucketArray>
      inline_;
};

}  // namespace Kiln
