// The agent simulation end to end on the manual clock: a small workload's
// figures, the occupancy pictures, and the diagnostic socket.
#include "Agent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <thread>

#include "Brevant/DefragManager.h"
#include "DiagnosticSocket.h"
#include "Diagnostics.h"
#include "FmSim/FmSim.h"
#include "Kiln/TypeRecord.h"

using namespace Agent;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

AgentConfig configOf(const std::string& workload, std::optional<U16> simBound = 64) {
  AgentConfig config;
  config.workload = parseWorkload(workload);
  config.workloadName = "test";
  config.simBound = simBound;
  config.manualClock = true;
  // An instant chip: these runs' agent times are the workload's sleeps and
  // the defragmenter's delays alone. The timed chip has tests of its own.
  config.chipTiming = {};
  return config;
}

// In a table of 64 (swap area 56..63): a narrow group of 4 at 3, a wide
// group of 2 at 52, a multicast group at 7 that goes again, and requests
// the manager refuses.
const char* const smallWorkload =
    "create a narrow 4 unicast\n"
    "create t wide 2 vxlan-tunnel\n"
    "create m narrow 3 multicast variable mcast\n"
    "create big narrow 257 nat   # refused: -1\n"
    "update a\n"
    "update a 1\n"
    "update a 9                  # refused: -1\n"
    "read a 1\n"
    "read t 0\n"
    "read a 7                    # refused: -1\n"
    "add-feature a nat\n"
    "sleep 10\n"
    "delete m\n"
    "delete big                  # skipped: never placed\n";

}  // namespace

TEST(AgentRun, ReportsTheFiguresOfASmallWorkload) {
  AgentSimulation agent(configOf(smallWorkload));
  const Report r = agent.run();
  EXPECT_EQ(r.requests.at(RequestKind::create).requested, 4u);
  EXPECT_EQ(r.requests.at(RequestKind::create).succeeded, 3u);
  EXPECT_EQ(r.requests.at(RequestKind::update).requested, 3u);
  EXPECT_EQ(r.requests.at(RequestKind::update).succeeded, 2u);
  EXPECT_EQ(r.requests.at(RequestKind::read).requested, 3u);
  EXPECT_EQ(r.requests.at(RequestKind::read).succeeded, 2u);
  EXPECT_EQ(r.requests.at(RequestKind::addFeature).succeeded, 1u);
  EXPECT_EQ(r.requests.at(RequestKind::remove).requested, 2u);
  EXPECT_EQ(r.requests.at(RequestKind::remove).succeeded, 1u);
  EXPECT_EQ(r.refusals, (std::map<S32, U64>{{-1, 3}}));
  EXPECT_EQ(r.skipped, 1u);
  EXPECT_EQ(r.readsCompared, 2u);
  EXPECT_EQ(r.readMismatches, 0u);
  EXPECT_EQ(r.queuedForRetry, 0u);
  EXPECT_EQ(r.groupsAtEnd, 2u);
  EXPECT_EQ(r.agentTime, 10.0);
  EXPECT_EQ(r.endedBy, "workload done");
  EXPECT_TRUE(r.workloadCompleted);
  EXPECT_EQ(r.tableBound, 64u);
  EXPECT_EQ(r.swapIndex, 56u);
  // Three creates, the whole-group rewrite (one write per next hop) and the
  // single rewrite; none by the defragmenter.
  EXPECT_EQ(r.hitlessWritesChecked, 3u + 4u + 1u);
  EXPECT_EQ(r.hitlessViolations, 0u);
  EXPECT_EQ(r.defragEntriesWritten, 0u);
  EXPECT_EQ(r.defragRuns, 0u);
  EXPECT_EQ(r.groupsMoved, 0u);
  // The views: unicast and NAT share a, the tunnel has t, multicast lost m.
  EXPECT_EQ(r.viewGroupsChecked, 3u);
  EXPECT_TRUE(r.viewMismatches.empty());
  EXPECT_TRUE(r.passed());
  using Placements = std::map<U16, AgentSimulation::Placement>;
  EXPECT_EQ(agent.view(Feature::unicast), (Placements{{3, {3, 4}}}));
  EXPECT_EQ(agent.view(Feature::nat), (Placements{{3, {3, 4}}}));
  EXPECT_EQ(agent.view(Feature::vxlanTunnel), (Placements{{4, {52, 2}}}));
  EXPECT_TRUE(agent.view(Feature::multicast).empty());
  EXPECT_TRUE(agent.view(Feature::vxlan).empty());
}

TEST(AgentRun, PicturesTheTableAtStartAndEnd) {
  AgentSimulation agent(configOf(smallWorkload));
  const Report r = agent.run();
  EXPECT_EQ(r.start.title, "start");
  EXPECT_EQ(r.start.time, 0.0);
  EXPECT_EQ(r.start.freeSpace(), (FreeSpace{53, 1, 53}));
  EXPECT_EQ(r.end.title, "end");
  EXPECT_EQ(r.end.time, 10.0);
  ASSERT_EQ(r.end.cells.size(), 64u);
  std::vector<Cell> expected(64, Cell::free);
  for (U32 i = 0; i < 3; ++i) expected[i] = Cell::reserved;
  for (U32 i = 3; i < 7; ++i) expected[i] = Cell::narrow;
  for (U32 i = 52; i < 56; ++i) expected[i] = Cell::wide;
  for (U32 i = 56; i < 64; ++i) expected[i] = Cell::swap;
  EXPECT_EQ(r.end.cells, expected);
  // The most fragmented moment seen: 7..9 held m while a and t stood.
  EXPECT_EQ(r.worst.title, "worst fragmentation");
}

TEST(AgentRun, TheChipHoldsWhatTheFeaturesWrote) {
  AgentSimulation agent(configOf("create a narrow 2 unicast\ncreate w wide 1 vxlan-tunnel\n"));
  const Report r = agent.run();
  ASSERT_TRUE(r.passed());
  Kiln::ActivityLockGuard activity;
  for (U16 p = 0; p < 2; ++p) {
    const Brevant::NextHopEntry e = agent.manager().readNextHop(3, p);
    EXPECT_EQ(e.hwIndex(), 3 + p);
    EXPECT_EQ(FmSim::tableWord(3 + p), e.data());
    EXPECT_NE(e.data(), 0u);
  }
  EXPECT_NE(agent.manager().readNextHop(3, 0).data(), agent.manager().readNextHop(3, 1).data());
  const Brevant::NextHopEntry wide = agent.manager().readNextHop(4, 0);
  EXPECT_EQ(wide.hwIndex(), 54);
  EXPECT_NE(wide.wideData(), 0u);
}

TEST(AgentRun, AnEmptyWorkloadEndsAtOnce) {
  AgentSimulation agent(configOf("", std::nullopt));
  const Report r = agent.run();
  EXPECT_TRUE(r.requests.empty());
  EXPECT_EQ(r.agentTime, 0.0);
  EXPECT_EQ(r.tableBound, 65534u);
  EXPECT_EQ(r.end.freeSpace(), (FreeSpace{65275, 1, 65275}));
  EXPECT_TRUE(r.passed());
}

TEST(AgentRun, RunsOnTheRealClockToo) {
  AgentConfig config = configOf("create a narrow 2 unicast\nsleep 0.05\ndelete a\n");
  config.manualClock = false;
  AgentSimulation agent(config);
  const Report r = agent.run();
  EXPECT_FALSE(r.manualClock);
  // Agent time counts from the start of the run, not from the clock's zero.
  EXPECT_GE(r.agentTime, 0.05);
  EXPECT_LT(r.agentTime, 30.0);
  EXPECT_LT(r.start.time, 1.0);
  EXPECT_EQ(r.requests.at(RequestKind::remove).succeeded, 1u);
  EXPECT_EQ(r.endedBy, "workload done");
  EXPECT_TRUE(r.passed());
}

TEST(AgentRun, RestoresTheLoopsClock) {
  const Kiln::Ptr<Kiln::Clock> before = Kiln::ActivityManager::instance().clock();
  {
    AgentSimulation agent(configOf("create a narrow 1 nat\n"));
    EXPECT_NE(Kiln::ActivityManager::instance().clock(), before);
    agent.run();
  }
  EXPECT_EQ(Kiln::ActivityManager::instance().clock(), before);
}

namespace {

// Fills 3..55 of a table of 64 (swap area 56..63) with groups of at most
// 8 entries: six of 8 and one of 5.
const char* const fullSmallTable =
    "create a1 narrow 8 unicast\n"
    "create a2 narrow 8 unicast\n"
    "create a3 narrow 8 unicast\n"
    "create a4 narrow 8 unicast\n"
    "create a5 narrow 8 unicast\n"
    "create a6 narrow 8 unicast\n"
    "create a7 narrow 5 unicast\n";

}  // namespace

TEST(AgentRun, ARefusedCreateThatNeverFitsIsAbandonedAfterTheSettleLimit) {
  // A group of 8 can never fit, though the swap area's free entries make
  // the total look sufficient.
  AgentConfig config = configOf(std::string(fullSmallTable) + "create c narrow 8 nat\n");
  config.settleLimit = 100;
  AgentSimulation agent(config);
  const Report r = agent.run();
  EXPECT_EQ(r.refusals.at(-2), 1u + r.retryAttempts);
  EXPECT_EQ(r.queuedForRetry, 1u);
  EXPECT_GE(r.retryAttempts, 1u);
  EXPECT_EQ(r.retriesSucceeded, 0u);
  EXPECT_EQ(r.abandoned, 1u);
  EXPECT_EQ(r.endedBy, "settle limit");
  EXPECT_GT(r.agentTime, 100.0);
  EXPECT_TRUE(r.passed());
  EXPECT_FALSE(r.complete());
}

TEST(AgentRun, ARefusedCreateSucceedsRightAfterTheDefragmentationRun) {
  // a 3..10, b 11..16, c 17..20, d 21..24, e 25..30, f 31..34, g 35..42,
  // h 43..50, i 51..55; b and e go, leaving two holes of 6: a group of 8
  // finds no block although 12 entries (20 with the swap area) are free.
  AgentSimulation agent(
      configOf("create a narrow 8 unicast\n"
               "create b narrow 6 unicast\n"
               "create c narrow 4 nat\n"
               "create d narrow 4 unicast\n"
               "create e narrow 6 vxlan\n"
               "create f narrow 4 unicast\n"
               "create g narrow 8 unicast\n"
               "create h narrow 8 unicast\n"
               "create i narrow 5 unicast\n"
               "delete b\n"
               "delete e\n"
               "create x narrow 8 unicast\n"));
  const Report r = agent.run();
  EXPECT_EQ(r.refusals, (std::map<S32, U64>{{-2, 1}}));
  EXPECT_EQ(r.queuedForRetry, 1u);
  EXPECT_EQ(r.retryAttempts, 1u);
  EXPECT_EQ(r.retriesSucceeded, 1u);
  EXPECT_EQ(r.abandoned, 0u);
  // The run fires defragDelay (5 s) after the refusal; the retry follows it.
  EXPECT_EQ(r.defragRuns, 1u);
  EXPECT_EQ(r.agentTime, 5.0);
  EXPECT_EQ(r.endedBy, "workload done");
  // c, d, f, g, h and i slide down by 6 or 12 entries, none overlapping its
  // old place: one write each.
  EXPECT_EQ(r.groupsMoved, 6u);
  EXPECT_EQ(r.entriesMoved, 4u + 4u + 4u + 8u + 8u + 5u);
  EXPECT_EQ(r.defragEntriesWritten, r.entriesMoved);
  EXPECT_EQ(r.hitlessViolations, 0u);
  EXPECT_EQ(r.tableViolations, 0u);
  EXPECT_TRUE(r.tableCheckedEveryWrite);
  EXPECT_GT(r.tableChecks, 3u);
  EXPECT_TRUE(r.viewMismatches.empty());
  using Placements = std::map<U16, AgentSimulation::Placement>;
  EXPECT_EQ(agent.view(Feature::nat), (Placements{{5, {11, 4}}}));
  // x took the id b left (4) and the block after i.
  EXPECT_EQ(agent.view(Feature::unicast), (Placements{{3, {3, 8}},
                                                      {4, {44, 8}},
                                                      {6, {15, 4}},
                                                      {8, {19, 4}},
                                                      {9, {23, 8}},
                                                      {10, {31, 8}},
                                                      {11, {39, 5}}}));
  EXPECT_TRUE(agent.view(Feature::vxlan).empty());
  EXPECT_TRUE(r.passed());
  // The worst moment was the one with the two holes.
  EXPECT_EQ(r.worst.freeSpace(), (FreeSpace{12, 2, 6}));
  // The pictures: the run is marked at t = 5, the refused create at 0, and
  // the table is pictured right after the run, before the retry placed x.
  EXPECT_EQ(r.timeline.defragRuns, (std::vector<Kiln::Seconds>{5.0}));
  EXPECT_EQ(r.timeline.refusedCreates, (std::vector<Kiln::Seconds>{0.0}));
  EXPECT_FALSE(r.timeline.points.empty());
  ASSERT_EQ(r.pictures().size(), 4u);
  EXPECT_EQ(r.pictures()[2].title, "after the largest run (6 groups moved)");
  EXPECT_EQ(r.afterLargestRun.freeSpace(), (FreeSpace{12, 1, 12}));
}

TEST(AgentRun, MovesThroughTheSwapAreaAreHitless) {
  // A hole of 2 below a group of 6: the group's move overlaps its old
  // place, so it goes through the swap area, and every later move of the
  // pass does too.
  AgentSimulation agent(
      configOf("create a narrow 4 unicast\n"
               "create b narrow 2 nat\n"
               "create c narrow 6 unicast\n"
               "create f1 narrow 8 vxlan\n"
               "create f2 narrow 8 vxlan\n"
               "create f3 narrow 8 vxlan\n"
               "create f4 narrow 8 vxlan\n"
               "create f5 narrow 8 vxlan\n"
               "delete b\n"
               "create e narrow 3 nat\n"));
  const Report r = agent.run();
  EXPECT_EQ(r.defragRuns, 1u);
  EXPECT_EQ(r.retriesSucceeded, 1u);
  EXPECT_EQ(r.groupsMoved, 6u);
  EXPECT_EQ(r.entriesMoved, 46u);
  // Two legs per move: to the swap area, then to the final place.
  EXPECT_EQ(r.defragEntriesWritten, 92u);
  EXPECT_EQ(r.hitlessViolations, 0u) << (r.hitlessProblems.empty() ? "" : r.hitlessProblems[0]);
  EXPECT_EQ(r.tableViolations, 0u) << (r.tableProblems.empty() ? "" : r.tableProblems[0]);
  EXPECT_TRUE(r.viewMismatches.empty());
  using Placements = std::map<U16, AgentSimulation::Placement>;
  EXPECT_EQ(agent.view(Feature::nat), (Placements{{4, {53, 3}}}));
  EXPECT_EQ(agent.view(Feature::unicast), (Placements{{3, {3, 4}}, {5, {7, 6}}}));
  EXPECT_EQ(agent.view(Feature::vxlan).at(6).base, 13);
  EXPECT_EQ(agent.view(Feature::vxlan).at(10).base, 45);
}

// The churn tests run in both settings of the manager's hardened switch.
class AgentChurn : public ::testing::TestWithParam<bool> {
 protected:
  // configOf() with the setting of this test's parameter.
  static AgentConfig churnConfig(const BuiltInOptions& builtIn) {
    AgentConfig config = configOf("", static_cast<U16>(builtIn.capacity + 8 + 3));
    config.workload = builtInWorkload(builtIn);
    config.referenceBehaviour = GetParam();
    return config;
  }
};

INSTANTIATE_TEST_SUITE_P(BothSettings, AgentChurn, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "reference" : "hardened";
                         });

TEST_P(AgentChurn, TheBuiltInWorkloadOnASmallTablePassesEveryCheck) {
  BuiltInOptions builtIn;
  builtIn.seed = 3;
  builtIn.capacity = 1024 - 8 - 3;
  builtIn.maxEntries = 8;
  builtIn.duration = 1800;
  AgentConfig config = churnConfig(builtIn);
  config.chipTiming = FmSim::Timing::busEstimate();
  AgentSimulation agent(config);
  const Report r = agent.run();
  EXPECT_EQ(r.hardened, !GetParam());
  EXPECT_TRUE(r.passed()) << (r.hitlessProblems.empty() ? "" : r.hitlessProblems[0])
                          << (r.tableProblems.empty() ? "" : r.tableProblems[0])
                          << (r.viewMismatches.empty() ? "" : r.viewMismatches[0]);
  EXPECT_EQ(r.endedBy, "workload done");
  EXPECT_GT(r.defragRuns, 0u);
  EXPECT_GT(r.groupsMoved, 0u);
  EXPECT_GE(r.defragEntriesWritten, r.entriesMoved);
  EXPECT_GT(r.retriesSucceeded, 0u);
  EXPECT_GT(r.readsCompared, 0u);
  EXPECT_GT(r.viewGroupsChecked, 50u);
  // The worst picture is at least as fragmented as the start and the end.
  EXPECT_FALSE(moreFragmented(r.start.freeSpace(), r.worst.freeSpace()));
  EXPECT_FALSE(moreFragmented(r.end.freeSpace(), r.worst.freeSpace()));
  EXPECT_GT(r.worst.freeSpace().stranded(), 0u);
  EXPECT_GT(r.longestStop, 0.0);
  EXPECT_FALSE(r.longestStopWhat.empty());
}

namespace {

// A serving agent on the manual clock, answering requests sent from another
// thread while the test thread runs it.
class AgentSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/agent-serve-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    path_ = dir_ + "/agent.sock";
  }
  void TearDown() override { rmdir(dir_.c_str()); }

  // Runs the agent until the client function (which ends with quit) is done.
  Report serve(const std::string& workload, const std::function<void()>& client,
               const std::string& snapshotPath = {}, std::optional<U16> simBound = 64) {
    AgentConfig config = configOf(workload, simBound);
    config.socketPath = path_;
    config.serve = true;
    config.snapshotPath = snapshotPath;
    AgentSimulation agent(config);
    auto done = std::async(std::launch::async, client);
    const Report report = agent.run();
    done.get();
    defragDelay_ = agent.manager().defragManager()->defragDelay();
    return report;
  }

  std::string ask(const std::string& request) { return diagnosticRequest(path_, request, 5, 10); }

  std::string dir_;
  std::string path_;
  double defragDelay_ = 0;
};

}  // namespace

TEST_F(AgentSocketTest, AnswersEveryKindOfRequest) {
  std::map<std::string, std::string> answers;
  const char* const requests[] = {
      "show free-entries",
      "show resources",
      "show group 3",
      "show group 4",
      "show group 99",
      "show group x",
      "get nextHopManager.simMode",
      "get nextHopManager.simNextHopTableBound",
      "get nextHopManager.ecmpGroups[3].hwStartIndex",
      "get nextHopManager.hwStartToGroupId[52]",
      "get nextHopManager.hwStartToGroupId",
      "set nextHopManager.defragManager.defragDelay 2.5",
      "get nextHopManager.defragManager.defragDelay",
      "get nextHopManager.noSuchThing",
      "get nextHopManager.ecmpGroups[77].size",
      "get nextHopManager..simMode",
      "set nextHopManager.defragManager.defragDelay soon",
      "frobnicate",
      "help",
  };
  const Report report = serve("create a narrow 4 unicast\ncreate t wide 2 vxlan-tunnel\n", [&] {
    for (const char* request : requests) answers[request] = ask(request);
    answers["quit"] = ask("quit");
  });
  EXPECT_EQ(answers["show free-entries"],
            "NextHopTable Defragmentation Scheduled : no\n"
            "Defrag Counter : 0\n"
            "Next Hops Used/Next Hops Total: 11/64\n"
            "Free Next Hops:\n"
            "7-51:          45   \n"
            "56-63:         8    \n");
  // One line per counter, the name in a column of 30.
  EXPECT_THAT(answers["show resources"], StartsWith("narrowUsed                    4\n"
                                                    "narrowFree                    0\n"
                                                    "wideUsed                      4\n"));
  EXPECT_THAT(answers["show resources"], HasSubstr("\nswapFree                      8\n"));
  EXPECT_THAT(answers["show resources"], HasSubstr("\nwideGroups                    1\n"));
  EXPECT_THAT(answers["show resources"], HasSubstr("\nusedAlarm                     False\n"));
  EXPECT_THAT(report.resources, HasSubstr("narrowGroups                  1\n"));
  EXPECT_THAT(answers["show group 3"],
              StartsWith("group 3: narrow, fixed size, 4 next hops at 3 (entries 3-6), features "
                         "RoutingUnicastFeature\n  0: index 3 data 0x"));
  EXPECT_EQ(std::count(answers["show group 3"].begin(), answers["show group 3"].end(), '\n'), 5);
  EXPECT_THAT(answers["show group 3"], Not(HasSubstr("record")));
  EXPECT_THAT(answers["show group 4"],
              StartsWith("group 4: wide, fixed size, 2 next hops at 52 (entries 52-55), features "
                         "RoutingVxlanTunnelFeature\n  0: index 52 data 0x"));
  EXPECT_THAT(answers["show group 4"], HasSubstr("\n  1: index 54 data 0x"));
  EXPECT_THAT(answers["show group 4"], HasSubstr(" wide data 0x"));
  EXPECT_EQ(answers["show group 99"], "error: no group 99\n");
  EXPECT_EQ(answers["show group x"], "error: 'x' is not a group id\n");
  EXPECT_EQ(answers["get nextHopManager.simMode"], "True\n");
  EXPECT_EQ(answers["get nextHopManager.simNextHopTableBound"], "64\n");
  EXPECT_EQ(answers["get nextHopManager.ecmpGroups[3].hwStartIndex"], "3\n");
  EXPECT_EQ(answers["get nextHopManager.hwStartToGroupId[52]"], "4\n");
  EXPECT_THAT(answers["get nextHopManager.hwStartToGroupId"], HasSubstr("3: 3\n"));
  EXPECT_THAT(answers["get nextHopManager.hwStartToGroupId"], HasSubstr("52: 4\n"));
  EXPECT_EQ(answers["set nextHopManager.defragManager.defragDelay 2.5"], "2.5\n");
  EXPECT_EQ(answers["get nextHopManager.defragManager.defragDelay"], "2.5\n");
  EXPECT_THAT(answers["get nextHopManager.noSuchThing"], StartsWith("error: "));
  EXPECT_THAT(answers["get nextHopManager.ecmpGroups[77].size"],
              StartsWith("error: nothing at 'ecmpGroups[77]'"));
  EXPECT_EQ(answers["get nextHopManager..simMode"],
            "error: path 'nextHopManager..simMode' has an empty name\n");
  EXPECT_THAT(answers["set nextHopManager.defragManager.defragDelay soon"], StartsWith("error: "));
  EXPECT_EQ(answers["frobnicate"], "error: unknown request 'frobnicate' (try help)\n");
  EXPECT_THAT(answers["help"], HasSubstr("show free-entries"));
  EXPECT_EQ(answers["quit"], "ok: stopping\n");
  EXPECT_EQ(report.endedBy, "quit request");
  EXPECT_TRUE(report.workloadCompleted);
  EXPECT_EQ(defragDelay_, 2.5);
  EXPECT_TRUE(report.passed());
}

// The manager's and the defragmenter's records as the snapshot holds them,
// written through the socket's save request.
std::string recordsText(const std::function<std::string(const std::string&)>& ask,
                        const std::string& snapshot) {
  EXPECT_EQ(ask("save"), "ok: snapshot saved to " + snapshot + "\n");
  std::ifstream in(snapshot);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST_F(AgentSocketTest, SetRefusesEveryAttributeThatIsNotSettableAndChangesNoRecord) {
  const std::string snapshot = dir_ + "/records.snapshot";
  auto askHere = [this](const std::string& request) { return ask(request); };
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {"set nextHopManager.defragManager.defragDelay nan",
       "error: Brevant::DefragManager::defragDelay takes a finite time from 0 to 1e7 s, not "
       "'nan'\n"},
      {"set nextHopManager.defragManager.defragDelay inf",
       "error: Brevant::DefragManager::defragDelay takes a finite time from 0 to 1e7 s, not "
       "'inf'\n"},
      {"set nextHopManager.defragManager.defragDelay -1.0",
       "error: Brevant::DefragManager::defragDelay takes a finite time from 0 to 1e7 s, not "
       "'-1.0'\n"},
      {"set nextHopManager.defragManager.defragDelay 1e8",
       "error: Brevant::DefragManager::defragDelay takes a finite time from 0 to 1e7 s, not "
       "'1e8'\n"},
      {"set nextHopManager.defragManager.defragTime soon",
       "error: Brevant::DefragManager::defragTime takes a finite time from 0 to 1e7 s, not "
       "'soon'\n"},
      {"set nextHopManager.lastNarrowIndex 65273",
       "error: Brevant::NextHopManager::lastNarrowIndex is not settable (list shows what is)\n"},
      {"set nextHopManager.initialized False",
       "error: Brevant::NextHopManager::initialized is not settable (list shows what is)\n"},
      {"set nextHopManager.ecmpGroups[3].size 9",
       "error: Brevant::ECMPGroup::size is not settable (list shows what is)\n"},
      {"set nextHopManager.hwStartToGroupId[100] 3",
       "error: Brevant::NextHopManager::hwStartToGroupId is not settable (list shows what is)\n"},
      {"set nextHopManager.ecmpGroups[3] 9",
       "error: Brevant::NextHopManager::ecmpGroups is not settable (list shows what is)\n"},
      {"set nextHopManager.defragManager.defragCount 7",
       "error: Brevant::DefragManager::defragCount is not settable (list shows what is)\n"},
      {"set nextHopManager.defragManager.scheduleDefragment True",
       "error: Brevant::DefragManager::scheduleDefragment is not settable (list shows what is)\n"},
      {"set nextHopManager.hardened False",
       "error: Brevant::NextHopManager::hardened is not settable (list shows what is)\n"},
      {"set nextHopManager.noSuchThing 1",
       "error: Brevant::NextHopManager has no attribute noSuchThing\n"},
      {"set nextHopManager.simMode False",
       "error: Brevant::NextHopManager::simMode takes True or False, not 'False': only while the "
       "table holds no group\n"},
      {"set nextHopManager.simNextHopTableBound 63",
       "error: Brevant::NextHopManager::simNextHopTableBound takes an even bound from 16 to "
       "65534, not '63'\n"},
      {"set nextHopManager.simNextHopTableBound 128",
       "error: Brevant::NextHopManager::simNextHopTableBound takes an even bound from 16 to "
       "65534, not '128': only while the table holds no group\n"},
      {"set nextHopManager.ecmpGroups[3].hwStartIndex.x 1",
       "error: Brevant::ECMPGroup has no entity attribute hwStartIndex (in path "
       "'nextHopManager.ecmpGroups[3].hwStartIndex.x')\n"},
      {"set trace.NoSuchHandle 1-4",
       "error: no trace handle 'NoSuchHandle' (list trace shows them)\n"},
      {"set trace.BrevantNextHop 12",
       "error: trace.BrevantNextHop takes levels such as 1-4,8, all or none: bad trace levels "
       "'12'\n"},
  };
  std::map<std::string, std::string> answers;
  std::string before, after, traceBefore;
  const Report report = serve(
      "create a narrow 4 unicast\ncreate t wide 2 vxlan-tunnel\n",
      [&] {
        for (int i = 0; i < 500 && ask("status").find("replay: done") == std::string::npos; ++i) {
          usleep(10000);
        }
        traceBefore = ask("get trace.BrevantNextHop");
        before = recordsText(askHere, snapshot);
        for (const auto& [request, refusal] : refusals) answers[request] = ask(request);
        after = recordsText(askHere, snapshot);
        answers["delay"] = ask("set nextHopManager.defragManager.defragDelay 0.0");
        answers["budget"] = ask("set nextHopManager.defragManager.defragTime 0.25");
        answers["trace"] = ask("set trace.BrevantNextHop 2-3,9");
        answers["trace back"] = ask("set trace.BrevantNextHop " + traceBefore);
        ask("quit");
      },
      snapshot);
  for (const auto& [request, refusal] : refusals) EXPECT_EQ(answers[request], refusal) << request;
  EXPECT_THAT(before, HasSubstr("lastNarrowIndex"));
  EXPECT_EQ(before, after);
  EXPECT_EQ(answers["delay"], "0.0\n");
  EXPECT_EQ(answers["budget"], "0.25\n");
  EXPECT_EQ(answers["trace"], "2-3,9\n");
  EXPECT_EQ(answers["trace back"], traceBefore);
  EXPECT_EQ(defragDelay_, 0.0);
  EXPECT_EQ(report.tableViolations, 0u);
  EXPECT_EQ(report.hitlessViolations, 0u);
  EXPECT_TRUE(report.passed());
  std::remove(snapshot.c_str());
}

TEST_F(AgentSocketTest, ListShowsAnEntitysAttributesAlignedWithWhetherEachCanBeSet) {
  std::string defrag, group, root, trace, scalar, missing;
  serve("create a narrow 4 unicast\n", [&] {
    defrag = ask("list nextHopManager.defragManager");
    group = ask("list nextHopManager.ecmpGroups[3]");
    root = ask("list");
    trace = ask("list trace");
    scalar = ask("list nextHopManager.simMode");
    missing = ask("list nextHopManager.ecmpGroups[99]");
    ask("quit");
  });
  EXPECT_EQ(defrag,
            "Brevant::DefragManager\n"
            "  attribute          kind      type            settable\n"
            "  scheduleDefragment scalar    bool            no\n"
            "  defragDelay        scalar    double          yes\n"
            "  defragScheduler    singleton DefragScheduler no\n"
            "  defragTime         scalar    double          yes\n"
            "  defragCount        scalar    U32             no\n"
            "  initialized        scalar    bool            no\n");
  EXPECT_THAT(group, StartsWith("Brevant::ECMPGroup\n  attribute "));
  EXPECT_THAT(group, Not(HasSubstr(" yes\n")));
  EXPECT_THAT(root, StartsWith("Brevant::BrevantCommonSmData\n"));
  EXPECT_THAT(root, HasSubstr("  nextHopManager "));
  EXPECT_THAT(trace, StartsWith("trace handles\n  handle "));
  EXPECT_THAT(trace, HasSubstr("  BrevantNextHop "));
  EXPECT_EQ(scalar,
            "error: Brevant::NextHopManager has no entity attribute simMode (in path "
            "'nextHopManager.simMode')\n");
  EXPECT_EQ(missing,
            "error: nothing at 'ecmpGroups[99]' in path 'nextHopManager.ecmpGroups[99]'\n");
}

TEST_F(AgentSocketTest, SimulationModeIsSetOnAnEmptyTableThroughTheManager) {
  // Each change goes through setSimulationMode, which trims or gives back
  // the free pools: the summary's total follows the bound.
  const std::vector<std::string> requests = {
      "set nextHopManager.simNextHopTableBound 128",
      "show free-entries",
      "set nextHopManager.simMode False",
      "show free-entries",
      "set nextHopManager.simMode True",
      "set nextHopManager.simNextHopTableBound 64",
      "show free-entries",
  };
  std::vector<std::string> answers;
  const Report report = serve("", [&] {
    for (const std::string& request : requests) answers.push_back(ask(request));
    ask("quit");
  });
  ASSERT_EQ(answers.size(), requests.size());
  EXPECT_EQ(answers[0], "128\n");
  EXPECT_THAT(answers[1], HasSubstr("/128\n"));
  EXPECT_EQ(answers[2], "False\n");
  EXPECT_THAT(answers[3], HasSubstr("/65534\n"));
  EXPECT_EQ(answers[4], "True\n");
  EXPECT_EQ(answers[5], "64\n");
  EXPECT_THAT(answers[6], HasSubstr("/64\n"));
  EXPECT_EQ(report.tableBound, 64u);
  EXPECT_TRUE(report.passed());
}

TEST_F(AgentSocketTest, ASmallerTableIsRefusedWhenTheWorkloadHasAGroupItsSwapAreaCannotHold) {
  // A wide group of 8 next hops takes 16 entries: the full table's swap
  // area holds it, a simulated table's (8 entries) does not.
  std::vector<std::string> answers;
  const Report report = serve(
      "create w wide 8 unicast\ndelete w\n",
      [&] {
        for (int i = 0; i < 500 && ask("status").find("replay: done") == std::string::npos; ++i) {
          usleep(10000);
        }
        answers.push_back(ask("set nextHopManager.simNextHopTableBound 128"));
        answers.push_back(ask("set nextHopManager.simMode True"));
        answers.push_back(ask("get nextHopManager.simMode"));
        ask("quit");
      },
      {}, std::nullopt);
  ASSERT_EQ(answers.size(), 3u);
  // Outside simulation mode the bound is only recorded.
  EXPECT_EQ(answers[0], "128\n");
  EXPECT_THAT(answers[1], StartsWith("error: the workload does not fit that table: line 1: "));
  EXPECT_EQ(answers[2], "False\n");
  EXPECT_EQ(report.tableBound, 65534u);
  EXPECT_TRUE(report.passed());
}

TEST(AgentSettings, EverySettableAttributeHasOneRangeCheckAndEveryCheckASettableAttribute) {
  std::set<std::pair<std::string, std::string>> settable;
  for (const Kiln::TypeRecord* type : Kiln::typeRecords()) {
    for (const Kiln::AttributeRecord& a : type->ownAttributes()) {
      if (a.settable && type->name().rfind("Brevant::", 0) == 0)
        settable.insert({type->name(), a.name});
    }
  }
  std::set<std::pair<std::string, std::string>> checked;
  for (const Setting& s : settings()) {
    EXPECT_TRUE(checked.insert({s.typeName, s.attribute}).second)
        << s.typeName << "::" << s.attribute;
  }
  EXPECT_EQ(settable, checked);
  EXPECT_EQ(settable.size(), 4u);
}

TEST_F(AgentSocketTest, BadRequestsNeverDisturbTheAgent) {
  std::string oversized;
  std::string afterwards;
  std::string single;
  serve("create a narrow 4 unicast\ncreate s narrow 1 nat\n", [&] {
    oversized = ask(std::string(3000, 'x'));
    afterwards = ask("get nextHopManager.ecmpGroups[3].size");
    single = ask("show group 4");
    ask("quit");
  });
  EXPECT_EQ(oversized, "error: request longer than 1024 bytes\n");
  EXPECT_EQ(afterwards, "4\n");
  EXPECT_THAT(single,
              StartsWith("group 4: narrow, fixed size, 1 next hop at 7 (entries 7-7), features "
                         "RoutingNatFeature\n  0: index 7 data 0x"));
}

TEST_F(AgentSocketTest, ASocketThatCannotBeServedChangesNothing) {
  { std::ofstream(path_) << "not a socket\n"; }
  const Kiln::Ptr<Kiln::Clock> before = Kiln::ActivityManager::instance().clock();
  AgentConfig config = configOf("create a narrow 1 nat\n");
  config.socketPath = path_;
  EXPECT_THROW(AgentSimulation agent(config), SocketError);
  EXPECT_EQ(Kiln::ActivityManager::instance().clock(), before);
  unlink(path_.c_str());
}

TEST_F(AgentSocketTest, TheSocketGoesWithTheAgent) {
  serve("", [&] { ask("quit"); });
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
}

TEST_P(AgentChurn, EveryRequestAndEveryQueuedCreateIsAccountedFor) {
  BuiltInOptions builtIn;
  builtIn.seed = 5;
  builtIn.capacity = 1024 - 8 - 3;
  builtIn.maxEntries = 8;
  builtIn.duration = 900;
  const AgentConfig config = churnConfig(builtIn);
  AgentSimulation agent(config);
  const Report r = agent.run();
  U64 requested = 0;
  for (const auto& [kind, c] : r.requests) {
    EXPECT_EQ(c.requested, c.succeeded + c.refused + c.skipped + c.withdrawn)
        << requestKindName(kind);
    requested += c.requested;
  }
  EXPECT_EQ(requested, r.workloadRequests);
  EXPECT_EQ(r.workloadRequests + r.workloadPauses, config.workload.size());
  EXPECT_GT(r.queuedForRetry, 0u);
  EXPECT_EQ(r.queuedForRetry, r.retriesSucceeded + r.retriesDropped + r.cancelled + r.abandoned);
  U64 retryRefusals = 0;
  for (const auto& [code, n] : r.retryRefusals) retryRefusals += n;
  EXPECT_EQ(r.retryAttempts, r.retriesSucceeded + retryRefusals);
  EXPECT_TRUE(r.passed());
  // Every group a feature holds is counted once among the groups checked.
  EXPECT_EQ(r.viewDistinctGroups, r.groupsAtEnd);
  EXPECT_GE(r.viewGroupsChecked, r.viewDistinctGroups);
  // A generated workload numbers its requests.
  EXPECT_EQ(r.lineWord, "request");
  ASSERT_FALSE(r.refusalList.empty());
  EXPECT_GT(r.refusalList[0].line, 0u);
}

TEST(AgentReport, ListsEachRefusalWithItsLineLabelAndMeaning) {
  AgentSimulation agent(configOf(smallWorkload));
  const Report r = agent.run();
  ASSERT_EQ(r.refusalList.size(), 3u);
  EXPECT_EQ(r.lineWord, "line");
  EXPECT_EQ(r.refusalList[0].line, 4u);
  EXPECT_EQ(r.refusalList[0].label, "big");
  EXPECT_EQ(r.refusalList[0].code, -1);
  EXPECT_EQ(r.refusalList[0].meaning, "invalid request: 257 next hops, at most 256");
  EXPECT_EQ(r.refusalList[1].line, 7u);
  EXPECT_EQ(r.refusalList[1].kind, RequestKind::update);
  EXPECT_EQ(r.refusalList[1].meaning, "invalid request: next hop 9 of a group of 4");
  EXPECT_EQ(r.refusalList[2].line, 10u);
  EXPECT_EQ(r.refusalList[2].kind, RequestKind::read);
  std::ostringstream text;
  printReport(text, r);
  EXPECT_THAT(text.str(),
              HasSubstr("  refused by code         -1 invalid request: 3 (3 first, 0 retries)\n"));
  EXPECT_THAT(
      text.str(),
      HasSubstr("line 4 (big): create refused, -1 invalid request: 257 next hops, at most 256\n"));
  EXPECT_THAT(text.str(),
              HasSubstr("  skipped                 1 (the label's group not in the table)\n"));
  EXPECT_THAT(
      text.str(),
      HasSubstr(
          "  delete                  2 requested: 1 succeeded at the first attempt, 1 skipped\n"));
  EXPECT_THAT(text.str(), HasSubstr("  runs                    0 (0 cut by the budget and "
                                    "rescheduled; budget 0.1 s of agent time per pass)\n"));
  EXPECT_THAT(text.str(), HasSubstr("1 run, largest 53"));
  EXPECT_THAT(text.str(), HasSubstr("  summary's free count    "));
}

TEST(AgentReport, ANoRoomRefusalNamesTheBlockItWanted) {
  AgentConfig config = configOf(std::string(fullSmallTable) + "create c wide 4 vxlan-tunnel\n");
  config.settleLimit = 20;
  AgentSimulation agent(config);
  const Report r = agent.run();
  ASSERT_FALSE(r.refusalList.empty());
  EXPECT_EQ(r.refusalList[0].line, 8u);
  EXPECT_EQ(r.refusalList[0].meaning, "no room: no block of 8 free entries in a row");
  EXPECT_FALSE(r.complete());
  EXPECT_TRUE(r.passed());
  EXPECT_EQ(exitStatusOf(r), exitIncomplete);
}

TEST(AgentReport, ExitStatusSaysWhetherChecksPassedAndTheRunWasComplete) {
  Report r;
  r.workloadCompleted = true;
  EXPECT_EQ(exitStatusOf(r), exitPassed);
  r.abandoned = 1;
  EXPECT_EQ(exitStatusOf(r), exitIncomplete);
  r.abandoned = 0;
  r.workloadCompleted = false;
  EXPECT_EQ(exitStatusOf(r), exitIncomplete);
  r.hitlessViolations = 1;
  EXPECT_EQ(exitStatusOf(r), exitCheckFailed);
}

TEST(AgentWorkload, AWorkloadThatCannotRunOnTheTableIsRefusedWithItsLinesBeforeAnythingRuns) {
  const char* const workload =
      "create a narrow 8 unicast\n"
      "create b narrow 16 unicast\n"
      "create c wide 4 vxlan-tunnel\n"
      "create d wide 5 vxlan-tunnel\n"
      "create e narrow 300 nat\n";
  const Kiln::Ptr<Kiln::Clock> before = Kiln::ActivityManager::instance().clock();
  try {
    AgentSimulation agent(configOf(workload, 64));
    FAIL() << "the workload ran";
  } catch (const UnfitWorkload& e) {
    ASSERT_EQ(e.problems().size(), 2u);
    EXPECT_EQ(e.problems()[0].line(), 2u);
    EXPECT_EQ(e.problems()[0].message(),
              "group 'b' takes 16 entries, more than the 8-entry swap area through which the "
              "defragmenter moves groups");
    EXPECT_EQ(e.problems()[1].line(), 4u);
  }
  EXPECT_EQ(Kiln::ActivityManager::instance().clock(), before);
  // On the full table only a wide group of more than 128 next hops is unfit.
  try {
    AgentSimulation agent(
        configOf("create w wide 129 vxlan-tunnel\ncreate n narrow 256 nat\n", std::nullopt));
    FAIL() << "the workload ran";
  } catch (const UnfitWorkload& e) {
    ASSERT_EQ(e.problems().size(), 1u);
    EXPECT_EQ(e.problems()[0].line(), 1u);
    EXPECT_EQ(e.problems()[0].message(),
              "wide group 'w' of 129 next hops: a wide group holds at most 128");
  }
}

TEST(AgentWorkload, TheSwapAreaIsTheTablesOwn) {
  for (const std::optional<U16> bound :
       {std::optional<U16>(), std::optional<U16>(64), std::optional<U16>(1024)}) {
    AgentSimulation agent(configOf("", bound));
    const Report r = agent.run();
    EXPECT_EQ(r.tableBound - r.swapIndex, swapAreaEntries(bound));
  }
}

namespace {

// A table of 1024 (1013 usable entries) filled with groups of 4 and one of
// 1, every other group of 4 deleted: a group of 8 finds no block, and the
// defragmenter has about 126 groups to move.
std::string holedTable() {
  std::string workload;
  for (int g = 0; g < 253; ++g) workload += "create g" + std::to_string(g) + " narrow 4 unicast\n";
  workload += "create one narrow 1 unicast\n";
  for (int g = 0; g < 253; g += 2) workload += "delete g" + std::to_string(g) + "\n";
  return workload + "create big narrow 8 nat\n";
}

TEST(AgentRun, ARestartRequestKeepsEveryGroupAndChangesNoTableWord) {
  AgentConfig config = configOf(std::string(smallWorkload) +
                                "restart\n"
                                "read a 1\n"
                                "update a 2\n"
                                "restart\n"
                                "create b narrow 5 nat\n"
                                "delete t\n");
  config.snapshotPath = "/tmp/brevant-agent-test-" + std::to_string(getpid()) + ".snapshot";
  AgentSimulation agent(config);
  const Report r = agent.run();
  std::remove(config.snapshotPath.c_str());
  ASSERT_EQ(r.restarts.size(), 2u);
  for (const Report::Restart& restart : r.restarts) {
    EXPECT_EQ(restart.cause, "workload request");
    EXPECT_EQ(restart.outcome, "warm");
    EXPECT_EQ(restart.wordsChanged, 0u);
    EXPECT_EQ(restart.wordsRead, 64u);
  }
  EXPECT_EQ(r.requests.at(RequestKind::restart).requested, 2u);
  EXPECT_EQ(r.requests.at(RequestKind::restart).succeeded, 2u);
  EXPECT_EQ(r.readMismatches, 0u);
  EXPECT_TRUE(r.passed());
  // The features found their groups where they were: a at 3, and b after it.
  EXPECT_EQ(agent.manager().getECMPGroup(3)->hwStartIndex(), 3);
  using Placements = std::map<U16, AgentSimulation::Placement>;
  EXPECT_EQ(agent.view(Feature::unicast), (Placements{{3, {3, 4}}}));
  std::ostringstream text;
  printReport(text, r);
  EXPECT_THAT(text.str(),
              HasSubstr("restarts                2, 0 table words changed by the restores"));
  EXPECT_THAT(text.str(), HasSubstr("(workload request): warm, restore "));
}

TEST(AgentRun, RestartsEveryFewMinutesOfChurnStayHitless) {
  BuiltInOptions builtIn;
  builtIn.seed = 5;
  builtIn.capacity = 1024 - 8 - 3;
  builtIn.maxEntries = 8;
  builtIn.duration = 1800;
  AgentConfig config = configOf("", 1024);
  config.workload = builtInWorkload(builtIn);
  config.restartEvery = 300;
  config.snapshotPath = "/tmp/brevant-agent-test-" + std::to_string(getpid()) + ".snapshot";
  AgentSimulation agent(config);
  const Report r = agent.run();
  std::remove(config.snapshotPath.c_str());
  EXPECT_GE(r.restarts.size(), 5u);
  for (const Report::Restart& restart : r.restarts) {
    EXPECT_EQ(restart.outcome, "warm");
    EXPECT_EQ(restart.wordsChanged, 0u);
  }
  EXPECT_TRUE(r.passed()) << (r.hitlessProblems.empty() ? "" : r.hitlessProblems[0])
                          << (r.tableProblems.empty() ? "" : r.tableProblems[0])
                          << (r.viewMismatches.empty() ? "" : r.viewMismatches[0]);
  EXPECT_GT(r.defragRuns, 0u);
}

TEST_F(AgentSocketTest, SavesTheSnapshotAndShowsTheLastRestart) {
  const std::string snapshot = dir_ + "/table.snapshot";
  std::string saved, after;
  AgentConfig config = configOf("create a narrow 4 unicast\nrestart\n");
  config.socketPath = path_;
  config.serve = true;
  config.snapshotPath = snapshot;
  AgentSimulation agent(config);
  auto done = std::async(std::launch::async, [&] {
    // The workload runs while the client talks: wait for its restart.
    for (int i = 0; i < 200; ++i) {
      after = ask("show restart");
      if (after != "no restart yet\n") break;
      usleep(10000);
    }
    saved = ask("save");
    ask("quit");
  });
  agent.run();
  done.get();
  EXPECT_EQ(saved, "ok: snapshot saved to " + snapshot + "\n");
  EXPECT_THAT(after,
              StartsWith("1 restarts, last at t = 0.0 s (workload request): warm, restore "));
  EXPECT_THAT(after, HasSubstr(", 64 chip words read, 0 changed\n"));
  std::remove(snapshot.c_str());
}

}  // namespace

TEST(AgentTiming, TheTimedChipMakesDefragmentationRunsMeetTheirBudget) {
  // At 10 ms a call a pass runs out of its 0.1 s budget after a few moves
  // and is rescheduled.
  const std::string workload = holedTable();
  AgentConfig config = configOf(workload, 1024);
  config.chipTiming = {0.01, 0};
  AgentSimulation agent(config);
  const Report r = agent.run();
  EXPECT_TRUE(r.passed()) << (r.hitlessProblems.empty() ? "" : r.hitlessProblems[0])
                          << (r.tableProblems.empty() ? "" : r.tableProblems[0]);
  EXPECT_GT(r.defragRuns, 1u);
  EXPECT_EQ(r.defragRunsCut, r.defragRuns - 1);
  EXPECT_EQ(r.timeline.defragRuns.size(), r.defragRuns);
  EXPECT_EQ(r.retriesSucceeded, 1u);
  EXPECT_EQ(r.endedBy, "workload done");
  EXPECT_EQ(r.chipCallTime, 0.01);
  // A run is one pass that ran out (the wide pass then waits), or a
  // finished narrow pass and the wide pass: each pass stops within its
  // budget plus the move in progress (a few calls).
  EXPECT_GT(r.longestDefragRun, r.defragBudget);
  EXPECT_LE(r.longestDefragRun, 2 * r.defragBudget + 0.1);
  EXPECT_THAT(r.longestDefragRunWhat, HasSubstr("defragmentation run"));
  // Replaying 64 requests at 10 ms a call is a longer stop than any run.
  EXPECT_GE(r.longestStop, r.longestDefragRun);
}

TEST(AgentTiming, AnInstantChipNeverRunsOutOfBudget) {
  const std::string workload = holedTable();
  AgentSimulation agent(configOf(workload, 1024));
  const Report r = agent.run();
  EXPECT_EQ(r.defragRuns, 1u);
  EXPECT_EQ(r.defragRunsCut, 0u);
  EXPECT_EQ(r.longestStop, 0.0);
  EXPECT_EQ(r.longestDefragRun, 0.0);
}

TEST_F(AgentSocketTest, StatusSaysWhenTheReplayIsDone) {
  std::string running;
  std::string done;
  std::string timing;
  std::string badTiming;
  const Report report = serve("create a narrow 4 unicast\nsleep 5\ncreate b narrow 2 nat\n", [&] {
    running = ask("status");
    // What the README's example does: ask until the replay is done.
    for (int i = 0; i < 500 && done.rfind("replay: done\n", 0) != 0; ++i) {
      done = ask("status");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    timing = ask("chip-timing 0.001 0");
    badTiming = ask("chip-timing -1 0");
    ask("quit");
  });
  EXPECT_THAT(running, testing::MatchesRegex("replay: (running|done)\n.*"));
  EXPECT_THAT(done, StartsWith("replay: done\nagent time: "));
  EXPECT_THAT(done, HasSubstr("\nrequests: 2 of 2\npending retries: 0\ndefragmentation runs: 0\n"));
  EXPECT_EQ(timing, "chip timing: 0.001 s per call, 0 s per word\n");
  EXPECT_EQ(badTiming, "error: '-1' is not a time from 0 to 1 s\n");
  EXPECT_TRUE(report.passed());
}

TEST(AgentTiming, TheMainJobsRunsAreCutByTheBudgetAndRescheduled) {
  // The main job's table and workload, over its first 700 s of churn.
  BuiltInOptions builtIn;
  builtIn.capacity = 65534 - 256 - 3;
  builtIn.maxEntries = 256;
  builtIn.duration = 700;
  AgentConfig config = configOf("", std::nullopt);
  config.workload = builtInWorkload(builtIn);
  config.chipTiming = FmSim::Timing::busEstimate();
  AgentSimulation agent(config);
  const Report r = agent.run();
  EXPECT_TRUE(r.passed());
  EXPECT_EQ(r.endedBy, "workload done");
  EXPECT_GE(r.defragRuns, 2u);
  EXPECT_GE(r.defragRunsCut, 1u);
  EXPECT_EQ(r.timeline.defragRuns.size(), r.defragRuns);
  // A pass stops between moves once its budget is spent: a run takes at
  // most the budget per pass plus the move in progress.
  EXPECT_GE(r.longestDefragRun, r.defragBudget);
  EXPECT_LE(r.longestDefragRun, 2 * r.defragBudget + 0.001);
}
