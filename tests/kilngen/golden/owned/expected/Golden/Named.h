// generated from owner.kiln by kilngen; do not edit
//
// entity Named : Kiln::Entity
//   include <vector>
//   ctor mode : Mode
//   enum Mode
//     idle = 0
//     busy = 2
//   counter visits : U8
//   op virtual void visited(U16 times)
//   member std::vector<int> extra;
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "Kiln/Support.h"
#include <vector>

namespace Golden {

class Named : public Kiln::Entity, public Kiln::Allocated<Named> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Named>::operator new;
  using Kiln::Allocated<Named>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::Entity::kilnAttributeStart + 128;  // 258
  static constexpr U32 kilnModeIndex = kilnAttributeStart + 0;  // 258
  static constexpr U32 kilnVisitsIndex = kilnAttributeStart + 1;  // 259
  static constexpr U32 kilnVisitedIndex = kilnAttributeStart + 2;  // 260

  // Mode: values of the registered table Golden::Named::Mode.
  enum Mode {
    idle = 0,
    busy = 2,
  };

  class NotifieeConst;

  Named(const Kiln::Name& name, Mode mode);
  Named(const Named&) = delete;
  Named& operator=(const Named&) = delete;
  ~Named() override;
  // Creates a new Named ("null ValidPtr" if creation yields none).
  static Kiln::Ptr<Named> NamedIs(const Kiln::Name& name, Mode mode) {
    return Kiln::validPtr(Kiln::kilnNew<Named>(name, mode));
  }

  // mode (Mode): the constructor parameter, fixed at construction.
  Mode mode() const { return mode_; }

  // visits (U8): visits() returns it; visitsIs(v) stores v and calls onVisits() when it differs.
  U8 visits() const { return visits_; }
  void visitsIs(U8 visits) {
    if (visits_ == visits) return;
    visits_ = visits;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onVisits);
  }
  // Adds n (wrapping) and returns the sum; calls onVisits() unless the sum equals the old value.
  U8 visitsInc(U8 n) {
    const U8 sum = static_cast<U8>(visits_ + n);
    if (sum == visits_) return sum;
    visits_ = sum;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onVisits);
    return sum;
  }

  // Hand-written operations.
  virtual void visited(U16 times);

  // The registered record of Golden::Named.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

  // Observes a Named: one virtual handler per attribute, in attribute order,
  // after the base's.
  class NotifieeConst : public Kiln::PtrInterface::NotifieeConst {
   public:
    // The Named observed, or null.
    Kiln::Ptr<const Named> notifier() const {
      return static_cast<const Named*>(notifierBase());
    }
    // Observes notifier from now on (joining its list when registered).
    void notifierIs(const Kiln::Ptr<const Named>& notifier) { notifierBaseIs(notifier.ptr()); }
    virtual void onVisits() {}

   protected:
    bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {
      return dynamic_cast<const Named*>(notifier) != nullptr;
    }
  };

  // Hand-written members.
  std::vector<int> extra;

 private:
  const Mode mode_;
  U8 visits_{};
};

// Creates a new Named ("null ValidPtr" if creation yields none).
Kiln::Ptr<Named> namedFactory(const Kiln::Name& name, Mode mode);

// The name of e in Mode's registered value table (e's number in decimal
// when the table has none); valueToStrep and operator<< write the same.
Kiln::String8 stringValue(Named::Mode e);
std::string valueToStrep(Named::Mode e);
std::ostream& operator<<(std::ostream& out, Named::Mode e);
// Reads a value's name; throws Kiln::DeserializationException for a name the
// table has not.
void sequenceToValue(Kiln::TextReader& in, Named::Mode& e);
// The value with that number or name in the registered table, if any.
std::optional<Named::Mode> ModeInstance(U32 value);
std::optional<Named::Mode> ModeInstance(const Kiln::String8& name);
// The registered record of Golden::Named::Mode.
const Kiln::TypeRecord& ModeKilnType();

}  // namespace Golden
