// generated from pool.kiln by kilngen; do not edit
//
// entity Pool : Kiln::PtrInterface
//   nonotify
//   ordered free : U16 -> bool observed
//   coll used : U16 -> bool observed
#pragma once

#include <string>

#include "Kiln/HashMap.h"
#include "Kiln/RbTreeMap.h"
#include "Kiln/Support.h"

namespace Golden {

class Pool : public Kiln::PtrInterface, public Kiln::Allocated<Pool> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Pool>::operator new;
  using Kiln::Allocated<Pool>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::PtrInterface::kilnAttributeStart + 128;  // 130
  static constexpr U32 kilnFreeIndex = kilnAttributeStart + 0;  // 130
  static constexpr U32 kilnUsedIndex = kilnAttributeStart + 1;  // 131

  // A member of free: key U16, value bool.
  class KilnFree final : public Kiln::RbTreeMember<KilnFree, U16, bool> {
   public:
    using RbTreeMember::RbTreeMember;
    const bool& value() const { return Kiln::CollectionMember<KilnFree, U16, bool>::value(); }

   private:
    friend class Pool;
    using Kiln::CollectionMember<KilnFree, U16, bool>::valueIs;
  };
  typedef Kiln::RbTreeMap<KilnFree, U16, bool> FreeMap;
  typedef FreeMap::Iterator FreeIterator;

  // A member of used: key U16, value bool.
  class KilnUsed final : public Kiln::HashMapMember<KilnUsed, U16, bool> {
   public:
    using HashMapMember::HashMapMember;
    const bool& value() const { return Kiln::CollectionMember<KilnUsed, U16, bool>::value(); }

   private:
    friend class Pool;
    using Kiln::CollectionMember<KilnUsed, U16, bool>::valueIs;
  };
  typedef Kiln::HashMap<KilnUsed, U16, bool> UsedMap;
  typedef UsedMap::Iterator UsedIterator;

  Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  ~Pool() override;

  // The value under key, or bool() when absent.
  bool free(U16 key) const {
    const KilnFree* m = free_.find(key);
    return m ? m->value() : bool();
  }
  // The collection itself, for iteration and counting.
  const FreeMap& free() const { return free_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise nobody is told.
  void freeIs(U16 key, bool value) {
    if (KilnFree* m = free_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
      freeObserved(key, &m->value());
    } else {
      KilnFree* added = free_.insertNew(key, value);
      freeObserved(key, &added->value());
    }
    freeNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnFree> newFree(U16 key, bool value) {
    if (KilnFree* m = free_.find(key)) {
      m->valueIs(value);
      freeObserved(key, &m->value());
      return m;
    }
    KilnFree* m = free_.insertNew(key, value);
    freeObserved(key, &m->value());
    return m;
  }
  // Removes key and returns its value; an absent key returns bool() and
  // tells nobody.
  bool freeDel(U16 key) {
    Kiln::Ptr<KilnFree> m = free_.remove(key);
    if (!m) return bool();
    freeObserved(key, nullptr);
    freeNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  FreeIterator freeDel(FreeIterator position) {
    const U16 key = position->key();
    FreeIterator next = free_.remove(position);
    freeObserved(key, nullptr);
    freeNotify(key);
    return next;
  }
  // Removes every member through freeDel(iterator).
  void freeDelAll() {
    while (!free_.empty()) freeDel(free_.begin());
  }
  // Tells nobody: the type has no notifiees.
  void freeNotify(U16) {}
  // Hand-written: called after every change of a member of free, with
  // the member's new value, or null when key has left the collection.
  void freeObserved(U16 key, const bool* value);

  // The value under key, or bool() when absent.
  bool used(U16 key) const {
    const KilnUsed* m = used_.find(key);
    return m ? m->value() : bool();
  }
  // The collection itself, for iteration and counting.
  const UsedMap& used() const { return used_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise nobody is told.
  void usedIs(U16 key, bool value) {
    if (KilnUsed* m = used_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
      usedObserved(key, &m->value());
    } else {
      KilnUsed* added = used_.insertNew(key, value);
      usedObserved(key, &added->value());
    }
    usedNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnUsed> newUsed(U16 key, bool value) {
    if (KilnUsed* m = used_.find(key)) {
      m->valueIs(value);
      usedObserved(key, &m->value());
      return m;
    }
    KilnUsed* m = used_.insertNew(key, value);
    usedObserved(key, &m->value());
    return m;
  }
  // Removes key and returns its value; an absent key returns bool() and
  // tells nobody.
  bool usedDel(U16 key) {
    Kiln::Ptr<KilnUsed> m = used_.remove(key);
    if (!m) return bool();
    usedObserved(key, nullptr);
    usedNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  UsedIterator usedDel(UsedIterator position) {
    const U16 key = position->key();
    UsedIterator next = used_.remove(position);
    usedObserved(key, nullptr);
    usedNotify(key);
    return next;
  }
  // Removes every member through usedDel(iterator).
  void usedDelAll() {
    while (!used_.empty()) usedDel(used_.begin());
  }
  // Tells nobody: the type has no notifiees.
  void usedNotify(U16) {}
  // Grows the buckets of used now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void usedReserve(U32 members) { used_.reserve(members); }
  // Hand-written: called after every change of a member of used, with
  // the member's new value, or null when key has left the collection.
  void usedObserved(U16 key, const bool* value);

  // The registered record of Golden::Pool.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

 private:
  FreeMap free_;
  UsedMap used_;
};

}  // namespace Golden
