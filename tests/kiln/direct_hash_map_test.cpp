// Kiln::DirectHashMap against a plain HashMap fed the same operations: the
// same members in the same iteration order after every step, and the same
// answers from find.
#include <gtest/gtest.h>

#include <random>
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

TEST(DirectHashMap, PrefetchingAMemberChangesNothing) {
  DirectMap map;
  map.prefetch(4);  // no array yet
  map.insertNew(4, 40);
  map.prefetch(4);
  map.prefetch(5);  // absent
  EXPECT_EQ(iterated(map), (std::vector<std::pair<U16, U32>>{{4, 40}}));
}

}  // namespace
