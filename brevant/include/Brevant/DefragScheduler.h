// The timer of a DefragManager, known there as
// DefragManager::KilnDefragScheduler.
#pragma once

#include "Kiln/Allocator.h"
#include "Kiln/Clock.h"
#include "Kiln/Ptr.h"

namespace Brevant {

class DefragManager;

// A notifiee of the clock whose one expiry starts a defragmentation run of
// its manager. It is created on its clock, armed at time 0; the manager
// disarms it at once and arms it whenever a run is wanted.
class DefragScheduler : public Kiln::Clock::Notifiee, public Kiln::Allocated<DefragScheduler> {
 public:
  using Kiln::Allocated<DefragScheduler>::operator new;
  using Kiln::Allocated<DefragScheduler>::operator delete;

  explicit DefragScheduler(const Kiln::Ptr<Kiln::Clock>& clock);

  // The manager whose runs this fires, or null once that manager is being
  // torn down. Not a reference: the manager owns the scheduler.
  DefragManager* defragManager() const { return defragManager_; }
  void defragManagerIs(DefragManager* manager) { defragManager_ = manager; }

  // Calls the manager's handleDefragSchedulerTimeOut(); ignored when the
  // manager is gone.
  void onTime() override;

 private:
  DefragManager* defragManager_ = nullptr;
};

}  // namespace Brevant
