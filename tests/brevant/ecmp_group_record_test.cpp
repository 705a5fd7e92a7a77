// The ECMP group record as creating and placing a group leave it: compared
// with the record that the first-written loops produced (one member stored
// at a time into buckets that grow as they fill, and placement reading each
// position back and storing it again), member for member, bucket for bucket
// and word for word on the chip.
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::RoutingUnicastFeature;

// A group's next hops as iteration meets them: bucket, key and value.
using Layout = std::vector<std::tuple<U32, U16, NextHopEntry>>;

Layout layoutOf(const ECMPGroup& group) {
  Layout layout;
  for (auto it = group.nextHops().begin(); it != group.nextHops().end(); ++it) {
    layout.emplace_back(it.bucket(), it->key(), it->value());
  }
  return layout;
}

// The placement loop as first written: for each position from the last, the
// entry is read, given its table index and stored again. Returns the words
// it would write to the chip.
std::vector<U64> placeAsFirstWritten(ECMPGroup& group, U16 start) {
  const U32 stride = group.wide() ? 2 : 1;
  std::vector<U64> words(stride * group.size());
  for (U32 p = group.size(); p-- > 0;) {
    NextHopEntry entry = group.nextHops(U16(p));
    entry.hwIndexIs(U16(start + stride * p));
    group.nextHopsIs(U16(p), entry);
    words[stride * p] = entry.data();
    if (group.wide()) words[stride * p + 1] = entry.wideData();
  }
  return words;
}

// The record createECMPGroup built at first: one member per position stored
// into buckets that grew as they filled, then placed at start.
Kiln::Ptr<ECMPGroup> createdAsFirstWritten(U16 id, bool wide, U16 size, const U64Collection& data,
                                           const U64Collection& wideData, U16 start) {
  Kiln::Ptr<ECMPGroup> group = new ECMPGroup(id);
  group->wideIs(wide);
  group->sizeIs(size);
  for (U16 p = 0; p < size; ++p) {
    group->nextHopsIs(p, NextHopEntry(p, wide, data.data(p), wide ? wideData.data(p) : 0));
  }
  placeAsFirstWritten(*group, start);
  return group;
}

// A group of its own with group's attributes and next hops in the same
// buckets and chain order: a chain holds its newest member first, so the
// members are stored in the reverse of their iteration order.
Kiln::Ptr<ECMPGroup> copyOf(const ECMPGroup& group) {
  Kiln::Ptr<ECMPGroup> copy = new ECMPGroup(group.groupId());
  copy->wideIs(group.wide());
  copy->sizeIs(group.size());
  copy->nextHopsReserve(group.nextHops().buckets());
  const Layout layout = layoutOf(group);
  for (auto it = layout.rbegin(); it != layout.rend(); ++it) {
    copy->nextHopsIs(std::get<1>(*it), std::get<2>(*it));
  }
  return copy;
}

std::vector<U64> chipWords(U16 start, size_t count) {
  std::vector<U64> words;
  for (size_t i = 0; i < count; ++i) words.push_back(FmSim::tableWord(U16(start + i)));
  return words;
}

TEST_F(NextHopTableTest, CreatedGroupsHoldTheRecordTheFirstWrittenLoopsBuilt) {
  std::mt19937 random(5);
  for (U16 size = 1; size <= 256; size = size < 40 ? size + 1 : size + 7) {
    for (bool wide : {false, true}) {
      if (wide && size > 128) continue;  // the largest block is 256 entries
      const U64Collection data = wordRun(size, random());
      const U64Collection wideData = wordRun(size, random());
      const S32 id =
          m().createECMPGroup(0, wide, true, size, data, wideData, RoutingUnicastFeature, false);
      ASSERT_GE(id, 3) << size;
      Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(U16(id));
      Kiln::Ptr<ECMPGroup> expected =
          createdAsFirstWritten(U16(id), wide, size, data, wideData, group->hwStartIndex());
      EXPECT_EQ(group->nextHops().buckets(), expected->nextHops().buckets()) << size;
      EXPECT_EQ(layoutOf(*group), layoutOf(*expected)) << size << (wide ? " wide" : "");
      EXPECT_EQ(m().deleteECMPGroup(0, U16(id)), 0);
    }
  }
}

TEST_F(NextHopTableTest, PlacingMatchesTheFirstWrittenLoopOnRandomlyEditedGroups) {
  for (U32 seed = 1; seed <= 60; ++seed) {
    std::mt19937 random(seed);
    auto pick = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random); };
    const bool wide = pick(0, 2) == 0;
    const U16 size = U16(pick(1, wide ? 64 : 128));
    const S32 id = m().createECMPGroup(0, wide, true, size, wordRun(size, random()),
                                       wordRun(size, random()), RoutingUnicastFeature, false);
    ASSERT_GE(id, 3);
    Kiln::Ptr<ECMPGroup> group = m().ecmpGroups(U16(id));
    ASSERT_EQ(m().removeECMPGroupFromTable(U16(id)), 0);
    // Edits that reach the record from outside (by name, from a restore):
    // positions gone, positions beyond the size, keys that share a bucket
    // with a position, another size.
    for (U32 edits = pick(0, 12); edits > 0; --edits) {
      const U16 key = U16(pick(0, 3) == 0 ? pick(0, 300) + 1024 * pick(0, 3) : pick(0, size));
      if (pick(0, 1)) {
        group->nextHopsDel(key);
      } else {
        group->nextHopsIs(key, NextHopEntry(U16(random()), wide, random(), random()));
      }
    }
    if (pick(0, 3) == 0) group->sizeIs(U16(pick(1, wide ? 64 : 128)));
    Kiln::Ptr<ECMPGroup> expected = copyOf(*group);
    ASSERT_EQ(layoutOf(*expected), layoutOf(*group));

    ASSERT_EQ(m().addECMPGroupToTable(U16(id)), 0) << "seed " << seed;
    const U16 start = group->hwStartIndex();
    const std::vector<U64> words = placeAsFirstWritten(*expected, start);
    EXPECT_EQ(layoutOf(*group), layoutOf(*expected)) << "seed " << seed;
    EXPECT_EQ(chipWords(start, words.size()), words) << "seed " << seed;
    ASSERT_EQ(m().deleteECMPGroup(0, U16(id)), 0);
  }
}

}  // namespace
