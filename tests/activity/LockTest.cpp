#include "Kiln/Lock.h"

#include <errno.h>

#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "Kiln/Exception.h"

namespace {

using Kiln::ErrnoException;
using Kiln::InternalException;
using Kiln::Lock;
using Kiln::LockGuard;
using Kiln::UnlockAnchor;

// A lock whose next take or release fails with a chosen error number, for the
// failures an error-checking mutex cannot be made to produce on demand.
class FailingLock : public Lock {
 public:
  int lockError = 0;
  int unlockError = 0;
  int lock() override { return lockError ? lockError : Lock::lock(); }
  int unlock() override { return unlockError ? unlockError : Lock::unlock(); }
};

bool heldByAnotherThread(const Lock& lock) {
  bool held = true;
  std::thread([&] { held = lock.heldByCurrentThread(); }).join();
  return held;
}

bool anotherThreadCanTake(Lock& lock) {
  int error = -1;
  std::thread([&] {
    error = lock.tryLock();
    if (error == 0) lock.unlock();
  }).join();
  return error == 0;
}

TEST(Lock, TakingItAgainFromTheOwningThreadFailsWithEdeadlk) {
  Lock lock;
  ASSERT_EQ(lock.lock(), 0);
  EXPECT_EQ(lock.lock(), EDEADLK);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(Lock, ReleasingALockThisThreadDoesNotHoldFailsWithEperm) {
  Lock lock;
  EXPECT_EQ(lock.unlock(), EPERM);
  ASSERT_EQ(lock.lock(), 0);
  int error = 0;
  std::thread([&] { error = lock.unlock(); }).join();
  EXPECT_EQ(error, EPERM);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(Lock, KnowsWhichThreadHoldsIt) {
  Lock lock;
  EXPECT_FALSE(lock.heldByCurrentThread());
  ASSERT_EQ(lock.lock(), 0);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_FALSE(heldByAnotherThread(lock));
  ASSERT_EQ(lock.unlock(), 0);
  EXPECT_FALSE(lock.heldByCurrentThread());
}

TEST(Lock, TryLockTakesOnlyAFreeLock) {
  Lock lock;
  ASSERT_EQ(lock.tryLock(), 0);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.tryLock(), EBUSY);
  EXPECT_FALSE(anotherThreadCanTake(lock));
  ASSERT_EQ(lock.unlock(), 0);
  EXPECT_TRUE(anotherThreadCanTake(lock));
}

TEST(Lock, IsReleasableUnlessToldOtherwise) {
  Lock lock;
  EXPECT_TRUE(lock.releasable());
  lock.releasableIs(false);
  EXPECT_FALSE(lock.releasable());
  EXPECT_FALSE(Lock(false).releasable());
}

TEST(UnlockAnchor, ReleasesForItsScopeAndTakesTheLockBack) {
  Lock lock;
  ASSERT_EQ(lock.lock(), 0);
  {
    UnlockAnchor guard(&lock);
    EXPECT_FALSE(lock.heldByCurrentThread());
    EXPECT_TRUE(anotherThreadCanTake(lock));
  }
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_FALSE(anotherThreadCanTake(lock));
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(UnlockAnchor, RefusesAnUnreleasableLockWithoutReleasingIt) {
  Lock lock(false);
  ASSERT_EQ(lock.lock(), 0);
  bool bodyRan = false;
  try {
    UnlockAnchor guard(&lock);
    bodyRan = true;
    FAIL() << "an unreleasable lock was released";
  } catch (const InternalException& e) {
    EXPECT_STREQ(e.what(), "Lock Protocol exception -- unlocking an unreleasable lock");
  }
  EXPECT_FALSE(bodyRan);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(UnlockAnchor, ReleasingALockNotHeldThrowsWithTheErrorNumber) {
  Lock lock;
  try {
    UnlockAnchor guard(&lock);
    FAIL() << "released a lock this thread does not hold";
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EPERM);
    EXPECT_EQ(e.text(), "Failed to release the lock: " + Kiln::errorString(EPERM));
    EXPECT_STREQ(e.what(), "Failed to release the lock: Operation not permitted");
  }
  EXPECT_FALSE(lock.heldByCurrentThread());
}

TEST(UnlockAnchor, ReleasingTheActivityLockNotHeldSaysToTakeIt) {
  Lock* activity = Kiln::ActivityUnlockAnchor::lock();
  ASSERT_FALSE(activity->heldByCurrentThread());
  try {
    UnlockAnchor guard(activity);
    FAIL() << "released the activity lock this thread does not hold";
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EPERM);
    EXPECT_NE(dynamic_cast<const Kiln::ActivityLockNotHeldException*>(&e), nullptr);
    EXPECT_STREQ(e.what(),
                 "Failed to release the lock: Operation not permitted -- the activity lock is not "
                 "held by this thread: take it with Kiln::ActivityLockGuard before calling the "
                 "next-hop manager");
    EXPECT_EQ(e.text(), e.what());
  }
  EXPECT_FALSE(activity->heldByCurrentThread());
}

TEST(UnlockAnchor, DestructionFindingTheLockAlreadyTakenThrows) {
  Lock lock;
  ASSERT_EQ(lock.lock(), 0);
  try {
    UnlockAnchor guard(&lock);
    ASSERT_EQ(lock.lock(), 0);
  } catch (const InternalException& e) {
    EXPECT_STREQ(e.what(), "Lock was already grabbed in UnlockAnchor destructor!");
    EXPECT_TRUE(lock.heldByCurrentThread());
    EXPECT_EQ(lock.unlock(), 0);
    return;
  }
  FAIL() << "no exception from the destructor";
}

TEST(UnlockAnchor, DestructionFailingOtherwiseThrowsWithTheErrorNumber) {
  FailingLock lock;
  ASSERT_EQ(lock.lock(), 0);
  try {
    UnlockAnchor guard(&lock);
    lock.lockError = EINVAL;
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EINVAL);
    EXPECT_STREQ(e.what(), "Failed to grab lock: Invalid argument");
    return;
  }
  FAIL() << "no exception from the destructor";
}

TEST(UnlockAnchor, AFailedRetakeDoesNotReplaceAnExceptionInFlight) {
  Lock lock;
  ASSERT_EQ(lock.lock(), 0);
  testing::internal::CaptureStderr();
  try {
    UnlockAnchor guard(&lock);
    ASSERT_EQ(lock.lock(), 0);
    throw std::runtime_error("chip call failed");
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "chip call failed");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Lock was already grabbed in UnlockAnchor destructor! "
            "(ignored: another exception is in flight)\n");
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(UnlockAnchor, RetakesTheLockWhileAnExceptionLeavesItsScope) {
  Lock lock;
  ASSERT_EQ(lock.lock(), 0);
  EXPECT_THROW(
      {
        UnlockAnchor guard(&lock);
        throw std::runtime_error("chip call failed");
      },
      std::runtime_error);
  EXPECT_TRUE(lock.heldByCurrentThread());
  EXPECT_EQ(lock.unlock(), 0);
}

TEST(ActivityUnlockAnchor, HandsOutOneReleasableLock) {
  Lock* lock = Kiln::ActivityUnlockAnchor::lock();
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(Kiln::ActivityUnlockAnchor::lock(), lock);
  EXPECT_TRUE(lock->releasable());
}

TEST(LockGuard, HoldsTheLockForItsScope) {
  Lock lock;
  {
    LockGuard guard(&lock);
    EXPECT_TRUE(guard.took());
    EXPECT_TRUE(lock.heldByCurrentThread());
    EXPECT_FALSE(anotherThreadCanTake(lock));
  }
  EXPECT_FALSE(lock.heldByCurrentThread());
  EXPECT_TRUE(anotherThreadCanTake(lock));
}

TEST(LockGuard, NestsWithoutReleasingWhatItDidNotTake) {
  Lock lock;
  LockGuard outer(&lock);
  {
    LockGuard inner(&lock);
    EXPECT_FALSE(inner.took());
  }
  EXPECT_TRUE(lock.heldByCurrentThread());
}

TEST(LockGuard, ThrowsWhenTheLockCannotBeTaken) {
  FailingLock lock;
  lock.lockError = EINVAL;
  try {
    LockGuard guard(&lock);
    FAIL() << "the guard did not report the failure";
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EINVAL);
    EXPECT_STREQ(e.what(), "Failed to grab lock: Invalid argument");
  }
}

TEST(LockGuard, ThrowsWhenTheLockWasReleasedBehindItsBack) {
  Lock lock;
  try {
    LockGuard guard(&lock);
    ASSERT_EQ(lock.unlock(), 0);
  } catch (const ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EPERM);
    EXPECT_STREQ(e.what(), "Failed to release the lock: Operation not permitted");
    return;
  }
  FAIL() << "no exception from the destructor";
}

TEST(ActivityLockGuard, HoldsTheActivityLockSoThatAnUnlockAnchorCanReleaseIt) {
  Lock* activity = Kiln::ActivityUnlockAnchor::lock();
  ASSERT_FALSE(activity->heldByCurrentThread());
  {
    Kiln::ActivityLockGuard guard;
    EXPECT_TRUE(activity->heldByCurrentThread());
    {
      UnlockAnchor chipCall(activity);
      EXPECT_FALSE(activity->heldByCurrentThread());
      EXPECT_TRUE(anotherThreadCanTake(*activity));
    }
    EXPECT_TRUE(activity->heldByCurrentThread());
  }
  EXPECT_FALSE(activity->heldByCurrentThread());
}

}  // namespace
