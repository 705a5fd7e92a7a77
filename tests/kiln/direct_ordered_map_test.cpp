// Kiln::DirectOrderedMap against an RbTreeMap fed the same operations: the
// same members in the same order both ways after every step, and the same
// answers from find, first, last and lowerBound.
#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/DirectOrderedMap.h"
#include "Kiln/RbTreeMap.h"

namespace {

template <class K>
class KilnTreeSlot : public Kiln::RbTreeMember<KilnTreeSlot<K>, K, U32> {
 public:
  using Kiln::RbTreeMember<KilnTreeSlot<K>, K, U32>::RbTreeMember;
};
template <class K>
class KilnDirectSlot : public Kiln::DirectOrderedMember<KilnDirectSlot<K>, K, U32> {
 public:
  using Kiln::DirectOrderedMember<KilnDirectSlot<K>, K, U32>::DirectOrderedMember;
};
template <class K>
using TreeMap = Kiln::RbTreeMap<KilnTreeSlot<K>, K, U32>;
template <class K>
using DirectMap = Kiln::DirectOrderedMap<KilnDirectSlot<K>, K, U32>;

template <class Map>
auto forwards(const Map& map) {
  std::vector<std::pair<S32, U32>> members;
  for (const auto& m : map) members.emplace_back(m.key(), m.value());
  return members;
}

template <class Map>
auto backwards(const Map& map) {
  std::vector<std::pair<S32, U32>> members;
  for (auto at = map.end(); at != map.begin();) {
    --at;
    members.emplace_back(at->key(), at->value());
  }
  return members;
}

template <class M>
S32 keyOf(const M* m) {
  return m ? S32(m->key()) : -100000;
}

// Random changes in runs of neighbouring keys (as blocks of table entries
// come and go) and anywhere in the key range; the maps are compared after
// every step.
template <class K>
void compareUnderRandomChanges(U32 steps, U32 seed) {
  std::mt19937 random(seed);
  TreeMap<K> tree;
  DirectMap<K> direct;
  K run = 0;
  for (U32 step = 0; step < steps; ++step) {
    const K key = random() % 3 == 0 ? K(random()) : K(run + K(random() % 5));
    if (random() % 50 == 0) run = K(random());
    switch (random() % 6) {
      case 0:
      case 1:
        if (!tree.find(key)) {
          tree.insertNew(key, step);
          const auto* built = direct.insertNew(key, step);
          ASSERT_EQ(built, direct.find(key));
        }
        break;
      case 2:
        if (!tree.find(key)) {
          tree.insert(new KilnTreeSlot<K>(key, step));
          direct.insert(new KilnDirectSlot<K>(key, step));
        }
        break;
      case 3: {
        const auto fromTree = tree.remove(key);
        const auto fromDirect = direct.remove(key);
        ASSERT_EQ(keyOf(fromTree.ptr()), keyOf(fromDirect.ptr()));
        if (fromDirect) {
          ASSERT_EQ(fromDirect->references(), 1u);
        }
        break;
      }
      case 4: {
        // Removal at an iterator hands back the next member.
        auto treeAt = tree.lowerBound(key);
        auto directAt = direct.lowerBound(key);
        ASSERT_EQ(keyOf(treeAt.ptr()), keyOf(directAt.ptr()));
        if (treeAt != tree.end()) {
          ASSERT_EQ(keyOf(tree.remove(treeAt).ptr()), keyOf(direct.remove(directAt).ptr()));
        }
        break;
      }
      default:
        if (random() % 200 == 0) {
          tree.clear();
          direct.clear();
        }
        break;
    }
    ASSERT_EQ(tree.members(), direct.members());
    ASSERT_EQ(tree.empty(), direct.empty());
    ASSERT_EQ(keyOf(tree.first()), keyOf(direct.first()));
    ASSERT_EQ(keyOf(tree.last()), keyOf(direct.last()));
    const K probe = K(random());
    ASSERT_EQ(keyOf(tree.find(probe)), keyOf(direct.find(probe)));
    ASSERT_EQ(keyOf(tree.lowerBound(probe).ptr()), keyOf(direct.lowerBound(probe).ptr()));
    if (step % 97 == 0) {
      ASSERT_EQ(forwards(tree), forwards(direct));
      ASSERT_EQ(backwards(tree), backwards(direct));
    }
  }
  EXPECT_EQ(forwards(tree), forwards(direct));
}

TEST(DirectOrderedMap, MatchesATreeUnderRandomChangesOfSixteenBitKeys) {
  compareUnderRandomChanges<U16>(30000, 5);
}

TEST(DirectOrderedMap, MatchesATreeUnderRandomChangesOfSignedKeys) {
  compareUnderRandomChanges<S16>(20000, 6);
  compareUnderRandomChanges<S8>(5000, 7);
  compareUnderRandomChanges<U8>(5000, 8);
}

TEST(DirectOrderedMap, FindsNeighboursAcrossEmptyStretchesBothWays) {
  DirectMap<U16> map;
  EXPECT_EQ(map.first(), nullptr);
  EXPECT_EQ(map.last(), nullptr);
  EXPECT_EQ(map.find(5), nullptr);
  EXPECT_EQ(map.lowerBound(0), map.end());
  // Members at the ends of the range and far apart: the steps cross empty
  // bitmap words and empty summary words.
  for (U16 k : {65535, 0, 64, 63, 4096, 40000}) map.insertNew(k, k);
  std::vector<std::pair<S32, U32>> expected{{0, 0},       {63, 63},       {64, 64},
                                            {4096, 4096}, {40000, 40000}, {65535, 65535}};
  EXPECT_EQ(forwards(map), expected);
  const std::vector<std::pair<S32, U32>> reversed(expected.rbegin(), expected.rend());
  EXPECT_EQ(backwards(map), reversed);
  EXPECT_EQ(map.lowerBound(65), map.lowerBound(4096));
  EXPECT_EQ(map.lowerBound(40001)->key(), 65535);
  EXPECT_EQ((--map.end())->key(), 65535);
}

TEST(DirectOrderedMap, AnIteratorStaysValidWhileOtherMembersComeAndGo) {
  DirectMap<U16> map;
  for (U16 k = 10; k < 20; ++k) map.insertNew(k, k);
  auto at = map.lowerBound(12);
  map.remove(13);
  map.insertNew(30, 30);
  map.remove(11);
  EXPECT_EQ(at->key(), 12);
  ++at;
  EXPECT_EQ(at->key(), 14);
  --at;
  EXPECT_EQ(at->key(), 12);
  --at;
  EXPECT_EQ(at->key(), 10);
}

TEST(DirectOrderedMap, HoldsOneReferenceAndReleasesEveryMemberOnClear) {
  using Member = KilnDirectSlot<U16>;
  {
    DirectMap<U16> map;
    Kiln::Ptr<Member> held = new Member(7, 1);
    map.insert(held);
    EXPECT_EQ(held->references(), 2u);
    for (U16 k = 100; k < 200; ++k) map.insertNew(k, k);
    EXPECT_EQ(Kiln::allocationRecord<Member>().live(), 101u);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(held->references(), 1u);
    EXPECT_EQ(Kiln::allocationRecord<Member>().live(), 1u);
    // The map is usable again after clear.
    map.insertNew(3, 3);
    EXPECT_EQ(map.first()->key(), 3);
  }
  EXPECT_EQ(Kiln::allocationRecord<Member>().live(), 0u);
}

TEST(DirectOrderedMap, PrefetchingAMemberOrAPlaceChangesNothing) {
  DirectMap<U16> map;
  map.prefetch(4);  // no array yet
  map.prefetchPlace(4);
  map.insertNew(4, 40);
  for (U16 k : {4, 5}) {  // present and absent
    map.prefetch(k);
    map.prefetchPlace(k);
  }
  EXPECT_EQ(forwards(map), (std::vector<std::pair<S32, U32>>{{4, 40}}));
}

TEST(DirectOrderedMapDeathTest, RefusesAKeyAlreadyPresent) {
  DirectMap<U16> map;
  map.insertNew(9, 1);
  EXPECT_DEATH(map.insertNew(9, 2), "byKey\\[s\\] == nullptr");
}

TEST(DirectOrderedMapDeathTest, RefusesANullMember) {
  DirectMap<U16> map;
  EXPECT_DEATH(map.insert(nullptr), "member.ptr\\(\\) != nullptr");
}

}  // namespace
