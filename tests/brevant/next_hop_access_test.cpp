#include "Brevant/NextHopAccess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "FmSim/FmSim.h"
#include "Kiln/Lock.h"
#include "support/HeldActivityLock.h"

using Brevant::readNextHopInternal;
using Brevant::writeNextHopInternal;
using FmSim::Function;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

std::string pointerText(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

// A fresh chip, an empty default Flashlog file and the next-hop trace levels
// restored after each test.
class NextHopAccessBase : public testing::Test {
 protected:
  void SetUp() override {
    FmSim::reset();
    Flashlog::defaultHandleIs(&Flashlog::processHandle());
    Flashlog::processHandle().clear();
    savedLevels_ = Brevant::nextHopTrace().levels();
  }
  void TearDown() override {
    Brevant::nextHopTrace().levelsIs(savedLevels_);
    Kiln::ActivityUnlockAnchor::lock()->releasableIs(true);
    FmSim::reset();
  }

 private:
  Trace::LevelMask savedLevels_ = Trace::noLevels;
};

// The library is called on the activity thread, which holds the activity
// lock: so does every test of this fixture.
class NextHopAccessTest : public NextHopAccessBase {
 protected:
  void SetUp() override {
    NextHopAccessBase::SetUp();
    activity_.take();
  }
  void TearDown() override {
    activity_.release();
    NextHopAccessBase::TearDown();
  }

 private:
  NextHopTest::HeldActivityLock activity_;
};

// Death tests take the activity lock inside the child process: a forked
// child cannot release a mutex that its parent took.
class NextHopAccessDeathTest : public NextHopAccessBase {};

// For calls made, wrongly, without the activity lock.
class NextHopAccessWithoutLockTest : public NextHopAccessBase {};

}  // namespace

static_assert(Brevant::nextHopRegister(0) == 0x160000);
static_assert(Brevant::nextHopRegister(1) == 0x160002);

TEST_F(NextHopAccessTest, WriteFillsConsecutiveEntriesInOneCall) {
  U64 data[3] = {0x101, 0x202, 0x303};
  writeNextHopInternal(5, 3, data);
  EXPECT_EQ(FmSim::tableWord(5), 0x101u);
  EXPECT_EQ(FmSim::tableWord(6), 0x202u);
  EXPECT_EQ(FmSim::tableWord(7), 0x303u);
  EXPECT_EQ(FmSim::tableWord(8), 0u);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].function, Function::writeUINT64Mult);
  EXPECT_EQ(calls[0].sw, 0);
  EXPECT_EQ(calls[0].address, 0x16000Au);
  EXPECT_EQ(calls[0].count, 3);
}

TEST_F(NextHopAccessTest, EntryInTheMiddleOfTheTableAddressesItsRegister) {
  U64 word = 0xAB;
  writeNextHopInternal(32767, 1, &word);
  EXPECT_EQ(FmSim::calls().at(0).address, 0x16FFFEu);
  EXPECT_EQ(FmSim::registerWord(0, 0x16FFFE), 0xABu);
}

TEST_F(NextHopAccessTest, LastEntryOfTheTableAddressesItsRegister) {
  U64 word = 0xCD;
  writeNextHopInternal(65533, 1, &word);
  EXPECT_EQ(FmSim::calls().at(0).address, 0x17FFFAu);
  EXPECT_EQ(FmSim::registerWord(0, 0x17FFFA), 0xCDu);
  U64 back = 0;
  readNextHopInternal(65533, 1, &back);
  EXPECT_EQ(FmSim::calls().at(1).address, 0x17FFFAu);
  EXPECT_EQ(back, 0xCDu);
}

TEST_F(NextHopAccessTest, ReadReturnsTheChipsEntries) {
  FmSim::tableWordIs(10, 0x1111);
  FmSim::tableWordIs(11, 0x2222);
  U64 data[2] = {0, 0};
  readNextHopInternal(10, 2, data);
  EXPECT_THAT(data, ElementsAre(0x1111u, 0x2222u));
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].function, Function::readUINT64Mult);
  EXPECT_EQ(calls[0].address, 0x160014u);
  EXPECT_EQ(calls[0].count, 2);
}

TEST_F(NextHopAccessTest, CountZeroIsPassedToTheChipUnchanged) {
  U64 word = 0x77;
  writeNextHopInternal(3, 0, &word);
  readNextHopInternal(3, 0, &word);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].count, 0);
  EXPECT_EQ(calls[1].count, 0);
  EXPECT_EQ(FmSim::registerCount(0), 0u);
  EXPECT_EQ(word, 0x77u);
}

TEST_F(NextHopAccessTest, WholeGroupIsOneCall) {
  std::vector<U64> block(256);
  for (size_t i = 0; i < block.size(); ++i) block[i] = i * 3;
  writeNextHopInternal(1000, 256, block.data());
  std::vector<U64> back(256);
  readNextHopInternal(1000, 256, back.data());
  EXPECT_EQ(back, block);
  EXPECT_EQ(FmSim::calls().size(), 2u);
}

TEST_F(NextHopAccessTest, EntryIntoEachAccessIsTracedAtLevelEight) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  U64 data[3] = {};
  writeNextHopInternal(5, 3, data);
  readNextHopInternal(65533, 1, data);
  EXPECT_THAT(
      capture.lines(),
      ElementsAre(
          Trace::Line{"BrevantNextHop", 8,
                      "writeNextHopInternal Writing 3 next hop entries, starting at 5"},
          Trace::Line{"BrevantNextHop", 8,
                      "readNextHopInternal Reading 1 next hop entries, starting at 65533"}));
}

TEST_F(NextHopAccessTest, NothingIsTracedWhenTheLevelsAreOff) {
  Brevant::nextHopTrace().levelsIs(Trace::noLevels);
  Trace::Capture capture;
  U64 word = 0;
  writeNextHopInternal(5, 1, &word);
  readNextHopInternal(5, 1, &word);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(NextHopAccessTest, ChipCallsAreTracedWhenTheChipCallLevelIsOn) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(Trace::chipCallLevel));
  U64 data[3] = {};
  writeNextHopInternal(5, 3, data);
  readNextHopInternal(32767, 2, data);
  const std::string where = pointerText(data);
  EXPECT_THAT(
      capture.lines(),
      ElementsAre(
          Trace::Line{"FmApi", Trace::chipCallLevel,
                      "writeNextHopInternal: fmWriteUINT64Mult( 0, 0x16000a, 3, " + where + " )"},
          Trace::Line{"FmApi", Trace::chipCallLevel,
                      "readNextHopInternal: fmReadUINT64Mult( 0, 0x16fffe, 2, " + where + " )"}));
}

TEST_F(NextHopAccessTest, ActivityLockIsReleasedAroundEveryCallAndHeldAfter) {
  Kiln::Lock* activity = Kiln::ActivityUnlockAnchor::lock();
  std::vector<bool> heldDuringWrite;
  FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) {
    heldDuringWrite.push_back(activity->heldByCurrentThread());
  });
  U64 data[2] = {1, 2};
  writeNextHopInternal(20, 2, data);
  EXPECT_TRUE(activity->heldByCurrentThread());
  readNextHopInternal(20, 2, data);
  EXPECT_TRUE(activity->heldByCurrentThread());
  Brevant::logicalPortGlort(65532);
  EXPECT_TRUE(activity->heldByCurrentThread());
  EXPECT_THAT(heldDuringWrite, ElementsAre(false));
  EXPECT_EQ(FmSim::lockViolations(), 0u);
  for (const FmSim::Call& call : FmSim::calls()) EXPECT_FALSE(call.activityLockHeld);
  EXPECT_EQ(FmSim::calls().size(), 3u);
}

TEST_F(NextHopAccessTest, CallingTheChipWithoutTheGuardIsCaughtBySimulator) {
  U64 word = 0;
  fmWriteUINT64Mult(0, Brevant::nextHopRegister(4), 1, &word);
  EXPECT_EQ(FmSim::lockViolations(), 1u);
  EXPECT_TRUE(FmSim::calls().at(0).activityLockHeld);
}

TEST_F(NextHopAccessTest, UnreleasableLockThrowsWithoutTouchingTheChip) {
  Kiln::ActivityUnlockAnchor::lock()->releasableIs(false);
  U64 word = 1;
  for (auto access : {writeNextHopInternal, readNextHopInternal}) {
    try {
      access(3, 1, &word);
      ADD_FAILURE() << "no exception";
    } catch (const Kiln::InternalException& e) {
      EXPECT_STREQ(e.what(), "Lock Protocol exception -- unlocking an unreleasable lock");
    }
  }
  EXPECT_THROW(Brevant::logicalPortGlort(65532), Kiln::InternalException);
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_TRUE(Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread());
}

// A program that builds the manager without the activity lock and catches
// nothing ends (std::terminate prints the text) with the reason in words.
TEST_F(NextHopAccessWithoutLockTest, ProgramForgettingTheActivityLockStopsSayingSo) {
  const auto program = []() noexcept {
    Kiln::Ptr<Brevant::NextHopManager> m = new Brevant::NextHopManager();
  };
  EXPECT_DEATH(program(),
               "the activity lock is not held by this thread: take it with "
               "Kiln::ActivityLockGuard before calling the next-hop manager");
}

TEST_F(NextHopAccessWithoutLockTest, CallerNotHoldingTheActivityLockGetsTheReleaseError) {
  U64 word = 1;
  try {
    writeNextHopInternal(3, 1, &word);
    ADD_FAILURE() << "no exception";
  } catch (const Kiln::ErrnoException& e) {
    EXPECT_EQ(e.errnum(), EPERM);
    EXPECT_THAT(e.what(), testing::StartsWith("Failed to release the lock: "));
    EXPECT_THAT(e.what(), testing::HasSubstr("take it with Kiln::ActivityLockGuard"));
  }
  EXPECT_THROW(Brevant::logicalPortGlort(65532), Kiln::ErrnoException);
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_FALSE(Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread());
}

TEST_F(NextHopAccessTest, GlortComesFromTheChip) {
  EXPECT_EQ(Brevant::logicalPortGlort(65532), FmSim::defaultGlort(65532));
  FmSim::glortIs(0, 65530, 0x2345);
  EXPECT_EQ(Brevant::logicalPortGlort(65530), 0x2345u);
  const std::vector<FmSim::Call> calls = FmSim::calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].function, Function::getLogicalPortGlort);
  EXPECT_EQ(calls[0].sw, 0);
  EXPECT_EQ(calls[0].logicalPort, 65532);
  EXPECT_EQ(calls[1].logicalPort, 65530);
}

TEST_F(NextHopAccessTest, GlortLookupIsTracedUnderItsCallersName) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(Trace::chipCallLevel));
  Brevant::logicalPortGlort(65532, "initHandler");
  Brevant::logicalPortGlort(65530);
  const std::vector<std::string> texts = capture.texts(Trace::chipCallLevel);
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_THAT(texts[0],
              MatchesRegex("initHandler: fmGetLogicalPortGlort\\( 0, 65532, 0x[0-9a-f]+ \\)"));
  EXPECT_THAT(texts[1],
              MatchesRegex("TestBody: fmGetLogicalPortGlort\\( 0, 65530, 0x[0-9a-f]+ \\)"));
}

TEST_F(NextHopAccessTest, GlortLookupFailureThrowsTheChipError) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  for (S32 status : {FmApi::statusInvalidArgument, 5}) {
    FmSim::faultIs(Function::getLogicalPortGlort, status);
    try {
      Brevant::logicalPortGlort(65532);
      ADD_FAILURE() << "no exception";
    } catch (const FmApi::FmError& e) {
      EXPECT_EQ(e.status, status);
      EXPECT_STREQ(e.function, "fmGetLogicalPortGlort");
      const std::string text =
          std::string(": status ") + std::to_string(status) + " \\(" + fmErrorMsg(status) + "\\)";
      EXPECT_THAT(e.what(),
                  MatchesRegex("fmGetLogicalPortGlort\\( 0, 65532, 0x[0-9a-f]+ \\)" + text));
    }
    EXPECT_TRUE(Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread());
  }
  // Thrown to the caller: neither traced as an error nor recorded.
  EXPECT_TRUE(capture.texts(1).empty());
  EXPECT_TRUE(Flashlog::records().empty());
}

TEST_F(NextHopAccessTest, ChipErrorTextIsTheCallThenStatusAndMessage) {
  const FmApi::FmError error =
      Brevant::chipCallError(5, "fmWriteUINT64Mult", "fmWriteUINT64Mult( %d, %p, %d, %p )", 0,
                             reinterpret_cast<void*>(0x160002), 3, reinterpret_cast<void*>(0x10));
  EXPECT_EQ(error.status, 5);
  EXPECT_STREQ(error.function, "fmWriteUINT64Mult");
  EXPECT_STREQ(error.what(),
               "fmWriteUINT64Mult( 0, 0x160002, 3, 0x10 ): status 5 (Unknown status)");
  EXPECT_STREQ(Brevant::chipCallError(2, "f", "call").what(), "call: status 2 (Invalid argument)");
}

TEST_F(NextHopAccessTest, ChipErrorTextIsCutAtFiveHundredElevenCharacters) {
  const std::string call(510, 'c');
  const std::string text = Brevant::chipCallError(5, "f", "%s", call.c_str()).what();
  EXPECT_EQ(text, call + ":");
  EXPECT_EQ(text.size(), Brevant::chipErrorBufferSize - 1);
}

TEST_F(NextHopAccessDeathTest, CallFillingTheErrorBufferStopsOnStrSize) {
  const std::string exactlyFull(511, 'c');
  EXPECT_DEATH(Brevant::chipCallError(5, "f", "%s", exactlyFull.c_str()),
               HasSubstr("Assertion `strSize > 0' failed."));
  const std::string overflowing(600, 'c');
  EXPECT_DEATH(Brevant::chipCallError(5, "f", "%s", overflowing.c_str()),
               HasSubstr("Assertion `strSize > 0' failed."));
}

TEST_F(NextHopAccessDeathTest, WriteRejectedAsInvalidArgumentStopsTheProcess) {
  Brevant::nextHopTrace().levelIs(1, true);
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::writeUINT64Mult, FmApi::statusInvalidArgument);
        U64 word = 1;
        writeNextHopInternal(7, 1, &word);
      },
      AllOf(HasSubstr("BrevantNextHop 1: Error:Invalid Argument\n"),
            HasSubstr("Assertion `0' failed."), HasSubstr("Flashlog process: 1 records"),
            HasSubstr("level 1: Error:Invalid Argument\n"), Not(HasSubstr("failed with status"))));
}

TEST_F(NextHopAccessDeathTest, WriteFailingOtherwiseStopsTheProcessWithItsStatus) {
  Brevant::nextHopTrace().levelIs(1, true);
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::writeUINT64Mult, 5);
        U64 word = 1;
        writeNextHopInternal(7, 1, &word);
      },
      AllOf(HasSubstr("BrevantNextHop 1: NextHop writing to register failed with status 5\n"),
            HasSubstr("Assertion `0' failed."),
            HasSubstr("level 1: NextHop writing to register failed with status 5\n"),
            Not(HasSubstr("Invalid Argument"))));
}

TEST_F(NextHopAccessDeathTest, ReadRejectedAsInvalidArgumentStopsTheProcess) {
  Brevant::nextHopTrace().levelIs(1, true);
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::readUINT64Mult, FmApi::statusInvalidArgument);
        U64 word = 1;
        readNextHopInternal(7, 1, &word);
      },
      AllOf(HasSubstr("BrevantNextHop 1: Error:Invalid Argument\n"),
            HasSubstr("Assertion `0' failed."), HasSubstr("level 1: Error:Invalid Argument\n")));
}

TEST_F(NextHopAccessDeathTest, ReadFailingOtherwiseStopsTheProcessWithItsStatus) {
  Brevant::nextHopTrace().levelIs(1, true);
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::readUINT64Mult, FmSim::statusFailed);
        U64 word = 1;
        readNextHopInternal(7, 1, &word);
      },
      AllOf(HasSubstr("BrevantNextHop 1: NextHop reading from register failed with status 1\n"),
            HasSubstr("Assertion `0' failed."),
            HasSubstr("level 1: NextHop reading from register failed with status 1\n")));
}

TEST_F(NextHopAccessDeathTest, FailureIsRecordedEvenWithTracingOff) {
  Brevant::nextHopTrace().levelsIs(Trace::noLevels);
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::writeUINT64Mult, 9);
        U64 word = 1;
        writeNextHopInternal(7, 1, &word);
      },
      AllOf(Not(HasSubstr("BrevantNextHop 1:")), HasSubstr("Assertion `0' failed."),
            HasSubstr("level 1: NextHop writing to register failed with status 9\n")));
}

TEST_F(NextHopAccessDeathTest, FailureWithoutDefaultFlashlogStopsOnZeroBeforeAnything) {
  Brevant::nextHopTrace().levelIs(1, true);
  EXPECT_DEATH(
      {
        Flashlog::defaultHandleIs(nullptr);
        Kiln::ActivityLockGuard activity;
        FmSim::faultIs(Function::writeUINT64Mult, 5);
        U64 word = 1;
        writeNextHopInternal(7, 1, &word);
      },
      AllOf(HasSubstr("BrevantNextHop 1: NextHop writing to register failed with status 5\n"),
            HasSubstr("defaultRecordIs"), HasSubstr("Assertion `0' failed."),
            HasSubstr("Flashlog: no default handle")));
}

TEST(NextHopTrace, HandleIsBrevantNextHopAndTheMacroStreams) {
  EXPECT_EQ(Brevant::nextHopTrace().name(), "BrevantNextHop");
  EXPECT_EQ(&Brevant::nextHopTrace(), &Trace::handle("BrevantNextHop"));
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(9));
  const U64 data = 0xBEEF;
  NH_TRACE(9, "nhData " << std::hex << data << "nhWideData " << U64(0) << std::dec << " " << 12
                        << " " << true);
  EXPECT_THAT(capture.texts(9), ElementsAre("nhData beefnhWideData 0 12 1"));
}
