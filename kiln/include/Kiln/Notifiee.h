// Notification: the list of notifiees (observers) that an object keeps, the
// notifiee base class, and the visit that calls one handler on every notifiee.
#pragma once

#include <cstddef>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "Kiln/Ptr.h"

namespace Kiln {

// The registered notifiees of one notifier, in registration order. Testing
// for emptiness is one comparison, so a mutator of an object nobody observes
// pays nothing more. Notifiees may join or leave while a visit runs: a
// notifiee that leaves is skipped from then on, one that joins is first
// visited by the next notification.
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  // True when nobody is registered.
  bool empty() const { return entries_.empty(); }

  // Number of registered notifiees.
  std::size_t size() const { return entries_.size() - holes_; }

  // Whether visits call handlers (see PtrInterface::hasNotificationActiveIs).
  bool active() const { return active_; }
  void activeIs(bool active) { active_ = active; }

  // Appends n; a notifiee already in the list is not added twice.
  void notifieeIs(PtrInterface::NotifieeConst* n);

  // Removes n if present.
  void notifieeDel(PtrInterface::NotifieeConst* n);

  // True when n is in the list.
  bool contains(const PtrInterface::NotifieeConst* n) const;

  // The registered notifiees, in list order.
  std::vector<PtrInterface::NotifieeConst*> notifiees() const;

  // Calls f(notifiee) on every notifiee in list order, if active.
  template <class F>
  void visit(F&& f);

 private:
  void compact();

  std::vector<PtrInterface::NotifieeConst*> entries_;
  std::size_t holes_ = 0;  // entries nulled by a removal during a visit
  unsigned visiting_ = 0;  // depth of nested visits
  bool active_ = true;
};

// A notifiee: holds its notifier (a strong pointer) and a registered flag; a
// registered notifiee is in its notifier's list. Each notifying type derives a
// NotifieeConst with a typed notifier and one virtual handler per attribute.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
  NotifieeConst() = default;
  NotifieeConst(const NotifieeConst&) = delete;
  NotifieeConst& operator=(const NotifieeConst&) = delete;
  // Leaves the notifier's list.
  ~NotifieeConst() override;

  // The notifier, or null.
  const PtrInterface* notifierBase() const { return notifier_.ptr(); }

  // Whether this notifiee is (or will be, once it has a notifier) in its
  // notifier's list. A new notifiee is registered.
  bool isRegisteredNotifiee() const { return registered_; }

  // Joins or leaves the notifier's list; nothing happens when unchanged.
  void isRegisteredNotifieeIs(bool registered);

  // Called by the runtime when one of this notifiee's handlers throws; the
  // exception is then dropped and the visit goes on with the next notifiee.
  virtual void onNotificationException() {}

  // Called when the notifier's references reach zero (zeroReferencesIs).
  virtual void onZeroReferences() {}

 protected:
  // Changes the notifier: leaves the old one's list and joins the new one's
  // (when registered). A notifier that kilnAcceptsNotifier refuses is taken
  // as null. Nothing happens when n is the current notifier.
  void notifierBaseIs(const PtrInterface* n);

  // True when n is of the notifier type of this notifiee class.
  virtual bool kilnAcceptsNotifier(const PtrInterface*) const { return true; }

 private:
  template <class N, class Call>
  friend void doVisitWith(NotifieeList& list, const Call& call);

  // The notifiee as class N, or null when it is not one. A visit asks the same
  // question of the same notifiee again and again, so the last answer is kept:
  // a hit costs one comparison instead of a dynamic_cast.
  template <class N>
  N* kilnAs() {
    if (castType_ != &typeid(N)) {
      castType_ = &typeid(N);
      cast_ = dynamic_cast<N*>(this);
    }
    return static_cast<N*>(cast_);
  }

  void join();
  void leave();

  Ptr<const PtrInterface> notifier_;
  bool registered_ = true;
  const std::type_info* castType_ = nullptr;
  void* cast_ = nullptr;
};

template <class F>
void NotifieeList::visit(F&& f) {
  if (!active_) return;
  ++visiting_;
  // Indexes, not iterators: a handler may add notifiees (reallocation).
  const std::size_t count = entries_.size();
  try {
    for (std::size_t i = 0; i < count && i < entries_.size(); ++i) {
      if (PtrInterface::NotifieeConst* n = entries_[i]) f(n);
    }
  } catch (...) {
    if (--visiting_ == 0 && holes_) compact();
    throw;
  }
  if (--visiting_ == 0 && holes_) compact();
}

// Calls handler() (or handler(key)) on every notifiee of the list that is
// of the class N, in list order. Notifiees of other classes (a base entity's
// notifiee on a derived entity) are skipped. A handler that throws has its
// notifiee's onNotificationException() called and the visit goes on. Two
// arities rather than one variadic form, so that &N::onX picks the right one
// of the overloads onX() and onX(key).
template <class N, class Call>
void doVisitWith(NotifieeList& list, const Call& call) {
  list.visit([&](PtrInterface::NotifieeConst* n) {
    N* target = n->kilnAs<N>();
    if (!target) return;
    try {
      call(*target);
    } catch (...) {
      n->onNotificationException();
    }
  });
}

template <class N>
void doVisit(NotifieeList& list, void (N::*handler)()) {
  doVisitWith<N>(list, [handler](N& n) { (n.*handler)(); });
}

template <class N, class K>
void doVisit(NotifieeList& list, void (N::*handler)(K),
             const std::type_identity_t<std::remove_cvref_t<K>>& key) {
  doVisitWith<N>(list, [handler, &key](N& n) { (n.*handler)(key); });
}

}  // namespace Kiln
