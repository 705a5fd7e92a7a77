#include "Kiln/ActivityManager.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif

#include "Kiln/Clock.h"
#include "Kiln/Exception.h"
#include "Kiln/Lock.h"

namespace {

using Kiln::ActivityManager;
using Kiln::Clock;
using Kiln::FdNotifiee;
using Kiln::ManualClock;
using Kiln::Ptr;
using Kiln::Seconds;

// UndefinedBehaviorSanitizer checks the object of every virtual call and
// member access with a pipe; while no descriptor is left it reports each one
// as made on an invalid object, so the tests that use up the descriptors do
// not run under it.
#if defined(BREVANT_UNDEFINED_SANITIZER)
constexpr bool undefinedSanitizerBuild = true;
#else
constexpr bool undefinedSanitizerBuild = false;
#endif
constexpr const char* withoutDescriptorsUnderUbsan =
    "UndefinedBehaviorSanitizer cannot check objects while no descriptor is free";

bool runningUnderValgrind() {
#if __has_include(<valgrind/valgrind.h>)
  return RUNNING_ON_VALGRIND;
#else
  return false;
#endif
}

// A safety net only: a broken loop fails the test instead of hanging it.
constexpr Seconds kPatience = 10;

class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe2(fds_, O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  int readEnd() const { return fds_[0]; }
  int writeEnd() const { return fds_[1]; }
  void put(char c) { EXPECT_EQ(write(fds_[1], &c, 1), 1); }
  void closeRead() { closeEnd(0); }
  void closeWrite() { closeEnd(1); }

 private:
  void closeEnd(int end) {
    if (fds_[end] >= 0) close(fds_[end]);
    fds_[end] = -1;
  }
  int fds_[2] = {-1, -1};
};

// Records its calls and runs optional actions.
class Watcher : public FdNotifiee {
 public:
  using FdNotifiee::FdNotifiee;
  int readable = 0;
  int writable = 0;
  bool lockHeld = false;
  std::string data;
  bool endOfFile = false;
  std::function<void()> onReadableAction;

  void onReadable() override {
    ++readable;
    lockHeld = Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread();
    char buffer[64];
    ssize_t got = read(fd(), buffer, sizeof(buffer));
    if (got > 0) data.append(buffer, static_cast<size_t>(got));
    if (got == 0) {
      endOfFile = true;
      readableWantedIs(false);
    }
    if (onReadableAction) onReadableAction();
  }
  void onWritable() override {
    ++writable;
    writableWantedIs(false);
  }
};

class Alarm : public Clock::Notifiee {
 public:
  explicit Alarm(const Ptr<Clock>& clock) { notifierIs(clock); }
  std::atomic<int> fired{0};
  bool stops = false;
  void onTime() override {
    ++fired;
    if (stops) ActivityManager::instance().stop();
  }
};

class ActivityManagerTest : public testing::Test {
 protected:
  void TearDown() override {
    manager.clockIs(savedClock);
    for (int fd : registeredFds) manager.fdNotifieeDel(fd);
    // A stop left pending by a test must not end the next test's loop.
    manager.stop();
    manager.runUntil([] { return false; });
  }
  Ptr<Watcher> watch(int fd) {
    Ptr<Watcher> watcher = new Watcher(fd);
    manager.fdNotifieeIs(watcher);
    registeredFds.push_back(fd);
    return watcher;
  }

  ActivityManager& manager = ActivityManager::instance();
  Ptr<Clock> savedClock = manager.clock();
  std::vector<int> registeredFds;
};

TEST_F(ActivityManagerTest, IsOnePerProcessWithARealClockAndTheActivityLock) {
  EXPECT_EQ(&ActivityManager::instance(), &manager);
  EXPECT_EQ(manager.lock(), Kiln::ActivityUnlockAnchor::lock());
  ASSERT_TRUE(manager.clock());
  EXPECT_TRUE(manager.clock()->advancesByItself());
}

TEST_F(ActivityManagerTest, ATimerFiresThroughRunAndItsStopEndsRun) {
  Ptr<Alarm> alarm = new Alarm(manager.clock());
  alarm->stops = true;
  alarm->timeMinIs(Kiln::now() + 0.01);
  manager.run();
  EXPECT_EQ(alarm->fired, 1);
  EXPECT_FALSE(manager.lock()->heldByCurrentThread());
}

TEST_F(ActivityManagerTest, StopFromAnotherThreadEndsRun) {
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    manager.stop();
  });
  manager.run();
  stopper.join();
  SUCCEED();
}

TEST_F(ActivityManagerTest, AStopBeforeRunMakesRunReturnAtOnce) {
  manager.stop();
  manager.run();
  // The stop was used up: the next loop runs until its own end.
  EXPECT_TRUE(manager.runUntil([] { return true; }));
}

TEST_F(ActivityManagerTest, RunUntilEndsWhenItsPredicateHolds) {
  Ptr<Alarm> alarm = new Alarm(manager.clock());
  alarm->timeMinIs(Kiln::now() + 0.01);
  EXPECT_TRUE(manager.runUntil([&] { return alarm->fired == 1; }, kPatience));
}

TEST_F(ActivityManagerTest, RunUntilGivesUpAfterItsTimeout) {
  EXPECT_FALSE(manager.runUntil([] { return false; }, 0.01));
  EXPECT_FALSE(manager.lock()->heldByCurrentThread());
}

TEST_F(ActivityManagerTest, AReadablePipeCallsOnReadableWithTheLockHeld) {
  Pipe pipe;
  Ptr<Watcher> watcher = watch(pipe.readEnd());
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pipe.put('x');
  });
  EXPECT_TRUE(manager.runUntil([&] { return watcher->data == "x"; }, kPatience));
  writer.join();
  EXPECT_TRUE(watcher->lockHeld);
  EXPECT_EQ(manager.runOnce(0), 0u);
}

TEST_F(ActivityManagerTest, AWritablePipeCallsOnWritable) {
  Pipe pipe;
  Ptr<Watcher> watcher = watch(pipe.writeEnd());
  watcher->readableWantedIs(false);
  watcher->writableWantedIs(true);
  EXPECT_EQ(manager.runOnce(kPatience), 1u);
  EXPECT_EQ(watcher->writable, 1);
  EXPECT_EQ(watcher->readable, 0);
}

TEST_F(ActivityManagerTest, AHangUpCountsAsReadable) {
  Pipe pipe;
  Ptr<Watcher> watcher = watch(pipe.readEnd());
  pipe.put('a');
  pipe.closeWrite();
  EXPECT_TRUE(manager.runUntil([&] { return watcher->endOfFile; }, kPatience));
  EXPECT_EQ(watcher->data, "a");
}

TEST_F(ActivityManagerTest, RunOnceCountsTheHandlersItRan) {
  Pipe first, second;
  Ptr<Watcher> a = watch(first.readEnd()), b = watch(second.readEnd());
  Ptr<ManualClock> clock = new ManualClock();
  manager.clockIs(clock);
  Ptr<Alarm> alarm = new Alarm(clock);
  alarm->timeMinIs(0);
  first.put('1');
  second.put('2');
  EXPECT_EQ(manager.runOnce(kPatience), 3u);
  EXPECT_EQ(a->data + b->data, "12");
  EXPECT_EQ(alarm->fired, 1);
}

TEST_F(ActivityManagerTest, ANotifieeUnregisteredByAnEarlierHandlerIsNotCalled) {
  Pipe first, second;
  Ptr<Watcher> a = watch(first.readEnd()), b = watch(second.readEnd());
  // Registrations are served in fd order.
  Ptr<Watcher> earlier = a->fd() < b->fd() ? a : b;
  Ptr<Watcher> later = a->fd() < b->fd() ? b : a;
  earlier->onReadableAction = [&] { manager.fdNotifieeDel(later->fd()); };
  first.put('1');
  second.put('2');
  EXPECT_EQ(manager.runOnce(kPatience), 1u);
  EXPECT_EQ(earlier->readable, 1);
  EXPECT_EQ(later->readable, 0);
}

TEST_F(ActivityManagerTest, KeepsOneNotifieePerFd) {
  Pipe pipe;
  Ptr<Watcher> first = watch(pipe.readEnd());
  const U32 before = manager.fdNotifiees();
  Ptr<Watcher> second = watch(pipe.readEnd());
  EXPECT_EQ(manager.fdNotifiees(), before);
  EXPECT_EQ(manager.fdNotifiee(pipe.readEnd()), Ptr<FdNotifiee>(second));
  pipe.put('z');
  manager.runOnce(kPatience);
  EXPECT_EQ(first->readable, 0);
  EXPECT_EQ(second->readable, 1);
  EXPECT_EQ(manager.fdNotifieeDel(pipe.readEnd()), Ptr<FdNotifiee>(second));
  EXPECT_FALSE(manager.fdNotifiee(pipe.readEnd()));
  EXPECT_FALSE(manager.fdNotifieeDel(pipe.readEnd()));
}

TEST_F(ActivityManagerTest, ANotifieeWhoseFdWasClosedIsUnregistered) {
  Pipe pipe;
  Ptr<Watcher> watcher = watch(pipe.readEnd());
  const int fd = pipe.readEnd();
  pipe.closeRead();
  manager.runOnce(0);
  EXPECT_FALSE(manager.fdNotifiee(fd));
  EXPECT_EQ(watcher->readable, 0);
}

TEST_F(ActivityManagerTest, ReleasesTheLockWhileWaitingAndWakesForATimerArmedMeanwhile) {
  Kiln::ActivityLockGuard held;  // another thread gets the lock only once the loop waits
  Ptr<Alarm> alarm;
  std::thread other([&] {
    Kiln::ActivityLockGuard guard;
    alarm = new Alarm(manager.clock());
    alarm->stops = true;
    alarm->timeMinIs(Kiln::now());
  });
  manager.run();
  other.join();
  EXPECT_EQ(alarm->fired, 1);
  EXPECT_TRUE(manager.lock()->heldByCurrentThread());
}

TEST_F(ActivityManagerTest, WakesForAnFdRegisteredMeanwhileByAnotherThread) {
  Kiln::ActivityLockGuard held;
  Pipe pipe;
  Ptr<Watcher> watcher;
  std::thread other([&] {
    Kiln::ActivityLockGuard guard;
    pipe.put('w');
    watcher = watch(pipe.readEnd());
    watcher->onReadableAction = [&] { manager.stop(); };
  });
  manager.run();
  other.join();
  EXPECT_EQ(watcher->data, "w");
}

TEST_F(ActivityManagerTest, NeverMovesAManualClockButRunsItsDueExpiries) {
  Ptr<ManualClock> clock = new ManualClock(100);
  manager.clockIs(clock);
  EXPECT_EQ(Kiln::now(), 100);
  Ptr<Alarm> later = new Alarm(clock), due = new Alarm(clock);
  later->timeMinIs(105);
  due->timeMinIs(100);
  EXPECT_EQ(manager.runOnce(0), 1u);
  EXPECT_EQ(due->fired, 1);
  EXPECT_FALSE(manager.runUntil([&] { return later->fired == 1; }, 0.01));
  EXPECT_EQ(Kiln::now(), 100);
  clock->advance(5);
  EXPECT_EQ(later->fired, 1);
  EXPECT_EQ(Kiln::now(), 105);
}

TEST_F(ActivityManagerTest, RefusesANullClock) {
  try {
    manager.clockIs(nullptr);
    FAIL() << "null clock accepted";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
  EXPECT_EQ(manager.clock(), savedClock);
}

TEST_F(ActivityManagerTest, AnExceptionFromAHandlerLeavesRunWithTheLockReleased) {
  Ptr<ManualClock> clock = new ManualClock();
  manager.clockIs(clock);
  class Thrower : public Clock::Notifiee {
    void onTime() override { throw Kiln::InternalException("handler failed"); }
  };
  Ptr<Thrower> thrower = new Thrower();
  thrower->notifierIs(clock);
  thrower->timeMinIs(0);
  EXPECT_THROW(manager.run(), Kiln::InternalException);
  EXPECT_FALSE(manager.lock()->heldByCurrentThread());
}

TEST_F(ActivityManagerTest, AFailedWaitThrowsWithTheErrorNumber) {
  Pipe first, second;
  watch(first.readEnd());
  watch(second.readEnd());
  // ppoll refuses more descriptors than the open-file limit allows; under
  // valgrind the kernel never sees the lowered limit.
  if (runningUnderValgrind()) GTEST_SKIP() << "the open-file limit is virtual here";
  if (undefinedSanitizerBuild) GTEST_SKIP() << withoutDescriptorsUnderUbsan;
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  tight.rlim_cur = 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  try {
    manager.runOnce(0);
    ADD_FAILURE() << "the failed wait went unreported";
  } catch (const Kiln::ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EINVAL);
    EXPECT_STREQ(e.what(), "Failed to wait for activity: Invalid argument");
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_FALSE(manager.lock()->heldByCurrentThread());
}

// Creates the manager with no file descriptor left; exits 3 after printing
// the exception's text, 0 if creation succeeded.
void createManagerWithoutDescriptors() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 0;
  setrlimit(RLIMIT_NOFILE, &limit);
  try {
    ActivityManager::instance();
  } catch (const Kiln::ErrnoException& e) {
    std::fprintf(stderr, "%s\n", e.what());
    std::exit(3);
  }
  std::exit(0);
}

TEST(ActivityManagerDeathTest, CreationFailsWhenNoDescriptorIsLeftForItsWakeUps) {
  if (undefinedSanitizerBuild) GTEST_SKIP() << withoutDescriptorsUnderUbsan;
  // A fresh process, so that the manager does not exist yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(createManagerWithoutDescriptors(), testing::ExitedWithCode(3),
              "Failed to create the event loop's wake-up descriptor: Too many open files");
}

}  // namespace
