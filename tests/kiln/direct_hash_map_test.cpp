// Kiln::DirectHashMap against a plain HashMap fed the same operations: the
// same members in the same iteration order after every step, and the same
// answers from find.
#include <gtest/gtest.h>

#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/DirectHashMap.h"
#include "Kiln/HashMap.h"

namespace {

class KilnSlot : public Kiln::HashMapMember<KilnSlot, U16, U32> {
  using HashMapMember::HashMapMember;
};
using PlainMap = Kiln::HashMap<KilnSlot, U16, U32>;
using DirectMap = Kiln::DirectHashMap<KilnSlot, U16, U32>;

class KilnSmall : public Kiln::HashMapMember<KilnSmall, S8, bool> {
  using HashMapMember::HashMapMember;
};

template <class Map>
std::vector<std::pair<U16, U32>> iterated(const Map& map) {
  std::vector<std::pair<U16, U32>> members;
  for (const KilnSlot& m : map) members.emplace_back(m.key(), m.value());
  return members;
}

TEST(DirectHashMap, MatchesAPlainHashMapUnderRandomChanges) {
  std::mt19937 random(31);
  PlainMap plain;
  DirectMap direct;
  for (U32 step = 0; step < 20000; ++step) {
    // Runs of neighbouring keys, as a block of table entries is, over the
    // whole 16-bit range.
    const U16 key = U16(random() % 4 == 0 ? random() : 65530 + random() % 12);
    switch (random() % 5) {
      case 0:
        if (!plain.find(key)) {
          plain.insert(new KilnSlot(key, step));
          direct.insert(new KilnSlot(key, step));
        }
        break;
      case 1:
        // Built in place, after a reservation now and then.
        if (random() % 64 == 0) {
          const U32 room = plain.members() + random() % 3000;
          plain.reserve(room);
          direct.reserve(room);
        }
        if (!plain.find(key)) {
          plain.insertNew(key, step);
          const KilnSlot* built = direct.insertNew(key, step);
          EXPECT_EQ(built, direct.find(key));
        }
        break;
      case 2: {
        Kiln::Ptr<KilnSlot> a = plain.remove(key);
        Kiln::Ptr<KilnSlot> b = direct.remove(key);
        ASSERT_EQ(bool(a), bool(b)) << "step " << step;
        if (a) {
          EXPECT_EQ(a->value(), b->value());
        }
        break;
      }
      default:
        if (!plain.empty()) {
          // The first member in iteration order, removed through its position.
          auto a = plain.remove(plain.begin());
          auto b = direct.remove(direct.begin());
          ASSERT_EQ(a == plain.end(), b == direct.end());
          if (a != plain.end()) {
            EXPECT_EQ(a->key(), b->key());
          }
        }
        break;
    }
    const KilnSlot* a = plain.find(key);
    const KilnSlot* b = direct.find(key);
    ASSERT_EQ(a != nullptr, b != nullptr) << "step " << step;
    if (a) {
      EXPECT_EQ(b->key(), key);
      EXPECT_EQ(a->value(), b->value());
    }
    ASSERT_EQ(plain.members(), direct.members());
    ASSERT_EQ(plain.buckets(), direct.buckets());
    if (step % 500 == 0) {
      ASSERT_EQ(iterated(plain), iterated(direct)) << "step " << step;
    }
  }
  EXPECT_EQ(iterated(plain), iterated(direct));
  for (const KilnSlot& m : plain) EXPECT_EQ(direct.find(m.key())->value(), m.value());
}

// Members with their buckets, in iteration order.
template <class Map>
auto layout(const Map& map) {
  std::vector<std::tuple<U32, int, U32>> members;
  for (auto it = map.begin(); it != map.end(); ++it) {
    members.emplace_back(it.bucket(), int(it->key()), U32(it->value()));
  }
  return members;
}

// Fills maps of key K beside a plain HashMap until every key has a bucket
// of its own (the direct map is spread), then churns, empties from the
// front and refills them: the same members, buckets and order throughout,
// copies and moves included, and every member released at the end.
template <class Member, class K>
void churnPastSpreading(U32 seed, U32 steps) {
  using Plain = Kiln::HashMap<Member, K, U32>;
  using Direct = Kiln::DirectHashMap<Member, K, U32>;
  const U64 liveBefore = Kiln::allocationRecord<Member>().live();
  {
    std::mt19937 random(seed);
    const U32 range = U32(Direct::keys);
    Plain plain;
    Direct direct;
    auto same = [&](U32 step) {
      ASSERT_EQ(plain.members(), direct.members()) << "step " << step;
      ASSERT_EQ(plain.buckets(), direct.buckets()) << "step " << step;
      ASSERT_EQ(plain.log2Buckets(), direct.log2Buckets()) << "step " << step;
      ASSERT_EQ(layout(plain), layout(direct)) << "step " << step;
      ASSERT_EQ(plain.end().bucket(), direct.end().bucket());
    };
    for (U32 step = 0; step < steps; ++step) {
      // Fill most of the way for the first half of the run, then keep the
      // share of keys present where it is.
      const bool filling = step < steps / 2;
      const K key = K(random() % range);
      const U32 pick = random() % 16;
      if (pick < (filling ? 13u : 7u)) {
        if (!plain.find(key)) {
          if (pick % 2 == 0) {
            plain.insert(new Member(key, step));
            direct.insert(new Member(key, step));
          } else {
            plain.insertNew(key, step);
            const Member* built = direct.insertNew(key, step);
            ASSERT_EQ(built, direct.find(key));
          }
        }
      } else if (pick < 14) {
        const Kiln::Ptr<Member> a = plain.remove(key);
        const Kiln::Ptr<Member> b = direct.remove(key);
        ASSERT_EQ(bool(a), bool(b)) << "step " << step;
        if (a) {
          ASSERT_EQ(a->value(), b->value());
        }
      } else if (pick == 14 && random() % 8 == 0) {
        if (!plain.empty()) {
          auto a = plain.remove(plain.begin());
          auto b = direct.remove(direct.begin());
          ASSERT_EQ(a == plain.end(), b == direct.end());
          if (a != plain.end()) {
            ASSERT_EQ(a->key(), b->key());
          }
        }
      } else if (random() % 8 == 0) {
        const U32 room = plain.members() + random() % (range / 2);
        plain.reserve(room);
        direct.reserve(room);
      }
      const Member* a = plain.find(key);
      const Member* b = direct.find(key);
      ASSERT_EQ(a != nullptr, b != nullptr) << "step " << step;
      if (a) {
        ASSERT_EQ(a->value(), b->value());
      }
      if (step % (steps / 16) == 0) same(step);
      // By the end of the filling every key has a bucket of its own.
      if (step == steps / 2) {
        ASSERT_GE(direct.log2Buckets(), Direct::keyBits);
      }
    }
    same(steps);
    // Copies and moves of the spread map, and equality.
    Direct copy(direct);
    EXPECT_TRUE(copy == direct);
    EXPECT_EQ(layout(copy), layout(direct));
    Direct moved(std::move(copy));
    EXPECT_EQ(layout(moved), layout(direct));
    EXPECT_TRUE(copy.empty());
    if (!direct.empty()) {
      const K first = direct.begin()->key();
      moved.remove(first);
      EXPECT_FALSE(moved == direct);
    }
    // Emptied from the front, member by member, as a generated DelAll does
    // (a plain map's begin() walks its empty buckets each time, so the
    // comparison stops after a while), then key by key.
    for (U32 n = 0; n < 1000 && !plain.empty(); ++n) {
      ASSERT_EQ(plain.begin()->key(), direct.begin()->key());
      plain.remove(plain.begin());
      direct.remove(direct.begin());
    }
    same(steps);
    while (!direct.empty()) direct.remove(direct.begin());
    for (U32 k = 0; k < range; ++k) plain.remove(K(k));
    ASSERT_TRUE(plain.empty());
    EXPECT_TRUE(direct.begin() == direct.end());
    // Refilled, then cleared: the buckets stay as they were.
    for (U32 k = 0; k < range; k += 3) {
      plain.insertNew(K(k), k);
      direct.insertNew(K(k), k);
    }
    same(steps + 1);
    plain.clear();
    direct.clear();
    same(steps + 2);
    EXPECT_EQ(direct.find(K(3)), nullptr);
  }
  EXPECT_EQ(Kiln::allocationRecord<Member>().live(), liveBefore);
}

class KilnWide : public Kiln::HashMapMember<KilnWide, U16, U32> {
  using HashMapMember::HashMapMember;
};
class KilnNarrow : public Kiln::HashMapMember<KilnNarrow, S8, U32> {
  using HashMapMember::HashMapMember;
};

TEST(DirectHashMap, SixteenBitKeysIterateAsAPlainHashMapOnceEachHasABucket) {
  churnPastSpreading<KilnWide, U16>(5, 120000);
}

TEST(DirectHashMap, SignedEightBitKeysIterateAsAPlainHashMapOnceEachHasABucket) {
  for (U32 seed = 1; seed <= 20; ++seed) churnPastSpreading<KilnNarrow, S8>(seed, 4000);
}

TEST(DirectHashMap, AMapBuiltWithABucketPerKeyNeverChains) {
  Kiln::DirectHashMap<KilnNarrow, S8, U32> direct(9);
  Kiln::HashMap<KilnNarrow, S8, U32> plain(9);
  for (int k : {5, -3, 0, 127, -128, 64}) {
    direct.insertNew(S8(k), U32(k + 200));
    plain.insertNew(S8(k), U32(k + 200));
  }
  EXPECT_EQ(layout(direct), layout(plain));
  EXPECT_EQ(direct.buckets(), 512u);
  // The bucket of a key is its own, whatever the order it came in.
  for (auto it = direct.begin(); it != direct.end(); ++it) {
    EXPECT_EQ(it.bucket(), (Kiln::DirectHashMap<KilnNarrow, S8, U32>::bucketOf(it->key(), 9)));
  }
}

TEST(DirectHashMap, CopiesFindTheirOwnMembers) {
  DirectMap original;
  for (U16 k : {7, 8, 9, 65535, 0}) original.insert(new KilnSlot(k, k + 1u));
  DirectMap copy(original);
  EXPECT_TRUE(copy == original);
  EXPECT_EQ(iterated(copy), iterated(original));
  ASSERT_NE(copy.find(65535), nullptr);
  EXPECT_NE(copy.find(65535), original.find(65535));
  EXPECT_EQ(copy.find(65535)->value(), 65536u);
  original.remove(8);
  EXPECT_FALSE(copy == original);
  EXPECT_NE(copy.find(8), nullptr);
  DirectMap assigned;
  assigned = original;
  EXPECT_EQ(assigned.find(8), nullptr);
  EXPECT_EQ(assigned.find(9)->value(), 10u);
  DirectMap moved(std::move(assigned));
  EXPECT_EQ(moved.find(9)->value(), 10u);
  EXPECT_EQ(moved.members(), 4u);
}

TEST(DirectHashMap, ClearForgetsEveryMemberAndReleasesThem) {
  const U64 before = Kiln::allocationRecord<KilnSlot>().live();
  {
    DirectMap map;
    EXPECT_EQ(map.find(3), nullptr);  // no array before the first insertion
    EXPECT_EQ(map.remove(3), nullptr);
    for (U16 k = 0; k < 100; ++k) map.insert(new KilnSlot(k, k));
    EXPECT_EQ(Kiln::allocationRecord<KilnSlot>().live(), before + 100);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.find(3), nullptr);
    EXPECT_EQ(Kiln::allocationRecord<KilnSlot>().live(), before);
    map.insert(new KilnSlot(3, 4));
    EXPECT_EQ(map.find(3)->value(), 4u);
  }
  EXPECT_EQ(Kiln::allocationRecord<KilnSlot>().live(), before);
}

TEST(DirectHashMap, SignedKeysHaveTheirOwnPlaces) {
  Kiln::DirectHashMap<KilnSmall, S8, bool> map;
  for (int k = -128; k < 128; k += 5) map.insert(new KilnSmall(S8(k), k < 0));
  for (int k = -128; k < 128; ++k) {
    const KilnSmall* m = map.find(S8(k));
    ASSERT_EQ(m != nullptr, (k + 128) % 5 == 0) << k;
    if (m) {
      EXPECT_EQ(m->key(), S8(k));
      EXPECT_EQ(m->value(), k < 0);
    }
  }
}

TEST(DirectHashMap, PrefetchingAMemberOrAPlaceChangesNothing) {
  DirectMap chained, spread;
  spread.reserve(65536);  // a bucket per key from the start
  for (DirectMap* map : {&chained, &spread}) {
    map->prefetch(4);  // no array yet
    map->prefetchPlace(4);
    map->insertNew(4, 40);
    for (U16 k : {4, 5}) {  // present and absent
      map->prefetch(k);
      map->prefetchPlace(k);
    }
    EXPECT_EQ(iterated(*map), (std::vector<std::pair<U16, U32>>{{4, 40}}));
  }
  EXPECT_EQ(chained.buckets(), 16u);
  EXPECT_EQ(spread.buckets(), 65536u);
}

}  // namespace
