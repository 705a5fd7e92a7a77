// generated from owner.kiln by kilngen; do not edit
//
// entity Derived : Base::Thing(name: Kiln::Name, size: U32)
//   include "Base/Thing.h"
//   attr level : S16 = -3
#pragma once

#include <string>

#include "Kiln/Support.h"
#include "Base/Thing.h"

namespace Golden {

class Derived : public Base::Thing, public Kiln::Allocated<Derived> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Derived>::operator new;
  using Kiln::Allocated<Derived>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Base::Thing::kilnAttributeStart + 128;
  static constexpr U32 kilnLevelIndex = kilnAttributeStart + 0;

  class NotifieeConst;

  Derived(const Kiln::Name& name, U32 size);
  Derived(const Derived&) = delete;
  Derived& operator=(const Derived&) = delete;
  ~Derived() override;
  // Creates a new Derived ("null ValidPtr" if creation yields none).
  static Kiln::Ptr<Derived> DerivedIs(const Kiln::Name& name, U32 size) {
    return Kiln::validPtr(Kiln::kilnNew<Derived>(name, size));
  }

  // level (S16, default -3): level() returns it; levelIs(v) stores v and calls onLevel() when it differs.
  S16 level() const { return level_; }
  void levelIs(S16 level) {
    if (level_ == level) return;
    level_ = level;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onLevel);
  }

  // The registered record of Golden::Derived.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

  // Observes a Derived: one virtual handler per attribute, in attribute order,
  // after the base's.
  class NotifieeConst : public Base::Thing::NotifieeConst {
   public:
    // The Derived observed, or null.
    Kiln::Ptr<const Derived> notifier() const {
      return static_cast<const Derived*>(notifierBase());
    }
    // Observes notifier from now on (joining its list when registered).
    void notifierIs(const Kiln::Ptr<const Derived>& notifier) { notifierBaseIs(notifier.ptr()); }
    virtual void onLevel() {}

   protected:
    bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {
      return dynamic_cast<const Derived*>(notifier) != nullptr;
    }
  };

 private:
  S16 level_ = -3;
};

// Creates a new Derived ("null ValidPtr" if creation yields none).
Kiln::Ptr<Derived> derivedFactory(const Kiln::Name& name, U32 size);

}  // namespace Golden
