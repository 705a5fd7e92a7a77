#include "Kiln/Clock.h"

#include <time.h>

#include <cmath>

#include "Kiln/Exception.h"
#include "Kiln/Lock.h"

namespace Kiln {

Clock::Notifiee::~Notifiee() {
  if (notifier_) notifier_->expiryDel(this);
}

void Clock::Notifiee::notifierIs(const Ptr<Clock>& clock) {
  if (clock == notifier_) return;
  if (notifier_) notifier_->expiryDel(this);
  notifier_ = clock;
  if (notifier_) notifier_->expiryIs(this);
}

void Clock::Notifiee::timeMinIs(Seconds time) {
  if (std::isnan(time)) throw RangeException("timeMinIs: time is not a number");
  if (time == timeMin_) return;
  if (notifier_) notifier_->expiryDel(this);
  timeMin_ = time;
  if (notifier_) notifier_->expiryIs(this);
}

Seconds Clock::nextExpiry() const { return schedule_.empty() ? never : schedule_.begin()->time; }

void Clock::expiryIs(Notifiee* notifiee) {
  if (notifiee->timeMin_ == never) return;
  notifiee->armingOrder_ = ++armings_;
  const bool earliest = notifiee->timeMin_ < nextExpiry();
  schedule_.insert(Expiry{notifiee->timeMin_, notifiee->armingOrder_, notifiee});
  if (earliest && wakeup_) wakeup_();
}

void Clock::expiryDel(Notifiee* notifiee) {
  if (notifiee->timeMin_ == never) return;
  schedule_.erase(Expiry{notifiee->timeMin_, notifiee->armingOrder_, notifiee});
}

U32 Clock::runExpiries(Seconds until) {
  LockGuard hold(ActivityUnlockAnchor::lock());
  U32 ran = 0;
  // The schedule is read afresh after every handler: handlers arm, re-arm
  // and destroy notifiees.
  while (!schedule_.empty() && schedule_.begin()->time <= until) {
    const Expiry expiry = *schedule_.begin();
    schedule_.erase(schedule_.begin());
    Ptr<Notifiee> keep(expiry.notifiee);
    keep->timeMin_ = never;
    expiryReached(expiry.time);
    ++ran;
    keep->onTime();
  }
  return ran;
}

Seconds MonotonicClock::now() const {
  timespec reading;
  clock_gettime(CLOCK_MONOTONIC, &reading);
  return static_cast<Seconds>(reading.tv_sec) + static_cast<Seconds>(reading.tv_nsec) * 1e-9;
}

void ManualClock::timeIs(Seconds time) {
  // Written so that a time that is not a number is refused too.
  if (!(time >= time_)) throw RangeException("ManualClock time may not go backwards");
  runExpiries(time);
  // A handler may itself have moved the clock past time; never go back.
  if (time_ < time) time_ = time;
}

void ManualClock::elapse(Seconds delta) {
  if (!(delta >= 0)) throw RangeException("ManualClock time may not go backwards");
  time_ += delta;
}

void ManualClock::expiryReached(Seconds time) {
  // An expiry armed in the past fires at the current time: time never goes
  // back.
  if (time > time_) time_ = time;
}

}  // namespace Kiln
