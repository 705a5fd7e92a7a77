// Clocks and their timers.
//
// A clock keeps a schedule of expiries, one per armed notifiee: a notifiee
// arms itself with timeMinIs(absolute time), and its onTime() runs once when
// the clock reaches that time. Two clocks exist: MonotonicClock, the system's
// monotonic time, whose expiries the event loop runs from its wait timeout;
// and ManualClock, whose time moves only when its owner says so, for tests and
// simulations that must not sleep.
#pragma once

#include <functional>
#include <limits>
#include <set>

#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

class Clock : public PtrInterface {
 public:
  // The time of an expiry that never comes: arming a notifiee with it
  // disarms it.
  static constexpr Seconds never = std::numeric_limits<Seconds>::infinity();

  // A timer on a clock. Notifiees live on the heap and are held by Ptr (the
  // clock holds one while onTime() runs, so a handler may drop the last other
  // reference to its own notifiee). A notifiee holds its clock; the clock
  // does not hold its notifiees, and a notifiee destroyed while armed simply
  // leaves the schedule.
  class Notifiee : public PtrInterface {
   public:
    Notifiee() = default;
    ~Notifiee() override;
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;

    // The clock this notifiee is on, or null.
    const Ptr<Clock>& notifier() const { return notifier_; }

    // Joins clock (null leaves the current one). A pending expiry moves with
    // the notifiee: it is armed on the new clock at the same absolute time.
    void notifierIs(const Ptr<Clock>& clock);

    // The absolute time of the pending expiry, or never when disarmed. It
    // becomes never just before onTime() runs.
    Seconds timeMin() const { return timeMin_; }

    // Arms the one expiry of this notifiee at the absolute time `time`
    // (re-arming moves it; a time already reached fires at the clock's next
    // run), or disarms it with never. Setting the time it already has
    // changes nothing, not even its place among expiries of the same time.
    // Throws RangeException for a time that is not a number.
    void timeMinIs(Seconds time);

    // Called once per arming when the clock reaches timeMin(), on the
    // thread that runs the clock's expiries, with the activity lock held.
    // The handler may re-arm this notifiee.
    virtual void onTime() {}

   private:
    friend class Clock;
    Ptr<Clock> notifier_;
    Seconds timeMin_ = never;
    // Arming order on the clock, which breaks ties between equal times.
    U64 armingOrder_ = 0;
  };

  // The clock's current time in seconds.
  virtual Seconds now() const = 0;

  // True when time moves by itself, so that a loop may wait for the next
  // expiry; false when it moves only when told to (ManualClock).
  virtual bool advancesByItself() const = 0;

  // The time of the earliest pending expiry, or never.
  Seconds nextExpiry() const;

  // The number of armed notifiees on this clock.
  U32 pendingExpiries() const { return static_cast<U32>(schedule_.size()); }

  // Runs onTime() of every notifiee whose time is at or before `until`,
  // earliest first and, for equal times, in arming order; expiries armed by
  // the handlers themselves run too when they fall at or before `until`.
  // The handlers run with the activity lock held: it is taken for the
  // duration unless this thread holds it already. Returns the number of
  // handlers run. An exception from a handler leaves the run at once; the
  // expiries not yet run stay pending.
  U32 runExpiries(Seconds until);

  // Sets the function called whenever an arming makes the earliest pending
  // expiry earlier, so that an event loop waiting for the old earliest one
  // can shorten its wait. Empty for none.
  void wakeupIs(std::function<void()> wakeup) { wakeup_ = std::move(wakeup); }

 protected:
  // Told, just before an expiry's handler runs, the time it was armed for.
  virtual void expiryReached(Seconds) {}

 private:
  struct Expiry {
    Seconds time;
    U64 order;
    Notifiee* notifiee;
    bool operator<(const Expiry& other) const {
      return time < other.time || (time == other.time && order < other.order);
    }
  };

  void expiryIs(Notifiee* notifiee);
  void expiryDel(Notifiee* notifiee);

  std::set<Expiry> schedule_;
  U64 armings_ = 0;
  std::function<void()> wakeup_;
};

// The system's monotonic time (CLOCK_MONOTONIC): seconds since an arbitrary
// start, never going back.
class MonotonicClock : public Clock {
 public:
  Seconds now() const override;
  bool advancesByItself() const override { return true; }
};

// A clock whose time moves only through timeIs() and advance(). Nothing
// sleeps: moving the time runs every expiry it passes, in time order, and
// while a handler runs now() reads the time that handler was armed for.
class ManualClock : public Clock {
 public:
  explicit ManualClock(Seconds start = 0) : time_(start) {}

  Seconds now() const override { return time_; }
  bool advancesByItself() const override { return false; }

  // Moves the time forward to `time`, running every expiry at or before it
  // (including those that handlers arm on the way) under the activity lock,
  // which is taken for the duration unless this thread holds it already.
  // Throws RangeException when `time` is earlier than now() or not a
  // number. A handler that
  // keeps re-arming itself at the current time never lets this return.
  void timeIs(Seconds time);

  // timeIs(now() + delta).
  void advance(Seconds delta) { timeIs(time_ + delta); }

  // Time taken by the work in progress (a simulated chip access, say):
  // now() moves forward by delta at once, but no expiry runs; those it
  // passes fire at the next timeIs() or runExpiries(), as a real loop runs
  // the timers that fell due while a handler was busy. Throws
  // RangeException when delta is negative or not a number.
  void elapse(Seconds delta);

 protected:
  void expiryReached(Seconds time) override;

 private:
  Seconds time_;
};

// The current time of the process's activity manager's clock.
Seconds now();

}  // namespace Kiln
