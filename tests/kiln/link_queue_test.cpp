#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/LinkQueue.h"

namespace {

class KilnEvent : public Kiln::LinkQueueMember<KilnEvent, std::string> {
  using LinkQueueMember::LinkQueueMember;
};
using EventQueue = Kiln::LinkQueue<KilnEvent, std::string>;

std::vector<U32> indexes(const EventQueue& q) {
  std::vector<U32> out;
  for (const KilnEvent& m : q) out.push_back(m.key());
  return out;
}

std::vector<std::string> values(const EventQueue& q) {
  std::vector<std::string> out;
  for (const KilnEvent& m : q) out.push_back(m.value());
  return out;
}

U32 enq(EventQueue& q, const std::string& v) { return q.enq(new KilnEvent(v)); }

Kiln::Ptr<KilnEvent> place(EventQueue& q, U32 index, const std::string& v) {
  return q.place(new KilnEvent(index, v));
}

TEST(LinkQueue, EnqueueNumbersMembersFromTheNextIndex) {
  EventQueue q;
  EXPECT_EQ(enq(q, "a"), 0u);
  EXPECT_EQ(enq(q, "b"), 1u);
  EXPECT_EQ(enq(q, "c"), 2u);
  EXPECT_EQ(q.members(), 3u);
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(q.nextIndex(), 3u);
  EXPECT_EQ(q.head()->value(), "a");
  EXPECT_EQ(q.tail()->value(), "c");
  EXPECT_EQ(indexes(q), (std::vector<U32>{0, 1, 2}));
  EXPECT_EQ(values(q), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(q.find(1)->value(), "b");
  EXPECT_EQ(q.find(3), nullptr);
}

TEST(LinkQueue, EnqueueDoesNotCountAsAChange) {
  EventQueue q;
  enq(q, "a");
  enq(q, "b");
  EXPECT_EQ(q.changeCount(), 0u);
}

TEST(LinkQueue, DequeueOnAnEmptyQueueReturnsNull) {
  EventQueue q;
  q.nextIndexIs(7);
  q.headIndexIs(7);
  EXPECT_FALSE(q.deq());
  EXPECT_EQ(q.changeCount(), 0u);
  EXPECT_EQ(q.headIndex(), 7u);
  EXPECT_EQ(q.nextIndex(), 7u);
  EXPECT_EQ(q.members(), 0u);
}

TEST(LinkQueue, DequeueTakesTheHead) {
  EventQueue q;
  enq(q, "a");
  enq(q, "b");
  auto first = q.deq();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->key(), 0u);
  EXPECT_EQ(first->value(), "a");
  EXPECT_EQ(first->references(), 1u);
  EXPECT_EQ(q.members(), 1u);
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_EQ(q.nextIndex(), 2u);
  EXPECT_EQ(q.changeCount(), 1u);
  EXPECT_EQ(q.head(), q.tail());
}

TEST(LinkQueue, EnqueueAfterDequeuingEverythingContinuesTheSequence) {
  EventQueue q;
  for (int i = 0; i < 3; ++i) enq(q, "x");
  while (q.deq()) {
  }
  EXPECT_EQ(q.changeCount(), 3u);
  EXPECT_EQ(q.head(), nullptr);
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(q.headIndex(), 3u);  // an emptied queue resets its head index
  EXPECT_EQ(q.nextIndex(), 3u);
  EXPECT_EQ(enq(q, "y"), 3u);
  EXPECT_EQ(q.headIndex(), 3u);
  EXPECT_EQ(enq(q, "z"), 4u);
}

TEST(LinkQueue, IndexesWrapRoundTheThirtyTwoBitSpaceInOrder) {
  EventQueue q;
  q.nextIndexIs(0xFFFFFFFEu);
  q.headIndexIs(0xFFFFFFFEu);
  EXPECT_EQ(enq(q, "a"), 0xFFFFFFFEu);
  EXPECT_EQ(enq(q, "b"), 0xFFFFFFFFu);
  EXPECT_EQ(enq(q, "c"), 0u);
  EXPECT_EQ(enq(q, "d"), 1u);
  EXPECT_EQ(q.nextIndex(), 2u);
  EXPECT_EQ(values(q), (std::vector<std::string>{"a", "b", "c", "d"}));
  // Placing inside the wrapped range keeps the circular order; outside it,
  // an index below the head's goes in front.
  EXPECT_FALSE(place(q, 0xFFFFFFFCu, "front"));
  EXPECT_EQ(values(q), (std::vector<std::string>{"front", "a", "b", "c", "d"}));
  EXPECT_EQ(q.headIndex(), 0xFFFFFFFCu);
  EXPECT_EQ(q.nextIndex(), 2u);
  EXPECT_EQ(q.deq()->value(), "front");
  EXPECT_EQ(q.deq()->value(), "a");
  EXPECT_EQ(q.headIndex(), 0xFFFFFFFFu);
}

TEST(LinkQueue, EnqueueIntoAFullIndexSpaceThrowsAndChangesNothing) {
  EventQueue q;
  q.nextIndexIs(0xFFFFFFFDu);
  q.headIndexIs(0xFFFFFFFDu);
  enq(q, "a");  // 0xFFFFFFFD, the oldest member
  enq(q, "b");  // 0xFFFFFFFE
  // Jump the next index round the circle to just before the head.
  q.nextIndexIs(0xFFFFFFFBu);
  EXPECT_EQ(enq(q, "c"), 0xFFFFFFFBu);
  const auto before = q.metadata();
  const auto order = indexes(q);
  try {
    enq(q, "d");
    FAIL() << "expected the index space to be full";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(q.metadata(), before);
  EXPECT_EQ(indexes(q), order);
  EXPECT_EQ(q.members(), 3u);
  EXPECT_EQ(q.tail()->value(), "c");
  EXPECT_EQ(q.changeCount(), 0u);
  // Dequeuing the oldest member frees its index again.
  q.deq();
  EXPECT_EQ(enq(q, "d"), 0xFFFFFFFCu);
}

TEST(LinkQueue, AFullSpaceIsOnlyAnErrorForANonEmptyQueue) {
  EventQueue q;
  q.headIndexIs(5);
  q.nextIndexIs(4);
  EXPECT_EQ(enq(q, "a"), 4u);
  EXPECT_EQ(q.headIndex(), 4u);
  EXPECT_EQ(q.nextIndex(), 5u);
}

TEST(LinkQueue, EnqueueFollowsATailBeyondTheNextIndex) {
  EventQueue q;
  enq(q, "a");
  enq(q, "b");
  q.nextIndexIs(1);  // behind the tail, as a restored record may say
  EXPECT_EQ(enq(q, "c"), 2u);
  EXPECT_EQ(q.nextIndex(), 3u);
}

TEST(LinkQueue, PlaceLinksInFrontInTheMiddleAndAtTheBack) {
  EventQueue q;
  EXPECT_FALSE(place(q, 10, "ten"));
  EXPECT_EQ(q.headIndex(), 10u);
  EXPECT_EQ(q.nextIndex(), 11u);
  EXPECT_FALSE(place(q, 20, "twenty"));  // beyond the tail: appended
  EXPECT_EQ(q.nextIndex(), 21u);
  EXPECT_EQ(q.tail()->value(), "twenty");
  EXPECT_FALSE(place(q, 5, "five"));  // below the head: linked in front
  EXPECT_EQ(q.headIndex(), 5u);
  EXPECT_EQ(q.head()->value(), "five");
  EXPECT_FALSE(place(q, 15, "fifteen"));  // in between: ascending order
  EXPECT_FALSE(place(q, 11, "eleven"));
  EXPECT_FALSE(place(q, 19, "nineteen"));
  EXPECT_EQ(indexes(q), (std::vector<U32>{5, 10, 11, 15, 19, 20}));
  EXPECT_EQ(q.headIndex(), 5u);
  EXPECT_EQ(q.nextIndex(), 21u);
  EXPECT_EQ(q.members(), 6u);
  EXPECT_EQ(q.changeCount(), 0u);
  EXPECT_EQ(enq(q, "next"), 21u);
}

TEST(LinkQueue, PlaceOutsideTheRangeComparesPlainIndexesNotTheNearerEnd) {
  EventQueue q;
  place(q, 100, "hundred");
  // Far above the tail although nearer the head's front round the circle.
  EXPECT_FALSE(place(q, 0xFFFFFF00u, "high"));
  EXPECT_EQ(q.tail()->value(), "high");
  EXPECT_EQ(q.nextIndex(), 0xFFFFFF01u);
  // Far below the head although nearer the tail's back round the circle.
  EXPECT_FALSE(place(q, 0, "zero"));
  EXPECT_EQ(q.head()->value(), "zero");
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(indexes(q), (std::vector<U32>{0, 100, 0xFFFFFF00u}));
}

TEST(LinkQueue, PlacingAtBothEndsOfTheIndexSpaceFillsItForEnqueue) {
  EventQueue q;
  place(q, 0, "one");
  place(q, 0xFFFFFFFEu, "two");
  EXPECT_EQ(indexes(q), (std::vector<U32>{0, 0xFFFFFFFEu}));
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(q.nextIndex(), 0xFFFFFFFFu);
  const auto before = q.metadata();
  for (int attempt = 0; attempt < 3; ++attempt) {
    try {
      enq(q, "more");
      FAIL() << "expected the index space to be full";
    } catch (const Kiln::RangeException& e) {
      EXPECT_STREQ(e.what(), "linkqueue index space full");
    }
  }
  EXPECT_EQ(q.metadata(), before);
  EXPECT_EQ(q.members(), 2u);
  EXPECT_EQ(q.deq()->value(), "one");
}

TEST(LinkQueue, ATailJustBelowTheHeadLeavesNoIndexToEnqueue) {
  EventQueue q;
  place(q, 0, "head");
  place(q, 0xFFFFFFFFu, "top");  // the tail's index + 1 is the head's
  q.nextIndexIs(7);              // as a restored record may say
  EXPECT_THROW(enq(q, "x"), Kiln::RangeException);
  EXPECT_EQ(indexes(q), (std::vector<U32>{0, 0xFFFFFFFFu}));
}

TEST(LinkQueue, PlaceReplacesTheMemberAtItsIndex) {
  EventQueue q;
  for (const char* v : {"a", "b", "c"}) enq(q, v);
  for (U32 index : {0u, 1u, 2u}) {
    auto replaced = place(q, index, "new" + std::to_string(index));
    ASSERT_TRUE(replaced);
    EXPECT_EQ(replaced->key(), index);
    EXPECT_EQ(replaced->references(), 1u);
  }
  EXPECT_EQ(values(q), (std::vector<std::string>{"new0", "new1", "new2"}));
  EXPECT_EQ(q.members(), 3u);
  EXPECT_EQ(q.changeCount(), 3u);
  EXPECT_EQ(q.head()->value(), "new0");
  EXPECT_EQ(q.tail()->value(), "new2");
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(q.nextIndex(), 3u);
  EXPECT_EQ(enq(q, "d"), 3u);
}

TEST(LinkQueue, PlaceBeyondTheNextIndexIsNotReusedByEnqueue) {
  EventQueue q;
  enq(q, "a");
  place(q, 9, "far");
  EXPECT_EQ(q.nextIndex(), 10u);
  EXPECT_EQ(enq(q, "b"), 10u);
  // A place between the tail and the next index leaves the next index alone.
  q.nextIndexIs(20);
  place(q, 15, "x");
  EXPECT_EQ(q.nextIndex(), 20u);
}

TEST(LinkQueue, RemoveByIndexKeepsTheCountersConsistent) {
  EventQueue q;
  for (const char* v : {"a", "b", "c", "d"}) enq(q, v);
  EXPECT_FALSE(q.remove(9));
  EXPECT_EQ(q.remove(2)->value(), "c");  // middle
  EXPECT_EQ(q.remove(3)->value(), "d");  // tail
  EXPECT_EQ(q.tail()->value(), "b");
  EXPECT_EQ(q.nextIndex(), 4u);          // never moves back while members remain
  EXPECT_EQ(q.remove(0)->value(), "a");  // head
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_EQ(q.changeCount(), 3u);
  EXPECT_EQ(q.remove(1)->value(), "b");
  EXPECT_EQ(q.headIndex(), 4u);
  EXPECT_EQ(q.tail(), nullptr);
  EXPECT_EQ(enq(q, "e"), 4u);
}

TEST(LinkQueue, RemoveThroughAnIteratorFixesHeadAndTail) {
  EventQueue q;
  for (const char* v : {"a", "b", "c"}) enq(q, v);
  auto it = q.begin();
  ++it;
  ++it;
  it = q.remove(it);  // the tail
  EXPECT_TRUE(it == q.end());
  EXPECT_EQ(q.tail()->value(), "b");
  it = q.remove(q.begin());  // the head
  EXPECT_EQ(it->value(), "b");
  EXPECT_EQ(q.head()->value(), "b");
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_EQ(enq(q, "d"), 3u);
  EXPECT_EQ(values(q), (std::vector<std::string>{"b", "d"}));
}

TEST(LinkQueue, ClearCountsEveryRemovalAndResetsTheHeadIndex) {
  EventQueue q;
  for (int i = 0; i < 5; ++i) enq(q, "x");
  q.deq();
  q.clear();
  EXPECT_EQ(q.members(), 0u);
  EXPECT_EQ(q.changeCount(), 5u);
  EXPECT_EQ(q.headIndex(), 5u);
  EXPECT_EQ(q.nextIndex(), 5u);
  EXPECT_EQ(q.head(), nullptr);
  EXPECT_EQ(q.tail(), nullptr);
}

TEST(LinkQueue, TheChangeCounterWrapsAtThirtyTwoBits) {
  // Not by four billion removals: the counter is only ever incremented, so a
  // U32 wraps by itself; check its type.
  static_assert(std::is_same_v<decltype(EventQueue().changeCount()), U32>);
  EventQueue q;
  enq(q, "a");
  q.deq();
  EXPECT_EQ(q.changeCount(), 1u);
}

TEST(LinkQueue, MetadataComparesFieldByField) {
  Kiln::LinkQueueMetadata a{1, 2}, b{1, 2}, c{1, 3}, d{0, 2};
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_TRUE(a != c);
  EXPECT_TRUE(a != d);
  EXPECT_FALSE(a == c);
  EXPECT_EQ(Kiln::LinkQueueMetadata(), (Kiln::LinkQueueMetadata{0, 0}));
  EventQueue q;
  q.headIndexIs(3);
  q.nextIndexIs(8);
  EXPECT_EQ(q.metadata(), (Kiln::LinkQueueMetadata{3, 8}));
}

TEST(LinkQueue, ReleasesItsMembersOnDestruction) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<KilnEvent>();
  U64 live = record.live();
  Kiln::Ptr<KilnEvent> kept = new KilnEvent("kept");
  {
    EventQueue q;
    q.enq(kept);
    enq(q, "a");
    EXPECT_EQ(kept->references(), 2u);
    EXPECT_EQ(record.live(), live + 2);
  }
  EXPECT_EQ(kept->references(), 1u);
  EXPECT_EQ(record.live(), live + 1);
}

TEST(LinkQueueDeathTest, RefusesANullMember) {
  EventQueue q;
  EXPECT_DEATH(q.enq(nullptr), "Assertion `m != nullptr' failed");
  EXPECT_DEATH(q.place(nullptr), "Assertion `m != nullptr' failed");
}

}  // namespace
