#include "Kiln/Notifiee.h"

#include <algorithm>

namespace Kiln {

void NotifieeList::notifieeIs(PtrInterface::NotifieeConst* n) {
  if (!contains(n)) entries_.push_back(n);
}

void NotifieeList::notifieeDel(PtrInterface::NotifieeConst* n) {
  auto it = std::find(entries_.begin(), entries_.end(), n);
  if (it == entries_.end()) return;
  if (visiting_) {
    // A visit is walking the vector by index: leave a hole, compact later.
    *it = nullptr;
    ++holes_;
  } else {
    entries_.erase(it);
  }
}

bool NotifieeList::contains(const PtrInterface::NotifieeConst* n) const {
  return n && std::find(entries_.begin(), entries_.end(), n) != entries_.end();
}

std::vector<PtrInterface::NotifieeConst*> NotifieeList::notifiees() const {
  std::vector<PtrInterface::NotifieeConst*> result;
  for (auto* n : entries_) {
    if (n) result.push_back(n);
  }
  return result;
}

void NotifieeList::compact() {
  entries_.erase(std::remove(entries_.begin(), entries_.end(), nullptr), entries_.end());
  holes_ = 0;
}

U32 PtrInterface::kilnAuditErrors(U32) const {
  const NotifieeList* list = notifieeList();
  if (!list) return 0;
  U32 errors = 0;
  for (const NotifieeConst* n : list->notifiees()) {
    if (n->notifierBase() != this || !n->isRegisteredNotifiee()) ++errors;
  }
  return errors;
}

PtrInterface::NotifieeConst::~NotifieeConst() {
  if (registered_) leave();
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  registered_ = registered;
  if (registered) {
    join();
  } else {
    leave();
  }
}

void PtrInterface::NotifieeConst::notifierBaseIs(const PtrInterface* n) {
  if (n && !kilnAcceptsNotifier(n)) n = nullptr;
  if (n == notifier_.ptr()) return;
  // Hold the old notifier until this notifiee has left its list.
  Ptr<const PtrInterface> old = notifier_;
  if (registered_) leave();
  notifier_ = n;
  if (registered_) join();
}

void PtrInterface::NotifieeConst::join() {
  if (!notifier_) return;
  if (NotifieeList* list = notifier_->notifieeList()) list->notifieeIs(this);
}

void PtrInterface::NotifieeConst::leave() {
  if (!notifier_) return;
  if (NotifieeList* list = notifier_->notifieeList()) list->notifieeDel(this);
}

}  // namespace Kiln
