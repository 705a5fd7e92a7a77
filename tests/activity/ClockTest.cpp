#include "Kiln/Clock.h"

#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Kiln/ActivityManager.h"
#include "Kiln/Exception.h"
#include "Kiln/Lock.h"

namespace {

using Kiln::Clock;
using Kiln::ManualClock;
using Kiln::Ptr;
using Kiln::Seconds;

typedef std::vector<std::pair<std::string, Seconds>> FiringLog;

// A timer that records each expiry (its name and the clock's time) and then
// runs an optional action.
class Timer : public Clock::Notifiee {
 public:
  Timer(FiringLog* log, std::string name, const Ptr<Clock>& clock)
      : log_(log), name_(std::move(name)) {
    notifierIs(clock);
  }
  std::function<void(Timer&)> action;
  bool sawActivityLock = false;

  void onTime() override {
    log_->emplace_back(name_, notifier()->now());
    sawActivityLock = Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread();
    if (action) action(*this);
  }

 private:
  FiringLog* log_;
  std::string name_;
};

class ManualClockTest : public testing::Test {
 protected:
  Ptr<Timer> timer(const std::string& name) { return new Timer(&log, name, clock); }
  Ptr<ManualClock> clock = new ManualClock();
  FiringLog log;
};

TEST_F(ManualClockTest, MovesOnlyWhenTold) {
  EXPECT_EQ(clock->now(), 0);
  clock->advance(1.5);
  EXPECT_EQ(clock->now(), 1.5);
  clock->timeIs(4);
  EXPECT_EQ(clock->now(), 4);
  EXPECT_EQ(ManualClock(100).now(), 100);
  EXPECT_FALSE(clock->advancesByItself());
}

TEST_F(ManualClockTest, RefusesToGoBackwards) {
  clock->timeIs(10);
  try {
    clock->timeIs(9);
    FAIL() << "time went backwards";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "ManualClock time may not go backwards");
  }
  EXPECT_THROW(clock->advance(-1), Kiln::RangeException);
  EXPECT_THROW(clock->timeIs(NAN), Kiln::RangeException);
  EXPECT_EQ(clock->now(), 10);
}

TEST_F(ManualClockTest, ElapsingWorkPassesExpiriesWithoutRunningThem) {
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1);
  clock->elapse(2.5);
  EXPECT_EQ(clock->now(), 2.5);
  EXPECT_TRUE(log.empty());
  // The expiry that fell due while the work went on runs at the next move,
  // at the current time: time never goes back.
  clock->timeIs(clock->now());
  ASSERT_EQ(log, (FiringLog{{"t", 2.5}}));
  EXPECT_THROW(clock->elapse(-1), Kiln::RangeException);
  EXPECT_THROW(clock->elapse(NAN), Kiln::RangeException);
  EXPECT_EQ(clock->now(), 2.5);
}

TEST_F(ManualClockTest, AHandlerThatMovesTheClockOnLeavesItThere) {
  // As a compaction run does when every chip write takes time: the clock
  // ends past the time it was told, and a timer re-armed from there is due
  // after that, not after the time told.
  Ptr<Timer> t = timer("t");
  t->action = [this](Timer& self) {
    clock->elapse(0.75);
    if (clock->now() < 10) self.timeMinIs(clock->now() + 5);
  };
  t->timeMinIs(1);
  clock->timeIs(1);
  EXPECT_EQ(clock->now(), 1.75);
  EXPECT_EQ(t->timeMin(), 6.75);
  clock->timeIs(6);  // 1 + 5 is not the re-armed time
  EXPECT_EQ(log.size(), 1u);
  clock->timeIs(t->timeMin());
  ASSERT_EQ(log, (FiringLog{{"t", 1}, {"t", 6.75}}));
  EXPECT_EQ(clock->now(), 7.5);
}

TEST_F(ManualClockTest, ArmsReArmsAndDisarmsOneTimer) {
  Ptr<Timer> t = timer("t");
  EXPECT_EQ(t->timeMin(), Clock::never);
  EXPECT_EQ(clock->pendingExpiries(), 0u);

  t->timeMinIs(5);
  EXPECT_EQ(t->timeMin(), 5);
  EXPECT_EQ(clock->nextExpiry(), 5);
  clock->advance(4);
  EXPECT_TRUE(log.empty());

  // Re-arming moves the one expiry; it never adds a second one.
  t->timeMinIs(10);
  EXPECT_EQ(clock->pendingExpiries(), 1u);
  EXPECT_EQ(clock->nextExpiry(), 10);
  clock->timeIs(9.5);
  EXPECT_TRUE(log.empty());
  clock->timeIs(12);
  ASSERT_EQ(log, (FiringLog{{"t", 10}}));
  EXPECT_EQ(t->timeMin(), Clock::never);
  EXPECT_EQ(clock->pendingExpiries(), 0u);
  EXPECT_EQ(clock->now(), 12);

  t->timeMinIs(15);
  t->timeMinIs(Clock::never);
  EXPECT_EQ(t->timeMin(), Clock::never);
  EXPECT_EQ(clock->pendingExpiries(), 0u);
  EXPECT_EQ(clock->nextExpiry(), Clock::never);
  clock->advance(100);
  EXPECT_EQ(log.size(), 1u);
}

TEST_F(ManualClockTest, FiresOncePerArming) {
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1);
  clock->advance(5);
  clock->advance(5);
  EXPECT_EQ(log.size(), 1u);
  t->timeMinIs(20);
  clock->advance(50);
  EXPECT_EQ(log, (FiringLog{{"t", 1}, {"t", 20}}));
}

TEST_F(ManualClockTest, RunsSeveralExpiriesInTimeOrderAndTiesInArmingOrder) {
  Ptr<Timer> a = timer("a"), b = timer("b"), c = timer("c"), d = timer("d");
  c->timeMinIs(3);
  a->timeMinIs(2);
  d->timeMinIs(2);
  b->timeMinIs(1);
  EXPECT_EQ(clock->pendingExpiries(), 4u);
  EXPECT_EQ(clock->runExpiries(10), 4u);
  EXPECT_EQ(log, (FiringLog{{"b", 1}, {"a", 2}, {"d", 2}, {"c", 3}}));
}

TEST_F(ManualClockTest, ReArmingAtTheSameTimeKeepsTheTimerInPlaceAmongTies) {
  Ptr<Timer> a = timer("a"), b = timer("b");
  a->timeMinIs(2);
  b->timeMinIs(2);
  a->timeMinIs(2);
  clock->advance(2);
  EXPECT_EQ(log, (FiringLog{{"a", 2}, {"b", 2}}));

  log.clear();
  a->timeMinIs(4);
  b->timeMinIs(4);
  a->timeMinIs(3);
  a->timeMinIs(4);  // a real re-arming: now armed after b
  clock->advance(2);
  EXPECT_EQ(log, (FiringLog{{"b", 4}, {"a", 4}}));
}

TEST_F(ManualClockTest, AHandlerCanReArmItsOwnTimer) {
  Ptr<Timer> tick = timer("tick");
  tick->action = [](Timer& self) { self.timeMinIs(self.notifier()->now() + 1); };
  tick->timeMinIs(1);
  clock->advance(3.5);
  EXPECT_EQ(log, (FiringLog{{"tick", 1}, {"tick", 2}, {"tick", 3}}));
  EXPECT_EQ(tick->timeMin(), 4);
  EXPECT_EQ(clock->now(), 3.5);
}

TEST_F(ManualClockTest, RunsExpiriesThatHandlersArmInsideTheInterval) {
  Ptr<Timer> first = timer("first"), second = timer("second"), late = timer("late");
  first->action = [&](Timer&) {
    second->timeMinIs(2);
    late->timeMinIs(7);
  };
  first->timeMinIs(1);
  clock->timeIs(5);
  EXPECT_EQ(log, (FiringLog{{"first", 1}, {"second", 2}}));
  EXPECT_EQ(late->timeMin(), 7);
  clock->timeIs(7);
  EXPECT_EQ(log.back(), (std::pair<std::string, Seconds>("late", 7)));
}

TEST_F(ManualClockTest, AHandlerThatMovesTheClockOnIsNotUndone) {
  // A simulation may advance the clock from inside a handler (a chip write
  // that costs time); the outer move must not take time back.
  Ptr<Timer> t = timer("t");
  t->action = [&](Timer&) { clock->advance(3); };
  t->timeMinIs(1);
  clock->timeIs(2);
  EXPECT_EQ(clock->now(), 4);
}

TEST_F(ManualClockTest, AnExpiryArmedInThePastFiresAtTheCurrentTime) {
  clock->timeIs(10);
  Ptr<Timer> t = timer("t");
  t->timeMinIs(3);
  EXPECT_EQ(clock->nextExpiry(), 3);
  clock->advance(0);
  EXPECT_EQ(log, (FiringLog{{"t", 10}}));
}

TEST_F(ManualClockTest, ATimerDestroyedWhileArmedNeverFires) {
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1);
  t = nullptr;
  EXPECT_EQ(clock->pendingExpiries(), 0u);
  clock->advance(2);
  EXPECT_TRUE(log.empty());
}

TEST_F(ManualClockTest, AHandlerMayDestroyAnotherArmedTimer) {
  Ptr<Timer> killer = timer("killer"), victim = timer("victim");
  killer->action = [&](Timer&) { victim = nullptr; };
  killer->timeMinIs(1);
  victim->timeMinIs(2);
  clock->advance(3);
  EXPECT_EQ(log, (FiringLog{{"killer", 1}}));
  EXPECT_EQ(clock->pendingExpiries(), 0u);
}

TEST_F(ManualClockTest, AHandlerMayDropTheLastOtherReferenceToItsOwnTimer) {
  Ptr<Timer> t = timer("t");
  t->action = [&](Timer& self) {
    t = nullptr;
    self.timeMinIs(self.notifier()->now() + 1);  // still alive: the clock holds it
  };
  t->timeMinIs(1);
  clock->advance(5);
  EXPECT_EQ(log, (FiringLog{{"t", 1}}));
  EXPECT_EQ(clock->pendingExpiries(), 0u);
}

TEST_F(ManualClockTest, TimeMinRefusesATimeThatIsNotANumber) {
  Ptr<Timer> t = timer("t");
  try {
    t->timeMinIs(NAN);
    FAIL() << "NaN accepted";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "timeMinIs: time is not a number");
  }
  EXPECT_EQ(t->timeMin(), Clock::never);
}

TEST_F(ManualClockTest, ATimerArmedBeforeJoiningAClockIsArmedWhenItJoins) {
  Ptr<Timer> t = new Timer(&log, "t", nullptr);
  t->timeMinIs(0);
  EXPECT_EQ(clock->pendingExpiries(), 0u);
  t->notifierIs(clock);
  EXPECT_EQ(t->notifier(), clock);
  EXPECT_EQ(clock->pendingExpiries(), 1u);
  t->timeMinIs(Clock::never);
  clock->advance(1);
  EXPECT_TRUE(log.empty());
}

TEST_F(ManualClockTest, APendingExpiryMovesWithTheTimerToAnotherClock) {
  Ptr<ManualClock> other = new ManualClock();
  Ptr<Timer> t = timer("t");
  t->timeMinIs(2);
  t->notifierIs(other);
  EXPECT_EQ(clock->pendingExpiries(), 0u);
  EXPECT_EQ(other->pendingExpiries(), 1u);
  clock->advance(3);
  EXPECT_TRUE(log.empty());
  other->advance(3);
  EXPECT_EQ(log, (FiringLog{{"t", 2}}));

  t->timeMinIs(4);
  t->notifierIs(nullptr);
  EXPECT_EQ(other->pendingExpiries(), 0u);
  EXPECT_EQ(t->timeMin(), 4);
}

TEST_F(ManualClockTest, HandlersRunUnderTheActivityLock) {
  Kiln::Lock* activity = Kiln::ActivityUnlockAnchor::lock();
  Ptr<Timer> t = timer("t");
  t->timeMinIs(1);
  ASSERT_FALSE(activity->heldByCurrentThread());
  clock->advance(1);
  EXPECT_TRUE(t->sawActivityLock);
  EXPECT_FALSE(activity->heldByCurrentThread());

  t->timeMinIs(2);
  t->sawActivityLock = false;
  Kiln::ActivityLockGuard held;
  clock->advance(1);
  EXPECT_TRUE(t->sawActivityLock);
  EXPECT_TRUE(activity->heldByCurrentThread());
}

TEST_F(ManualClockTest, AnExceptionFromAHandlerLeavesTheRestPending) {
  Ptr<Timer> thrower = timer("thrower"), after = timer("after");
  thrower->action = [](Timer&) { throw Kiln::InternalException("handler failed"); };
  thrower->timeMinIs(1);
  after->timeMinIs(2);
  EXPECT_THROW(clock->advance(5), Kiln::InternalException);
  EXPECT_EQ(clock->now(), 1);
  EXPECT_EQ(thrower->timeMin(), Clock::never);
  EXPECT_EQ(clock->pendingExpiries(), 1u);
  EXPECT_FALSE(Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread());
  clock->advance(4);
  EXPECT_EQ(log.back(), (std::pair<std::string, Seconds>("after", 2)));
}

TEST_F(ManualClockTest, TellsItsWakeupWhenTheEarliestExpiryMovesEarlier) {
  int wakeups = 0;
  clock->wakeupIs([&] { ++wakeups; });
  Ptr<Timer> a = timer("a"), b = timer("b");
  a->timeMinIs(5);
  EXPECT_EQ(wakeups, 1);
  b->timeMinIs(7);
  EXPECT_EQ(wakeups, 1);
  b->timeMinIs(3);
  EXPECT_EQ(wakeups, 2);
  clock->wakeupIs(nullptr);
  a->timeMinIs(1);
  EXPECT_EQ(wakeups, 2);
}

TEST(MonotonicClock, NeverGoesBack) {
  Ptr<Clock> clock = new Kiln::MonotonicClock();
  EXPECT_TRUE(clock->advancesByItself());
  Seconds previous = clock->now();
  EXPECT_GT(previous, 0);
  for (int i = 0; i < 1000; ++i) {
    Seconds current = clock->now();
    EXPECT_GE(current, previous);
    previous = current;
  }
}

}  // namespace
