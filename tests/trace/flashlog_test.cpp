#include "Flashlog/Flashlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <thread>

#include "Kiln/Assert.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

// Every test starts with an empty built-in default handle and leaves the
// default as it found it.
class FlashlogTest : public testing::Test {
 protected:
  void SetUp() override {
    saved_ = Flashlog::defaultHandle();
    Flashlog::defaultHandleIs(&Flashlog::processHandle());
    Flashlog::processHandle().clear();
  }
  void TearDown() override { Flashlog::defaultHandleIs(saved_); }

 private:
  Flashlog::Handle* saved_ = nullptr;
};

// One call site, run as often as asked.
void recordFromOneSite(int times) {
  for (int i = 0; i < times; ++i) FLASHLOG(1, "same site %d", i);
}

}  // namespace

TEST_F(FlashlogTest, SiteIsRegisteredOnceOnItsFirstExecution) {
  const U32 before = Flashlog::siteCount();
  recordFromOneSite(3);
  EXPECT_EQ(Flashlog::siteCount(), before + 1);
  recordFromOneSite(2);
  EXPECT_EQ(Flashlog::siteCount(), before + 1);
  const std::vector<Flashlog::Record> records = Flashlog::records();
  ASSERT_EQ(records.size(), 5u);
  for (const Flashlog::Record& record : records) EXPECT_EQ(record.site, records[0].site);
  const Flashlog::Site& site = *records[0].site;
  EXPECT_EQ(&Flashlog::site(site.id), &site);
  EXPECT_THAT(site.file, EndsWith("flashlog_test.cpp"));
  EXPECT_GT(site.line, 0u);
  EXPECT_EQ(site.level, 1);
  EXPECT_STREQ(site.format, "same site %d");
  EXPECT_STREQ(site.argFormat, "i");
}

TEST_F(FlashlogTest, SiteThatNeverRunsIsNotRegistered) {
  const U32 before = Flashlog::siteCount();
  if (Flashlog::siteCount() == 0xFFFFFFFF) FLASHLOG(1, "never");
  EXPECT_EQ(Flashlog::siteCount(), before);
}

TEST_F(FlashlogTest, ArgumentFormatFollowsTheArgumentTypes) {
  const U16 id = 7;
  const S32 status = -5;
  const U64 word = 1;
  const U8 small = 3;
  FLASHLOG(1, "none");
  FLASHLOG(1, "%u", id);
  FLASHLOG(1, "%d", status);
  FLASHLOG(1, "%llu", word);
  FLASHLOG(1, "%u", small);
  FLASHLOG(1, "%s %u %d", __func__, id, status);
  const std::vector<Flashlog::Record> records = Flashlog::records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_STREQ(records[0].site->argFormat, "");
  EXPECT_STREQ(records[1].site->argFormat, "h");
  EXPECT_STREQ(records[2].site->argFormat, "i");
  EXPECT_STREQ(records[3].site->argFormat, "l");
  EXPECT_STREQ(records[4].site->argFormat, "h");
  EXPECT_STREQ(records[5].site->argFormat, "shi");
}

TEST_F(FlashlogTest, RecordKeepsRawArgumentsAndRendersLater) {
  const S32 status = -5;
  const U16 id = 65533;
  FLASHLOG(2, "Something went wrong when creating ECMP group %u", id);
  FLASHLOG(1, "%s: status %d", "writeNextHopInternal", status);
  const std::vector<Flashlog::Record> records = Flashlog::records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].format(), "Something went wrong when creating ECMP group %u");
  EXPECT_EQ(records[0].argCount, 1u);
  EXPECT_EQ(records[0].intArg(0), 65533);
  EXPECT_EQ(records[0].text(), "Something went wrong when creating ECMP group 65533");
  EXPECT_STREQ(records[1].textArg(0), "writeNextHopInternal");
  EXPECT_EQ(records[1].intArg(1), -5);
  EXPECT_EQ(records[1].text(), "writeNextHopInternal: status -5");
  EXPECT_LT(records[0].sequence, records[1].sequence);
}

TEST_F(FlashlogTest, RenderingFollowsPrintfConversions) {
  const S32 minusOne = -1;
  const S16 shortMinusOne = -1;
  const U32 value = 0x2A;
  const U64 big = 0x123456789ull;
  FLASHLOG(1, "%x %X %04x %5d|", minusOne, value, value, minusOne);
  FLASHLOG(1, "%-3u|", value);
  FLASHLOG(1, "%x %llx %o %c", shortMinusOne, big, value, value);
  FLASHLOG(1, "100%% of %s", "entries");
  FLASHLOG(1, "%lu %hd", big, shortMinusOne);
  EXPECT_THAT(Flashlog::texts(),
              ElementsAre("ffffffff 2A 002a    -1|", "42 |", "ffffffff 123456789 52 *",
                          "100% of entries", "4886718345 -1"));
}

TEST_F(FlashlogTest, RingKeepsTheNewestRecordsOldestFirst) {
  Flashlog::Handle small("small", 4);
  Flashlog::defaultHandleIs(&small);
  for (int i = 0; i < 10; ++i) FLASHLOG(1, "record %d", i);
  EXPECT_THAT(Flashlog::texts(), ElementsAre("record 6", "record 7", "record 8", "record 9"));
  small.clear();
  EXPECT_TRUE(small.records().empty());
  FLASHLOG(1, "after clear");
  EXPECT_THAT(Flashlog::texts(), ElementsAre("after clear"));
}

TEST_F(FlashlogTest, RingThatHasNotWrappedKeepsEverything) {
  Flashlog::Handle small("notWrapped", 4);
  Flashlog::defaultHandleIs(&small);
  for (int i = 0; i < 4; ++i) FLASHLOG(1, "record %d", i);
  EXPECT_THAT(Flashlog::texts(), ElementsAre("record 0", "record 1", "record 2", "record 3"));
  EXPECT_EQ(small.recordsPerFile(), 4u);
}

TEST_F(FlashlogTest, RecordsAboveTheHandleLevelAreDropped) {
  Flashlog::processHandle().levelIs(2);
  FLASHLOG(1, "kept at one");
  FLASHLOG(2, "kept at two");
  FLASHLOG(3, "dropped at three");
  Flashlog::processHandle().levelIs(Flashlog::maxLevel);
  EXPECT_THAT(Flashlog::texts(), ElementsAre("kept at one", "kept at two"));
}

TEST_F(FlashlogTest, MultiThreadedHandleGivesEachThreadItsOwnFile) {
  Flashlog::Handle shared("threads", 8, true);
  Flashlog::defaultHandleIs(&shared);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 5; ++i) FLASHLOG(1, "thread %d record %d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared.fileCount(), 3u);
  const std::vector<Flashlog::Record> records = shared.records();
  ASSERT_EQ(records.size(), 15u);
  std::map<S64, std::set<U32>> filesOfThread;
  for (size_t i = 0; i < records.size(); ++i) {
    filesOfThread[records[i].intArg(0)].insert(records[i].file);
    if (i > 0) {
      EXPECT_LT(records[i - 1].sequence, records[i].sequence);
    }
  }
  ASSERT_EQ(filesOfThread.size(), 3u);
  std::set<U32> files;
  for (const auto& [thread, used] : filesOfThread) {
    EXPECT_EQ(used.size(), 1u);
    files.insert(*used.begin());
  }
  EXPECT_EQ(files, (std::set<U32>{0, 1, 2}));
}

TEST_F(FlashlogTest, MultiThreadedFilesEachKeepTheirOwnRing) {
  Flashlog::Handle shared("threadRings", 2, true);
  Flashlog::defaultHandleIs(&shared);
  for (int i = 0; i < 5; ++i) FLASHLOG(1, "main %d", i);
  std::thread other([] { FLASHLOG(1, "other %d", 0); });
  other.join();
  EXPECT_THAT(Flashlog::texts(), ElementsAre("main 3", "main 4", "other 0"));
}

TEST_F(FlashlogTest, SingleThreadedHandleHasOneFileForAllThreads) {
  std::thread other([] { FLASHLOG(1, "from another thread"); });
  other.join();
  FLASHLOG(1, "from the main thread");
  EXPECT_EQ(Flashlog::processHandle().fileCount(), 1u);
  const std::vector<Flashlog::Record> records = Flashlog::records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].file, 0u);
  EXPECT_EQ(records[1].file, 0u);
}

TEST_F(FlashlogTest, DestroyedDefaultHandleStopsBeingTheDefault) {
  {
    Flashlog::Handle temporary("temporary");
    Flashlog::defaultHandleIs(&temporary);
    EXPECT_EQ(Flashlog::defaultHandle(), &temporary);
  }
  EXPECT_EQ(Flashlog::defaultHandle(), nullptr);
  EXPECT_TRUE(Flashlog::records().empty());
}

TEST_F(FlashlogTest, BuiltInDefaultIsTheProcessHandle) {
  EXPECT_EQ(Flashlog::defaultHandle(), &Flashlog::processHandle());
  EXPECT_EQ(Flashlog::processHandle().name(), "process");
  EXPECT_FALSE(Flashlog::processHandle().multiThreaded());
}

TEST_F(FlashlogTest, DumpWritesRecordsOldestFirst) {
  FLASHLOG(1, "first %d", 1);
  FLASHLOG(3, "second");
  testing::internal::CaptureStderr();
  Flashlog::dumpDefault();
  const std::string dump = testing::internal::GetCapturedStderr();
  EXPECT_THAT(dump, HasSubstr("Flashlog process: 2 records, oldest first\n"));
  EXPECT_THAT(dump, HasSubstr("flashlog_test.cpp:"));
  EXPECT_THAT(dump, HasSubstr("level 1: first 1\n"));
  EXPECT_THAT(dump, HasSubstr("level 3: second\n"));
  EXPECT_LT(dump.find("first 1"), dump.find("second"));
}

TEST_F(FlashlogTest, DumpWithoutDefaultHandleSaysSo) {
  Flashlog::defaultHandleIs(nullptr);
  testing::internal::CaptureStderr();
  Flashlog::dumpDefault();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Flashlog: no default handle\n");
}

TEST_F(FlashlogTest, RecordingWithoutDefaultHandleStopsOnAssertionZero) {
  EXPECT_DEATH(
      {
        Flashlog::defaultHandleIs(nullptr);
        FLASHLOG(1, "Error:Invalid Argument");
      },
      AllOf(HasSubstr("Assertion `0' failed."), HasSubstr("Flashlog: no default handle")));
}

TEST_F(FlashlogTest, FatalErrorDumpsTheRing) {
  EXPECT_DEATH(
      {
        FLASHLOG(1, "what led to it %d", 42);
        KILN_ASSERT(1 == 2);
      },
      AllOf(HasSubstr("Assertion `1 == 2' failed."),
            HasSubstr("Flashlog process: 1 records, oldest first"),
            HasSubstr("level 1: what led to it 42")));
}

TEST_F(FlashlogTest, FormatNotMatchingItsArgumentsStopsTheProcess) {
  EXPECT_DEATH(Flashlog::siteIs(__FILE__, __LINE__, 1, "%d %d", "i"),
               HasSubstr("Assertion `conversions == argCount' failed."));
}

TEST_F(FlashlogTest, ZeroRecordsPerFileStopsTheProcess) {
  EXPECT_DEATH(Flashlog::Handle("empty", 0), HasSubstr("Assertion `recordsPerFile > 0' failed."));
}
