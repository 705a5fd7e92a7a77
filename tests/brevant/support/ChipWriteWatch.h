// Test code run at every chip write, through the simulator's one write
// observer: the hitless checker over a manager, and optionally a manual
// clock that moves on by a step at each write (so that a defragmentation
// pass runs out of its time budget after a known number of writes).
#pragma once

#include "Brevant/HitlessChecker.h"
#include "Brevant/NextHopManager.h"
#include "FmSim/FmSim.h"
#include "Kiln/Clock.h"

namespace NextHopTest {

class ChipWriteWatch {
 public:
  // Checks manager at every write from now on; the chip is read from the
  // simulator's registers.
  explicit ChipWriteWatch(Brevant::NextHopManager& manager)
      : checker_(manager, [](U16 index) { return FmSim::tableWord(index); }) {
    FmSim::writeObserverIs([this](const FmSim::Call&, const U64*) { onWrite(); });
  }
  ~ChipWriteWatch() { FmSim::writeObserverIs({}); }
  ChipWriteWatch(const ChipWriteWatch&) = delete;
  ChipWriteWatch& operator=(const ChipWriteWatch&) = delete;

  Brevant::HitlessChecker& checker() { return checker_; }

  // Whether writes are checked (true at first). Off around operations that
  // change a group's words on purpose (updates), where the records follow
  // the chip only after the write.
  void checkingIs(bool checking) { checking_ = checking; }

  // Moves clock on by step at every write (step 0: no longer).
  void clockStepIs(const Kiln::Ptr<Kiln::ManualClock>& clock, Kiln::Seconds step) {
    clock_ = clock;
    step_ = step;
  }

  // Returns the number of writes seen.
  U64 writes() const { return writes_; }
  // Returns the clock's time after the last step made, or -1 before any.
  Kiln::Seconds lastSteppedTime() const { return lastSteppedTime_; }

 private:
  void onWrite() {
    ++writes_;
    if (checking_) checker_.check();
    if (clock_ && step_ > 0) {
      clock_->advance(step_);
      lastSteppedTime_ = clock_->now();
    }
  }

  Brevant::HitlessChecker checker_;
  bool checking_ = true;
  Kiln::Ptr<Kiln::ManualClock> clock_;
  Kiln::Seconds step_ = 0;
  U64 writes_ = 0;
  Kiln::Seconds lastSteppedTime_ = -1;
};

}  // namespace NextHopTest
