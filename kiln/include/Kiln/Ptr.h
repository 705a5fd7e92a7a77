// Intrusive reference counting: PtrInterface is the base of every entity and
// of every collection member; Ptr<T> is the strong pointer to it.
#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "Kiln/Exception.h"
#include "Kiln/Types.h"

namespace Kiln {

// Process-wide switch: while set, reference counts change with atomic
// read-modify-writes. It is read at every change, so set it before a second
// thread first touches a shared object.
extern std::atomic<bool> enableThreadSafePointers;

class NotifieeList;
class TypeRecord;

class PtrInterface {
 public:
  // The base of every notifiee (observer); defined in Kiln/Notifiee.h.
  class NotifieeConst;

  // Index of the first attribute that a class derived directly from this one
  // declares; every level of derivation adds 128 (Kiln::Entity's own
  // attributes start at 130, an entity's at 258, a derived entity's at 386).
  static constexpr U32 kilnAttributeStart = 2;

  PtrInterface() = default;
  // Copying an object never copies its references.
  PtrInterface(const PtrInterface&) : references_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  // The virtual operations below keep this slot order in every derived type:
  // notifieeList, hasNotificationActiveIs, kilnAuditErrors, auditErrors,
  // zeroReferencesIs, fwkType, then the destructor.

  // The registered notifiees of this object, or null for an object that
  // never notifies (collection members, types declared without notification).
  virtual NotifieeList* notifieeList() const { return nullptr; }

  // Switches notification on or off; while off, mutators still store but no
  // handler is called. Objects without a notifiee list ignore it.
  virtual void hasNotificationActiveIs(bool) {}

  // Number of broken runtime invariants found in this object (notifiee list
  // consistency); 0 when sound. The level is the depth of the check.
  virtual U32 kilnAuditErrors(U32 level) const;

  // Number of broken invariants of the type's own (hand-written) audit; 0
  // unless a type overrides it.
  virtual U32 auditErrors(U32) const { return 0; }

  // The runtime's signal that the last reference is gone; entities override
  // it to tell their notifiees.
  virtual void zeroReferencesIs(bool) {}

  // The registered type record of the object's most derived type.
  virtual const TypeRecord& fwkType() const;

  virtual ~PtrInterface() = default;

  // Number of Ptr<> currently holding this object.
  U32 references() const { return references_; }

  void newRef() const {
    if (enableThreadSafePointers.load(std::memory_order_relaxed)) {
      std::atomic_ref<U32>(references_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++references_;
    }
  }

  // Drops one reference; the last one signals zeroReferencesIs(true) and
  // destroys the object (dropReference(this)).
  void deleteRef() const;

  // Drops one reference and tells whether it was the last; the caller then
  // ends the object (dropReference()).
  bool referenceDropped() const {
    if (enableThreadSafePointers.load(std::memory_order_relaxed)) {
      return std::atomic_ref<U32>(references_).fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    return --references_ == 0;
  }

 private:
  mutable U32 references_ = 0;
};

// Drops one reference to object; the last one signals zeroReferencesIs(true)
// and destroys it. Both calls go through T: for a final type (every
// generated collection member is one) they are direct and may be inlined,
// with the slot pool's release, instead of two virtual calls. Members are
// released by the thousand as a table changes.
template <class T>
void dropReference(const T* object) {
  if (!object->referenceDropped()) return;
  T* self = const_cast<T*>(object);
  self->zeroReferencesIs(true);
  delete self;
}

inline void PtrInterface::deleteRef() const { dropReference(this); }

// Strong pointer. May be null; copying adds a reference, destruction or
// reassignment drops one.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* object) : object_(object) { acquire(); }
  // A pointer that takes over a reference object already holds (a
  // collection handing its member's reference to the caller) rather than
  // taking one of its own.
  static Ptr adopt(T* object) {
    Ptr p;
    p.object_ = object;
    return p;
  }
  Ptr(const Ptr& other) : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other) : object_(other.ptr()) {
    acquire();
  }
  ~Ptr() { release(); }

  Ptr& operator=(const Ptr& other) {
    // Acquire first so that self-assignment and aliasing are safe.
    T* previous = object_;
    object_ = other.object_;
    acquire();
    if (previous) dropReference(previous);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    if (this != &other) {
      T* previous = object_;
      object_ = other.object_;
      other.object_ = nullptr;
      if (previous) dropReference(previous);
    }
    return *this;
  }

  T* ptr() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }

 private:
  void acquire() const {
    if (object_) object_->newRef();
  }
  void release() {
    if (object_) dropReference(object_);
    object_ = nullptr;
  }

  T* object_ = nullptr;
};

// Returns p, or throws RangeException("null ValidPtr") when p is null: for the
// places that must hand out an object.
template <class T>
Ptr<T> validPtr(Ptr<T> p) {
  if (!p) throw RangeException("null ValidPtr");
  return p;
}

}  // namespace Kiln
