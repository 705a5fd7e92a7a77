// The manager's `hardened` switch: off, the table behaves exactly as its
// algorithms are described (and the tests elsewhere pin that); on, no valid
// request sequence can stop the process. The seven requests below once
// stopped the agent; they are replayed in both settings.
#include <string>
#include <vector>

#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using testing::HasSubstr;

// The switch is an attribute like any other: by name it reads and writes
// through the reflective interface.
TEST_F(NextHopTableTest, HardenedIsOffByDefaultAndReachableByName) {
  EXPECT_FALSE(m().hardened());
  const Kiln::TypeRecord& type = NextHopManager::kilnType();
  EXPECT_EQ(type.get(m(), "hardened"), "False");
  type.set(m(), "hardened", "True");
  EXPECT_TRUE(m().hardened());
  m().hardenedIs(false);
  EXPECT_EQ(type.get(m(), "hardened"), "False");
}

// What the replay saw.
struct Replay {
  std::vector<S32> results;  // every create and delete, in order
  U16 lastNarrowAfterNarrowDelete = 0;
  U32 compactions = 0;
};

// Creates wide 2, narrow 1, wide 2; deletes the first wide group and the
// narrow group (the only one, at index 3); creates wide 1; then creates wide
// 4, running a compaction after each refusal, at most `tries` times.
Replay replaySevenRequests(NextHopManager& m, int tries) {
  Replay r;
  auto create = [&](U16 size, bool wide) {
    const S32 id = m.createECMPGroup(0, wide, true, size, wordRun(size, 0x100 * size),
                                     wordRun(size, 0x9000), Brevant::RoutingUnicastFeature, false);
    r.results.push_back(id);
    return id;
  };
  const S32 firstWide = create(2, true);
  const S32 narrow = create(1, false);
  create(2, true);
  r.results.push_back(m.deleteECMPGroup(0, U16(firstWide)));
  r.results.push_back(m.deleteECMPGroup(0, U16(narrow)));
  r.lastNarrowAfterNarrowDelete = m.lastNarrowIndex();
  create(1, true);
  for (int i = 0; i < tries; ++i) {
    if (create(4, true) > 0) break;
    ++r.compactions;
    m.defragManager()->handleDefragSchedulerTimeOut();
  }
  return r;
}

class SevenRequests : public NextHopTableTest, public testing::WithParamInterface<U16> {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    // 0 stands for the full table.
    if (GetParam() != 0) m().setSimulationMode(true, GetParam());
  }
};

TEST_P(SevenRequests, HardenedNothingStopsAndTheWideCreateSucceeds) {
  m().hardenedIs(true);
  const Replay r = replaySevenRequests(m(), 3);
  EXPECT_EQ(r.lastNarrowAfterNarrowDelete, 2);
  ASSERT_EQ(r.results.size(), 7u + r.compactions);
  EXPECT_GT(r.results.back(), 0);
  EXPECT_EQ(m().lastNarrowIndex(), 2);
  expectTableMatchesRecords(m());
}

INSTANTIATE_TEST_SUITE_P(FullAndSmall, SevenRequests, testing::Values(U16(0), U16(64)));

// Hardened, a simulated bound that would leave the table inconsistent is
// refused and changes nothing: an odd one (the swap index, and so the top of
// the wide region, at an odd index).
TEST_F(NextHopTableTest, HardenedRefusesAnOddSimulatedBound) {
  m().hardenedIs(true);
  m().setSimulationMode(true, 65);
  EXPECT_FALSE(m().simMode());
  EXPECT_EQ(m().getNextHopTableBound(), 65534);
  m().setSimulationMode(true, 64);
  ASSERT_TRUE(m().simMode());
  EXPECT_EQ(m().getNextHopTableBound(), 64);
  const S32 wide = create(1, true);
  ASSERT_GT(wide, 0);
  EXPECT_EQ(m().ecmpGroups(U16(wide))->hwStartIndex() % 2, 0);
  expectTableMatchesRecords(m());
}

// While simulation mode is on the pools stay trimmed at its bound: another
// bound is refused, whether simulation mode stays on or is left (leaving
// gives back every entry from the bound given, the reserved ones included).
TEST_F(NextHopTableTest, HardenedKeepsTheSimulatedBoundWhileSimulationModeIsOn) {
  m().setSimulationMode(true, 64);
  m().hardenedIs(true);
  m().setSimulationMode(true, 256);
  EXPECT_EQ(m().getNextHopTableBound(), 64);
  m().setSimulationMode(false, 0);
  EXPECT_TRUE(m().simMode());
  EXPECT_FALSE(m().freeEntries(1));
  m().setSimulationMode(false, 64);
  EXPECT_FALSE(m().simMode());
  EXPECT_EQ(m().getNextHopTableBound(), 65534);
  EXPECT_TRUE(m().freeEntries(1000));
}

// Entering simulation mode with a group at or above the new swap index is
// refused too: the group would lie in the swap area or beyond the table.
TEST_F(NextHopTableTest, HardenedRefusesASimulatedBoundBelowAGroup) {
  m().hardenedIs(true);
  ASSERT_GT(create(2, true), 0);
  m().setSimulationMode(true, 64);
  EXPECT_FALSE(m().simMode());
  expectTableMatchesRecords(m());
}

// Off, the reference's behaviour: the odd bound is taken, and the next wide
// create finds its block at an odd index and stops the process.
TEST_F(NextHopTableDeathTest, OddSimulatedBoundStopsTheNextWideCreate) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->setSimulationMode(true, 65);
        m->createECMPGroup(0, true, true, 1, wordRun(1, 0x1000), wordRun(1, 0x9000),
                           Brevant::RoutingUnicastFeature, false);
      },
      HasSubstr("Assertion `(index % 2) == 0' failed."));
}

}  // namespace
