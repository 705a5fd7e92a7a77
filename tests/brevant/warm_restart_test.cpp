// Warm restart: a snapshot written by one manager builds another on the chip
// the first one programmed. The two managers' records are compared field by
// field through their type records, and the chip must see no write that
// changes a word; disagreements and bad snapshots end as the caller's policy
// says.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/HitlessChecker.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/WarmRestart.h"
#include "next_hop_table_fixture.h"
#include "support/RecordComparison.h"
#include "support/ResourceRecount.h"

namespace {

using namespace NextHopTest;
using Brevant::RestoreDifference;
using Brevant::RestoreOptions;
using Brevant::RestorePolicy;
using Brevant::RestoreResult;
using Brevant::SnapshotError;

// The chip's write calls since the log was last emptied.
std::vector<FmSim::Call> writeCalls() {
  std::vector<FmSim::Call> writes;
  for (const FmSim::Call& c : FmSim::calls()) {
    if (c.function == FmSim::Function::writeUINT64Mult) writes.push_back(c);
  }
  return writes;
}

// Every table word from 0 to bound - 1.
std::vector<U64> tableWords(U32 bound = tableBound) {
  std::vector<U64> words(bound);
  for (U32 i = 0; i < bound; ++i) words[i] = FmSim::tableWord(i);
  return words;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeAll(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The text with its header's checksum made right again for the body (so
// that a test reaches the checks behind the checksum).
std::string resealed(const std::string& text) {
  size_t pos = 0;
  for (int line = 0; line < 3; ++line) pos = text.find('\n', pos) + 1;
  const std::string body = text.substr(pos);
  char checksum[17];
  std::snprintf(checksum, sizeof checksum, "%016llx",
                static_cast<unsigned long long>(Brevant::snapshotChecksum(body)));
  return "brevant-next-hop-snapshot " + std::to_string(Brevant::snapshotFormatVersion) +
         "\nlength " + std::to_string(body.size()) + "\nchecksum fnv1a-64w " + checksum + "\n" +
         body;
}

class WarmRestartTest : public NextHopTableTest {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    char name[] = "/tmp/brevant-snapshot-XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = name;
  }
  void TearDown() override {
    std::remove(path_.c_str());
    NextHopTableTest::TearDown();
  }

  // Saves the fixture's manager and builds a new one from the snapshot,
  // keeping the old one for comparison. Checks that the restore made no
  // chip write and left every table word as it was.
  Kiln::Ptr<NextHopManager> roundTrip(RestoreResult* result = nullptr,
                                      const RestoreOptions& options = {}) {
    Brevant::saveSnapshot(m(), path_);
    const std::vector<U64> before = tableWords();
    FmSim::callsDelAll();
    RestoreResult scratch;
    RestoreResult& r = result ? *result : scratch;
    Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_, options, &r);
    EXPECT_EQ(r.outcome, RestoreResult::Outcome::warm)
        << (r.differences.empty() ? r.coldReason : r.differences[0].text);
    EXPECT_TRUE(writeCalls().empty());
    EXPECT_EQ(r.wordsWritten, 0u);
    EXPECT_EQ(tableWords(), before);
    return restored;
  }

  void expectSameRecords(const NextHopManager& restored) {
    const std::vector<std::string> differences = recordDifferences(m(), restored);
    EXPECT_TRUE(differences.empty()) << ::testing::PrintToString(differences);
  }

  // Narrow and wide groups, some deleted again, one extended and one
  // rewritten: holes, released entries and every kind of record.
  void fragment(U32 groups) {
    std::vector<S32> ids;
    for (U32 i = 0; i < groups; ++i) {
      const S32 id = create(U16(1 + i % 7), i % 3 == 0, 0x100000 * (i + 1));
      ASSERT_GT(id, 0) << i;
      ids.push_back(id);
    }
    for (size_t i = 0; i < ids.size(); i += 3) ASSERT_EQ(m().deleteECMPGroup(0, U16(ids[i])), 0);
    ASSERT_EQ(m().addFeatureToGroup(U16(ids[1]), Brevant::RoutingNatFeature), 0);
    ASSERT_EQ(m().updateECMPGroup(0, ids[2], wordRun(m().ecmpGroups(U16(ids[2]))->size(), 0xABC00),
                                  wordRun(8, 0xDEF00)),
              0);
    m().getECMPGroup(60000);  // the placeholder group 65535
  }

  // A history that every resource counter shows: creates refused for two
  // reasons, compaction runs cut by their budget with the time they took,
  // moves direct and through the swap area, and both alarms raised.
  void countedHistory() {
    m().setSimulationMode(true, 256);
    std::vector<S32> ids;
    for (S32 id; (id = create(4, ids.size() % 5 == 0, 0x1000 * (ids.size() + 1))) > 0;) {
      ids.push_back(id);
    }
    for (size_t i = 0; i < ids.size(); i += 2) ASSERT_EQ(m().deleteECMPGroup(0, U16(ids[i])), 0);
    ASSERT_EQ(create(12), -2);
    ASSERT_EQ(create(0), -1);
    FmSim::writeObserverIs([this](const FmSim::Call&, const U64*) { clock_->advance(0.03); });
    clock_->advance(defrag().defragDelay());
    FmSim::writeObserverIs({});
    Brevant::NextHopResources& res = *m().resources();
    res.usedHighWatermarkIs(20);
    res.usedLowWatermarkIs(10);
    res.fragmentationHighWatermarkIs(0.5);
    res.fragmentationLowWatermarkIs(0.25);
    ASSERT_GT(res.compactionRuns(), 0u);
    ASSERT_GT(res.compactionRunsCut(), 0u);
    ASSERT_GT(res.groupsMoved(), 0u);
    ASSERT_GT(res.compactionTime(), 0.0);
    ASSERT_GT(res.createsRefused(-2), 0u);
    ASSERT_TRUE(res.usedAlarm());
  }

  // restored's counters are the old manager's, attribute by attribute, and
  // its figures equal a recount from its records.
  void expectSameCounters(NextHopManager& restored) {
    const std::vector<std::string> differences =
        recordDifferences(*m().resources(), *restored.resources());
    EXPECT_TRUE(differences.empty()) << ::testing::PrintToString(differences);
    expectFiguresMatchRecount(restored, m().resources()->largestGroupSeen());
  }

  // A table of 128 entries whose last create asked for a defragmentation
  // (a full delay from now), and the clock one second on.
  void scheduleDefragmentation() {
    m().setSimulationMode(true, 128);
    fragment(12);
    // A group longer than any hole asks for a defragmentation.
    while (create(6) > 0) {
    }
    ASSERT_TRUE(defrag().scheduleDefragment());
    ASSERT_EQ(defrag().defragScheduler()->timeMin(), clock_->now() + defrag().defragDelay());
    clock_->advance(1.0);
  }

  // cold's counters are those of a table that has just been initialised.
  void expectFreshCounters(NextHopManager& cold) {
    expectFiguresMatchRecount(cold, 0);
    const Brevant::NextHopResources& res = *cold.resources();
    EXPECT_EQ(res.totalFree(), cold.getNextHopTableBound() - 3u);
    EXPECT_EQ(res.compactionRuns(), 0u);
    EXPECT_EQ(res.groupsMoved(), 0u);
    EXPECT_EQ(res.createsRefused(-2), 0u);
    EXPECT_EQ(res.usedHighWatermark(), 0.0);
    EXPECT_FALSE(res.usedAlarm());
  }

  std::string path_;
};

TEST_F(WarmRestartTest, AFreshManagerComesBackIdentical) {
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = roundTrip(&result);
  expectSameRecords(*restored);
  EXPECT_EQ(result.groups, 2u);
  EXPECT_EQ(restored->freeEntries().members(), 65531u);
  EXPECT_TRUE(restored->initialized());
}

TEST_F(WarmRestartTest, AFragmentedFullSizeTableComesBackWithEveryGroupAtItsBase) {
  fragment(300);
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = roundTrip(&result);
  expectSameRecords(*restored);
  for (const auto& g : m().ecmpGroups()) {
    EXPECT_EQ(restored->getECMPGroup(g.key())->hwStartIndex(), g.value()->hwStartIndex());
  }
  // The table up to its last free entry, 65533, in one read.
  EXPECT_EQ(result.wordsRead, U64(tableBound));
  // The restored manager goes on exactly as the old one would.
  EXPECT_EQ(restored->createECMPGroup(0, false, true, 2, wordRun(2, 1), wordRun(2, 2),
                                      Brevant::RoutingUnicastFeature, false),
            m().createECMPGroup(0, false, true, 2, wordRun(2, 1), wordRun(2, 2),
                                Brevant::RoutingUnicastFeature, false));
  expectSameRecords(*restored);
}

TEST_F(WarmRestartTest, AFullSimulatedTableComesBackIdentical) {
  m().setSimulationMode(true, 256);
  while (create(5) > 0) {
  }
  while (create(1) > 0) {
  }
  expectSameRecords(*roundTrip());
}

TEST_F(WarmRestartTest, SimulationModeSwitchesAreKeptWithTheirTrimmedPools) {
  m().setSimulationMode(true, 512);
  fragment(40);
  m().setSimulationMode(false, 512);
  m().setSimulationMode(true, 400);  // the pools are trimmed at 400
  m().setSimulationMode(true, 300);  // only the bound changes
  Kiln::Ptr<NextHopManager> restored = roundTrip();
  expectSameRecords(*restored);
  EXPECT_EQ(restored->getNextHopTableBound(), 300);
  EXPECT_EQ(restored->lastWideIndex(), m().lastWideIndex());
}

TEST_F(WarmRestartTest, AScheduledDefragmentationRunsWhenItWasDueOnAClockThatWentOn) {
  scheduleDefragmentation();
  const double due = defrag().defragScheduler()->timeMin();
  Kiln::Ptr<NextHopManager> restored = roundTrip();
  expectSameRecords(*restored);
  const U32 oldRuns = defrag().defragCount();
  manager_ = nullptr;  // the old process is gone: its timer with it
  EXPECT_EQ(restored->defragManager()->defragScheduler()->timeMin(), due);
  clock_->timeIs(due - 0.5);
  EXPECT_EQ(restored->defragManager()->defragCount(), oldRuns);
  clock_->timeIs(due);
  EXPECT_GT(restored->defragManager()->defragCount(), oldRuns);
  expectTableMatchesRecords(*restored);
}

TEST_F(WarmRestartTest, OnAClockThatStartedAgainTheTimeLeftIsKept) {
  scheduleDefragmentation();
  const double left = defrag().defragScheduler()->timeMin() - clock_->now();
  ASSERT_EQ(left, defrag().defragDelay() - 1.0);
  Brevant::saveSnapshot(m(), path_);
  const U32 oldRuns = defrag().defragCount();
  manager_ = nullptr;
  // The new process's clock starts at 0 again.
  clock_ = new Kiln::ManualClock(0);
  Kiln::ActivityManager::instance().clockIs(clock_);
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_);
  EXPECT_EQ(restored->defragManager()->defragScheduler()->timeMin(), left);
  clock_->timeIs(left - 0.5);
  EXPECT_EQ(restored->defragManager()->defragCount(), oldRuns);
  clock_->timeIs(left);
  EXPECT_GT(restored->defragManager()->defragCount(), oldRuns);
}

TEST_F(WarmRestartTest, ARunThatFellDueDuringTheRestartRunsAtOnce) {
  scheduleDefragmentation();
  Brevant::saveSnapshot(m(), path_);
  const U32 oldRuns = defrag().defragCount();
  manager_ = nullptr;
  clock_->advance(60);
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_);
  EXPECT_EQ(restored->defragManager()->defragScheduler()->timeMin(), clock_->now());
  clock_->advance(0);
  EXPECT_GT(restored->defragManager()->defragCount(), oldRuns);
}

TEST_F(WarmRestartTest, WithoutTheTimersTimeARunIsScheduledAFullDelayFromNow) {
  scheduleDefragmentation();
  // A version 1 snapshot carries no timer line.
  std::string text = Brevant::snapshotText(m());
  const size_t timer = text.find("\ntimer\t");
  ASSERT_NE(timer, std::string::npos);
  text = resealed(text.erase(timer + 1, text.find('\n', timer + 1) - timer));
  manager_ = nullptr;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManagerFromText(text);
  EXPECT_EQ(restored->defragManager()->defragScheduler()->timeMin(),
            clock_->now() + restored->defragManager()->defragDelay());
}

TEST_F(WarmRestartTest, ABadTimerLineIsCorrupt) {
  scheduleDefragmentation();
  const std::string text = Brevant::snapshotText(m());
  const size_t timer = text.find("\ntimer\t") + 1;
  const size_t end = text.find('\n', timer);
  for (const char* line : {"timer\t1\tinf", "timer\tx\t5", "timer\t1", "timer\t1\t5\t6"}) {
    SCOPED_TRACE(line);
    EXPECT_THROW(Brevant::restoreNextHopManagerFromText(
                     resealed(text.substr(0, timer) + line + text.substr(end))),
                 SnapshotError);
  }
}

TEST_F(WarmRestartTest, AManagerCaughtBetweenTwoDefragmentationRunsComesBackIdentical) {
  m().setSimulationMode(true, 256);
  // Groups of 4 fill the table; every other one goes: holes of 4 only.
  std::vector<S32> ids;
  for (S32 id; (id = create(4, false, 0x1000 * (ids.size() + 1))) > 0;) ids.push_back(id);
  for (size_t i = 0; i < ids.size(); i += 2) ASSERT_EQ(m().deleteECMPGroup(0, U16(ids[i])), 0);
  ASSERT_EQ(create(8), -2);
  ASSERT_TRUE(defrag().scheduleDefragment());
  // Each chip write takes 0.06 s: the 0.1 s budget ends the run after its
  // first move, and the timer is armed again.
  U32 writes = 0;
  FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) {
    ++writes;
    clock_->advance(0.06);
  });
  clock_->advance(defrag().defragDelay());
  FmSim::writeObserverIs({});
  ASSERT_GT(writes, 0u);
  ASSERT_EQ(defrag().defragCount(), 1u);
  ASSERT_TRUE(defrag().scheduleDefragment());
  Kiln::Ptr<NextHopManager> restored = roundTrip();
  expectSameRecords(*restored);
  // The restored table finishes the compaction the old one began.
  manager_ = nullptr;
  for (int i = 0; i < 40 && restored->defragManager()->scheduleDefragment(); ++i) {
    clock_->advance(restored->defragManager()->defragDelay());
  }
  EXPECT_FALSE(restored->defragManager()->scheduleDefragment());
  EXPECT_GT(restored->defragManager()->defragCount(), 1u);
  expectTableMatchesRecords(*restored);
}

TEST_F(WarmRestartTest, TheSharedStateGetsTheRestoredManager) {
  fragment(20);
  Brevant::saveSnapshot(m(), path_);
  Kiln::Ptr<Brevant::BrevantCommonSmData> state =
      Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  FmSim::callsDelAll();
  const RestoreResult result = Brevant::restoreNextHopManager(*state, path_);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::warm);
  ASSERT_TRUE(state->nextHopManager());
  expectSameRecords(*state->nextHopManager());
  EXPECT_TRUE(writeCalls().empty());
}

TEST_F(WarmRestartTest, TheSnapshotIsReplacedWholeAndLeavesNoTemporaryFile) {
  Brevant::saveSnapshot(m(), path_);
  const std::string first = readAll(path_);
  create(4);
  Brevant::saveSnapshot(m(), path_);
  EXPECT_NE(readAll(path_), first);
  EXPECT_EQ(readAll(path_), Brevant::snapshotText(m()));
  EXPECT_NE(access((path_ + ".tmp." + std::to_string(getpid())).c_str(), F_OK), 0);
  EXPECT_THROW(Brevant::saveSnapshot(m(), "/nonexistent-directory/snapshot"), Kiln::ErrnoException);
  EXPECT_EQ(readAll(path_), Brevant::snapshotText(m()));
}

// ---- The resource counters of a restored manager.

TEST_F(WarmRestartTest, ARestoredManagerKeepsEveryResourceCounter) {
  countedHistory();
  Kiln::Ptr<NextHopManager> restored = roundTrip();
  expectSameRecords(*restored);
  expectSameCounters(*restored);
  // The restored counters go on from there: the same create on both tables.
  manager_ = nullptr;
  ASSERT_GT(restored->createECMPGroup(0, false, true, 2, wordRun(2, 0x77), wordRun(2, 0x88),
                                      Brevant::RoutingUnicastFeature, false),
            0);
  expectFiguresMatchRecount(*restored, restored->resources()->largestGroupSeen());
}

TEST_F(WarmRestartTest, AFreshOrFullTableRestoresItsFiguresToo) {
  Kiln::Ptr<NextHopManager> fresh = roundTrip();
  expectSameCounters(*fresh);
  fresh = nullptr;
  m().setSimulationMode(true, 512);
  fragment(40);
  while (create(3) > 0) {
  }
  Kiln::Ptr<NextHopManager> full = roundTrip();
  expectSameCounters(*full);
}

TEST_F(WarmRestartTest, RewrittenGroupsKeepTheCounters) {
  countedHistory();
  Brevant::saveSnapshot(m(), path_);
  const U16 start = m().ecmpGroups(4)->hwStartIndex();
  FmSim::tableWordIs(start, 0xBAD);
  RestoreOptions options;
  options.policy = RestorePolicy::rewrite;
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_, options, &result);
  ASSERT_EQ(result.outcome, RestoreResult::Outcome::rewritten);
  expectSameCounters(*restored);
}

TEST_F(WarmRestartTest, ARefusedRestoreStartsWithTheCountersOfAFreshTable) {
  countedHistory();
  Brevant::saveSnapshot(m(), path_);
  FmSim::tableWordIs(m().ecmpGroups(4)->hwStartIndex(), 0xBAD);
  RestoreResult result;
  Kiln::Ptr<NextHopManager> cold = Brevant::restoreNextHopManager(path_, {}, &result);
  ASSERT_EQ(result.outcome, RestoreResult::Outcome::cold);
  expectFreshCounters(*cold);
}

TEST_F(WarmRestartTest, ABadSnapshotStartsColdWithTheCountersOfAFreshTable) {
  countedHistory();
  std::string text = Brevant::snapshotText(m());
  text[text.size() - 20] ^= 1;
  writeAll(path_, text);
  RestoreOptions options;
  options.coldOnBadSnapshot = true;
  RestoreResult result;
  Kiln::Ptr<NextHopManager> cold = Brevant::restoreNextHopManager(path_, options, &result);
  ASSERT_EQ(result.outcome, RestoreResult::Outcome::cold);
  expectFreshCounters(*cold);
  // Into the shared state, as the agent restores.
  Kiln::Ptr<Brevant::BrevantCommonSmData> state =
      Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  result = Brevant::restoreNextHopManager(*state, path_, options);
  ASSERT_EQ(result.outcome, RestoreResult::Outcome::cold);
  expectFreshCounters(*state->nextHopManager());
}

TEST_F(WarmRestartTest, AVersion1SnapshotIsReadWithItsFiguresRecounted) {
  countedHistory();
  // Version 1 wrote no resource counters: the second object is left out.
  std::string text = Brevant::snapshotText(m());
  const size_t first = text.find("object\tBrevant::NextHopResources\n");
  ASSERT_NE(first, std::string::npos);
  const size_t last = text.find("end\n", first) + 4;
  text = resealed(text.substr(0, first) + text.substr(last));
  text.replace(0, text.find('\n'), "brevant-next-hop-snapshot 1");
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManagerFromText(text, {}, &result);
  ASSERT_EQ(result.outcome, RestoreResult::Outcome::warm);
  expectSameRecords(*restored);
  // The figures are the table's; the history starts again.
  expectFiguresMatchRecount(*restored, 0);
  EXPECT_EQ(restored->resources()->compactionRuns(), 0u);
  EXPECT_EQ(restored->resources()->narrowGroups(), m().resources()->narrowGroups());
  EXPECT_EQ(restored->resources()->wideGroups(), m().resources()->wideGroups());
}

// ---- The collections written through their typed accessors.

// The generic rule's lines for a collection (the members' texts through the
// type record, ascending integer keys, runs of one value text): the
// reference the typed writer of the manager's pools must match.
std::string genericMemberLines(const Kiln::PtrInterface& o, const std::string& name) {
  std::vector<std::pair<U64, std::string>> members;
  for (const Kiln::MemberText& m : o.fwkType().members(o, name)) {
    members.emplace_back(std::stoull(m.first), m.second);
  }
  std::sort(members.begin(), members.end());
  std::string out;
  for (size_t i = 0; i < members.size();) {
    size_t last = i;
    while (last + 1 < members.size() && members[last + 1].first == members[last].first + 1 &&
           members[last + 1].second == members[i].second) {
      ++last;
    }
    out += (last > i ? "run\t" : "member\t") + name + "\t" + std::to_string(members[i].first);
    if (last > i) out += "\t" + std::to_string(members[last].first);
    out += "\t" + members[i].second + "\n";
    i = last + 1;
  }
  return out;
}

// The snapshot's lines of the manager's collection name.
std::string snapshotMemberLines(const std::string& text, const std::string& name) {
  std::string out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("run\t" + name + "\t") || line.starts_with("member\t" + name + "\t")) {
      out += line + "\n";
    }
  }
  return out;
}

TEST_F(WarmRestartTest, ThePoolsAreWrittenAsTheGenericRuleWritesThem) {
  std::mt19937 rng(15);
  auto random = [&](U32 below) { return std::uniform_int_distribution<U32>(0, below - 1)(rng); };
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    if (round == 3) m().setSimulationMode(true, 2048);
    std::vector<U16> live;
    for (U32 step = 0; step < 400; ++step) {
      if (random(3) != 0 || live.empty()) {
        const S32 id = create(U16(1 + random(12)), random(4) == 0, 0x10000 * (step + 1));
        if (id > 0) live.push_back(U16(id));
      } else {
        const size_t k = random(U32(live.size()));
        ASSERT_EQ(m().deleteECMPGroup(0, live[k]), 0);
        live.erase(live.begin() + k);
      }
    }
    const std::string text = Brevant::snapshotText(m());
    for (const char* pool :
         {"allocatedEntries", "freeEntries", "freeGroupIds", "hwStartToGroupId"}) {
      EXPECT_EQ(snapshotMemberLines(text, pool), genericMemberLines(m(), pool)) << pool;
    }
    expectSameRecords(*roundTrip());
  }
}

TEST_F(WarmRestartTest, NextHopsWithAMissingPositionFallBackToMemberLines) {
  fragment(6);
  Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(4);
  ASSERT_TRUE(group && group->size() >= 2);
  ECMPGroup::kilnType().memberDel(*group, "nextHops", "0");
  const std::string text = Brevant::snapshotText(m());
  EXPECT_THAT(text, ::testing::HasSubstr("member\tnextHops\t1\tValue("));
  EXPECT_THAT(text, ::testing::HasSubstr("hops\tnextHops\t"));
  // The chip still holds the word of the position the records lost.
  RestoreOptions options;
  options.policy = RestorePolicy::rewrite;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManagerFromText(text, options);
  expectSameRecords(*restored);
}

TEST_F(WarmRestartTest, ABadHopsLineIsCorrupt) {
  fragment(6);
  const std::string text = Brevant::snapshotText(m());
  const size_t hops = text.find("hops\tnextHops\t");
  ASSERT_NE(hops, std::string::npos);
  const size_t items = text.find('\t', hops + 14) + 1;
  const size_t end = text.find('\n', items);
  const std::string count = text.substr(hops + 14, items - 1 - (hops + 14));
  auto expectCorrupt = [&](const std::string& line) {
    SCOPED_TRACE(line);
    try {
      Brevant::restoreNextHopManagerFromText(
          resealed(text.substr(0, hops) + line + text.substr(end)));
      ADD_FAILURE() << "no error";
    } catch (const SnapshotError& e) {
      EXPECT_EQ(e.problem(), SnapshotError::Problem::corrupt) << e.what();
    }
  };
  const std::string good = text.substr(items, end - items);
  expectCorrupt("hops\tnextHops\t" + std::to_string(std::stoul(count) + 1) + "\t" + good);
  expectCorrupt("hops\tnextHops\t" + count + "\t" + good + " 5:0:1:1");
  expectCorrupt("hops\tnextHops\t" + count + "\t" + good.substr(0, good.size() - 1) + "x");
  expectCorrupt("hops\tnextHops\t" + count + "\t70000" + good.substr(good.find(':')));
  expectCorrupt("hops\tnextHops\t0\t");
  expectCorrupt("hops\tfreeEntries\t" + count + "\t" + good);
}

// ---- Bad snapshots.

void expectProblem(const std::string& path, SnapshotError::Problem problem, const char* words) {
  try {
    Brevant::restoreNextHopManager(path);
    ADD_FAILURE() << "no error";
  } catch (const SnapshotError& e) {
    EXPECT_EQ(e.problem(), problem) << e.what();
    EXPECT_THAT(e.what(), ::testing::HasSubstr(words));
  }
}

TEST_F(WarmRestartTest, AMissingSnapshotIsAClearError) {
  std::remove(path_.c_str());
  expectProblem(path_, SnapshotError::Problem::missing, "no snapshot at");
}

TEST_F(WarmRestartTest, ATruncatedSnapshotIsAClearError) {
  const std::string text = Brevant::snapshotText(m());
  for (size_t cut : {size_t(0), size_t(10), size_t(40), text.size() / 2, text.size() - 1}) {
    writeAll(path_, text.substr(0, cut));
    expectProblem(path_, SnapshotError::Problem::truncated, "truncated snapshot");
  }
}

TEST_F(WarmRestartTest, AChangedByteFailsTheChecksum) {
  std::string text = Brevant::snapshotText(m());
  text[text.size() - 20] ^= 1;
  writeAll(path_, text);
  expectProblem(path_, SnapshotError::Problem::corrupt, "checksum mismatch");
}

TEST_F(WarmRestartTest, ASnapshotOfAnotherVersionIsNamedAsSuch) {
  std::string text = Brevant::snapshotText(m());
  text.replace(0, text.find('\n'), "brevant-next-hop-snapshot 7");
  writeAll(path_, text);
  expectProblem(path_, SnapshotError::Problem::otherVersion, "format version 7");
}

TEST_F(WarmRestartTest, AFileThatIsNoSnapshotIsCorrupt) {
  writeAll(path_, "hello\nworld\nagain\n");
  expectProblem(path_, SnapshotError::Problem::corrupt, "not a next-hop snapshot");
}

TEST_F(WarmRestartTest, ABodyThatPassesTheChecksumButBreaksTheRecordsIsCorrupt) {
  fragment(10);
  const std::string text = Brevant::snapshotText(m());
  const Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(4);
  ASSERT_TRUE(group);
  // The group's first entry said to be free.
  const std::string line =
      "member\tfreeEntries\t" + std::to_string(group->hwStartIndex()) + "\tTrue\n";
  const size_t pos = text.find("\nrun\tfreeEntries\t");
  ASSERT_NE(pos, std::string::npos);
  writeAll(path_, resealed(text.substr(0, pos + 1) + line + text.substr(pos + 1)));
  expectProblem(path_, SnapshotError::Problem::corrupt, "is not allocated");
  // An attribute the type has not.
  writeAll(path_,
           resealed(text.substr(0, pos + 1) + "attr\tnoSuchThing\t1\n" + text.substr(pos + 1)));
  expectProblem(path_, SnapshotError::Problem::corrupt, "has no attribute noSuchThing");
  // A value that does not parse as its type.
  std::string badValue = text;
  const size_t attr = badValue.find("attr\tlastNarrowIndex\t");
  badValue.insert(attr + 21, "x");
  writeAll(path_, resealed(badValue));
  expectProblem(path_, SnapshotError::Problem::corrupt, "corrupt snapshot");
}

TEST_F(WarmRestartTest, ABadSnapshotStartsColdOnlyWhenAskedTo) {
  fragment(10);
  std::remove(path_.c_str());
  RestoreOptions options;
  options.coldOnBadSnapshot = true;
  RestoreResult result;
  Kiln::Ptr<NextHopManager> cold = Brevant::restoreNextHopManager(path_, options, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::cold);
  EXPECT_THAT(result.coldReason, ::testing::HasSubstr("no snapshot at"));
  EXPECT_EQ(cold->ecmpGroups().members(), 2u);
  EXPECT_EQ(cold->freeEntries().members(), 65531u);
}

// ---- A chip that disagrees.

TEST_F(WarmRestartTest, OneChangedEntryIsListedAndRefusedByDefault) {
  fragment(20);
  Brevant::saveSnapshot(m(), path_);
  const Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(5);
  ASSERT_TRUE(group && group->size() >= 2);
  FmSim::tableWordIs(group->hwStartIndex() + 1, 0xBAD);
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_, {}, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::cold);
  ASSERT_EQ(result.differences.size(), 1u);
  EXPECT_EQ(result.differences[0].kind, RestoreDifference::Kind::groupWords);
  EXPECT_EQ(result.differences[0].groupId, 5);
  EXPECT_EQ(result.differences[0].index, group->hwStartIndex());
  EXPECT_THAT(result.differences[0].text, ::testing::HasSubstr("1 of its"));
  EXPECT_EQ(restored->ecmpGroups().members(), 2u);  // cold: the reserved groups only
}

TEST_F(WarmRestartTest, OneChangedEntryIsRewrittenFromTheSnapshotWhenAsked) {
  fragment(20);
  Brevant::saveSnapshot(m(), path_);
  const Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(5);
  const U64 right = FmSim::tableWord(group->hwStartIndex() + 1);
  FmSim::tableWordIs(group->hwStartIndex() + 1, 0xBAD);
  FmSim::callsDelAll();
  RestoreOptions options;
  options.policy = RestorePolicy::rewrite;
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_, options, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::rewritten);
  ASSERT_EQ(result.differences.size(), 1u);
  EXPECT_EQ(FmSim::tableWord(group->hwStartIndex() + 1), right);
  const std::vector<FmSim::Call> writes = writeCalls();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_EQ(writes[0].address, Brevant::nextHopRegister(group->hwStartIndex()));
  EXPECT_EQ(U64(writes[0].count), result.wordsWritten);
  expectSameRecords(*restored);
  expectTableMatchesRecords(*restored);
}

TEST_F(WarmRestartTest, AChangedReservedEntryIsListed) {
  Brevant::saveSnapshot(m(), path_);
  FmSim::tableWordIs(2, 7);
  RestoreOptions options;
  options.policy = RestorePolicy::rewrite;
  RestoreResult result;
  Brevant::restoreNextHopManager(path_, options, &result);
  ASSERT_EQ(result.differences.size(), 1u);
  EXPECT_EQ(result.differences[0].kind, RestoreDifference::Kind::reservedEntry);
  EXPECT_EQ(result.differences[0].groupId, 1);
  EXPECT_EQ(FmSim::tableWord(2), reservedWord(2));
}

TEST_F(WarmRestartTest, AFreeEntryWrittenSinceTheSnapshotIsListed) {
  fragment(20);
  Brevant::saveSnapshot(m(), path_);
  const U16 free = m().freeEntries().first()->key();
  FmSim::tableWordIs(free, 0xFEED);
  RestoreResult result;
  Brevant::restoreNextHopManager(path_, {}, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::cold);
  ASSERT_EQ(result.differences.size(), 1u);
  EXPECT_EQ(result.differences[0].kind, RestoreDifference::Kind::freeEntries);
  EXPECT_EQ(result.differences[0].index, free);
}

TEST_F(WarmRestartTest, ASnapshotOfAnotherTableBoundStartsCold) {
  m().setSimulationMode(true, 1024);
  fragment(5);
  Brevant::saveSnapshot(m(), path_);
  RestoreOptions options;
  options.policy = RestorePolicy::rewrite;
  options.expectedTableBound = 2048;
  RestoreResult result;
  Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_, options, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::cold);
  ASSERT_EQ(result.differences.size(), 1u);
  EXPECT_EQ(result.differences[0].kind, RestoreDifference::Kind::tableBound);
  EXPECT_THAT(result.coldReason, ::testing::HasSubstr("1024, not 2048"));
  options.expectedTableBound = 1024;
  Brevant::restoreNextHopManager(path_, options, &result);
  EXPECT_EQ(result.outcome, RestoreResult::Outcome::warm);
}

// ---- A restart in the middle of random churn, with the hitless checker on.

TEST_F(WarmRestartTest, RestartsInsideRandomChurnKeepTheTableHitless) {
  m().setSimulationMode(true, 512);
  std::mt19937 rng(14);
  auto random = [&](U32 below) { return std::uniform_int_distribution<U32>(0, below - 1)(rng); };
  std::vector<U16> live;
  U64 fresh = 0xC0DE000000000000ull;
  U32 restarts = 0;
  auto checker =
      std::make_unique<Brevant::HitlessChecker>(m(), [](U16 i) { return FmSim::tableWord(i); });
  // Every chip write (the defragmenter's moves) is checked as it happens.
  U64 violations = 0;
  FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) {
    if (checker) violations += checker->check();
  });
  for (U32 step = 0; step < 3000; ++step) {
    const U32 choice = random(100);
    if (choice < 45) {
      const U16 size = U16(1 + random(4));
      const bool wide = random(4) == 0;
      fresh += 32;
      const S32 id =
          m().createECMPGroup(0, wide, true, size, wordRun(size, fresh), wordRun(size, fresh + 16),
                              Brevant::RoutingUnicastFeature, false);
      if (id > 0) live.push_back(U16(id));
    } else if (choice < 85 && !live.empty()) {
      const size_t k = random(U32(live.size()));
      ASSERT_EQ(m().deleteECMPGroup(0, live[k]), 0);
      live.erase(live.begin() + k);
    } else if (choice < 97) {
      clock_->advance(1.0);  // lets a scheduled defragmentation run
    } else {
      // The process restarts: save, drop everything, build again.
      checker.reset();
      Brevant::saveSnapshot(m(), path_);
      const std::vector<U64> before = tableWords(512);
      FmSim::callsDelAll();
      Kiln::Ptr<NextHopManager> restored = Brevant::restoreNextHopManager(path_);
      EXPECT_TRUE(writeCalls().empty());
      EXPECT_EQ(tableWords(512), before);
      const std::vector<std::string> differences = recordDifferences(m(), *restored);
      ASSERT_TRUE(differences.empty()) << ::testing::PrintToString(differences);
      expectSameCounters(*restored);
      manager_ = restored;
      ++restarts;
      checker =
          std::make_unique<Brevant::HitlessChecker>(m(), [](U16 i) { return FmSim::tableWord(i); });
      ASSERT_EQ(checker->checkSettled(), 0u) << checker->report();
      for (U16 id : live) EXPECT_EQ(m().getECMPGroup(id)->groupId(), id);
    }
    ASSERT_EQ(checker->check(), 0u) << checker->report();
  }
  FmSim::writeObserverIs({});
  EXPECT_EQ(violations, 0u);
  EXPECT_GT(restarts, 30u);
}

}  // namespace
