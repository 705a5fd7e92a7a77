// One suite run for every keyed collection kind: the behaviour that HashMap
// (with and without inline buckets), RbTreeMap and LinkQueue share (find, insert, remove, clear,
// iteration, references and allocation counts).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/HashMap.h"
#include "Kiln/LinkQueue.h"
#include "Kiln/RbTreeMap.h"

namespace {

struct HashMapKind {
  class Member : public Kiln::HashMapMember<Member, U32, U32> {
    using HashMapMember::HashMapMember;
  };
  using Collection = Kiln::HashMap<Member, U32, U32>;
  static void insert(Collection& c, const Kiln::Ptr<Member>& m) { c.insert(m); }
};

// Its buckets inside the map while they are few (the suite's collections
// grow past them too).
struct InlineHashMapKind {
  class Member : public Kiln::HashMapMember<Member, U32, U32> {
    using HashMapMember::HashMapMember;
  };
  using Collection = Kiln::HashMap<Member, U32, U32, 16>;
  static void insert(Collection& c, const Kiln::Ptr<Member>& m) { c.insert(m); }
};

struct RbTreeMapKind {
  class Member : public Kiln::RbTreeMember<Member, U32, U32> {
    using RbTreeMember::RbTreeMember;
  };
  using Collection = Kiln::RbTreeMap<Member, U32, U32>;
  static void insert(Collection& c, const Kiln::Ptr<Member>& m) { c.insert(m); }
};

struct LinkQueueKind {
  class Member : public Kiln::LinkQueueMember<Member, U32> {
    using LinkQueueMember::LinkQueueMember;
  };
  using Collection = Kiln::LinkQueue<Member, U32>;
  static void insert(Collection& c, const Kiln::Ptr<Member>& m) { EXPECT_FALSE(c.place(m)); }
};

template <class Kind>
class KeyedCollection : public ::testing::Test {
 protected:
  using Member = typename Kind::Member;
  using Collection = typename Kind::Collection;

  void SetUp() override { ASSERT_EQ(Kiln::allocationRecord<Member>().live(), 0u); }
  void TearDown() override { EXPECT_EQ(Kiln::allocationRecord<Member>().live(), 0u); }

  // Keys 0, 3, 6, ... in a scrambled (but fixed) order; value = key + 1000.
  static std::vector<U32> scrambledKeys(U32 count) {
    std::vector<U32> keys;
    for (U32 i = 0; i < count; ++i) keys.push_back(i * 3);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    return keys;
  }
  static void fill(Collection& c, const std::vector<U32>& keys) {
    for (U32 k : keys) Kind::insert(c, new Member(k, k + 1000));
  }
  static std::vector<U32> iteratedKeys(const Collection& c) {
    std::vector<U32> keys;
    for (auto it = c.begin(); it != c.end(); ++it) keys.push_back(it->key());
    return keys;
  }
};

using Kinds = ::testing::Types<HashMapKind, InlineHashMapKind, RbTreeMapKind, LinkQueueKind>;
TYPED_TEST_SUITE(KeyedCollection, Kinds);

TYPED_TEST(KeyedCollection, StartsEmpty) {
  typename TestFixture::Collection c;
  EXPECT_EQ(c.members(), 0u);
  EXPECT_TRUE(c.empty());
  EXPECT_TRUE(c.begin() == c.end());
  EXPECT_EQ(c.find(0), nullptr);
  EXPECT_FALSE(c.remove(0));
}

TYPED_TEST(KeyedCollection, FindsEveryInsertedKeyAndNoOther) {
  typename TestFixture::Collection c;
  auto keys = TestFixture::scrambledKeys(300);
  TestFixture::fill(c, keys);
  EXPECT_EQ(c.members(), 300u);
  EXPECT_FALSE(c.empty());
  for (U32 k : keys) {
    auto* m = c.find(k);
    ASSERT_NE(m, nullptr) << k;
    EXPECT_EQ(m->key(), k);
    EXPECT_EQ(m->value(), k + 1000);
  }
  EXPECT_EQ(c.find(1), nullptr);
  EXPECT_EQ(c.find(899), nullptr);
  EXPECT_EQ(c.find(100000), nullptr);
}

TYPED_TEST(KeyedCollection, ValueChangesInPlace) {
  typename TestFixture::Collection c;
  TestFixture::fill(c, {4, 5});
  c.find(4)->valueIs(77);
  c.find(5)->value() = 78;
  EXPECT_EQ(c.find(4)->value(), 77u);
  EXPECT_EQ(c.find(5)->value(), 78u);
  EXPECT_EQ(c.members(), 2u);
}

TYPED_TEST(KeyedCollection, RemoveByKeyHandsBackTheMember) {
  typename TestFixture::Collection c;
  auto keys = TestFixture::scrambledKeys(50);
  TestFixture::fill(c, keys);
  auto removed = c.remove(keys[10]);
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->key(), keys[10]);
  EXPECT_EQ(removed->value(), keys[10] + 1000);
  EXPECT_EQ(removed->references(), 1u);  // the collection's reference passed over
  EXPECT_EQ(c.find(keys[10]), nullptr);
  EXPECT_EQ(c.members(), 49u);
  EXPECT_FALSE(c.remove(keys[10]));
  EXPECT_EQ(c.members(), 49u);
  for (U32 k : keys) {
    if (k != keys[10]) {
      EXPECT_NE(c.find(k), nullptr) << k;
    }
  }
}

TYPED_TEST(KeyedCollection, IterationVisitsEveryMemberExactlyOnce) {
  typename TestFixture::Collection c;
  auto keys = TestFixture::scrambledKeys(500);
  TestFixture::fill(c, keys);
  auto seen = TestFixture::iteratedKeys(c);
  ASSERT_EQ(seen.size(), keys.size());
  std::sort(seen.begin(), seen.end());
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(seen, keys);
  // The other iterator operations agree with operator->.
  for (auto it = c.begin(); it != c.end(); it++) {
    EXPECT_EQ(&*it, it.ptr());
    EXPECT_EQ(it.operator->(), it.ptr());
  }
  EXPECT_EQ(c.end().ptr(), nullptr);
}

TYPED_TEST(KeyedCollection, RemoveThroughIteratorReturnsTheNextMember) {
  typename TestFixture::Collection c;
  auto keys = TestFixture::scrambledKeys(200);
  TestFixture::fill(c, keys);
  auto order = TestFixture::iteratedKeys(c);
  // Drop every other member in iteration order; the iterator returned by
  // remove must be the member that followed.
  std::vector<U32> kept;
  auto it = c.begin();
  for (size_t i = 0; i < order.size(); ++i) {
    ASSERT_EQ(it->key(), order[i]);
    if (i % 2 == 0) {
      it = c.remove(it);
    } else {
      kept.push_back(order[i]);
      ++it;
    }
  }
  EXPECT_TRUE(it == c.end());
  EXPECT_EQ(c.members(), 100u);
  EXPECT_EQ(TestFixture::iteratedKeys(c), kept);
  for (size_t i = 0; i < order.size(); i += 2) EXPECT_EQ(c.find(order[i]), nullptr);
}

TYPED_TEST(KeyedCollection, RemovingEveryMemberThroughIteratorsEmptiesIt) {
  typename TestFixture::Collection c;
  TestFixture::fill(c, TestFixture::scrambledKeys(64));
  for (auto it = c.begin(); it != c.end();) it = c.remove(it);
  EXPECT_TRUE(c.empty());
  EXPECT_TRUE(c.begin() == c.end());
}

TYPED_TEST(KeyedCollection, ClearRemovesEverythingAndTheCollectionStaysUsable) {
  typename TestFixture::Collection c;
  TestFixture::fill(c, TestFixture::scrambledKeys(100));
  c.clear();
  EXPECT_EQ(c.members(), 0u);
  EXPECT_TRUE(c.begin() == c.end());
  EXPECT_EQ(c.find(3), nullptr);
  TestFixture::fill(c, {3});
  EXPECT_EQ(c.find(3)->value(), 1003u);
  EXPECT_EQ(c.members(), 1u);
}

TYPED_TEST(KeyedCollection, HoldsExactlyOneReferencePerMember) {
  using Member = typename TestFixture::Member;
  std::vector<Kiln::Ptr<Member>> held;
  {
    typename TestFixture::Collection c;
    for (U32 k = 0; k < 20; ++k) {
      held.push_back(new Member(k, k));
      TypeParam::insert(c, held.back());
      EXPECT_EQ(held.back()->references(), 2u);
    }
    auto removed = c.remove(5);
    EXPECT_EQ(held[5]->references(), 2u);  // held + removed
    removed = nullptr;
    EXPECT_EQ(held[5]->references(), 1u);
    c.remove(c.begin());
    c.clear();
    for (auto& m : held) EXPECT_EQ(m->references(), 1u);
    TypeParam::insert(c, held[0]);
    TypeParam::insert(c, held[1]);
  }  // destruction releases the members still inside
  for (auto& m : held) EXPECT_EQ(m->references(), 1u);
}

TYPED_TEST(KeyedCollection, AllocationCountsReturnToZero) {
  using Member = typename TestFixture::Member;
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<Member>();
  const U64 before = record.allocations();
  {
    typename TestFixture::Collection c;
    TestFixture::fill(c, TestFixture::scrambledKeys(40));
    EXPECT_EQ(record.live(), 40u);
    c.remove(0);
    EXPECT_EQ(record.live(), 39u);
    c.remove(c.begin());
    EXPECT_EQ(record.live(), 38u);
  }
  EXPECT_EQ(record.live(), 0u);
  EXPECT_EQ(record.allocations(), before + 40);
  EXPECT_EQ(record.releases(), record.allocations());
}

TYPED_TEST(KeyedCollection, ComparesKeysWithTheKeyTypesOperators) {
  using Collection = typename TestFixture::Collection;
  EXPECT_TRUE(Collection::keyEquals(7, 7));
  EXPECT_FALSE(Collection::keyEquals(7, 8));
  EXPECT_TRUE(Collection::keyLessThan(7, 8));
  EXPECT_FALSE(Collection::keyLessThan(8, 7));
  EXPECT_FALSE(Collection::keyLessThan(7, 7));
}

}  // namespace
