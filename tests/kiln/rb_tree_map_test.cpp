#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Kiln/RbTreeMap.h"

namespace Kiln {

// Reads (and, to prove the checker, damages) a tree's links.
struct RbTreeAccess {
  template <class Map>
  static auto* root(const Map& map) {
    return map.root_;
  }
  template <class M>
  static M* child(const M* m, int dir) {
    return m->child_[dir];
  }
  template <class M>
  static M* parent(const M* m) {
    return m->parent_;
  }
  template <class M>
  static bool red(const M* m) {
    return m->red_;
  }
  template <class M>
  static void redIs(M* m, bool red) {
    m->red_ = red;
  }
  // Forgets where the last lookup or insert ended: the next insert descends
  // from the root.
  template <class Map>
  static void fingerForget(Map& map) {
    map.finger_ = nullptr;
  }
};

}  // namespace Kiln

namespace {

using Access = Kiln::RbTreeAccess;

class KilnFree : public Kiln::RbTreeMember<KilnFree, U16, bool> {
  using RbTreeMember::RbTreeMember;
};
using FreeMap = Kiln::RbTreeMap<KilnFree, U16, bool>;

class KilnText : public Kiln::RbTreeMember<KilnText, std::string, U32> {
  using RbTreeMember::RbTreeMember;
};
using TextMap = Kiln::RbTreeMap<KilnText, std::string, U32>;

// Checks the red-black and search-tree invariants below m (whose parent must
// be `parent`); returns the black height, or -1 after recording a fault.
template <class M>
int checkSubtree(const M* m, const M* parent, const M* low, const M* high, U32& count,
                 std::string& fault) {
  if (!m) return 1;
  ++count;
  if (Access::parent(m) != parent) fault = "broken parent link";
  if (low && !(low->key() < m->key())) fault = "keys out of order";
  if (high && !(m->key() < high->key())) fault = "keys out of order";
  if (Access::red(m) && parent && Access::red(parent)) fault = "red member with a red parent";
  int left = checkSubtree(Access::child(m, 0), m, low, m, count, fault);
  int right = checkSubtree(Access::child(m, 1), m, m, high, count, fault);
  if (left != right) fault = "unequal black heights";
  if (!fault.empty()) return -1;
  return left + (Access::red(m) ? 0 : 1);
}

// Empty when map is a valid red-black tree holding members() members,
// otherwise the first fault found.
template <class Map>
std::string redBlackFault(const Map& map) {
  std::string fault;
  auto* root = Access::root(map);
  if (root && Access::red(root)) return "red root";
  U32 count = 0;
  checkSubtree<std::remove_pointer_t<decltype(root)>>(root, nullptr, nullptr, nullptr, count,
                                                      fault);
  if (fault.empty() && count != map.members()) fault = "member count differs";
  return fault;
}

// The number of members on the longest path from m down.
int depth(const KilnFree* m) {
  return m ? 1 + std::max(depth(Access::child(m, 0)), depth(Access::child(m, 1))) : 0;
}

std::vector<U16> iteratedKeys(const FreeMap& map) {
  std::vector<U16> keys;
  for (const KilnFree& m : map) keys.push_back(m.key());
  return keys;
}

TEST(RbTreeMap, TheCheckerFindsBrokenTrees) {
  FreeMap map;
  for (U16 k = 0; k < 10; ++k) map.insert(new KilnFree(k, true));
  ASSERT_EQ(redBlackFault(map), "");
  KilnFree* root = Access::root(map);
  Access::redIs(root, true);
  EXPECT_EQ(redBlackFault(map), "red root");
  Access::redIs(root, false);
  // Recolouring one leaf black breaks the black heights.
  KilnFree* leaf = map.first();
  bool wasRed = Access::red(leaf);
  Access::redIs(leaf, !wasRed);
  EXPECT_NE(redBlackFault(map), "");
  Access::redIs(leaf, wasRed);
  // Making a red member's parent red gives a red-red pair.
  for (KilnFree& m : map) {
    if (Access::red(&m) && Access::parent(&m) != root) {
      Access::redIs(Access::parent(&m), true);
      EXPECT_NE(redBlackFault(map), "");
      Access::redIs(Access::parent(&m), false);
      break;
    }
  }
  EXPECT_EQ(redBlackFault(map), "");
}

TEST(RbTreeMap, AMemberOfA16BitKeyAndAFlagTakesFortyBytes) {
  // The next-hop table keeps two such maps of up to 65,531 members each.
  EXPECT_EQ(sizeof(KilnFree), 40u);
}

TEST(RbTreeMap, IteratesInAscendingKeyOrder) {
  FreeMap map;
  for (U16 k : {50, 10, 40, 20, 30}) map.insert(new KilnFree(k, true));
  EXPECT_EQ(iteratedKeys(map), (std::vector<U16>{10, 20, 30, 40, 50}));
  EXPECT_EQ(redBlackFault(map), "");
}

TEST(RbTreeMap, IteratesBackwardsFromTheEnd) {
  FreeMap map;
  for (U16 k : {5, 1, 3, 2, 4}) map.insert(new KilnFree(k, false));
  std::vector<U16> keys;
  auto it = map.end();
  while (it != map.begin()) {
    --it;
    keys.push_back(it->key());
  }
  EXPECT_EQ(keys, (std::vector<U16>{5, 4, 3, 2, 1}));
  it = map.begin();
  it++;
  it--;
  EXPECT_EQ(it->key(), 1);
  auto post = it++;
  EXPECT_EQ(post->key(), 1);
  EXPECT_EQ(it->key(), 2);
}

TEST(RbTreeMap, FirstAndLastAreTheExtremeKeys) {
  FreeMap map;
  EXPECT_EQ(map.first(), nullptr);
  EXPECT_EQ(map.last(), nullptr);
  for (U16 k : {300, 7, 65535, 0, 12}) map.insert(new KilnFree(k, true));
  EXPECT_EQ(map.first()->key(), 0);
  EXPECT_EQ(map.last()->key(), 65535);
  map.remove(0);
  map.remove(65535);
  EXPECT_EQ(map.first()->key(), 7);
  EXPECT_EQ(map.last()->key(), 300);
  EXPECT_EQ(map.begin().ptr(), map.first());
}

TEST(RbTreeMap, LowerBoundIsTheFirstKeyNotBelow) {
  FreeMap map;
  for (U16 k = 10; k <= 100; k += 10) map.insert(new KilnFree(k, true));
  EXPECT_EQ(map.lowerBound(0)->key(), 10);
  EXPECT_EQ(map.lowerBound(10)->key(), 10);
  EXPECT_EQ(map.lowerBound(11)->key(), 20);
  EXPECT_EQ(map.lowerBound(55)->key(), 60);
  EXPECT_EQ(map.lowerBound(100)->key(), 100);
  EXPECT_TRUE(map.lowerBound(101) == map.end());
  auto it = map.lowerBound(35);
  ++it;
  EXPECT_EQ(it->key(), 50);
  EXPECT_TRUE(FreeMap().lowerBound(3) == FreeMap().end());
}

TEST(RbTreeMap, OrdersTextKeysByTheirLessThan) {
  TextMap map;
  for (const char* name : {"pear", "apple", "fig", "banana"}) {
    map.insert(new KilnText(name, U32(std::string(name).size())));
  }
  std::vector<std::string> names;
  for (const KilnText& m : map) names.push_back(m.key());
  EXPECT_EQ(names, (std::vector<std::string>{"apple", "banana", "fig", "pear"}));
  EXPECT_EQ(map.find("fig")->value(), 3u);
  EXPECT_EQ(map.lowerBound("c")->key(), "fig");
}

// Random inserts and removes against std::map, checking the tree after every
// operation.
void randomWorkout(unsigned seed, U32 operations, U32 keyRange) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<U32> key(0, keyRange - 1);
  FreeMap map;
  std::map<U16, bool> oracle;
  for (U32 i = 0; i < operations; ++i) {
    U16 k = U16(key(random));
    switch (random() % 5) {
      case 0:
      case 1:
        if (!oracle.count(k)) {
          bool v = random() & 1;
          // Half built in place by the map.
          if (random() & 1) {
            const KilnFree* built = map.insertNew(k, v);
            EXPECT_EQ(built, map.find(k));
          } else {
            map.insert(new KilnFree(k, v));
          }
          oracle[k] = v;
        }
        break;
      case 2: {
        auto removed = map.remove(k);
        ASSERT_EQ(bool(removed), oracle.count(k) == 1) << "seed " << seed << " op " << i;
        if (removed) {
          EXPECT_EQ(removed->value(), oracle[k]);
          oracle.erase(k);
        }
        break;
      }
      case 3: {
        // Remove through an iterator from the lower bound of k.
        auto it = map.lowerBound(k);
        auto expected = oracle.lower_bound(k);
        ASSERT_EQ(it == map.end(), expected == oracle.end());
        if (it != map.end()) {
          ASSERT_EQ(it->key(), expected->first);
          it = map.remove(it);
          expected = oracle.erase(expected);
          ASSERT_EQ(it == map.end(), expected == oracle.end());
          if (it != map.end()) {
            ASSERT_EQ(it->key(), expected->first);
          }
        }
        break;
      }
      case 4: {
        // A short scan up or down from k, as the allocator's searches do.
        const int direction = random() & 1 ? 1 : -1;
        for (int step = 0; step < 8; ++step) {
          U16 probe = U16(k + direction * step);
          auto* m = map.find(probe);
          ASSERT_EQ(m != nullptr, oracle.count(probe) == 1) << "seed " << seed << " op " << i;
          if (m) {
            ASSERT_EQ(m->key(), probe);
          }
        }
        break;
      }
    }
    std::string fault = redBlackFault(map);
    ASSERT_EQ(fault, "") << "seed " << seed << " op " << i;
    ASSERT_EQ(map.members(), oracle.size());
    // The last member is kept at hand through every insert and removal.
    ASSERT_EQ(map.last() ? int(map.last()->key()) : -1,
              oracle.empty() ? -1 : int(oracle.rbegin()->first));
  }
  std::vector<U16> expected;
  for (const auto& [k, v] : oracle) {
    expected.push_back(k);
    ASSERT_NE(map.find(k), nullptr);
    EXPECT_EQ(map.find(k)->value(), v);
  }
  EXPECT_EQ(iteratedKeys(map), expected);
  if (!oracle.empty()) {
    EXPECT_EQ(map.first()->key(), oracle.begin()->first);
    EXPECT_EQ(map.last()->key(), oracle.rbegin()->first);
  }
}

TEST(RbTreeMap, MatchesStdMapUnderRandomInsertsAndRemoves) {
  for (unsigned seed : {1u, 2u, 3u, 4u}) randomWorkout(seed, 4000, 500);
  randomWorkout(5, 6000, 65536);
  randomWorkout(6, 3000, 40);
}

// Looks up every key from `from` towards `to` (inclusive) and compares with
// the oracle.
void scan(const FreeMap& map, const std::set<U16>& oracle, int from, int to) {
  const int step = from <= to ? 1 : -1;
  for (int k = from;; k += step) {
    const KilnFree* m = map.find(U16(k));
    ASSERT_EQ(m != nullptr, oracle.count(U16(k)) == 1) << k;
    if (m) {
      ASSERT_EQ(m->key(), k);
    }
    if (k == to) break;
  }
}

TEST(RbTreeMap, ScansUpAndDownFindExactlyTheMembers) {
  FreeMap map;
  std::set<U16> oracle;
  for (U16 k = 10; k < 3000; k += 3) {
    if (k % 300 < 40) continue;  // some long gaps
    map.insert(new KilnFree(k, true));
    oracle.insert(k);
  }
  scan(map, oracle, 0, 3100);
  scan(map, oracle, 3100, 0);
  scan(map, oracle, 1500, 1600);
  scan(map, oracle, 1600, 1400);
}

TEST(RbTreeMap, ScansStayRightWhileTheMapChanges) {
  FreeMap map;
  std::set<U16> oracle;
  for (U16 k = 0; k < 200; k += 2) {
    map.insert(new KilnFree(k, true));
    oracle.insert(k);
  }
  for (int k = 0; k < 200; ++k) {
    ASSERT_EQ(map.find(U16(k)) != nullptr, oracle.count(U16(k)) == 1) << k;
    if (k % 10 == 0) {
      // Remove the member just found, then fill the gap after it.
      map.remove(U16(k));
      oracle.erase(U16(k));
      map.insert(new KilnFree(U16(k + 1), false));
      oracle.insert(U16(k + 1));
    }
  }
  scan(map, oracle, 0, 210);
  scan(map, oracle, 210, 0);
  map.clear();
  EXPECT_EQ(map.find(4), nullptr);
  map.insert(new KilnFree(4, true));
  EXPECT_EQ(map.find(4)->key(), 4);
  EXPECT_EQ(map.find(5), nullptr);
  EXPECT_EQ(map.find(3), nullptr);
}

TEST(RbTreeMap, HoldsEverySixteenBitKey) {
  FreeMap map;
  std::vector<U32> keys(65536);
  std::iota(keys.begin(), keys.end(), 0);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(11));
  for (U32 k : keys) map.insert(new KilnFree(U16(k), k % 3 == 0));
  EXPECT_EQ(map.members(), 65536u);
  EXPECT_EQ(redBlackFault(map), "");
  U32 expected = 0;
  for (const KilnFree& m : map) {
    ASSERT_EQ(m.key(), expected);
    EXPECT_EQ(m.value(), expected % 3 == 0);
    ++expected;
  }
  EXPECT_EQ(expected, 65536u);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(12));
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_TRUE(map.remove(U16(keys[i])));
    if (i % 8192 == 0) {
      ASSERT_EQ(redBlackFault(map), "");
    }
  }
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(Access::root(map), nullptr);
}

TEST(RbTreeMap, AscendingAndDescendingInsertsStayBalanced) {
  FreeMap up, down;
  for (U32 k = 0; k < 4096; ++k) {
    up.insert(new KilnFree(U16(k), true));
    down.insert(new KilnFree(U16(4095 - k), true));
  }
  EXPECT_EQ(redBlackFault(up), "");
  EXPECT_EQ(redBlackFault(down), "");
  // A red-black tree of n members is at most 2 log2(n + 1) deep; a chain
  // left unbalanced by sorted input would be 4096 deep.
  EXPECT_LE(depth(Access::root(up)), 24);
  EXPECT_LE(depth(Access::root(down)), 24);
}

// True when the trees below a and b have the same shape, keys and colours.
bool sameTree(const KilnFree* a, const KilnFree* b) {
  if (!a || !b) return a == b;
  return a->key() == b->key() && Access::red(a) == Access::red(b) &&
         sameTree(Access::child(a, 0), Access::child(b, 0)) &&
         sameTree(Access::child(a, 1), Access::child(b, 1));
}

TEST(RbTreeMap, InsertsNextToTheFingerBuildTheTreeARootDescentBuilds) {
  // Runs of consecutive keys going up or down (as freeing blocks inserts
  // them), lookups in between, removals and random keys: a map that inserts
  // beside its finger and one made to descend from the root every time
  // end up as the same tree after every step.
  std::mt19937 random(21);
  FreeMap hinted, descended;
  std::set<U16> oracle;
  for (U32 round = 0; round < 1500; ++round) {
    const U16 start = U16(random() % 4000);
    const U32 length = 1 + random() % 24;
    const int direction = random() % 4 == 0 ? -1 : 1;
    const U32 action = random() % 4;
    for (U32 i = 0; i < length; ++i) {
      const U16 k = U16(start + direction * int(i));
      if (action == 3) {
        ASSERT_EQ(bool(hinted.remove(k)), oracle.erase(k) == 1);
        descended.remove(k);
      } else if (!oracle.count(k)) {
        if (action == 2) hinted.find(U16(random() % 4000));  // a finger anywhere
        hinted.insert(new KilnFree(k, true));
        Access::fingerForget(descended);
        descended.insert(new KilnFree(k, true));
        oracle.insert(k);
      }
    }
    ASSERT_TRUE(sameTree(Access::root(hinted), Access::root(descended))) << "round " << round;
    if (round % 100 == 0) {
      ASSERT_EQ(redBlackFault(hinted), "") << "round " << round;
    }
  }
  EXPECT_EQ(iteratedKeys(hinted), std::vector<U16>(oracle.begin(), oracle.end()));
  EXPECT_EQ(hinted.last()->key(), *oracle.rbegin());
}

TEST(RbTreeMapDeathTest, RefusesAKeyAlreadyPresentNextToTheFinger) {
  FreeMap map;
  for (U16 k : {10, 20, 30}) map.insert(new KilnFree(k, true));
  ASSERT_NE(map.find(20), nullptr);  // the finger on 20
  EXPECT_DEATH(map.insert(new KilnFree(20, false)),
               "Assertion `keyLessThan\\(m->key_, at->key_\\)' failed");
  EXPECT_DEATH(map.insert(new KilnFree(10, false)),
               "Assertion `keyLessThan\\(m->key_, at->key_\\)' failed");
  map.insert(new KilnFree(21, true));  // the finger on 21, 20 below it
  EXPECT_DEATH(map.insert(new KilnFree(20, false)),
               "Assertion `keyLessThan\\(m->key_, at->key_\\)' failed");
}

TEST(RbTreeMapDeathTest, RefusesAKeyAlreadyPresent) {
  FreeMap map;
  map.insert(new KilnFree(4, true));
  EXPECT_DEATH(map.insert(new KilnFree(4, false)),
               "Assertion `keyLessThan\\(m->key_, at->key_\\)' failed");
}

TEST(RbTreeMapDeathTest, RefusesANullMember) {
  FreeMap map;
  EXPECT_DEATH(map.insert(nullptr), "Assertion `m != nullptr' failed");
}

}  // namespace
