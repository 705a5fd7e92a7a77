#include "Trace/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <thread>

#include "Kiln/Exception.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Each test works on handles of its own names, so that tests do not see each
// other's levels.
Trace::Handle& freshHandle(const std::string& name) {
  Trace::Handle& handle = Trace::handle(name);
  handle.levelsIs(Trace::noLevels);
  return handle;
}

}  // namespace

TEST(TraceLevels, ParseListsAndRanges) {
  EXPECT_EQ(Trace::parseLevels("1-4,8"), Trace::levelBit(1) | Trace::levelBit(2) |
                                             Trace::levelBit(3) | Trace::levelBit(4) |
                                             Trace::levelBit(8));
  EXPECT_EQ(Trace::parseLevels(" 2 , 5-6 "),
            Trace::levelBit(2) | Trace::levelBit(5) | Trace::levelBit(6));
  EXPECT_EQ(Trace::parseLevels("9"), Trace::levelBit(9));
  EXPECT_EQ(Trace::parseLevels("1-9"), Trace::allLevels);
}

TEST(TraceLevels, ParseAllNoneAndEmpty) {
  EXPECT_EQ(Trace::parseLevels("all"), Trace::allLevels);
  EXPECT_EQ(Trace::parseLevels("none"), Trace::noLevels);
  EXPECT_EQ(Trace::parseLevels(""), Trace::noLevels);
  EXPECT_EQ(Trace::parseLevels("  "), Trace::noLevels);
}

TEST(TraceLevels, ParseRejectsLevelsOutsideOneToNineAndBadText) {
  for (const char* bad : {"0", "10", "4-2", "x", "1-", "1--3", "1,,2", "-3", "3 4"}) {
    EXPECT_THROW(Trace::parseLevels(bad), Kiln::RangeException) << bad;
  }
  try {
    Trace::parseLevels("1,x");
    FAIL();
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "bad trace levels '1,x'");
  }
}

TEST(TraceLevels, TextOfAMaskReadsBackAsTheSameMask) {
  EXPECT_EQ(Trace::levelsText(Trace::noLevels), "none");
  EXPECT_EQ(Trace::levelsText(Trace::allLevels), "all");
  EXPECT_EQ(Trace::levelsText(Trace::parseLevels("1-4,8")), "1-4,8");
  EXPECT_EQ(Trace::levelsText(Trace::levelBit(9) | Trace::levelBit(1)), "1,9");
  EXPECT_EQ(Trace::levelsText(Trace::parseLevels("2-3,3-5")), "2-5");
  for (Trace::LevelMask mask = 0; mask <= Trace::allLevels; mask += 2) {
    EXPECT_EQ(Trace::parseLevels(Trace::levelsText(mask)), mask) << mask;
  }
}

TEST(TraceHandles, ListsTheHandlesCreatedAndFindsWithoutCreating) {
  EXPECT_EQ(Trace::existingHandle("TraceTestNeverCreated"), nullptr);
  EXPECT_EQ(Trace::existingHandle("TraceTestNeverCreated"), nullptr);
  Trace::Handle& made = freshHandle("TraceTestListed");
  EXPECT_EQ(Trace::existingHandle("TraceTestListed"), &made);
  std::vector<std::string> names;
  for (const Trace::Handle* h : Trace::handles()) names.push_back(h->name());
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::count(names.begin(), names.end(), "TraceTestListed"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), "TraceTestNeverCreated"), 0);
}

TEST(TraceLevels, LevelBitIsZeroOutsideOneToNine) {
  EXPECT_EQ(Trace::levelBit(0), 0u);
  EXPECT_EQ(Trace::levelBit(10), 0u);
  EXPECT_EQ(Trace::levelBit(-1), 0u);
  EXPECT_EQ(Trace::levelBit(1), 2u);
}

TEST(TraceHandle, LevelsAreSwitchedOneByOne) {
  Trace::Handle& handle = freshHandle("LevelsOneByOne");
  EXPECT_FALSE(handle.enabled(3));
  handle.levelIs(3, true);
  EXPECT_TRUE(handle.enabled(3));
  EXPECT_FALSE(handle.enabled(2));
  EXPECT_FALSE(handle.enabled(4));
  handle.levelIs(3, false);
  EXPECT_FALSE(handle.enabled(3));
  EXPECT_EQ(handle.levels(), Trace::noLevels);
}

TEST(TraceHandle, LevelOutsideOneToNineThrows) {
  Trace::Handle& handle = freshHandle("LevelOutside");
  EXPECT_THROW(handle.levelIs(0, true), Kiln::RangeException);
  EXPECT_THROW(handle.levelIs(10, true), Kiln::RangeException);
  try {
    handle.levelIs(12, true);
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "trace level 12 is outside 1..9");
  }
  EXPECT_FALSE(handle.enabled(0));
  EXPECT_FALSE(handle.enabled(10));
}

TEST(TraceHandle, LevelsIsDropsBitsOutsideTheLevels) {
  Trace::Handle& handle = freshHandle("LevelsMask");
  handle.levelsIs(0xFFFFFFFF);
  EXPECT_EQ(handle.levels(), Trace::allLevels);
  EXPECT_FALSE(handle.enabled(0));
}

TEST(TraceHandle, SameNameGivesTheSameHandle) {
  Trace::Handle& first = Trace::handle("SameName");
  EXPECT_EQ(&first, &Trace::handle("SameName"));
  EXPECT_NE(&first, &Trace::handle("OtherName"));
  EXPECT_EQ(first.name(), "SameName");
}

TEST(TraceHandle, FirstUseFromManyThreadsCreatesOneHandle) {
  std::vector<Trace::Handle*> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &Trace::handle("ConcurrentFirstUse"); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<Trace::Handle*>(seen.begin(), seen.end()).size(), 1u);
}

TEST(TraceConfigure, AppliesToExistingAndLaterHandles) {
  Trace::Handle& existing = freshHandle("ConfiguredEarly");
  Trace::configure("ConfiguredEarly=2,5; ConfiguredLate = 1-3");
  EXPECT_EQ(existing.levels(), Trace::levelBit(2) | Trace::levelBit(5));
  Trace::Handle& later = Trace::handle("ConfiguredLate");
  EXPECT_EQ(later.levels(), Trace::parseLevels("1-3"));
  Trace::configure("ConfiguredEarly=none;ConfiguredLate=none");
  EXPECT_EQ(existing.levels(), Trace::noLevels);
}

TEST(TraceConfigure, LaterEntriesOverrideEarlierOnes) {
  Trace::Handle& handle = freshHandle("OverrideMe");
  Trace::configure("OverrideMe=1;OverrideMe=4");
  EXPECT_EQ(handle.levels(), Trace::levelBit(4));
  Trace::configure("OverrideMe=none");
}

TEST(TraceConfigure, StarAppliesToEveryHandle) {
  Trace::Handle& a = freshHandle("StarA");
  Trace::Handle& b = freshHandle("StarB");
  Trace::configure("*=9");
  EXPECT_TRUE(a.enabled(9));
  EXPECT_TRUE(b.enabled(9));
  EXPECT_TRUE(Trace::handle("StarCreatedAfter").enabled(9));
  Trace::configure("*=none");
  EXPECT_FALSE(a.enabled(9));
}

TEST(TraceConfigure, MalformedTextThrowsAndChangesNothing) {
  Trace::Handle& handle = freshHandle("Untouched");
  handle.levelIs(2, true);
  EXPECT_THROW(Trace::configure("Untouched=1;Broken"), Kiln::RangeException);
  EXPECT_THROW(Trace::configure("=3"), Kiln::RangeException);
  EXPECT_THROW(Trace::configure("Untouched=12"), Kiln::RangeException);
  EXPECT_EQ(handle.levels(), Trace::levelBit(2));
  try {
    Trace::configure("Broken");
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "bad trace setting 'Broken'");
  }
}

// The variable is read when the first handle of the process is created, so
// these run in a fresh process (the threadsafe death-test style re-executes
// the test binary) that reports through its exit code.
TEST(TraceEnvironment, VariableSetsLevelsOfHandlesCreatedLater) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("BREVANT_TRACE", "EnvHandle=1-4,8; *=none; EnvHandle=1-4,8", 1);
  EXPECT_EXIT(
      {
        const bool ok = Trace::handle("EnvHandle").levels() == Trace::parseLevels("1-4,8") &&
                        Trace::handle("EnvOther").levels() == Trace::noLevels;
        std::exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  unsetenv("BREVANT_TRACE");
  GTEST_FLAG_SET(death_test_style, "fast");
}

TEST(TraceEnvironment, MalformedVariableIsReportedAndIgnored) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("BREVANT_TRACE", "EnvHandle=1-4;EnvHandle=banana", 1);
  EXPECT_EXIT({ std::exit(Trace::handle("EnvHandle").levels() == Trace::noLevels ? 0 : 1); },
              testing::ExitedWithCode(0),
              HasSubstr("BREVANT_TRACE ignored: bad trace levels 'banana'"));
  unsetenv("BREVANT_TRACE");
  GTEST_FLAG_SET(death_test_style, "fast");
}

TEST(TraceLine, DisabledLevelDoesNotEvaluateTheStream) {
  Trace::Handle& handle = freshHandle("Lazy");
  Trace::Capture capture;
  int evaluated = 0;
  TRACE_LINE(handle, 3, "value " << ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(capture.lines().empty());
  handle.levelIs(3, true);
  TRACE_LINE(handle, 3, "value " << ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(capture.lines(), ElementsAre(Trace::Line{"Lazy", 3, "value 1"}));
}

TEST(TraceLine, ConcatenatesDecimalNumbersBooleansAndHexWhenAsked) {
  Trace::Handle& handle = freshHandle("Pieces");
  Trace::Capture capture(handle, Trace::levelBit(9));
  const U16 index = 65533;
  const U64 word = 0xABCDEF;
  TRACE_LINE(handle, 9,
             "index " << index << " flag " << true << false << " nhData " << std::hex << word
                      << " back " << std::dec << 255);
  EXPECT_THAT(capture.texts(9), ElementsAre("index 65533 flag 10 nhData abcdef back 255"));
}

TEST(TraceLine, EachLineStartsInDecimal) {
  Trace::Handle& handle = freshHandle("FreshStream");
  Trace::Capture capture(handle, Trace::allLevels);
  TRACE_LINE(handle, 2, std::hex << 255);
  TRACE_LINE(handle, 2, 255);
  EXPECT_THAT(capture.texts(2), ElementsAre("ff", "255"));
}

TEST(TraceCapture, KeepsLevelAndTextOfEveryHandle) {
  Trace::Handle& a = freshHandle("CaptureA");
  Trace::Handle& b = freshHandle("CaptureB");
  a.levelsIs(Trace::allLevels);
  b.levelsIs(Trace::allLevels);
  Trace::Capture capture;
  TRACE_LINE(a, 1, "first");
  TRACE_LINE(b, 8, "second");
  EXPECT_THAT(capture.lines(), ElementsAre(Trace::Line{"CaptureA", 1, "first"},
                                           Trace::Line{"CaptureB", 8, "second"}));
  EXPECT_TRUE(capture.contains(1, "first"));
  EXPECT_FALSE(capture.contains(2, "first"));
  EXPECT_FALSE(capture.contains(1, "firs"));
  capture.clear();
  EXPECT_TRUE(capture.lines().empty());
}

TEST(TraceCapture, RestoresLevelsAndThePreviousSink) {
  Trace::Handle& handle = freshHandle("CaptureRestore");
  handle.levelIs(2, true);
  Trace::Sink* before = Trace::sink();
  {
    Trace::Capture outer;
    {
      Trace::Capture inner(handle, Trace::levelBit(5));
      EXPECT_EQ(Trace::sink(), &inner);
      EXPECT_EQ(handle.levels(), Trace::levelBit(2) | Trace::levelBit(5));
      TRACE_LINE(handle, 5, "inner");
      EXPECT_TRUE(inner.contains(5, "inner"));
    }
    EXPECT_EQ(Trace::sink(), &outer);
    EXPECT_EQ(handle.levels(), Trace::levelBit(2));
    TRACE_LINE(handle, 2, "outer");
    EXPECT_THAT(outer.lines(), ElementsAre(Trace::Line{"CaptureRestore", 2, "outer"}));
  }
  EXPECT_EQ(Trace::sink(), before);
}

TEST(TraceSink, DefaultWritesHandleLevelAndTextToStderr) {
  Trace::Handle& handle = freshHandle("ToStderr");
  handle.levelIs(4, true);
  testing::internal::CaptureStderr();
  TRACE_LINE(handle, 4, "to the terminal " << 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ToStderr 4: to the terminal 7\n");
}

TEST(TraceSink, NullSinkDropsLines) {
  Trace::Handle& handle = freshHandle("Dropped");
  handle.levelIs(1, true);
  Trace::NullSink nothing;
  Trace::Sink* previous = Trace::sinkIs(&nothing);
  testing::internal::CaptureStderr();
  TRACE_LINE(handle, 1, "gone");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(Trace::sinkIs(previous), &nothing);
}

TEST(TraceSink, EmitIgnoresTheHandleLevels) {
  Trace::Handle& handle = freshHandle("Emitted");
  Trace::Capture capture;
  Trace::emit(handle, 7, "decided by the caller");
  EXPECT_THAT(capture.lines(), ElementsAre(Trace::Line{"Emitted", 7, "decided by the caller"}));
}
