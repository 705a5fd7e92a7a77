#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <random>
#include <set>
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

struct Pooled : Kiln::Allocated<Pooled> {
  U64 words[5] = {};
};

struct alignas(64) Aligned : Kiln::Allocated<Aligned> {
  char bytes[72] = {};
};

struct PooledBase : Kiln::Allocated<PooledBase> {
  virtual ~PooledBase() = default;
  U64 word = 0;
};
struct BiggerDerived : PooledBase {
  U64 more[4] = {};
};

struct Shared : Kiln::Allocated<Shared> {
  U64 payload = 0;
};

// Counts how its objects end: the last reference signals zeroReferencesIs,
// then the object is destroyed and its slot released. Final, as every
// generated collection member is (a Ptr then ends it by direct calls), and
// open, as entities are (through the virtual ones).
template <class Self>
struct Ending : Kiln::PtrInterface, Kiln::Allocated<Self> {
  static inline int signals = 0;
  static inline int destructions = 0;
  void zeroReferencesIs(bool) override { ++signals; }
  ~Ending() override { ++destructions; }
};
struct FinalEnding final : Ending<FinalEnding> {};
struct OpenEnding : Ending<OpenEnding> {};

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

TEST(Allocator, RecyclesReleasedSlots) {
  Pooled* first = new Pooled;
  delete first;
  Pooled* second = new Pooled;
  EXPECT_EQ(second, first);
  delete second;
}

TEST(Allocator, AFullyReleasedPoolCarvesFromItsStartAgain) {
  const Kiln::SlotPool& pool = Kiln::slotPoolOf<Pooled>;
  ASSERT_EQ(pool.slotsInUse(), 0u);
  std::vector<Pooled*> objects;
  for (int i = 0; i < 10; ++i) objects.push_back(new Pooled);
  EXPECT_EQ(pool.slotsInUse(), 10u);
  // Slots of one chunk are carved in address order.
  for (int i = 1; i < 10; ++i) EXPECT_EQ(objects[i], objects[i - 1] + 1);
  // While some are in use, released slots are reused last out, first in.
  delete objects[3];
  delete objects[7];
  EXPECT_EQ(new Pooled, objects[7]);
  EXPECT_EQ(new Pooled, objects[3]);
  // Released in a scrambled order, then refilled: the same layout as before.
  std::vector<Pooled*> scrambled = objects;
  std::shuffle(scrambled.begin(), scrambled.end(), std::mt19937(5));
  for (Pooled* p : scrambled) delete p;
  EXPECT_EQ(pool.slotsInUse(), 0u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(new Pooled, objects[i]);
  for (Pooled* p : objects) delete p;
}

TEST(Allocator, LockedAndUnlockedTakesShareOneFreeList) {
  // Without the lock a take or give is the short inlined path; with it, the
  // guarded one. Both work on the same list and count the same slots.
  const Kiln::SlotPool& pool = Kiln::slotPoolOf<Pooled>;
  ASSERT_EQ(pool.slotsInUse(), 0u);
  Pooled* a = new Pooled;
  Pooled* b = new Pooled;
  Pooled* c = new Pooled;
  delete b;  // unlocked give
  Kiln::enableThreadSafePointers = true;
  Pooled* d = new Pooled;  // locked take
  EXPECT_EQ(d, b);
  delete a;  // locked give
  Kiln::enableThreadSafePointers = false;
  Pooled* e = new Pooled;  // unlocked take
  EXPECT_EQ(e, a);
  EXPECT_EQ(pool.slotsInUse(), 3u);
  delete c;
  delete d;
  delete e;  // the last slot: the pool carves from its start again
  EXPECT_EQ(pool.slotsInUse(), 0u);
  Pooled* f = new Pooled;
  EXPECT_EQ(f, a);
  delete f;
}

TEST(Allocator, PoolStartsSmallAndGrowsGeometrically) {
  const Kiln::SlotPool& pool = Kiln::slotPoolOf<Pooled>;
  std::vector<Pooled*> objects{new Pooled};
  const std::size_t first = pool.reservedBytes();
  EXPECT_GE(first, 16 * sizeof(Pooled));
  EXPECT_LT(first, 17 * sizeof(Pooled));
  for (int i = 0; i < 20000; ++i) objects.push_back(new Pooled);
  // About the bytes in use: at most doubled, plus one largest chunk.
  EXPECT_LE(pool.reservedBytes(), 2 * objects.size() * sizeof(Pooled) + 64 * 1024);
  std::set<Pooled*> distinct(objects.begin(), objects.end());
  EXPECT_EQ(distinct.size(), objects.size());
  for (Pooled* p : objects) {
    p->words[4] = reinterpret_cast<uintptr_t>(p);
  }
  for (Pooled* p : objects) EXPECT_EQ(p->words[4], reinterpret_cast<uintptr_t>(p));
  const std::size_t reserved = pool.reservedBytes();
  for (Pooled* p : objects) delete p;
  for (int i = 0; i < 1000; ++i) objects[i] = new Pooled;  // reuses the freed slots
  EXPECT_EQ(pool.reservedBytes(), reserved);
  for (int i = 0; i < 1000; ++i) delete objects[i];
}

TEST(Allocator, PooledSlotsKeepTheTypesAlignment) {
  std::vector<Aligned*> objects;
  for (int i = 0; i < 100; ++i) {
    objects.push_back(new Aligned);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(objects.back()) % 64, 0u);
  }
  for (Aligned* a : objects) delete a;
  EXPECT_EQ(Kiln::allocationRecord<Aligned>().live(), 0u);
}

TEST(Allocator, ALargerDerivedClassUsesTheGeneralHeap) {
  const Kiln::SlotPool& pool = Kiln::slotPoolOf<PooledBase>;
  delete new PooledBase;
  const std::size_t reserved = pool.reservedBytes();
  std::vector<PooledBase*> objects;
  for (int i = 0; i < 100; ++i) objects.push_back(new BiggerDerived);
  EXPECT_EQ(pool.reservedBytes(), reserved);
  EXPECT_EQ(Kiln::allocationRecord<PooledBase>().live(), 100u);
  for (PooledBase* p : objects) delete p;
  EXPECT_EQ(Kiln::allocationRecord<PooledBase>().live(), 0u);
}

TEST(Allocator, ObjectsMayBeReleasedOnAnotherThread) {
  Kiln::enableThreadSafePointers = true;
  constexpr int perThread = 5000;
  std::vector<std::vector<Shared*>> made(2);
  {
    std::vector<std::thread> makers;
    for (int t = 0; t < 2; ++t) {
      makers.emplace_back([&made, t] {
        for (int i = 0; i < perThread; ++i) {
          made[t].push_back(new Shared);
          made[t].back()->payload = U64(t);
        }
      });
    }
    for (auto& t : makers) t.join();
  }
  std::set<Shared*> distinct;
  for (int t = 0; t < 2; ++t) {
    for (Shared* s : made[t]) EXPECT_EQ(s->payload, U64(t));
    distinct.insert(made[t].begin(), made[t].end());
  }
  EXPECT_EQ(distinct.size(), 2u * perThread);
  {
    // Each thread releases the other's objects while allocating new ones.
    std::vector<std::thread> releasers;
    for (int t = 0; t < 2; ++t) {
      releasers.emplace_back([&made, t] {
        for (Shared* s : made[1 - t]) {
          delete s;
          delete new Shared;
        }
      });
    }
    for (auto& t : releasers) t.join();
  }
  Kiln::enableThreadSafePointers = false;
  EXPECT_EQ(Kiln::allocationRecord<Shared>().live(), 0u);
  EXPECT_EQ(Kiln::allocationRecord<Shared>().allocations(), 4u * perThread);
}

template <class T>
void expectEndedOnceByTheLastReference() {
  const Kiln::AllocationRecord& record = Kiln::allocationRecord<T>();
  const U64 live = record.live();
  T::signals = T::destructions = 0;
  Kiln::Ptr<T> first(new T);
  Kiln::Ptr<T> second = first;
  Kiln::Ptr<Kiln::PtrInterface> generic(second);
  first = nullptr;
  second = Kiln::Ptr<T>();
  EXPECT_EQ(T::signals, 0);
  EXPECT_EQ(record.live(), live + 1);
  generic = nullptr;  // the last one, through the base
  EXPECT_EQ(T::signals, 1);
  EXPECT_EQ(T::destructions, 1);
  EXPECT_EQ(record.live(), live);
  { const Kiln::Ptr<T> only(new T); }  // the last one, through the type itself
  EXPECT_EQ(T::signals, 2);
  EXPECT_EQ(T::destructions, 2);
  EXPECT_EQ(record.live(), live);
}

TEST(Allocator, TheLastReferenceEndsAFinalTypeOnce) {
  expectEndedOnceByTheLastReference<FinalEnding>();
}

TEST(Allocator, TheLastReferenceEndsAnOpenTypeOnce) {
  expectEndedOnceByTheLastReference<OpenEnding>();
}

}  // namespace
