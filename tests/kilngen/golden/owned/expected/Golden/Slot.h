// generated from owner.kiln by kilngen; do not edit
//
// entity Slot : Kiln::PtrInterface
//   key id : U16
//   ctor width : U8
#pragma once

#include <string>

#include "Kiln/Support.h"

namespace Golden {

class Slot : public Kiln::PtrInterface, public Kiln::Allocated<Slot> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Slot>::operator new;
  using Kiln::Allocated<Slot>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::PtrInterface::kilnAttributeStart + 128;  // 130
  static constexpr U32 kilnIdIndex = kilnAttributeStart + 0;  // 130
  static constexpr U32 kilnWidthIndex = kilnAttributeStart + 1;  // 131

  class NotifieeConst;

  Slot(U16 id, U8 width);
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() override;

  // id (U16): the key, fixed at construction.
  U16 id() const { return id_; }

  // width (U8): the constructor parameter, fixed at construction.
  U8 width() const { return width_; }

  // The registered record of Golden::Slot.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }
  Kiln::NotifieeList* notifieeList() const override { return &kilnNotifiees_; }
  void hasNotificationActiveIs(bool active) override { kilnNotifiees_.activeIs(active); }
  // Calls onZeroReferences() on every notifiee.
  void zeroReferencesIs(bool) override {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onZeroReferences);
  }

  // Observes a Slot: one virtual handler per attribute, in attribute order,
  // after the base's.
  class NotifieeConst : public Kiln::PtrInterface::NotifieeConst {
   public:
    // The Slot observed, or null.
    Kiln::Ptr<const Slot> notifier() const {
      return static_cast<const Slot*>(notifierBase());
    }
    // Observes notifier from now on (joining its list when registered).
    void notifierIs(const Kiln::Ptr<const Slot>& notifier) { notifierBaseIs(notifier.ptr()); }

   protected:
    bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {
      return dynamic_cast<const Slot*>(notifier) != nullptr;
    }
  };

 private:
  const U16 id_;
  const U8 width_;

 protected:
  // The registered notifiees (derived types notify through it too);
  // mutators test it for emptiness first.
  mutable Kiln::NotifieeList kilnNotifiees_;
};

}  // namespace Golden
