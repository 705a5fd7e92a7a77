// The process's event loop: it runs the agent's activities (clock expiries
// and file-descriptor readiness) on one thread that holds the activity lock.
//
// The loop thread gives the lock up only while it waits in poll (and the
// library gives it up around each chip call), so other threads of the agent
// may take it in between. A thread other than the loop's that changes the
// loop's timers or file descriptors must hold the activity lock; the loop is
// woken to notice the change.
//
// Driving a simulation with a ManualClock: switch the manager to the manual
// clock with clockIs() before anything that takes the clock is created (a
// notifiee stays with the clock it was put on). The loop then never waits on
// time; the simulation moves time with ManualClock::advance() or timeIs(),
// which runs the due expiries under the activity lock (taking it unless the
// caller holds it), and uses runOnce(0) or runUntil() for file descriptors.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <vector>

#include "Kiln/Clock.h"
#include "Kiln/Lock.h"
#include "Kiln/Ptr.h"

namespace Kiln {

// Readiness of a file descriptor, served by the event loop. Register it with
// ActivityManager::fdNotifieeIs(); the manager holds it until fdNotifieeDel().
// The handlers run on the loop thread with the activity lock held.
class FdNotifiee : public PtrInterface {
 public:
  // Watches fd, for reading only until told otherwise. The notifiee does not
  // own fd and never closes it.
  explicit FdNotifiee(int fd) : fd_(fd) {}
  FdNotifiee(const FdNotifiee&) = delete;
  FdNotifiee& operator=(const FdNotifiee&) = delete;

  // The watched file descriptor.
  int fd() const { return fd_; }

  // Whether onReadable() is wanted (default true). An end of file, a hang-up
  // or an error on fd also count as readable.
  bool readableWanted() const { return readableWanted_; }
  void readableWantedIs(bool wanted);

  // Whether onWritable() is wanted (default false).
  bool writableWanted() const { return writableWanted_; }
  void writableWantedIs(bool wanted);

  // Called when fd can be read without blocking (or has hung up).
  virtual void onReadable() {}
  // Called when fd can be written without blocking.
  virtual void onWritable() {}

 private:
  int fd_;
  bool readableWanted_ = true;
  bool writableWanted_ = false;
};

class ActivityManager {
 public:
  // The one manager of the process, created on first use with a
  // MonotonicClock and never destroyed.
  static ActivityManager& instance();

  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The activity lock (ActivityUnlockAnchor::lock()).
  Lock* lock() const { return ActivityUnlockAnchor::lock(); }

  // The clock whose expiries the loop runs and that Kiln::now() reads.
  const Ptr<Clock>& clock() const { return clock_; }

  // Switches to another clock (for tests and simulations, a ManualClock).
  // Notifiees stay on the clock they were put on, so switch before anything
  // takes the clock. Throws RangeException("null ValidPtr") for null.
  void clockIs(const Ptr<Clock>& clock);

  // Registers notifiee under its fd, replacing any other notifiee of that fd.
  void fdNotifieeIs(const Ptr<FdNotifiee>& notifiee);
  // The notifiee registered for fd, or null.
  Ptr<FdNotifiee> fdNotifiee(int fd) const;
  // Unregisters the notifiee of fd and returns it (null when none). A
  // notifiee unregistered by a handler gets no further calls, even if its fd
  // was found ready in the same round.
  Ptr<FdNotifiee> fdNotifieeDel(int fd);
  // The number of registered notifiees.
  U32 fdNotifiees() const { return static_cast<U32>(fdNotifiees_.size()); }

  // One round of the loop on the calling thread: waits at most `timeout`
  // seconds of real time (never: no limit; 0: just look) for a registered fd
  // to become ready, for the next expiry of a clock that advances by itself,
  // or for stop(); then runs the fd handlers and the clock's due expiries.
  // Holds the activity lock throughout (taking it unless this thread holds it
  // already) except while waiting. Does not wait at all when an expiry is
  // already due or a stop is pending. A notifiee whose fd was closed while
  // registered is unregistered. Returns the number of handlers run.
  U32 runOnce(Seconds timeout);

  // Runs rounds until done() returns true (true), stop() is called (false)
  // or `timeout` seconds of real time have passed (false). done() is asked
  // before every round, with the activity lock held.
  bool runUntil(const std::function<bool()>& done, Seconds timeout = Clock::never);

  // Runs the loop on the calling thread until stop().
  void run();

  // Makes the running run() or runUntil() return after its current round;
  // when none is running, the next one returns at once. Callable from a
  // handler or from any thread, without the activity lock.
  void stop();

 private:
  friend class FdNotifiee;

  ActivityManager();

  // Cuts short the loop's wait, if it is waiting, so that it notices a
  // changed timer or registration. The caller holds the activity lock.
  void wake();
  void signalWakeFd();
  void drainWakeFd();
  // The wait of one round: `timeout` cut to the clock's next expiry.
  Seconds waitFor(Seconds timeout) const;
  bool registered(const Ptr<FdNotifiee>& notifiee) const;

  Ptr<Clock> clock_;
  // Real time for the timeouts of runUntil(), whatever clock_ is.
  Ptr<Clock> realTime_;
  std::map<int, Ptr<FdNotifiee>> fdNotifiees_;
  // An eventfd that stop() and wake() write to end the loop's wait.
  int wakeFd_;
  std::atomic<bool> waiting_{false};
  std::atomic<bool> stopRequested_{false};
};

}  // namespace Kiln
