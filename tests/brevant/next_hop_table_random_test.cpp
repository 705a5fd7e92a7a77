// Long random sequences of creates, deletes, rewrites and reads, with the
// table's invariants checked after every step. Fixed seeds: a failure
// reproduces.
#include <random>
#include <tuple>

#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;

// The ids of the groups that features created (not the reserved ones).
std::vector<U16> featureGroups(const NextHopManager& m) {
  std::vector<U16> ids;
  for (const auto& member : m.ecmpGroups()) {
    if (member.key() >= 3) ids.push_back(member.key());
  }
  return ids;
}

// What a failed create must leave as it was.
struct Snapshot {
  std::vector<U32> groupIds;
  U32 freeGroupIds;
  U32 freeEntries;
  U32 allocated;
  U16 lastNarrowIndex;
  U16 lastWideIndex;
  bool operator==(const Snapshot&) const = default;
};

Snapshot snapshot(const NextHopManager& m) {
  U32 allocated = 0;
  for (const auto& member : m.allocatedEntries()) allocated += member.value();
  return {keysOf(m.ecmpGroups()), m.freeGroupIds().members(), m.freeEntries().members(), allocated,
          m.lastNarrowIndex(),    m.lastWideIndex()};
}

class NextHopTableRandomTest : public RandomTableTest {
 protected:
  // Mostly small groups, now and then a large one; wide groups take twice
  // the entries, so at most 128 next hops.
  U16 groupSize(bool wide) {
    const U32 limit = wide ? 128 : 256;
    return U16(pick(0, 9) == 0 ? pick(1, limit) : pick(1, wide ? 8 : 16));
  }

  U64Collection randomWords(U16 size) {
    U64Collection c;
    for (U16 p = 0; p < size; ++p) {
      if (pick(0, 15)) c.dataIs(p, (U64(pick(0, 0xFFFFFFFF)) << 32) | pick(0, 0xFFFFFFFF));
    }
    return c;
  }

  // Every invariant of the table, reported as test failures.
  void checkTable() {
    const U32 tableBound = m().getNextHopTableBound();
    const U16 swap = m().getNextHopTableSwapIndex();
    std::vector<U16> owner(65536, 0);
    U32 placedEntries = 0;
    U32 placedGroups = 0;
    for (U16 id : featureGroups(m())) {
      Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
      const U32 start = g->hwStartIndex();
      const U32 length = (g->wide() ? 2u : 1u) * g->size();
      ASSERT_GT(length, 0u) << "group " << id << " was created empty";
      ASSERT_EQ(m().hwStartToGroupId(U16(start)), id);
      ++placedGroups;
      placedEntries += length;
      if (g->wide()) {
        ASSERT_EQ(start % 2, 0u) << "wide group " << id;
        ASSERT_LE(start + length, swap) << "wide group " << id;
      } else {
        ASSERT_GE(start, 3u) << "narrow group " << id;
        ASSERT_LE(start + length, m().lastWideIndex()) << "narrow group " << id;
      }
      for (U32 i = start; i < start + length; ++i) {
        ASSERT_EQ(owner[i], 0) << "groups " << owner[i] << " and " << id << " overlap at " << i;
        owner[i] = id;
        ASSERT_TRUE(m().allocatedEntries(U16(i))) << i;
        ASSERT_FALSE(m().freeEntries(U16(i))) << i;
      }
    }
    U32 allocated = 0;
    for (const auto& member : m().allocatedEntries()) allocated += member.value();
    // Allocated entries are exactly the placed blocks, and every other
    // entry of the pool range is free: the two sets partition it.
    ASSERT_EQ(allocated, placedEntries);
    ASSERT_EQ(m().freeEntries().members(), tableBound - 3 - placedEntries);
    ASSERT_EQ(m().hwStartToGroupId().members(), placedGroups);
    expectTableMatchesRecords(m());
  }

  void createOne() {
    const bool wide = pick(0, 2) == 0;
    const U16 size = groupSize(wide);
    const Snapshot before = snapshot(m());
    FmSim::callsDelAll();
    const U64Collection data = randomWords(size);
    const U64Collection wideData = randomWords(size);
    const S32 id = m().createECMPGroup(0, wide, pick(0, 1), size, data, wideData,
                                       FeatureType(pick(0, 4)), pick(0, 1));
    if (id < 0) {
      ASSERT_EQ(id, -2);
      ++failedCreates_;
      ASSERT_EQ(snapshot(m()), before);
      ASSERT_TRUE(FmSim::calls().empty());
      return;
    }
    ++creates_;
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(U16(id));
    const U16 stride = wide ? 2 : 1;
    for (U16 p = 0; p < size; ++p) {
      ASSERT_EQ(g->nextHops(p), NextHopEntry(U16(g->hwStartIndex() + stride * p), wide,
                                             data.data(p), wide ? wideData.data(p) : 0));
    }
  }

  void deleteOne(const std::vector<U16>& ids) {
    const U16 id = ids[pick(0, U32(ids.size() - 1))];
    ASSERT_EQ(m().deleteECMPGroup(0, id), 0);
    ASSERT_FALSE(m().ecmpGroups(id));
    ASSERT_TRUE(m().freeGroupIds(id));
    ++deletes_;
  }

  void rewriteOne(const std::vector<U16>& ids) {
    const U16 id = ids[pick(0, U32(ids.size() - 1))];
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    if (pick(0, 1)) {
      ASSERT_EQ(m().updateECMPGroup(0, id, randomWords(g->size()), randomWords(g->size())), 0);
    } else {
      const U16 p = U16(pick(0, g->size() - 1));
      const NextHopEntry e(0, g->wide(), pick(0, 0xFFFFFFFF), g->wide() ? pick(1, 99) : 0);
      ASSERT_EQ(m().updateNextHop(id, p, e), 0);
      ASSERT_EQ(m().updateNextHop(id, p, NextHopEntry(0, !g->wide(), 1, 1)), -3);
    }
  }

  void readOne(const std::vector<U16>& ids) {
    const U16 id = ids[pick(0, U32(ids.size() - 1))];
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    const U16 p = U16(pick(0, g->size() - 1));
    const NextHopEntry stored = g->nextHops(p);
    const U16 stride = g->wide() ? 2 : 1;
    ASSERT_EQ(m().readNextHop(id, p),
              NextHopEntry(U16(g->hwStartIndex() + stride * p), g->wide(), stored.data(),
                           g->wide() ? stored.wideData() : 0));
    ASSERT_EQ(m().readNextHop(id, g->size()), NextHopEntry());
  }

  int creates_ = 0;
  int failedCreates_ = 0;
  int deletes_ = 0;
};

TEST_P(NextHopTableRandomTest, KeepsTheTableConsistentThroughEveryStep) {
  const int steps = this->steps();
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const std::vector<U16> ids = featureGroups(m());
    const U32 op = pick(0, 99);
    if (ids.empty() || op < 45) {
      createOne();
    } else if (op < 75) {
      deleteOne(ids);
    } else if (op < 90) {
      rewriteOne(ids);
    } else {
      readOne(ids);
    }
    if (HasFatalFailure()) return;
    checkTable();
    if (HasFatalFailure()) return;
  }
  // The sequence exercised what it is for.
  EXPECT_GT(creates_, steps / 5);
  EXPECT_GT(deletes_, steps / 10);
  if (bound()) {
    EXPECT_GT(failedCreates_, 0) << "the small table never filled";
  }
  EXPECT_EQ(FmSim::lockViolations(), 0u);
}

INSTANTIATE_TEST_SUITE_P(FullTable, NextHopTableRandomTest,
                         testing::Values(std::make_tuple(1u, U16(0), 1500),
                                         std::make_tuple(2u, U16(0), 1500)));
INSTANTIATE_TEST_SUITE_P(SmallTable, NextHopTableRandomTest,
                         testing::Values(std::make_tuple(3u, U16(128), 3000),
                                         std::make_tuple(4u, U16(128), 3000),
                                         std::make_tuple(5u, U16(600), 3000),
                                         std::make_tuple(6u, U16(1024), 3000)));

}  // namespace
