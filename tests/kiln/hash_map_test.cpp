#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/HashMap.h"

namespace {

class KilnCount : public Kiln::HashMapMember<KilnCount, U32, U32> {
  using HashMapMember::HashMapMember;
};
using CountMap = Kiln::HashMap<KilnCount, U32, U32>;

// A key with a deliberately weak hash: the OR of its two bytes, so that 1.2,
// 2.1 and 3.0 collide.
struct PortKey {
  U8 sw;
  U8 port;
  friend bool operator==(const PortKey& a, const PortKey& b) {
    return a.sw == b.sw && a.port == b.port;
  }
  friend bool operator<(const PortKey& a, const PortKey& b) {
    return a.sw < b.sw || (a.sw == b.sw && a.port < b.port);
  }
};
U32 kilnHash(const PortKey& key) { return key.sw | key.port; }

class KilnPort : public Kiln::HashMapMember<KilnPort, PortKey, std::string> {
  using HashMapMember::HashMapMember;
};
using PortMap = Kiln::HashMap<KilnPort, PortKey, std::string>;

enum class Colour : U8 { red = 3, blue = 9 };

std::vector<U32> iteratedKeys(const CountMap& map) {
  std::vector<U32> keys;
  for (const KilnCount& m : map) keys.push_back(m.key());
  return keys;
}

TEST(KilnHash, IntegersHashToTheirValue) {
  EXPECT_EQ(Kiln::kilnHash(U8(200)), 200u);
  EXPECT_EQ(Kiln::kilnHash(U16(65535)), 65535u);
  EXPECT_EQ(Kiln::kilnHash(U32(0xDEADBEEF)), 0xDEADBEEFu);
  EXPECT_EQ(Kiln::kilnHash(S8(-1)), 0xFFFFFFFFu);
  EXPECT_EQ(Kiln::kilnHash(S32(-2)), 0xFFFFFFFEu);
  EXPECT_EQ(Kiln::kilnHash(true), 1u);
  EXPECT_EQ(Kiln::kilnHash(false), 0u);
}

TEST(KilnHash, SixtyFourBitIntegersFoldTheirHalves) {
  EXPECT_EQ(Kiln::kilnHash(U64(7)), 7u);
  EXPECT_EQ(Kiln::kilnHash(U64(0x0000000100000001ull)), 0u);
  EXPECT_EQ(Kiln::kilnHash(U64(0x1234567800000000ull)), 0x12345678u);
  EXPECT_EQ(Kiln::kilnHash(S64(-1)), 0u);
}

TEST(KilnHash, EnumerationsHashToTheirValue) { EXPECT_EQ(Kiln::kilnHash(Colour::blue), 9u); }

TEST(KilnHash, TextsHashWithFnv1a) {
  EXPECT_EQ(Kiln::kilnHash(std::string()), 2166136261u);
  EXPECT_EQ(Kiln::kilnHash(std::string("a")), 0xE40C292Cu);
  EXPECT_EQ(Kiln::kilnHash(std::string("foobar")), 0xBF9CF968u);
  EXPECT_NE(Kiln::kilnHash(std::string("Ethernet1")), Kiln::kilnHash(std::string("Ethernet2")));
}

TEST(KilnHash, BitReverseMirrorsTheWord) {
  EXPECT_EQ(Kiln::bitReverse(1), 0x80000000u);
  EXPECT_EQ(Kiln::bitReverse(0x80000000u), 1u);
  EXPECT_EQ(Kiln::bitReverse(0x0000000Fu), 0xF0000000u);
  EXPECT_EQ(Kiln::bitReverse(0x12345678u), 0x1E6A2C48u);
  EXPECT_EQ(Kiln::bitReverse(Kiln::bitReverse(0xCAFEF00Du)), 0xCAFEF00Du);
}

TEST(HashMap, BucketIsTheTopBitsOfTheReversedHash) {
  EXPECT_EQ(CountMap::bucketOf(0, 4), 0u);
  EXPECT_EQ(CountMap::bucketOf(1, 4), 8u);
  EXPECT_EQ(CountMap::bucketOf(2, 4), 4u);
  EXPECT_EQ(CountMap::bucketOf(3, 4), 12u);
  EXPECT_EQ(CountMap::bucketOf(16, 4), 0u);  // only the low 4 bits count
  EXPECT_EQ(CountMap::bucketOf(1, 1), 1u);
  EXPECT_EQ(CountMap::bucketOf(2, 1), 0u);
  EXPECT_EQ(CountMap::bucketOf(0xFFFFFFFFu, 30), (1u << 30) - 1);
}

TEST(HashMap, OneBucketHoldsEveryKey) {
  for (U32 k : {0u, 1u, 0xFFFFFFFFu}) EXPECT_EQ(CountMap::bucketOf(k, 0), 0u);
  CountMap map(0);
  EXPECT_EQ(map.buckets(), 1u);
  map.insert(new KilnCount(5, 50));
  EXPECT_EQ(map.begin().bucket(), 0u);
  EXPECT_EQ(map.find(5)->value(), 50u);
}

TEST(HashMap, KeepsTheBucketCountAsItsLogarithm) {
  EXPECT_EQ(CountMap().log2Buckets(), 4);
  EXPECT_EQ(CountMap().buckets(), 16u);
  EXPECT_EQ(CountMap(7).buckets(), 128u);
  EXPECT_EQ(CountMap(40).log2Buckets(), CountMap::maxLog2Buckets);
}

TEST(HashMap, MembersSitInTheirKeysBuckets) {
  CountMap map;
  for (U32 k = 1; k <= 3; ++k) map.insert(new KilnCount(k, 0));
  std::vector<U32> buckets;
  for (auto it = map.begin(); it != map.end(); ++it) buckets.push_back(it.bucket());
  EXPECT_EQ(buckets, (std::vector<U32>{4, 8, 12}));
  EXPECT_EQ(map.end().bucket(), 16u);
}

TEST(HashMap, PrefetchingMembersOrABucketChangesNothing) {
  CountMap map(1), untouched(1);
  map.prefetchMembers();  // no buckets yet
  map.prefetchBucket(4);
  for (U32 k : {4u, 6u, 5u}) {
    map.insert(new KilnCount(k, k * 10));
    untouched.insert(new KilnCount(k, k * 10));
  }
  map.prefetchMembers();
  for (U32 k : {4u, 5u, 6u, 7u}) map.prefetchBucket(k);  // present and absent keys
  EXPECT_EQ(iteratedKeys(map), iteratedKeys(untouched));
  EXPECT_EQ(map.buckets(), untouched.buckets());
  EXPECT_EQ(map.find(5)->value(), 50u);
  EXPECT_EQ(map.members(), 3u);
}

TEST(HashMap, IteratesInBucketOrderNotKeyOrder) {
  CountMap map;
  for (U32 k : {3u, 1u, 0u, 2u}) map.insert(new KilnCount(k, 0));
  EXPECT_EQ(iteratedKeys(map), (std::vector<U32>{0, 2, 1, 3}));

  CountMap big(2);
  for (U32 k = 0; k < 1000; ++k) big.insert(new KilnCount(k * 7, 0));
  U32 previous = 0;
  for (auto it = big.begin(); it != big.end(); ++it) {
    EXPECT_EQ(it.bucket(), CountMap::bucketOf(it->key(), big.log2Buckets()));
    EXPECT_GE(it.bucket(), previous);
    previous = it.bucket();
  }
}

TEST(HashMap, GrowsByDoublingWhenMembersOutnumberBuckets) {
  CountMap map(4);
  for (U32 k = 0; k < 16; ++k) map.insert(new KilnCount(k, k));
  EXPECT_EQ(map.log2Buckets(), 4);
  map.insert(new KilnCount(16, 16));
  EXPECT_EQ(map.log2Buckets(), 5);
  for (U32 k = 17; k < 5000; ++k) map.insert(new KilnCount(k, k));
  EXPECT_EQ(map.buckets(), 8192u);
  EXPECT_EQ(map.members(), 5000u);
  for (U32 k = 0; k < 5000; ++k) {
    ASSERT_NE(map.find(k), nullptr) << k;
    EXPECT_EQ(map.find(k)->value(), k);
  }
  EXPECT_EQ(iteratedKeys(map).size(), 5000u);
}

TEST(HashMap, GrowingKeepsTheOrderOfCollidingMembers) {
  // Keys equal modulo 16 share a bucket at 16 buckets; after doubling they
  // split by their fifth bit, each half in its previous relative order.
  CountMap map(4);
  for (U32 k : {1u, 17u, 33u, 49u, 65u}) map.insert(new KilnCount(k, 0));
  EXPECT_EQ(iteratedKeys(map), (std::vector<U32>{65, 49, 33, 17, 1}));
  for (U32 k = 100; k < 112; ++k) map.insert(new KilnCount(k, 0));
  ASSERT_EQ(map.log2Buckets(), 5);
  std::vector<U32> colliding;
  for (U32 k : iteratedKeys(map)) {
    if (k % 16 == 1 && k < 100) colliding.push_back(k);
  }
  EXPECT_EQ(colliding, (std::vector<U32>{65, 33, 1, 49, 17}));
}

TEST(HashMap, CollidingKeysAreToldApartByEquality) {
  PortMap map;
  PortKey a{1, 2}, b{2, 1}, c{3, 0};
  EXPECT_EQ(PortMap::bucketOf(a, 4), PortMap::bucketOf(b, 4));
  EXPECT_EQ(PortMap::bucketOf(a, 4), PortMap::bucketOf(c, 4));
  map.insert(new KilnPort(a, "a"));
  map.insert(new KilnPort(b, "b"));
  map.insert(new KilnPort(c, "c"));
  EXPECT_EQ(map.find(a)->value(), "a");
  EXPECT_EQ(map.find(b)->value(), "b");
  EXPECT_EQ(map.find(c)->value(), "c");
  EXPECT_EQ(map.find(PortKey{0, 3}), nullptr);  // same bucket, absent
  EXPECT_EQ(map.remove(b)->value(), "b");
  EXPECT_EQ(map.find(b), nullptr);
  EXPECT_EQ(map.find(a)->value(), "a");
  EXPECT_EQ(map.find(c)->value(), "c");
  EXPECT_TRUE(PortMap::keyLessThan(a, b));
  EXPECT_FALSE(PortMap::keyEquals(a, b));
}

TEST(HashMap, RemovesThroughAnIteratorInTheMiddleOfAChain) {
  PortMap map;
  for (U8 sw = 0; sw < 4; ++sw) map.insert(new KilnPort(PortKey{sw, U8(3 - sw)}, ""));
  auto it = map.begin();
  ++it;
  PortKey second = it->key();
  ++it;
  PortKey third = it->key();
  it = map.begin();
  ++it;
  it = map.remove(it);
  ASSERT_TRUE(it != map.end());
  EXPECT_TRUE(it->key() == third);
  EXPECT_EQ(map.find(second), nullptr);
  EXPECT_EQ(map.members(), 3u);
}

TEST(HashMap, CopyRebuildsEveryMemberInTheSameOrder) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  CountMap original(3);
  for (U32 k = 0; k < 40; ++k) original.insert(new KilnCount(k * 5, k));
  U64 live = record.live();
  CountMap copy(original);
  EXPECT_EQ(record.live(), live + 40);
  EXPECT_EQ(copy.members(), 40u);
  EXPECT_EQ(copy.log2Buckets(), original.log2Buckets());
  EXPECT_EQ(iteratedKeys(copy), iteratedKeys(original));
  EXPECT_TRUE(copy == original);
  for (const KilnCount& m : copy) {
    EXPECT_NE(&m, original.find(m.key()));
    EXPECT_EQ(m.references(), 1u);
  }
  copy.find(5)->valueIs(99);
  EXPECT_EQ(original.find(5)->value(), 1u);
  EXPECT_FALSE(copy == original);
  copy.remove(0);
  EXPECT_NE(original.find(0), nullptr);
}

TEST(HashMap, AssignmentReplacesTheMembers) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  U64 live = record.live();
  {
    CountMap a, b;
    for (U32 k = 0; k < 10; ++k) a.insert(new KilnCount(k, k));
    for (U32 k = 0; k < 3; ++k) b.insert(new KilnCount(k + 100, k));
    b = a;
    EXPECT_TRUE(b == a);
    EXPECT_EQ(record.live(), live + 20);
    // Self-assignment keeps the members (through a reference, as it happens
    // in real code; a literal `b = b` is a compiler warning).
    const CountMap& alias = b;
    b = alias;
    EXPECT_EQ(b.members(), 10u);
    CountMap empty;
    b = empty;
    EXPECT_TRUE(b.empty());
    EXPECT_TRUE(b.begin() == b.end());
    CountMap moved(std::move(a));
    EXPECT_EQ(moved.members(), 10u);
    EXPECT_EQ(a.members(), 0u);  // NOLINT: a moved-from map is empty
    b = std::move(moved);
    EXPECT_EQ(b.members(), 10u);
    EXPECT_EQ(record.live(), live + 10);
  }
  EXPECT_EQ(record.live(), live);
}

TEST(HashMap, EqualityComparesKeysAndValuesNotOrder) {
  CountMap a(0), b(6);
  for (U32 k = 0; k < 20; ++k) a.insert(new KilnCount(k, k * 2));
  for (U32 k = 20; k-- > 0;) b.insert(new KilnCount(k, k * 2));
  EXPECT_TRUE(a == b);
  b.remove(3);
  EXPECT_FALSE(a == b);
  b.insert(new KilnCount(33, 6));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(CountMap() == CountMap(9));
}

TEST(HashMap, AnEmptyMapAllocatesNoBuckets) {
  CountMap map(20);
  EXPECT_EQ(map.find(1), nullptr);
  EXPECT_FALSE(map.remove(1));
  EXPECT_TRUE(map.begin() == map.end());
  map.clear();
  CountMap copy(map);
  EXPECT_TRUE(copy.empty());
}

// The members in iteration order, with their buckets.
std::vector<std::pair<U32, U32>> layout(const CountMap& map) {
  std::vector<std::pair<U32, U32>> members;
  for (auto it = map.begin(); it != map.end(); ++it) members.emplace_back(it.bucket(), it->key());
  return members;
}

TEST(HashMap, ReserveSizesTheBucketsAsFillingThemWould) {
  std::mt19937 random(11);
  for (U8 log2 : {0, 2, 4}) {
    for (U32 count : {0u, 1u, 2u, 15u, 16u, 17u, 100u, 256u, 257u, 1000u}) {
      // Small keys (no chains) and wide ones (chains that split on growth).
      for (U32 spread : {1u, 1u << 20}) {
        std::vector<U32> keys(count);
        for (U32 i = 0; i < count; ++i) keys[i] = i * spread;
        std::shuffle(keys.begin(), keys.end(), random);
        CountMap filled(log2), reserved(log2);
        reserved.reserve(count);
        for (U32 k : keys) filled.insert(new KilnCount(k, k));
        for (U32 k : keys) reserved.insert(new KilnCount(k, k));
        EXPECT_EQ(reserved.log2Buckets(), filled.log2Buckets()) << count;
        EXPECT_EQ(layout(reserved), layout(filled)) << count;
      }
    }
  }
}

TEST(HashMap, ReservingAFilledMapKeepsItsChainsInOrder) {
  // Keys equal modulo 16 share a bucket at 16 buckets and split across the
  // 128 buckets that reserve(100) makes, each in its previous order, as
  // they would by growing three times.
  CountMap reserved(4), grown(4);
  for (U32 k = 0; k < 16; ++k) {
    reserved.insert(new KilnCount(k * 16 + 1, k));
    grown.insert(new KilnCount(k * 16 + 1, k));
  }
  reserved.reserve(100);
  EXPECT_EQ(reserved.buckets(), 128u);
  for (U32 k = 0; k < 84; ++k) {
    reserved.insert(new KilnCount(k * 2, k));
    grown.insert(new KilnCount(k * 2, k));
  }
  EXPECT_EQ(grown.buckets(), 128u);
  EXPECT_EQ(layout(reserved), layout(grown));
}

TEST(HashMap, ReserveNeverShrinksAndAnEmptyMapStillWaitsForItsFirstMember) {
  CountMap map(6);
  map.reserve(10);
  EXPECT_EQ(map.buckets(), 64u);
  map.reserve(65);
  EXPECT_EQ(map.buckets(), 128u);
  EXPECT_TRUE(map.begin() == map.end());
  // No array yet: even the largest reservation costs nothing until a member
  // comes.
  CountMap huge;
  huge.reserve(0xFFFFFFFFu);
  EXPECT_EQ(huge.log2Buckets(), CountMap::maxLog2Buckets);
  EXPECT_EQ(huge.find(3), nullptr);
}

TEST(HashMap, InsertNewBuildsAMemberThatOnlyTheMapHolds) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  const U64 live = record.live();
  {
    CountMap built, inserted;
    for (U32 k : {1u, 17u, 33u, 2u}) {
      KilnCount* m = built.insertNew(k, k * 10);
      EXPECT_EQ(m->key(), k);
      EXPECT_EQ(m->value(), k * 10);
      EXPECT_EQ(m->references(), 1u);
      EXPECT_EQ(built.find(k), m);
      inserted.insert(new KilnCount(k, k * 10));
    }
    EXPECT_EQ(record.live(), live + 8);
    // A new member goes to the front of its chain, as insert() puts it.
    EXPECT_EQ(layout(built), layout(inserted));
    Kiln::Ptr<KilnCount> kept = built.find(17);
    built.clear();
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_EQ(record.live(), live + 5);
  }
  EXPECT_EQ(record.live(), live);
}

TEST(HashMap, ClearReleasesMembersInEveryBatchOfBuckets) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  const U64 live = record.live();
  CountMap map(2);
  std::vector<Kiln::Ptr<KilnCount>> kept;
  for (U32 k = 0; k < 3000; ++k) {
    KilnCount* m = map.insertNew(k * 3, k);
    if (k % 7 == 0) kept.push_back(m);
  }
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_TRUE(map.begin() == map.end());
  EXPECT_EQ(record.live(), live + kept.size());
  for (const auto& m : kept) EXPECT_EQ(m->references(), 1u);
  kept.clear();
  EXPECT_EQ(record.live(), live);
}

TEST(HashMap, MatchesStdUnorderedMapUnderRandomReservesInsertsAndRemoves) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  const U64 live = record.live();
  for (U32 seed = 1; seed <= 20; ++seed) {
    std::mt19937 random(seed);
    auto pick = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random); };
    CountMap map(U8(pick(0, 5)));
    std::unordered_map<U32, U32> oracle;
    // Keys from a small range, so that inserts meet present keys and
    // removes find members; some far apart, so that chains form.
    auto key = [&] { return pick(0, 3) == 0 ? pick(0, 40) << 24 : pick(0, 600); };
    for (U32 i = 0; i < 3000; ++i) {
      const U32 k = key();
      switch (pick(0, 9)) {
        case 0: map.reserve(U32(map.members() + pick(0, 700))); break;
        case 1:
        case 2:
        case 3:
          if (!oracle.count(k)) {
            oracle[k] = i;
            if (i % 2) {
              map.insertNew(k, i);
            } else {
              map.insert(new KilnCount(k, i));
            }
          }
          break;
        case 4:
        case 5: {
          const Kiln::Ptr<KilnCount> removed = map.remove(k);
          ASSERT_EQ(bool(removed), oracle.erase(k) == 1) << "seed " << seed << " op " << i;
          break;
        }
        case 6:
          if (!map.empty()) {
            auto it = map.begin();
            for (U32 steps = pick(0, map.members() - 1); steps > 0; --steps) ++it;
            oracle.erase(it->key());
            map.remove(it);
          }
          break;
        case 7:
          if (pick(0, 30) == 0) {
            map.clear();
            oracle.clear();
          }
          break;
        default: {
          const KilnCount* m = map.find(k);
          ASSERT_EQ(m != nullptr, oracle.count(k) == 1) << "seed " << seed << " op " << i;
          if (m) {
            ASSERT_EQ(m->value(), oracle[k]);
          }
        }
      }
      ASSERT_EQ(map.members(), oracle.size());
    }
    // Every member once, in its own bucket, the buckets in order; no more
    // members than buckets unless the array is at its largest.
    std::unordered_map<U32, U32> seen;
    U32 previous = 0;
    for (auto it = map.begin(); it != map.end(); ++it) {
      ASSERT_EQ(it.bucket(), CountMap::bucketOf(it->key(), map.log2Buckets()));
      ASSERT_GE(it.bucket(), previous);
      previous = it.bucket();
      ASSERT_TRUE(seen.emplace(it->key(), it->value()).second);
    }
    EXPECT_EQ(seen, oracle) << "seed " << seed;
    EXPECT_LE(map.members(), map.buckets());
  }
  EXPECT_EQ(record.live(), live);
}

using InlineCountMap = Kiln::HashMap<KilnCount, U32, U32, 16>;

std::vector<std::pair<U32, U32>> layout(const InlineCountMap& map) {
  std::vector<std::pair<U32, U32>> members;
  for (auto it = map.begin(); it != map.end(); ++it) members.emplace_back(it.bucket(), it->key());
  return members;
}

// The members themselves, in iteration order: a move hands them over.
template <class Map>
std::vector<const KilnCount*> memberAddresses(const Map& map) {
  std::vector<const KilnCount*> members;
  for (const KilnCount& m : map) members.push_back(&m);
  return members;
}

TEST(HashMap, InlineBucketsServeSmallMapsAndGiveWayToTheHeap) {
  InlineCountMap map(2);
  EXPECT_FALSE(map.bucketsInline());  // no array before the first member
  map.insertNew(5, 50);
  EXPECT_TRUE(map.bucketsInline());
  for (U32 k = 0; k < 16; ++k) {
    if (k != 5) map.insertNew(k, k * 10);
  }
  EXPECT_EQ(map.buckets(), 16u);
  EXPECT_TRUE(map.bucketsInline());
  map.insertNew(16, 160);
  EXPECT_EQ(map.buckets(), 32u);
  EXPECT_FALSE(map.bucketsInline());
  map.clear();
  EXPECT_FALSE(map.bucketsInline());  // the heap array stays, as buckets do
  EXPECT_FALSE(CountMap(1).bucketsInline());
}

TEST(HashMap, MovingOrSwappingInlineBucketsHandsOverTheSameMembers) {
  InlineCountMap small(4), large(4);
  for (U32 k = 0; k < 10; ++k) small.insertNew(k * 7, k);
  for (U32 k = 0; k < 40; ++k) large.insertNew(k * 5, k);
  const auto smallMembers = memberAddresses(small);
  const auto largeMembers = memberAddresses(large);
  const auto smallLayout = layout(small);
  small.swap(large);
  EXPECT_EQ(memberAddresses(large), smallMembers);
  EXPECT_EQ(memberAddresses(small), largeMembers);
  EXPECT_TRUE(large.bucketsInline());
  EXPECT_FALSE(small.bucketsInline());
  InlineCountMap moved(std::move(large));
  EXPECT_TRUE(moved.bucketsInline());
  EXPECT_EQ(memberAddresses(moved), smallMembers);
  EXPECT_EQ(layout(moved), smallLayout);
  EXPECT_TRUE(large.empty());
  EXPECT_TRUE(large.begin() == large.end());
  EXPECT_EQ(large.find(7), nullptr);
  large.insertNew(3, 3);  // a moved-from map is usable again
  EXPECT_EQ(large.find(3)->value(), 3u);
}

// An inline map and a plain one go through the same random changes, copies,
// moves and swaps: after every step they hold the same members in the same
// buckets and order, and the members allocated are the same count.
TEST(HashMap, InlineBucketsMatchAPlainMapUnderRandomChanges) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnCount>();
  const U64 live = record.live();
  for (U32 seed = 1; seed <= 30; ++seed) {
    std::mt19937 random(seed);
    auto pick = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random); };
    const U8 log2 = U8(pick(0, 5));
    // Two of each, so that copies, moves and swaps have a partner.
    CountMap plain[2] = {CountMap(log2), CountMap(U8(pick(0, 5)))};
    InlineCountMap inlined[2] = {InlineCountMap(log2), InlineCountMap(plain[1].log2Buckets())};
    // Mostly small maps (inline), now and then one that grows past 16.
    const U32 range = pick(0, 2) == 0 ? 200 : 24;
    auto key = [&] { return pick(0, 5) == 0 ? pick(0, 20) << 24 : pick(0, range); };
    for (U32 i = 0; i < 1500; ++i) {
      const U32 w = pick(0, 1);
      CountMap& p = plain[w];
      InlineCountMap& q = inlined[w];
      const U32 k = key();
      switch (pick(0, 12)) {
        case 0: {
          const U32 more = pick(0, 40);
          p.reserve(p.members() + more);
          q.reserve(q.members() + more);
          break;
        }
        case 1:
        case 2:
        case 3:
          if (!p.find(k)) {
            p.insertNew(k, i);
            q.insert(new KilnCount(k, i));
          }
          break;
        case 4:
        case 5: ASSERT_EQ(bool(p.remove(k)), bool(q.remove(k))); break;
        case 6:
          if (!p.empty()) {
            const U32 steps = pick(0, p.members() - 1);
            auto pi = p.begin();
            auto qi = q.begin();
            for (U32 s = 0; s < steps; ++s) ++pi, ++qi;
            ASSERT_EQ(pi->key(), qi->key());
            auto pn = p.remove(pi);
            auto qn = q.remove(qi);
            ASSERT_EQ(pn.ptr() ? pn->key() : ~0u, qn.ptr() ? qn->key() : ~0u);
          }
          break;
        case 7:
          if (pick(0, 10) == 0) {
            p.clear();
            q.clear();
          }
          break;
        case 8:
          plain[0].swap(plain[1]);
          inlined[0].swap(inlined[1]);
          break;
        case 9:
          plain[1 - w] = p;
          inlined[1 - w] = q;
          break;
        case 10:
          if (pick(0, 3) == 0) {
            plain[1 - w] = std::move(p);
            inlined[1 - w] = std::move(q);
          }
          break;
        case 11: {
          CountMap p2(p);
          InlineCountMap q2(q);
          ASSERT_EQ(layout(p2), layout(q2));
          CountMap p3(std::move(p2));
          InlineCountMap q3(std::move(q2));
          ASSERT_EQ(layout(p3), layout(q3));
          break;
        }
        default: {
          const KilnCount* pm = p.find(k);
          const KilnCount* qm = q.find(k);
          ASSERT_EQ(pm != nullptr, qm != nullptr);
          if (pm) {
            ASSERT_EQ(pm->value(), qm->value());
          }
        }
      }
      for (U32 m = 0; m < 2; ++m) {
        ASSERT_EQ(plain[m].log2Buckets(), inlined[m].log2Buckets())
            << "seed " << seed << " op " << i;
        ASSERT_EQ(plain[m].members(), inlined[m].members());
        ASSERT_EQ(layout(plain[m]), layout(inlined[m])) << "seed " << seed << " op " << i;
        if (inlined[m].buckets() > 16) {
          ASSERT_FALSE(inlined[m].bucketsInline());
        } else if (!inlined[m].empty()) {
          ASSERT_TRUE(inlined[m].bucketsInline());
        }
      }
    }
  }
  EXPECT_EQ(record.live(), live);
}

// A value whose copies fail once a countdown runs out.
struct Fragile {
  static inline int copiesLeft = -1;  // negative: never fails
  U32 n = 0;
  explicit Fragile(U32 value) : n(value) {}
  Fragile(const Fragile& other) : n(other.n) {
    if (copiesLeft == 0) throw std::runtime_error("copy failed");
    if (copiesLeft > 0) --copiesLeft;
  }
  Fragile& operator=(const Fragile&) = default;
};

class KilnFragile : public Kiln::HashMapMember<KilnFragile, U32, Fragile> {
  using HashMapMember::HashMapMember;
};

template <class Map>
void expectAFailedCopyToLeaveNothingBehind(U32 count) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnFragile>();
  Map map;
  for (U32 k = 0; k < count; ++k) map.insertNew(k, Fragile(k));
  const U64 live = record.live();
  Fragile::copiesLeft = int(count / 2);
  EXPECT_THROW(Map copy(map), std::runtime_error);
  Fragile::copiesLeft = -1;
  EXPECT_EQ(record.live(), live) << count;
  EXPECT_EQ(map.members(), count);
}

TEST(HashMap, ACopyThatFailsMidwayReleasesWhatItCopied) {
  expectAFailedCopyToLeaveNothingBehind<Kiln::HashMap<KilnFragile, U32, Fragile>>(10);
  expectAFailedCopyToLeaveNothingBehind<Kiln::HashMap<KilnFragile, U32, Fragile>>(100);
  expectAFailedCopyToLeaveNothingBehind<Kiln::HashMap<KilnFragile, U32, Fragile, 16>>(10);
  expectAFailedCopyToLeaveNothingBehind<Kiln::HashMap<KilnFragile, U32, Fragile, 16>>(100);
}

TEST(HashMapDeathTest, RefusesANullMember) {
  CountMap map;
  EXPECT_DEATH(map.insert(nullptr), "Assertion `m != nullptr' failed");
}

}  // namespace
