// What every member of a keyed collection or queue holds: its own reference
// count and per-type allocation count, the key and the value. Each
// collection's member base (HashMapMember, RbTreeMember, LinkQueueMember)
// adds only its links.
#pragma once

#include "Kiln/Allocator.h"
#include "Kiln/Ptr.h"

namespace Kiln {

template <class M, class K, class V>
class CollectionMember : public PtrInterface, public Allocated<M> {
 public:
  CollectionMember(const K& key, const V& value) : key_(key), value_(value) {}

  // The key; it never changes while the member is in a collection.
  const K& key() const { return key_; }
  const V& value() const { return value_; }
  V& value() { return value_; }
  void valueIs(const V& value) { value_ = value; }

 protected:
  // Written only by the collection that holds the member (a queue sets the
  // index of a member it appends).
  K key_;
  V value_;
};

}  // namespace Kiln
