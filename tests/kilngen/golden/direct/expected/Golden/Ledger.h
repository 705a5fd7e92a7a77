// generated from ledger.kiln by kilngen; do not edit
//
// entity Ledger : Kiln::PtrInterface
//   coll slots : U16 -> bool observed direct
//   coll owners : U8 -> U32 direct
//   coll names : U16 -> Kiln::Name inline
//   ordered spare : U16 -> bool observed direct
//   ordered marks : S8 -> U32 direct
#pragma once

#include <string>

#include "Kiln/DirectHashMap.h"
#include "Kiln/DirectOrderedMap.h"
#include "Kiln/HashMap.h"
#include "Kiln/Support.h"

namespace Golden {

class Ledger : public Kiln::PtrInterface, public Kiln::Allocated<Ledger> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Ledger>::operator new;
  using Kiln::Allocated<Ledger>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::PtrInterface::kilnAttributeStart + 128;  // 130
  static constexpr U32 kilnSlotsIndex = kilnAttributeStart + 0;  // 130
  static constexpr U32 kilnOwnersIndex = kilnAttributeStart + 1;  // 131
  static constexpr U32 kilnNamesIndex = kilnAttributeStart + 2;  // 132
  static constexpr U32 kilnSpareIndex = kilnAttributeStart + 3;  // 133
  static constexpr U32 kilnMarksIndex = kilnAttributeStart + 4;  // 134

  class NotifieeConst;

  // A member of slots: key U16, value bool.
  class KilnSlots final : public Kiln::HashMapMember<KilnSlots, U16, bool> {
   public:
    using HashMapMember::HashMapMember;
    const bool& value() const { return Kiln::CollectionMember<KilnSlots, U16, bool>::value(); }

   private:
    friend class Ledger;
    using Kiln::CollectionMember<KilnSlots, U16, bool>::valueIs;
  };
  typedef Kiln::DirectHashMap<KilnSlots, U16, bool> SlotsMap;
  typedef SlotsMap::Iterator SlotsIterator;

  // A member of owners: key U8, value U32.
  class KilnOwners final : public Kiln::HashMapMember<KilnOwners, U8, U32> {
   public:
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::DirectHashMap<KilnOwners, U8, U32> OwnersMap;
  typedef OwnersMap::Iterator OwnersIterator;

  // A member of names: key U16, value Kiln::Name.
  class KilnNames final : public Kiln::HashMapMember<KilnNames, U16, Kiln::Name> {
   public:
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::HashMap<KilnNames, U16, Kiln::Name, 16> NamesMap;
  typedef NamesMap::Iterator NamesIterator;

  // A member of spare: key U16, value bool.
  class KilnSpare final : public Kiln::DirectOrderedMember<KilnSpare, U16, bool> {
   public:
    using DirectOrderedMember::DirectOrderedMember;
    const bool& value() const { return Kiln::CollectionMember<KilnSpare, U16, bool>::value(); }

   private:
    friend class Ledger;
    using Kiln::CollectionMember<KilnSpare, U16, bool>::valueIs;
  };
  typedef Kiln::DirectOrderedMap<KilnSpare, U16, bool> SpareMap;
  typedef SpareMap::Iterator SpareIterator;

  // A member of marks: key S8, value U32.
  class KilnMarks final : public Kiln::DirectOrderedMember<KilnMarks, S8, U32> {
   public:
    using DirectOrderedMember::DirectOrderedMember;
  };
  typedef Kiln::DirectOrderedMap<KilnMarks, S8, U32> MarksMap;
  typedef MarksMap::Iterator MarksIterator;

  Ledger();
  Ledger(const Ledger&) = delete;
  Ledger& operator=(const Ledger&) = delete;
  ~Ledger() override;

  // The value under key, or bool() when absent.
  bool slots(U16 key) const {
    const KilnSlots* m = slots_.find(key);
    return m ? m->value() : bool();
  }
  // The collection itself, for iteration and counting.
  const SlotsMap& slots() const { return slots_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise slotsNotify(key) runs.
  void slotsIs(U16 key, bool value) {
    if (KilnSlots* m = slots_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
      slotsObserved(key, &m->value());
    } else {
      KilnSlots* added = slots_.insertNew(key, value);
      slotsObserved(key, &added->value());
    }
    slotsNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnSlots> newSlots(U16 key, bool value) {
    if (KilnSlots* m = slots_.find(key)) {
      m->valueIs(value);
      slotsObserved(key, &m->value());
      return m;
    }
    KilnSlots* m = slots_.insertNew(key, value);
    slotsObserved(key, &m->value());
    return m;
  }
  // Removes key and returns its value; an absent key returns bool() and
  // tells nobody.
  bool slotsDel(U16 key) {
    Kiln::Ptr<KilnSlots> m = slots_.remove(key);
    if (!m) return bool();
    slotsObserved(key, nullptr);
    slotsNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  SlotsIterator slotsDel(SlotsIterator position) {
    const U16 key = position->key();
    SlotsIterator next = slots_.remove(position);
    slotsObserved(key, nullptr);
    slotsNotify(key);
    return next;
  }
  // Removes every member through slotsDel(iterator).
  void slotsDelAll() {
    while (!slots_.empty()) slotsDel(slots_.begin());
  }
  // Calls onSlots(key) on every notifiee.
  void slotsNotify(U16 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onSlots, key);
  }
  // Grows the buckets of slots now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void slotsReserve(U32 members) { slots_.reserve(members); }
  // Hand-written: called after every change of a member of slots, with
  // the member's new value, or null when key has left the collection.
  void slotsObserved(U16 key, const bool* value);

  // The value under key, or U32() when absent.
  U32 owners(U8 key) const {
    const KilnOwners* m = owners_.find(key);
    return m ? m->value() : U32();
  }
  // The collection itself, for iteration and counting.
  const OwnersMap& owners() const { return owners_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise ownersNotify(key) runs.
  void ownersIs(U8 key, U32 value) {
    if (KilnOwners* m = owners_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      owners_.insertNew(key, value);
    }
    ownersNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnOwners> newOwners(U8 key, U32 value) {
    if (KilnOwners* m = owners_.find(key)) {
      m->valueIs(value);
      return m;
    }
    KilnOwners* m = owners_.insertNew(key, value);
    return m;
  }
  // Removes key and returns its value; an absent key returns U32() and
  // tells nobody.
  U32 ownersDel(U8 key) {
    Kiln::Ptr<KilnOwners> m = owners_.remove(key);
    if (!m) return U32();
    ownersNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  OwnersIterator ownersDel(OwnersIterator position) {
    const U8 key = position->key();
    OwnersIterator next = owners_.remove(position);
    ownersNotify(key);
    return next;
  }
  // Removes every member through ownersDel(iterator).
  void ownersDelAll() {
    while (!owners_.empty()) ownersDel(owners_.begin());
  }
  // Calls onOwners(key) on every notifiee.
  void ownersNotify(U8 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onOwners, key);
  }
  // Grows the buckets of owners now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void ownersReserve(U32 members) { owners_.reserve(members); }

  // The value under key, or Kiln::Name() when absent.
  Kiln::Name names(U16 key) const {
    const KilnNames* m = names_.find(key);
    return m ? m->value() : Kiln::Name();
  }
  // The collection itself, for iteration and counting.
  const NamesMap& names() const { return names_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise namesNotify(key) runs.
  void namesIs(U16 key, const Kiln::Name& value) {
    if (KilnNames* m = names_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      names_.insertNew(key, value);
    }
    namesNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnNames> newNames(U16 key, const Kiln::Name& value) {
    if (KilnNames* m = names_.find(key)) {
      m->valueIs(value);
      return m;
    }
    KilnNames* m = names_.insertNew(key, value);
    return m;
  }
  // Removes key and returns its value; an absent key returns Kiln::Name() and
  // tells nobody.
  Kiln::Name namesDel(U16 key) {
    Kiln::Ptr<KilnNames> m = names_.remove(key);
    if (!m) return Kiln::Name();
    namesNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  NamesIterator namesDel(NamesIterator position) {
    const U16 key = position->key();
    NamesIterator next = names_.remove(position);
    namesNotify(key);
    return next;
  }
  // Removes every member through namesDel(iterator).
  void namesDelAll() {
    while (!names_.empty()) namesDel(names_.begin());
  }
  // Calls onNames(key) on every notifiee.
  void namesNotify(U16 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onNames, key);
  }
  // Grows the buckets of names now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void namesReserve(U32 members) { names_.reserve(members); }

  // The value under key, or bool() when absent.
  bool spare(U16 key) const {
    const KilnSpare* m = spare_.find(key);
    return m ? m->value() : bool();
  }
  // The collection itself, for iteration and counting.
  const SpareMap& spare() const { return spare_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise spareNotify(key) runs.
  void spareIs(U16 key, bool value) {
    if (KilnSpare* m = spare_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
      spareObserved(key, &m->value());
    } else {
      KilnSpare* added = spare_.insertNew(key, value);
      spareObserved(key, &added->value());
    }
    spareNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnSpare> newSpare(U16 key, bool value) {
    if (KilnSpare* m = spare_.find(key)) {
      m->valueIs(value);
      spareObserved(key, &m->value());
      return m;
    }
    KilnSpare* m = spare_.insertNew(key, value);
    spareObserved(key, &m->value());
    return m;
  }
  // Removes key and returns its value; an absent key returns bool() and
  // tells nobody.
  bool spareDel(U16 key) {
    Kiln::Ptr<KilnSpare> m = spare_.remove(key);
    if (!m) return bool();
    spareObserved(key, nullptr);
    spareNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  SpareIterator spareDel(SpareIterator position) {
    const U16 key = position->key();
    SpareIterator next = spare_.remove(position);
    spareObserved(key, nullptr);
    spareNotify(key);
    return next;
  }
  // Removes every member through spareDel(iterator).
  void spareDelAll() {
    while (!spare_.empty()) spareDel(spare_.begin());
  }
  // Calls onSpare(key) on every notifiee.
  void spareNotify(U16 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onSpare, key);
  }
  // Hand-written: called after every change of a member of spare, with
  // the member's new value, or null when key has left the collection.
  void spareObserved(U16 key, const bool* value);

  // The value under key, or U32() when absent.
  U32 marks(S8 key) const {
    const KilnMarks* m = marks_.find(key);
    return m ? m->value() : U32();
  }
  // The collection itself, for iteration and counting.
  const MarksMap& marks() const { return marks_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise marksNotify(key) runs.
  void marksIs(S8 key, U32 value) {
    if (KilnMarks* m = marks_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      marks_.insertNew(key, value);
    }
    marksNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnMarks> newMarks(S8 key, U32 value) {
    if (KilnMarks* m = marks_.find(key)) {
      m->valueIs(value);
      return m;
    }
    KilnMarks* m = marks_.insertNew(key, value);
    return m;
  }
  // Removes key and returns its value; an absent key returns U32() and
  // tells nobody.
  U32 marksDel(S8 key) {
    Kiln::Ptr<KilnMarks> m = marks_.remove(key);
    if (!m) return U32();
    marksNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  MarksIterator marksDel(MarksIterator position) {
    const S8 key = position->key();
    MarksIterator next = marks_.remove(position);
    marksNotify(key);
    return next;
  }
  // Removes every member through marksDel(iterator).
  void marksDelAll() {
    while (!marks_.empty()) marksDel(marks_.begin());
  }
  // Calls onMarks(key) on every notifiee.
  void marksNotify(S8 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onMarks, key);
  }

  // The registered record of Golden::Ledger.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }
  Kiln::NotifieeList* notifieeList() const override { return &kilnNotifiees_; }
  void hasNotificationActiveIs(bool active) override { kilnNotifiees_.activeIs(active); }
  // Calls onZeroReferences() on every notifiee.
  void zeroReferencesIs(bool) override {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onZeroReferences);
  }

  // Observes a Ledger: one virtual handler per attribute, in attribute order,
  // after the base's.
  class NotifieeConst : public Kiln::PtrInterface::NotifieeConst {
   public:
    // The Ledger observed, or null.
    Kiln::Ptr<const Ledger> notifier() const {
      return static_cast<const Ledger*>(notifierBase());
    }
    // Observes notifier from now on (joining its list when registered).
    void notifierIs(const Kiln::Ptr<const Ledger>& notifier) { notifierBaseIs(notifier.ptr()); }
    virtual void onSlots(U16) {}
    virtual void onSlotskilnImmediate() {}
    virtual void onSlots() {}
    virtual void onOwners(U8) {}
    virtual void onOwnerskilnImmediate() {}
    virtual void onOwners() {}
    virtual void onNames(U16) {}
    virtual void onNameskilnImmediate() {}
    virtual void onNames() {}
    virtual void onSpare(U16) {}
    virtual void onSparekilnImmediate() {}
    virtual void onSpare() {}
    virtual void onMarks(S8) {}
    virtual void onMarkskilnImmediate() {}
    virtual void onMarks() {}

   protected:
    bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {
      return dynamic_cast<const Ledger*>(notifier) != nullptr;
    }
  };

 private:
  SlotsMap slots_;
  OwnersMap owners_;
  NamesMap names_;
  SpareMap spare_;
  MarksMap marks_;

 protected:
  // The registered notifiees (derived types notify through it too);
  // mutators test it for emptiness first.
  mutable Kiln::NotifieeList kilnNotifiees_;
};

}  // namespace Golden
