// generated from owner.kiln by kilngen; do not edit
//
// entity Owner : Kiln::PtrInterface
//   nonotify
//   hook construct
//   forward Helper
//   ctor helper : Helper* plain
//   attr on : bool custom
//   ordered slots : U16 -> Slot(width: U8)
//   coll names : Kiln::Name -> Named by name nulltext "no name\""
//   singleton spare : Slot(id: U16, width: U8)
//   recordonly future
//   op static U16 bound()
#pragma once

#include <string>

#include "Kiln/HashMap.h"
#include "Kiln/RbTreeMap.h"
#include "Kiln/Support.h"
#include "Golden/Slot.h"
#include "Golden/Named.h"

namespace Golden {

class Helper;

class Owner : public Kiln::PtrInterface, public Kiln::Allocated<Owner> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Owner>::operator new;
  using Kiln::Allocated<Owner>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::PtrInterface::kilnAttributeStart + 128;  // 130
  static constexpr U32 kilnOnIndex = kilnAttributeStart + 0;  // 130
  static constexpr U32 kilnSlotsIndex = kilnAttributeStart + 1;  // 131
  static constexpr U32 kilnNamesIndex = kilnAttributeStart + 2;  // 132
  static constexpr U32 kilnSpareIndex = kilnAttributeStart + 3;  // 133
  static constexpr U32 kilnFutureIndex = kilnAttributeStart + 4;  // 134
  static constexpr U32 kilnBoundIndex = kilnAttributeStart + 5;  // 135

  // A member of slots: key U16, value Kiln::Ptr<Slot>.
  class KilnSlots final : public Kiln::RbTreeMember<KilnSlots, U16, Kiln::Ptr<Slot>> {
   public:
    using RbTreeMember::RbTreeMember;
  };
  typedef Kiln::RbTreeMap<KilnSlots, U16, Kiln::Ptr<Slot>> SlotsMap;
  typedef SlotsMap::Iterator SlotsIterator;

  // A member of names: key Kiln::Name, value Kiln::Ptr<Named>.
  class KilnNames final : public Kiln::HashMapMember<KilnNames, Kiln::Name, Kiln::Ptr<Named>> {
   public:
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::HashMap<KilnNames, Kiln::Name, Kiln::Ptr<Named>> NamesMap;
  typedef NamesMap::Iterator NamesIterator;

  explicit Owner(Helper* helper);
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() override;

  // helper (Helper*): the constructor parameter, fixed at construction.
  Helper* helper() const { return helper_; }

  // on (bool): on() returns it; onIs(v) stores v.
  bool on() const { return on_; }
  void onIs(bool on);  // hand-written

  // The entity under key, or null.
  Kiln::Ptr<Slot> slots(U16 key) const {
    const KilnSlots* m = slots_.find(key);
    return m ? m->value() : nullptr;
  }
  // The collection itself, for iteration and counting.
  const SlotsMap& slots() const { return slots_; }
  // The entity under key, created as Slot(key, width) when absent.
  // A present entity with another constructor parameter throws
  // Kiln::NameInUseException and stays in place.
  Kiln::Ptr<Slot> slotsIs(U16 key, U8 width) {
    if (KilnSlots* m = slots_.find(key)) {
      const Kiln::Ptr<Slot>& existing = m->value();
      if (existing->width() != width) {
        Kiln::reinstantiationError("width", Kiln::reflectText(width),
                                   Kiln::reflectText(existing->width()));
      }
      return existing;
    }
    Kiln::Ptr<Slot> created = newSlots(key, width);
    slotsNotify(key);
    return created;
  }
  // Creates Slot(key, width) and stores it under key without telling anyone;
  // throws Kiln::RangeException("null ValidPtr") if creation yields none.
  Kiln::Ptr<Slot> newSlots(U16 key, U8 width) {
    Kiln::Ptr<Slot> created = Kiln::validPtr(Kiln::kilnNew<Slot>(key, width));
    Kiln::kilnAdopt(created, this, "slots");
    if (KilnSlots* m = slots_.find(key)) {
      m->valueIs(created);
    } else {
      slots_.insertNew(key, created);
    }
    return created;
  }
  // Removes key and returns its value; an absent key returns Kiln::Ptr<Slot>() and
  // tells nobody.
  Kiln::Ptr<Slot> slotsDel(U16 key) {
    Kiln::Ptr<KilnSlots> m = slots_.remove(key);
    if (!m) return Kiln::Ptr<Slot>();
    Kiln::kilnOrphan(m->value(), this);
    slotsNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  SlotsIterator slotsDel(SlotsIterator position) {
    const U16 key = position->key();
    Kiln::kilnOrphan(position->value(), this);
    SlotsIterator next = slots_.remove(position);
    slotsNotify(key);
    return next;
  }
  // Removes every member through slotsDel(iterator).
  void slotsDelAll() {
    while (!slots_.empty()) slotsDel(slots_.begin());
  }
  // Tells nobody: the type has no notifiees.
  void slotsNotify(U16) {}

  // The entity under key, or null.
  Kiln::Ptr<Named> names(const Kiln::Name& key) const {
    const KilnNames* m = names_.find(key);
    return m ? m->value() : nullptr;
  }
  // The collection itself, for iteration and counting.
  const NamesMap& names() const { return names_; }
  // Stores entity under entity->name(); when that key holds the same entity
  // nothing happens, otherwise nobody is told.
  // A null entity throws Kiln::RangeException.
  void namesIs(const Kiln::Ptr<Named>& entity) {
    if (!entity) throw Kiln::RangeException("no name\"");
    const Kiln::Name key = entity->name();
    if (KilnNames* m = names_.find(key)) {
      if (m->value() == entity) return;
      m->valueIs(entity);
    } else {
      newNames(entity);
    }
    namesNotify(key);
  }
  // Stores entity without telling anyone; returns the member.
  Kiln::Ptr<KilnNames> newNames(const Kiln::Ptr<Named>& entity) {
    if (!entity) throw Kiln::RangeException("no name\"");
    const Kiln::Name key = entity->name();
    if (KilnNames* m = names_.find(key)) {
      m->valueIs(entity);
      return m;
    }
    Kiln::Ptr<KilnNames> m = new KilnNames(key, entity);
    names_.insert(m);
    return m;
  }
  // Removes key and returns its value; an absent key returns Kiln::Ptr<Named>() and
  // tells nobody.
  Kiln::Ptr<Named> namesDel(const Kiln::Name& key) {
    Kiln::Ptr<KilnNames> m = names_.remove(key);
    if (!m) return Kiln::Ptr<Named>();
    namesNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  NamesIterator namesDel(NamesIterator position) {
    const Kiln::Name key = position->key();
    NamesIterator next = names_.remove(position);
    namesNotify(key);
    return next;
  }
  // Removes every member through namesDel(iterator).
  void namesDelAll() {
    while (!names_.empty()) namesDel(names_.begin());
  }
  // Tells nobody: the type has no notifiees.
  void namesNotify(const Kiln::Name&) {}
  // Grows the buckets of names now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void namesReserve(U32 members) { names_.reserve(members); }

  // spare: the Slot this object owns, or null.
  const Kiln::Ptr<Slot>& spare() const { return spare_; }
  // Creates a new Slot(id, width) and returns it, storing nothing; throws
  // Kiln::RangeException("null ValidPtr") if creation yields none.
  Kiln::Ptr<Slot> newSpare(U16 id, U8 width) { return Kiln::validPtr(Kiln::kilnNew<Slot>(id, width)); }
  // Returns the stored Slot; when there is none, stores newSpare(id, width).
  Kiln::Ptr<Slot> spareIs(U16 id, U8 width) {
    if (spare_) return spare_;
    spare_ = newSpare(id, width);
    Kiln::kilnAdopt(spare_, this, "spare");
    return spare_;
  }
  // Drops the stored entity; nothing happens when there is none.
  void spareDel() {
    if (!spare_) return;
    Kiln::kilnOrphan(spare_, this);
    spare_ = nullptr;
  }

  // Hand-written operations.
  static U16 bound();

  // The registered record of Golden::Owner.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

 private:
  // Hand-written parts of construction and destruction.
  void constructHook();

  Helper* helper_;
  bool on_{};
  SlotsMap slots_;
  NamesMap names_;
  Kiln::Ptr<Slot> spare_;
};

}  // namespace Golden
