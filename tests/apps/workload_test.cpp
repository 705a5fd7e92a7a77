#include "Workload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace Agent;
using ::testing::HasSubstr;

namespace {

// The error a bad workload raises, or a failure when it parses.
WorkloadError errorOf(const std::string& text) {
  try {
    parseWorkload(text);
  } catch (const WorkloadError& e) {
    return e;
  }
  ADD_FAILURE() << "parsed without error: " << text;
  return WorkloadError(0, "");
}

}  // namespace

TEST(Workload, ParsesEveryKindOfRequest) {
  const Workload w = parseWorkload(
      "# a comment line\n"
      "\n"
      "create r1 narrow 4 unicast\n"
      "create t1 wide 3 vxlan-tunnel variable   # trailing comment\n"
      "create m1 narrow 2 multicast variable mcast\n"
      "\tupdate r1\n"
      "update r1 2\n"
      "read t1 1\r\n"
      "add-feature r1 nat\n"
      "sleep 2.5\n"
      "delete r1\n");
  ASSERT_EQ(w.size(), 9u);
  EXPECT_EQ(w[0].kind, RequestKind::create);
  EXPECT_EQ(w[0].label, "r1");
  EXPECT_FALSE(w[0].wide);
  EXPECT_EQ(w[0].size, 4);
  EXPECT_EQ(w[0].feature, Feature::unicast);
  EXPECT_TRUE(w[0].fixedSize);
  EXPECT_FALSE(w[0].mcast);
  EXPECT_EQ(w[0].line, 3u);
  EXPECT_TRUE(w[1].wide);
  EXPECT_FALSE(w[1].fixedSize);
  EXPECT_EQ(w[1].feature, Feature::vxlanTunnel);
  EXPECT_TRUE(w[2].mcast);
  EXPECT_EQ(w[2].feature, Feature::multicast);
  EXPECT_EQ(w[3].kind, RequestKind::update);
  EXPECT_FALSE(w[3].hasPosition);
  EXPECT_TRUE(w[4].hasPosition);
  EXPECT_EQ(w[4].position, 2);
  EXPECT_EQ(w[5].kind, RequestKind::read);
  EXPECT_EQ(w[5].label, "t1");
  EXPECT_EQ(w[5].position, 1);
  EXPECT_EQ(w[6].kind, RequestKind::addFeature);
  EXPECT_EQ(w[6].feature, Feature::nat);
  EXPECT_EQ(w[7].kind, RequestKind::sleep);
  EXPECT_DOUBLE_EQ(w[7].seconds, 2.5);
  EXPECT_EQ(w[8].kind, RequestKind::remove);
  EXPECT_EQ(w[8].line, 11u);
}

TEST(Workload, AcceptsSizesTheManagerRefuses) {
  // The parser checks the form; the manager decides what a size may be.
  const Workload w =
      parseWorkload("create big narrow 257 unicast\ncreate none narrow 0 nat fixed\n");
  EXPECT_EQ(w[0].size, 257);
  EXPECT_EQ(w[1].size, 0);
}

TEST(Workload, EmptyTextIsAnEmptyWorkload) {
  EXPECT_TRUE(parseWorkload("").empty());
  EXPECT_TRUE(parseWorkload("# nothing\n   \n").empty());
}

TEST(Workload, ReportsTheLineOfAnUnknownRequest) {
  const WorkloadError e = errorOf("create a narrow 1 unicast\n\ncrate b narrow 1 unicast\n");
  EXPECT_EQ(e.line(), 3u);
  EXPECT_THAT(e.what(), HasSubstr("line 3: unknown request 'crate'"));
}

TEST(Workload, ReportsBadFieldsWithTheirLine) {
  EXPECT_EQ(errorOf("create a medium 1 unicast\n").message(),
            "expected narrow or wide, not 'medium'");
  EXPECT_EQ(errorOf("create a narrow 65536 unicast\n").message(),
            "size '65536' is not a number from 0 to 65535");
  EXPECT_EQ(errorOf("create a narrow -1 unicast\n").message(),
            "size '-1' is not a number from 0 to 65535");
  EXPECT_EQ(errorOf("create a narrow 4x unicast\n").message(),
            "size '4x' is not a number from 0 to 65535");
  EXPECT_THAT(errorOf("create a narrow 4 bgp\n").message(), HasSubstr("unknown feature 'bgp'"));
  EXPECT_THAT(errorOf("create a narrow 4 nat fixed fixed\n").message(),
              HasSubstr("unexpected 'fixed'"));
  EXPECT_THAT(errorOf("create a narrow 4 nat mcast mcast\n").message(),
              HasSubstr("unexpected 'mcast'"));
  EXPECT_EQ(errorOf("create a narrow\n").message(),
            "expected: create LABEL narrow|wide SIZE FEATURE [fixed|variable] [mcast]");
  EXPECT_EQ(errorOf("sleep\n").message(), "expected: sleep SECONDS");
  EXPECT_EQ(errorOf("restart now\n").message(), "expected: restart");
  EXPECT_EQ(errorOf("sleep -1\n").message(), "seconds '-1' is not a number from 0 to 1e6");
  EXPECT_EQ(errorOf("sleep nan\n").message(), "seconds 'nan' is not a number from 0 to 1e6");
  EXPECT_EQ(errorOf("sleep 2000000\n").message(),
            "seconds '2000000' is not a number from 0 to 1e6");
  EXPECT_EQ(errorOf("create a narrow 1 nat\nread a\n").message(), "expected: read LABEL POSITION");
  EXPECT_EQ(errorOf("create a narrow 1 nat\nupdate a 1 2\n").message(),
            "expected: update LABEL [POSITION]");
  EXPECT_THAT(errorOf("create a;b narrow 1 nat\n").message(),
              HasSubstr("label 'a;b' has a character"));
  EXPECT_EQ(errorOf("create " + std::string(65, 'x') + " narrow 1 nat\n").message(),
            "label longer than 64 characters");
}

TEST(Workload, LabelsMustBeLiveWhereTheyAreUsed) {
  const WorkloadError twice = errorOf("create a narrow 1 nat\ncreate a wide 1 vxlan-tunnel\n");
  EXPECT_EQ(twice.line(), 2u);
  EXPECT_EQ(twice.message(), "label 'a' is already in use (created on line 1)");
  const WorkloadError unknown = errorOf("update a\n");
  EXPECT_EQ(unknown.line(), 1u);
  EXPECT_EQ(unknown.message(), "label 'a' names no group (not created, or deleted)");
  const WorkloadError deleted = errorOf("create a narrow 1 nat\ndelete a\nread a 0\n");
  EXPECT_EQ(deleted.line(), 3u);
  // A deleted label may be created again.
  EXPECT_EQ(parseWorkload("create a narrow 1 nat\ndelete a\ncreate a wide 2 vxlan-tunnel\n").size(),
            3u);
}

TEST(Workload, RequestTextReadsBackToTheSameRequest) {
  const Workload w = parseWorkload(
      "create r1 narrow 4 unicast\n"
      "create t1 wide 3 vxlan-tunnel variable mcast\n"
      "update r1\n"
      "update r1 2\n"
      "read t1 1\n"
      "add-feature r1 vxlan\n"
      "sleep 0.125\n"
      "delete r1\n");
  std::string text;
  for (const Request& r : w) text += requestText(r) + "\n";
  Workload again = parseWorkload(text);
  ASSERT_EQ(again.size(), w.size());
  for (size_t i = 0; i < w.size(); ++i) {
    Request expected = w[i];
    expected.line = again[i].line;
    EXPECT_EQ(again[i], expected) << text;
  }
  EXPECT_EQ(requestText(w[0]), "create r1 narrow 4 unicast fixed");
}

TEST(Workload, FeatureNamesRoundTrip) {
  for (int i = 0; i < featureCount; ++i) {
    const Feature f = static_cast<Feature>(i);
    EXPECT_EQ(featureNamed(featureName(f)), f);
  }
  EXPECT_EQ(featureNamed("VXLAN"), std::nullopt);
}

TEST(BuiltInWorkload, IsDeterministicForASeed) {
  BuiltInOptions options;
  options.capacity = 2000;
  options.duration = 600;
  const Workload a = builtInWorkload(options);
  const Workload b = builtInWorkload(options);
  EXPECT_EQ(a, b);
  options.seed = 2;
  EXPECT_NE(builtInWorkload(options), a);
}

TEST(BuiltInWorkload, KeepsGroupsWithinTheLargestSizeAsked) {
  BuiltInOptions options;
  options.capacity = 1013;
  options.duration = 1200;
  options.maxEntries = 8;
  U16 largestNarrow = 0;
  U16 largestWide = 0;
  for (const Request& r : builtInWorkload(options)) {
    if (r.kind != RequestKind::create) continue;
    (r.wide ? largestWide : largestNarrow) = std::max(r.wide ? largestWide : largestNarrow, r.size);
  }
  EXPECT_EQ(largestNarrow, 8);
  EXPECT_EQ(largestWide, 4);
}

TEST(BuiltInWorkload, IsAValidWorkloadWithRouteChurn) {
  BuiltInOptions options;
  options.capacity = 4000;
  options.duration = 3600;
  const Workload w = builtInWorkload(options);
  // Written out and parsed again, it passes every check of a workload file.
  std::string text;
  for (const Request& r : w) text += requestText(r) + "\n";
  EXPECT_EQ(parseWorkload(text).size(), w.size());

  std::map<RequestKind, int> kinds;
  std::map<Feature, int> features;
  std::map<U16, int> unicastSizes;
  std::set<std::string> live;
  double time = 0;
  U32 plannedPeak = 0;
  U32 planned = 0;
  std::map<std::string, U32> entries;
  for (const Request& r : w) {
    ++kinds[r.kind];
    if (r.kind == RequestKind::sleep) time += r.seconds;
    if (r.kind == RequestKind::create) {
      ++features[r.feature];
      EXPECT_GE(r.size, 1);
      EXPECT_LE(r.size, 64);
      if (r.feature == Feature::unicast) ++unicastSizes[r.size];
      EXPECT_EQ(r.wide, r.feature == Feature::vxlanTunnel);
      EXPECT_EQ(r.mcast, r.feature == Feature::multicast);
      entries[r.label] = r.wide ? 2u * r.size : r.size;
      planned += entries[r.label];
      plannedPeak = std::max(plannedPeak, planned);
    }
    if (r.kind == RequestKind::remove) planned -= entries[r.label];
  }
  EXPECT_GE(time, 3600.0);
  EXPECT_GT(kinds[RequestKind::remove], 100);
  EXPECT_GT(kinds[RequestKind::update], 50);
  EXPECT_GT(kinds[RequestKind::read], 50);
  EXPECT_GT(kinds[RequestKind::addFeature], 5);
  for (int i = 0; i < featureCount; ++i) EXPECT_GT(features[static_cast<Feature>(i)], 0) << i;
  // Skewed sizes: one next hop is the most common unicast size, and large
  // groups exist but are rare.
  int largest = 0;
  for (const auto& [size, count] : unicastSizes) largest = std::max(largest, count);
  EXPECT_EQ(unicastSizes[1], largest);
  int large = 0;
  for (const auto& [size, count] : unicastSizes) large += size > 32 ? count : 0;
  EXPECT_GT(large, 0);
  EXPECT_LT(large, unicastSizes[1]);
  // The table is kept nearly full: about 85% after convergence, more at peaks.
  EXPECT_GE(plannedPeak, 4000u * 85 / 100);
}

TEST(Workload, RestartIsARequestOfItsOwnThatReadsBack) {
  const Workload w = parseWorkload("create a narrow 2 nat\nrestart   # warm\nread a 1\n");
  ASSERT_EQ(w.size(), 3u);
  EXPECT_EQ(w[1].kind, RequestKind::restart);
  EXPECT_EQ(requestText(w[1]), "restart");
  EXPECT_EQ(parseWorkload(requestText(w[1]))[0].kind, RequestKind::restart);
}

TEST(Workload, ALineLongerThanTheLimitIsAnErrorWithItsLine) {
  const std::string longLine(maxWorkloadLineLength + 1, 'x');
  try {
    parseWorkload("create a narrow 1 unicast\n" + longLine);
    FAIL() << "no error";
  } catch (const WorkloadError& e) {
    EXPECT_EQ(e.line(), 2u);
    EXPECT_EQ(e.message(), "line longer than 4096 characters");
  }
  const std::string atTheLimit = "# " + std::string(maxWorkloadLineLength - 2, 'x');
  EXPECT_TRUE(parseWorkload(atTheLimit + "\n" + atTheLimit).empty());
}
