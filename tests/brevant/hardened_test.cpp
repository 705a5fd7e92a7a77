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

}  // namespace
