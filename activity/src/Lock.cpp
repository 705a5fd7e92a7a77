#include "Kiln/Lock.h"

#include <errno.h>

#include <cstdio>
#include <exception>

namespace Kiln {
namespace {

// Throws error, unless an exception that a guard's scope did not see at its
// start is unwinding the stack: a second exception would end in
// std::terminate, so the failure is reported on stderr and the exception in
// flight carries on.
template <class E>
void raiseUnlessUnwinding(int uncaughtAtEntry, const E& error) {
  if (std::uncaught_exceptions() > uncaughtAtEntry) {
    std::fprintf(stderr, "%s (ignored: another exception is in flight)\n", error.what());
    return;
  }
  throw error;
}

}  // namespace

ActivityLockNotHeldException::ActivityLockNotHeldException()
    : ErrnoException(EPERM, "Failed to release the lock"),
      text_(std::string(ErrnoException::what()) +
            " -- the activity lock is not held by this thread: take it with "
            "Kiln::ActivityLockGuard before calling the next-hop manager") {}

Lock::Lock(bool releasable) : owner_(std::thread::id()), releasable_(releasable) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

Lock::~Lock() { pthread_mutex_destroy(&mutex_); }

int Lock::lock() {
  int error = pthread_mutex_lock(&mutex_);
  if (error == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return error;
}

int Lock::tryLock() {
  int error = pthread_mutex_trylock(&mutex_);
  if (error == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return error;
}

int Lock::unlock() {
  // The error-checking mutex would answer EPERM too; answering here keeps
  // thread checkers from flagging a release by a thread that does not hold it.
  if (!heldByCurrentThread()) return EPERM;
  // The owner is cleared before the release: once released, another thread
  // may take the lock and write its own id.
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  return pthread_mutex_unlock(&mutex_);
}

bool Lock::heldByCurrentThread() const {
  return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

UnlockAnchor::UnlockAnchor(Lock* lock) : lock_(lock), uncaughtAtEntry_(std::uncaught_exceptions()) {
  if (!lock_->releasable()) {
    throw InternalException("Lock Protocol exception -- unlocking an unreleasable lock");
  }
  int error = lock_->unlock();
  if (error == EPERM && lock_ == ActivityUnlockAnchor::lock()) throw ActivityLockNotHeldException();
  if (error != 0) throw ErrnoException(error, "Failed to release the lock");
}

UnlockAnchor::~UnlockAnchor() noexcept(false) {
  int error = lock_->lock();
  if (error == EDEADLK) {
    raiseUnlessUnwinding(uncaughtAtEntry_,
                         InternalException("Lock was already grabbed in UnlockAnchor destructor!"));
  } else if (error != 0) {
    raiseUnlessUnwinding(uncaughtAtEntry_, ErrnoException(error, "Failed to grab lock"));
  }
}

Lock* ActivityUnlockAnchor::lock() {
  // Never destroyed: code running at process exit may still release and take
  // it.
  static Lock* const activityLock = new Lock(true);
  return activityLock;
}

LockGuard::LockGuard(Lock* lock)
    : lock_(lock), took_(false), uncaughtAtEntry_(std::uncaught_exceptions()) {
  if (lock_->heldByCurrentThread()) return;
  int error = lock_->lock();
  if (error != 0) throw ErrnoException(error, "Failed to grab lock");
  took_ = true;
}

LockGuard::~LockGuard() noexcept(false) {
  if (!took_) return;
  int error = lock_->unlock();
  if (error != 0) {
    raiseUnlessUnwinding(uncaughtAtEntry_, ErrnoException(error, "Failed to release the lock"));
  }
}

}  // namespace Kiln
