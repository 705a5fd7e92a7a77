#include "FmSim/FmSim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <thread>

#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"

using FmSim::Function;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class FmSimTest : public testing::Test {
 protected:
  void SetUp() override { FmSim::reset(); }
  void TearDown() override { FmSim::reset(); }
};

constexpr U32 base = FmSim::nextHopTableBase;

}  // namespace

TEST_F(FmSimTest, MultiWordWriteFillsConsecutiveSixtyFourBitRegisters) {
  U64 data[3] = {0x11, 0x22, 0x33};
  EXPECT_EQ(fmWriteUINT64Mult(0, 0x1000, 3, data), FmApi::statusOk);
  EXPECT_EQ(FmSim::registerWord(0, 0x1000), 0x11u);
  EXPECT_EQ(FmSim::registerWord(0, 0x1002), 0x22u);
  EXPECT_EQ(FmSim::registerWord(0, 0x1004), 0x33u);
  EXPECT_EQ(FmSim::registerWord(0, 0x1001), 0u);
  EXPECT_EQ(FmSim::registerWord(0, 0x1006), 0u);
  EXPECT_EQ(FmSim::registerCount(0), 3u);
}

TEST_F(FmSimTest, MultiWordReadReturnsWrittenWordsAndZeroElsewhere) {
  FmSim::registerWordIs(0, 0x2002, 0xABCD);
  U64 data[3] = {9, 9, 9};
  EXPECT_EQ(fmReadUINT64Mult(0, 0x2000, 3, data), FmApi::statusOk);
  EXPECT_THAT(data, ElementsAre(0u, 0xABCDu, 0u));
}

TEST_F(FmSimTest, SwitchesHaveSeparateRegisterFiles) {
  U64 word = 5;
  EXPECT_EQ(fmWriteUINT64Mult(1, 0x10, 1, &word), FmApi::statusOk);
  EXPECT_EQ(FmSim::registerWord(1, 0x10), 5u);
  EXPECT_EQ(FmSim::registerWord(0, 0x10), 0u);
  EXPECT_EQ(FmSim::registerCount(0), 0u);
}

TEST_F(FmSimTest, TableWordIsTheRegisterOfTheNextHopEntry) {
  U64 words[2] = {0xAA, 0xBB};
  EXPECT_EQ(fmWriteUINT64Mult(0, base + 2 * 32767, 2, words), FmApi::statusOk);
  EXPECT_EQ(FmSim::tableWord(32767), 0xAAu);
  EXPECT_EQ(FmSim::tableWord(32768), 0xBBu);
  EXPECT_EQ(FmSim::registerWord(0, 0x16FFFE), 0xAAu);
  FmSim::tableWordIs(65533, 0xCC);
  EXPECT_EQ(FmSim::registerWord(0, 0x17FFFA), 0xCCu);
}

TEST_F(FmSimTest, CountZeroSucceedsAndChangesNothing) {
  U64 word = 1;
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 0, &word), FmApi::statusOk);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 0, &word), FmApi::statusOk);
  EXPECT_EQ(word, 1u);
  EXPECT_EQ(FmSim::registerCount(0), 0u);
  ASSERT_EQ(FmSim::calls().size(), 2u);
  EXPECT_EQ(FmSim::calls()[0].count, 0);
}

TEST_F(FmSimTest, BadArgumentsFailWithInvalidArgumentAndChangeNothing) {
  U64 word = 7;
  EXPECT_EQ(fmWriteUINT64Mult(0, base, -1, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, nullptr), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmWriteUINT64Mult(-1, base, 1, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmWriteUINT64Mult(FmSim::switchCount, base, 1, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmWriteUINT64Mult(0, 0xFFFFFFFE, 2, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmReadUINT64Mult(0, base, -5, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 1, nullptr), FmApi::statusInvalidArgument);
  EXPECT_EQ(FmSim::registerCount(0), 0u);
  EXPECT_EQ(word, 7u);
  for (const FmSim::Call& call : FmSim::calls()) {
    EXPECT_EQ(call.status, FmApi::statusInvalidArgument);
  }
  EXPECT_EQ(FmSim::calls().size(), 7u);
}

TEST_F(FmSimTest, LastRegisterOfTheAddressSpaceCanBeWritten) {
  U64 word = 3;
  EXPECT_EQ(fmWriteUINT64Mult(0, 0xFFFFFFFE, 1, &word), FmApi::statusOk);
  EXPECT_EQ(FmSim::registerWord(0, 0xFFFFFFFE), 3u);
}

TEST_F(FmSimTest, GlortIsADeterministicFunctionOfThePortUnlessSet) {
  U32 glort = 0;
  EXPECT_EQ(fmGetLogicalPortGlort(0, 65532, &glort), FmApi::statusOk);
  EXPECT_EQ(glort, 0x1FFFCu);
  EXPECT_EQ(glort, FmSim::defaultGlort(65532));
  EXPECT_EQ(FmSim::defaultGlort(65530), 0x1FFFAu);
  FmSim::glortIs(0, 65532, 0x4321);
  EXPECT_EQ(fmGetLogicalPortGlort(0, 65532, &glort), FmApi::statusOk);
  EXPECT_EQ(glort, 0x4321u);
  EXPECT_EQ(fmGetLogicalPortGlort(1, 65532, &glort), FmApi::statusOk);
  EXPECT_EQ(glort, 0x1FFFCu);
}

TEST_F(FmSimTest, GlortLookupChecksItsArguments) {
  U32 glort = 77;
  EXPECT_EQ(fmGetLogicalPortGlort(0, 1, nullptr), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmGetLogicalPortGlort(0, -1, &glort), FmApi::statusInvalidArgument);
  EXPECT_EQ(fmGetLogicalPortGlort(9, 1, &glort), FmApi::statusInvalidArgument);
  EXPECT_EQ(glort, 77u);
}

TEST_F(FmSimTest, ErrorMessagesNameTheStatuses) {
  EXPECT_STREQ(fmErrorMsg(FmApi::statusOk), "Success");
  EXPECT_STREQ(fmErrorMsg(FmSim::statusFailed), "Operation failed");
  EXPECT_STREQ(fmErrorMsg(FmApi::statusInvalidArgument), "Invalid argument");
  EXPECT_STREQ(fmErrorMsg(99), "Unknown status");
  EXPECT_STREQ(fmErrorMsg(-1), "Unknown status");
}

TEST_F(FmSimTest, FaultFailsTheNextCallOnly) {
  U64 word = 1;
  FmSim::faultIs(Function::writeUINT64Mult, 5);
  EXPECT_EQ(FmSim::pendingFaults(), 1u);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), 5);
  EXPECT_EQ(FmSim::registerCount(0), 0u);
  EXPECT_EQ(FmSim::pendingFaults(), 0u);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_EQ(FmSim::tableWord(0), 1u);
}

TEST_F(FmSimTest, FaultAfterNCallsFailsTheCallAfterThem) {
  U64 word = 1;
  FmSim::faultIs(Function::readUINT64Mult, FmSim::statusFailed, 2);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);  // not a read
  EXPECT_EQ(fmReadUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 1, &word), FmSim::statusFailed);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 1, &word), FmApi::statusOk);
}

TEST_F(FmSimTest, FaultOfAnyFunctionFailsWhicheverComesNext) {
  U32 glort = 0;
  FmSim::faultIs(Function::any, 4);
  EXPECT_EQ(fmGetLogicalPortGlort(0, 3, &glort), 4);
  EXPECT_EQ(glort, 0u);
  EXPECT_EQ(fmGetLogicalPortGlort(0, 3, &glort), FmApi::statusOk);
}

TEST_F(FmSimTest, CallConsumesOneDueFaultAndCountsForTheOthers) {
  U64 word = 1;
  FmSim::faultIs(Function::writeUINT64Mult, 11);
  FmSim::faultIs(Function::any, 12);
  FmSim::faultIs(Function::writeUINT64Mult, 13, 2);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), 11);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), 12);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), 13);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
}

TEST_F(FmSimTest, CallWithBadArgumentsDoesNotConsumeAFault) {
  U64 word = 1;
  FmSim::faultIs(Function::writeUINT64Mult, 6);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, -1, &word), FmApi::statusInvalidArgument);
  EXPECT_EQ(FmSim::pendingFaults(), 1u);
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), 6);
}

TEST_F(FmSimTest, CallLogKeepsEveryCallInOrder) {
  U64 words[2] = {1, 2};
  U32 glort = 0;
  FmSim::faultIs(Function::readUINT64Mult, 8);
  fmWriteUINT64Mult(0, base + 6, 2, words);
  fmReadUINT64Mult(0, base + 6, 2, words);
  fmGetLogicalPortGlort(2, 65530, &glort);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].order, 0u);
  EXPECT_EQ(calls[0].function, Function::writeUINT64Mult);
  EXPECT_EQ(calls[0].sw, 0);
  EXPECT_EQ(calls[0].address, base + 6);
  EXPECT_EQ(calls[0].count, 2);
  EXPECT_EQ(calls[0].status, FmApi::statusOk);
  EXPECT_EQ(calls[1].order, 1u);
  EXPECT_EQ(calls[1].function, Function::readUINT64Mult);
  EXPECT_EQ(calls[1].status, 8);
  EXPECT_EQ(calls[2].function, Function::getLogicalPortGlort);
  EXPECT_EQ(calls[2].sw, 2);
  EXPECT_EQ(calls[2].logicalPort, 65530);
  EXPECT_EQ(calls[2].address, 0u);
  FmSim::callsDelAll();
  EXPECT_TRUE(FmSim::calls().empty());
}

TEST_F(FmSimTest, FunctionNamesAreTheApiNames) {
  EXPECT_STREQ(FmSim::functionName(Function::writeUINT64Mult), "fmWriteUINT64Mult");
  EXPECT_STREQ(FmSim::functionName(Function::readUINT64Mult), "fmReadUINT64Mult");
  EXPECT_STREQ(FmSim::functionName(Function::getLogicalPortGlort), "fmGetLogicalPortGlort");
  EXPECT_STREQ(FmSim::functionName(Function::any), "any");
}

TEST_F(FmSimTest, WriteObserverSeesTheRegistersAfterEachSuccessfulWrite) {
  std::vector<std::pair<U32, U64>> seen;
  FmSim::writeObserverIs([&seen](const FmSim::Call& call, const U64* data) {
    // Reading the register file from inside the observer must not deadlock.
    seen.push_back({call.address, FmSim::registerWord(call.sw, call.address)});
    EXPECT_EQ(data[0], FmSim::registerWord(call.sw, call.address));
  });
  U64 word = 0x55;
  fmWriteUINT64Mult(0, base + 2, 1, &word);
  word = 0x66;
  fmReadUINT64Mult(0, base + 2, 1, &word);
  FmSim::faultIs(Function::writeUINT64Mult, 5);
  fmWriteUINT64Mult(0, base + 4, 1, &word);
  EXPECT_THAT(seen, ElementsAre(std::pair<U32, U64>{base + 2, 0x55}));
  FmSim::writeObserverIs(nullptr);
  fmWriteUINT64Mult(0, base + 4, 1, &word);
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(FmSimTest, CallsWithoutTheActivityLockAreNoViolation) {
  U64 word = 1;
  fmWriteUINT64Mult(0, base, 1, &word);
  EXPECT_EQ(FmSim::lockViolations(), 0u);
  EXPECT_FALSE(FmSim::calls()[0].activityLockHeld);
}

TEST_F(FmSimTest, CallWhileHoldingTheActivityLockIsCounted) {
  U64 word = 1;
  U32 glort = 0;
  {
    Kiln::ActivityLockGuard hold;
    fmWriteUINT64Mult(0, base, 1, &word);
    fmGetLogicalPortGlort(0, 1, &glort);
  }
  fmReadUINT64Mult(0, base, 1, &word);
  EXPECT_EQ(FmSim::lockViolations(), 2u);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  EXPECT_TRUE(calls[0].activityLockHeld);
  EXPECT_TRUE(calls[1].activityLockHeld);
  EXPECT_FALSE(calls[2].activityLockHeld);
}

TEST_F(FmSimTest, LockHeldByAnotherThreadIsNoViolation) {
  Kiln::ActivityLockGuard hold;
  U64 word = 1;
  std::thread other([&word] { fmWriteUINT64Mult(0, base, 1, &word); });
  other.join();
  EXPECT_EQ(FmSim::lockViolations(), 0u);
}

TEST_F(FmSimTest, StrictModeStopsOnACallUnderTheActivityLock) {
  FmSim::strictLockCheckIs(true);
  U64 word = 1;
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard hold;
        fmWriteUINT64Mult(0, base, 1, &word);
      },
      HasSubstr("Assertion `!call.activityLockHeld' failed."));
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
}

TEST_F(FmSimTest, ResetForgetsEverything) {
  U64 word = 1;
  fmWriteUINT64Mult(0, base, 1, &word);
  {
    Kiln::ActivityLockGuard hold;
    fmReadUINT64Mult(0, base, 1, &word);
  }
  FmSim::glortIs(0, 5, 1);
  FmSim::faultIs(Function::any, 3);
  FmSim::strictLockCheckIs(true);
  int observed = 0;
  FmSim::writeObserverIs([&observed](const FmSim::Call&, const U64*) { ++observed; });
  FmSim::reset();
  EXPECT_EQ(FmSim::registerCount(0), 0u);
  EXPECT_EQ(FmSim::pendingFaults(), 0u);
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_EQ(FmSim::lockViolations(), 0u);
  U32 glort = 0;
  EXPECT_EQ(fmGetLogicalPortGlort(0, 5, &glort), FmApi::statusOk);
  EXPECT_EQ(glort, FmSim::defaultGlort(5));
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_EQ(observed, 0);
  {
    // Strict mode is off again: a violation is only counted.
    Kiln::ActivityLockGuard hold;
    fmReadUINT64Mult(0, base, 1, &word);
  }
  EXPECT_EQ(FmSim::lockViolations(), 1u);
}

namespace {

// Puts a manual clock on the activity manager for the test's duration.
class FmSimTimingTest : public FmSimTest {
 protected:
  void SetUp() override {
    FmSimTest::SetUp();
    previous_ = Kiln::ActivityManager::instance().clock();
    Kiln::ActivityManager::instance().clockIs(clock_);
  }
  void TearDown() override {
    Kiln::ActivityManager::instance().clockIs(previous_);
    FmSimTest::TearDown();
  }
  Kiln::Ptr<Kiln::ManualClock> clock_ = new Kiln::ManualClock(100);
  Kiln::Ptr<Kiln::Clock> previous_;
};

}  // namespace

TEST_F(FmSimTimingTest, AnInstantChipTakesNoTime) {
  EXPECT_EQ(FmSim::timing(), FmSim::Timing{});
  U64 words[4] = {1, 2, 3, 4};
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 4, words), FmApi::statusOk);
  EXPECT_EQ(clock_->now(), 100);
  EXPECT_EQ(FmSim::timeCharged(), 0);
}

TEST_F(FmSimTimingTest, EveryCallMovesTheManualClockByItsCallAndWordTime) {
  FmSim::timingIs({0.5, 0.25});
  U64 words[4] = {1, 2, 3, 4};
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 4, words), FmApi::statusOk);
  EXPECT_DOUBLE_EQ(clock_->now(), 101.5);
  EXPECT_EQ(fmReadUINT64Mult(0, base, 2, words), FmApi::statusOk);
  EXPECT_DOUBLE_EQ(clock_->now(), 102.5);
  U32 glort = 0;
  EXPECT_EQ(fmGetLogicalPortGlort(0, 7, &glort), FmApi::statusOk);
  EXPECT_DOUBLE_EQ(clock_->now(), 103);
  // A refused call moves no words, but the call was made.
  EXPECT_EQ(fmWriteUINT64Mult(9, base, 4, words), FmApi::statusInvalidArgument);
  EXPECT_DOUBLE_EQ(clock_->now(), 103.5);
  EXPECT_DOUBLE_EQ(FmSim::timeCharged(), 3.5);
}

TEST_F(FmSimTimingTest, TimeChargedRunsNoTimerUntilTheClockIsMoved) {
  struct Timer : Kiln::Clock::Notifiee {
    int fired = 0;
    void onTime() override { ++fired; }
  };
  Kiln::Ptr<Timer> timer = new Timer;
  timer->notifierIs(clock_);
  timer->timeMinIs(100.5);
  FmSim::timingIs({1, 0});
  U64 word = 1;
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_EQ(timer->fired, 0);
  clock_->timeIs(clock_->now());
  EXPECT_EQ(timer->fired, 1);
  timer->notifierIs(nullptr);
}

TEST_F(FmSimTimingTest, RefusesANegativeOrEndlessTimingAndKeepsTheOldOne) {
  FmSim::timingIs(FmSim::Timing::busEstimate());
  EXPECT_THROW(FmSim::timingIs({-1, 0}), std::invalid_argument);
  EXPECT_THROW(FmSim::timingIs({0, std::numeric_limits<double>::infinity()}),
               std::invalid_argument);
  EXPECT_THROW(FmSim::timingIs({std::nan(""), 0}), std::invalid_argument);
  EXPECT_EQ(FmSim::timing(), FmSim::Timing::busEstimate());
  FmSim::reset();
  EXPECT_EQ(FmSim::timing(), FmSim::Timing{});
}

TEST_F(FmSimTest, ChargesNothingToAClockThatAdvancesByItself) {
  FmSim::timingIs({1, 1});
  ASSERT_TRUE(Kiln::ActivityManager::instance().clock()->advancesByItself());
  U64 word = 1;
  EXPECT_EQ(fmWriteUINT64Mult(0, base, 1, &word), FmApi::statusOk);
  EXPECT_DOUBLE_EQ(FmSim::timeCharged(), 2);
}
