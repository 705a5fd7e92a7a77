// The defragmenter's record and timer: creation, arming and the expiry.
#include "Brevant/DefragManager.h"

#include <cmath>

#include "Brevant/NextHopTrace.h"
#include "Kiln/ActivityManager.h"

namespace Brevant {

DefragScheduler::DefragScheduler(const Kiln::Ptr<Kiln::Clock>& clock) {
  notifierIs(clock);
  timeMinIs(0);
}

void DefragScheduler::onTime() {
  // A manager being torn down has cleared its back pointer: the expiry is
  // ignored.
  if (defragManager_) defragManager_->handleDefragSchedulerTimeOut();
}

Kiln::Ptr<DefragManager> DefragManager::DefragManagerIs(NextHopManager* nhm) {
  Kiln::Ptr<DefragManager> manager = Kiln::validPtr(Kiln::kilnNew<DefragManager>(nhm));
  manager->hasNotificationActiveIs(true);
  return manager;
}

void DefragManager::constructHook() { handleDefragInitialized(); }

void DefragManager::destructHook() {
  // The clock may still hold the scheduler (while its onTime() runs); it
  // must not reach back into this manager.
  if (defragScheduler_) defragScheduler_->defragManagerIs(nullptr);
}

S32 DefragManager::handleDefragInitialized() {
  NH_TRACE(8, "handleDefragInitialized");
  if (!initialized_) {
    Kiln::Ptr<DefragScheduler> scheduler =
        defragSchedulerIs(Kiln::ActivityManager::instance().clock());
    scheduler->defragManagerIs(this);
    scheduler->timeMinIs(Kiln::Clock::never);
  }
  initializedIs(true);
  return 0;
}

void DefragManager::startDefragScheduler() {
  NH_TRACE(8, "startDefragScheduler");
  // Re-arming moves the one pending expiry. A delay that is not a finite,
  // non-negative number (it can be set by name) arms the timer at once
  // rather than throwing out of the manager operation that asked for a run.
  if (!initialized_) return;
  const double delay = std::isfinite(defragDelay_) && defragDelay_ >= 0 ? defragDelay_ : 0;
  defragScheduler_->timeMinIs(Kiln::now() + delay);
}

}  // namespace Brevant
