#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <thread>
#include <vector>

#include "Kiln/Allocator.h"

namespace KilnAllocatorTest {

struct Widget : Kiln::Allocated<Widget> {
  int payload = 0;
};

struct Named : Kiln::Allocated<Named> {
  static const char* allocationName() { return "Test::NamedThing"; }
};

struct Base : Kiln::Allocated<Base> {
  virtual ~Base() = default;
};
struct Derived : Base {
  char extra[64] = {};
};

struct Threaded : Kiln::Allocated<Threaded> {};

struct NeverAllocated : Kiln::Allocated<NeverAllocated> {};

}  // namespace KilnAllocatorTest

namespace {

using namespace KilnAllocatorTest;

TEST(Allocator, CountsLiveObjectsPerType) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<Widget>();
  const U64 allocations = record.allocations();
  const U64 live = record.live();
  std::vector<Widget*> widgets;
  for (int i = 0; i < 5; ++i) widgets.push_back(new Widget);
  EXPECT_EQ(record.live(), live + 5);
  EXPECT_EQ(record.allocations(), allocations + 5);
  delete widgets[0];
  delete widgets[1];
  EXPECT_EQ(record.live(), live + 3);
  EXPECT_EQ(record.releases(), record.allocations() - record.live());
  for (size_t i = 2; i < widgets.size(); ++i) delete widgets[i];
  EXPECT_EQ(record.live(), live);
  EXPECT_EQ(record.allocations(), allocations + 5);
  EXPECT_EQ(Kiln::allocationRecord<Named>().live(), 0u);  // other types untouched
}

TEST(Allocator, NamesTypesByTheirDemangledNameOrTheirOwnName) {
  EXPECT_EQ(Kiln::allocationRecord<Widget>().name(), "KilnAllocatorTest::Widget");
  EXPECT_EQ(Kiln::allocationRecord<Named>().name(), "Test::NamedThing");
}

TEST(Allocator, ListsEveryUsedRecordByName) {
  delete new Widget;
  delete new Named;
  auto records = Kiln::allocationRecords();
  auto has = [&](const Kiln::AllocationRecord& r) {
    return std::find(records.begin(), records.end(), &r) != records.end();
  };
  EXPECT_TRUE(has(Kiln::allocationRecordOf<Widget>));
  EXPECT_TRUE(has(Kiln::allocationRecordOf<Named>));
  EXPECT_FALSE(has(Kiln::allocationRecordOf<NeverAllocated>));
  EXPECT_TRUE(std::is_sorted(records.begin(), records.end(),
                             [](auto* a, auto* b) { return a->name() < b->name(); }));
  // Asking for a record lists it from then on.
  Kiln::allocationRecord<NeverAllocated>();
  records = Kiln::allocationRecords();
  EXPECT_TRUE(has(Kiln::allocationRecordOf<NeverAllocated>));
  EXPECT_EQ(std::count(records.begin(), records.end(), &Kiln::allocationRecordOf<Widget>), 1);
}

TEST(Allocator, CountsADerivedClassInItsBasesRecord) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<Base>();
  const U64 live = record.live();
  Base* object = new Derived;
  EXPECT_EQ(record.live(), live + 1);
  delete object;  // through the base's virtual destructor
  EXPECT_EQ(record.live(), live);
}

TEST(Allocator, PlacementNewIsNotCounted) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<Widget>();
  const U64 allocations = record.allocations();
  alignas(Widget) unsigned char storage[sizeof(Widget)];
  Widget* w = new (storage) Widget;
  w->payload = 3;
  EXPECT_EQ(w->payload, 3);
  w->~Widget();
  EXPECT_EQ(record.allocations(), allocations);
}

TEST(Allocator, CountsStayExactAcrossThreadsWhileThreadSafePointersAreOn) {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<Threaded>();
  const U64 allocations = record.allocations();
  Kiln::enableThreadSafePointers = true;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 20000; ++i) delete new Threaded;
    });
  }
  for (auto& t : threads) t.join();
  Kiln::enableThreadSafePointers = false;
  EXPECT_EQ(record.allocations(), allocations + 80000);
  EXPECT_EQ(record.live(), 0u);
}

}  // namespace
