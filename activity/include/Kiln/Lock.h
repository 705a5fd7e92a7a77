// The agent's activity lock and the guards that release and take it.
//
// Everything the agent does runs on its activity thread while that thread
// holds the activity lock. The lock is given up only around slow calls (a
// chip register access, the event loop's wait) so that other threads of the
// agent may run meanwhile; UnlockAnchor is the guard for that.
#pragma once

#include <pthread.h>

#include <atomic>
#include <string>
#include <thread>

#include "Kiln/Exception.h"

namespace Kiln {

// An error-checking mutex: taking it again from the thread that holds it
// fails with EDEADLK instead of deadlocking, and releasing it from a thread
// that does not hold it fails with EPERM. It also remembers its owner and
// whether code may release it temporarily (releasable).
class Lock {
 public:
  explicit Lock(bool releasable = true);
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Takes the mutex, waiting for it if another thread holds it. Returns 0, or
  // the error number (EDEADLK when this thread holds it already).
  // Virtual so that a test can stand in a lock that fails.
  virtual int lock();

  // Releases the mutex. Returns 0, or the error number (EPERM when this thread
  // does not hold it).
  virtual int unlock();

  // Takes the mutex only if it is free. Returns 0, or EBUSY when a thread
  // (this one included) holds it.
  int tryLock();

  // True when the calling thread holds the lock. Any thread may ask.
  bool heldByCurrentThread() const;

  // Whether code may release the lock for the duration of a slow call.
  bool releasable() const { return releasable_.load(std::memory_order_relaxed); }
  void releasableIs(bool releasable) { releasable_.store(releasable, std::memory_order_relaxed); }

 private:
  pthread_mutex_t mutex_;
  // Only the owning thread writes its own id here, so a thread comparing it
  // with its own id never sees a stale match.
  std::atomic<std::thread::id> owner_;
  std::atomic<bool> releasable_;
};

// What an UnlockAnchor on the activity lock throws when the calling thread
// does not hold the lock: the usual release error (EPERM, text "Failed to
// release the lock: Operation not permitted"), with the text going on to say
// what the program forgot, since this is the first error a new program meets.
class ActivityLockNotHeldException : public ErrnoException {
 public:
  ActivityLockNotHeldException();
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

// Scope guard that gives up a lock the current thread holds for the duration
// of a slow call, and takes it back at the end of the scope.
//
//   {
//     Kiln::UnlockAnchor guard(Kiln::ActivityUnlockAnchor::lock());
//     status = chipCall(...);  // no shared state touched in here
//   }
//
// The destructor throws when the lock cannot be taken back. Throwing from a
// destructor while another exception is already unwinding the stack would
// call std::terminate, so in that case the failure is written to stderr and
// the exception in flight carries on; the guard compares
// std::uncaught_exceptions() with its value at construction to tell.
class UnlockAnchor {
 public:
  // Releases lock. Throws InternalException("Lock Protocol exception --
  // unlocking an unreleasable lock") without touching the lock when it is not
  // releasable, and ErrnoException(e, "Failed to release the lock") when the
  // release fails with e (for example EPERM: this thread does not hold it;
  // for the activity lock, ActivityLockNotHeldException then).
  explicit UnlockAnchor(Lock* lock);

  // Takes the lock back. Throws InternalException("Lock was already grabbed
  // in UnlockAnchor destructor!") when this thread holds it already, and
  // ErrnoException(e, "Failed to grab lock") for any other failure e.
  ~UnlockAnchor() noexcept(false);

  UnlockAnchor(const UnlockAnchor&) = delete;
  UnlockAnchor& operator=(const UnlockAnchor&) = delete;

 private:
  Lock* lock_;
  int uncaughtAtEntry_;
};

// Access to the process's activity lock.
class ActivityUnlockAnchor {
 public:
  // Returns the agent's activity lock, held by the thread that runs the
  // agent's activities (the event loop's thread, or whoever holds an
  // ActivityLockGuard). It exists for the life of the process and is
  // releasable.
  static Lock* lock();
};

// Holds a lock for a scope. Re-entrant: it takes the lock unless the calling
// thread holds it already, and releases at the end only what it took, so
// nested guards (a test holding the activity lock around a loop helper that
// takes it too) work.
class LockGuard {
 public:
  // Throws ErrnoException(e, "Failed to grab lock") when taking fails with e.
  explicit LockGuard(Lock* lock);

  // Releases the lock if this guard took it. Throws ErrnoException(e,
  // "Failed to release the lock") when that fails with e, unless another
  // exception is unwinding (then the failure goes to stderr, as for
  // UnlockAnchor).
  ~LockGuard() noexcept(false);

  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

  // True when this guard took the lock (and will release it).
  bool took() const { return took_; }

 private:
  Lock* lock_;
  bool took_;
  int uncaughtAtEntry_;
};

// Holds the activity lock for a scope: what tests and programs that call the
// library directly (outside the event loop) use, so that the library's chip
// calls find the lock held and can release it around each call.
class ActivityLockGuard : public LockGuard {
 public:
  ActivityLockGuard() : LockGuard(ActivityUnlockAnchor::lock()) {}
};

}  // namespace Kiln
