// The runtime's collections against their standard-library counterparts.
// Each Kiln benchmark has a baseline of the same name with "Std" in place of
// "Kiln" (HashMapHit/Kiln/1024 against HashMapHit/Std/1024); every Kiln
// operation includes allocating or releasing its reference-counted member,
// as the entity code does.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <deque>
#include <list>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiln/HashMap.h"
#include "Kiln/LinkQueue.h"
#include "Kiln/RbTreeMap.h"

namespace {

class KilnBenchCount : public Kiln::HashMapMember<KilnBenchCount, U32, U32> {
  using HashMapMember::HashMapMember;
};
class KilnBenchFree : public Kiln::RbTreeMember<KilnBenchFree, U16, bool> {
  using RbTreeMember::RbTreeMember;
};
class KilnBenchEvent : public Kiln::LinkQueueMember<KilnBenchEvent, U32> {
  using LinkQueueMember::LinkQueueMember;
};

// The same operations on both sides of a pair.
struct KilnHash {
  using Map = Kiln::HashMap<KilnBenchCount, U32, U32>;
  static void insert(Map& m, U32 k, U32 v) { m.insert(new KilnBenchCount(k, v)); }
  static bool contains(const Map& m, U32 k) { return m.find(k) != nullptr; }
  static void erase(Map& m, U32 k) { m.remove(k); }
  static U64 sum(const Map& m) {
    U64 s = 0;
    for (const auto& member : m) s += member.value();
    return s;
  }
};
struct StdHash {
  using Map = std::unordered_map<U32, U32>;
  static void insert(Map& m, U32 k, U32 v) { m.emplace(k, v); }
  static bool contains(const Map& m, U32 k) { return m.find(k) != m.end(); }
  static void erase(Map& m, U32 k) { m.erase(k); }
  static U64 sum(const Map& m) {
    U64 s = 0;
    for (const auto& [k, v] : m) s += v;
    return s;
  }
};
struct KilnTree {
  using Map = Kiln::RbTreeMap<KilnBenchFree, U16, bool>;
  static void insert(Map& m, U16 k, bool v) { m.insert(new KilnBenchFree(k, v)); }
  static bool contains(const Map& m, U16 k) { return m.find(k) != nullptr; }
  static void erase(Map& m, U16 k) { m.remove(k); }
  static U64 sum(const Map& m) {
    U64 s = 0;
    for (const auto& member : m) s += member.key();
    return s;
  }
};
struct StdTree {
  using Map = std::map<U16, bool>;
  static void insert(Map& m, U16 k, bool v) { m.emplace(k, v); }
  static bool contains(const Map& m, U16 k) { return m.find(k) != m.end(); }
  static void erase(Map& m, U16 k) { m.erase(k); }
  static U64 sum(const Map& m) {
    U64 s = 0;
    for (const auto& [k, v] : m) s += k;
    return s;
  }
};
struct KilnQueue {
  using Queue = Kiln::LinkQueue<KilnBenchEvent, U32>;
  static void push(Queue& q, U32 v) { q.enq(new KilnBenchEvent(v)); }
  static U32 pop(Queue& q) { return q.deq()->value(); }
};
// std::deque keeps plain values in blocks; std::list, like the Kiln queue,
// allocates one node per value.
struct StdQueue {
  using Queue = std::deque<U32>;
  static void push(Queue& q, U32 v) { q.push_back(v); }
  static U32 pop(Queue& q) {
    U32 v = q.front();
    q.pop_front();
    return v;
  }
};
struct StdListQueue {
  using Queue = std::list<U32>;
  static void push(Queue& q, U32 v) { q.push_back(v); }
  static U32 pop(Queue& q) {
    U32 v = q.front();
    q.pop_front();
    return v;
  }
};

// Keys 0 to count - 1 (dense, like table indexes and port numbers), in a
// fixed random order; lookups of key + count miss. Maps are filled in one
// order and probed in another, so that allocation order does not turn the
// probes into a sequential walk through memory.
constexpr unsigned kFillOrder = 42;
constexpr unsigned kProbeOrder = 43;

std::vector<U32> shuffledKeys(U32 count, unsigned order) {
  std::vector<U32> keys(count);
  std::iota(keys.begin(), keys.end(), 0);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(order));
  return keys;
}

template <class Ops>
void fill(typename Ops::Map& map, const std::vector<U32>& keys) {
  for (U32 k : keys) Ops::insert(map, k, k & 1);
}

// --- Hash maps: U32 keys ---------------------------------------------------

template <class Ops>
void hashMapInsert(benchmark::State& state) {
  auto keys = shuffledKeys(U32(state.range(0)), kFillOrder);
  for (auto _ : state) {
    typename Ops::Map map;
    fill<Ops>(map, keys);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * keys.size());
}

template <class Ops>
void hashMapLookup(benchmark::State& state, U32 offset) {
  typename Ops::Map map;
  fill<Ops>(map, shuffledKeys(U32(state.range(0)), kFillOrder));
  auto keys = shuffledKeys(U32(state.range(0)), kProbeOrder);
  for (auto _ : state) {
    U32 found = 0;
    for (U32 k : keys) found += Ops::contains(map, k + offset);
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * keys.size());
}
template <class Ops>
void hashMapHit(benchmark::State& state) {
  hashMapLookup<Ops>(state, 0);
}
template <class Ops>
void hashMapMiss(benchmark::State& state) {
  hashMapLookup<Ops>(state, U32(state.range(0)));
}

template <class Ops>
void hashMapErase(benchmark::State& state) {
  auto filled = shuffledKeys(U32(state.range(0)), kFillOrder);
  auto keys = shuffledKeys(U32(state.range(0)), kProbeOrder);
  for (auto _ : state) {
    state.PauseTiming();
    typename Ops::Map map;
    fill<Ops>(map, filled);
    state.ResumeTiming();
    for (U32 k : keys) Ops::erase(map, k);
  }
  state.SetItemsProcessed(state.iterations() * keys.size());
}

template <class Ops>
void hashMapIterate(benchmark::State& state) {
  auto keys = shuffledKeys(U32(state.range(0)), kFillOrder);
  typename Ops::Map map;
  fill<Ops>(map, keys);
  for (auto _ : state) benchmark::DoNotOptimize(Ops::sum(map));
  state.SetItemsProcessed(state.iterations() * keys.size());
}

// --- Ordered maps: the next-hop free map, 65,536 U16 keys ------------------

constexpr U32 kTreeKeys = 65536;

// The orders of the argument range(0) of the tree benchmarks.
enum TreeOrder { kAscending = 0, kRandom = 1, kDescending = 2 };

std::vector<U32> treeKeys(int64_t order) {
  if (order == kRandom) return shuffledKeys(kTreeKeys, kProbeOrder);
  std::vector<U32> keys(kTreeKeys);
  std::iota(keys.begin(), keys.end(), 0);
  if (order == kDescending) std::reverse(keys.begin(), keys.end());
  return keys;
}

template <class Ops>
void treeInsert(benchmark::State& state) {
  auto keys = treeKeys(state.range(0));
  for (auto _ : state) {
    typename Ops::Map map;
    fill<Ops>(map, keys);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * keys.size());
}

// Looks up every index of a map holding every other one, like the
// allocator's scans (upward for narrow blocks, downward for wide ones).
template <class Ops>
void treeFind(benchmark::State& state) {
  std::vector<U32> members;
  for (U32 k = 0; k < kTreeKeys; k += 2) members.push_back(k);
  typename Ops::Map map;
  fill<Ops>(map, members);
  auto probes = treeKeys(state.range(0));
  for (auto _ : state) {
    U32 found = 0;
    for (U32 k : probes) found += Ops::contains(map, U16(k));
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * probes.size());
}

template <class Ops>
void treeErase(benchmark::State& state) {
  auto keys = treeKeys(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    typename Ops::Map map;
    fill<Ops>(map, treeKeys(kAscending));
    state.ResumeTiming();
    for (U32 k : keys) Ops::erase(map, U16(k));
  }
  state.SetItemsProcessed(state.iterations() * keys.size());
}

template <class Ops>
void treeIterate(benchmark::State& state) {
  typename Ops::Map map;
  fill<Ops>(map, treeKeys(kRandom));
  for (auto _ : state) benchmark::DoNotOptimize(Ops::sum(map));
  state.SetItemsProcessed(state.iterations() * kTreeKeys);
}

// --- Queues ----------------------------------------------------------------

// Enqueues range(0) values, then dequeues them all.
template <class Ops>
void queueEnqDeq(benchmark::State& state) {
  const U32 count = U32(state.range(0));
  typename Ops::Queue queue;
  for (auto _ : state) {
    for (U32 i = 0; i < count; ++i) Ops::push(queue, i);
    U64 sum = 0;
    for (U32 i = 0; i < count; ++i) sum += Ops::pop(queue);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

using BenchmarkFunction = void (*)(benchmark::State&);

// Registers name/Kiln and name/Std with the same arguments.
void addPair(const char* name, BenchmarkFunction kiln, BenchmarkFunction baseline,
             std::initializer_list<int64_t> args) {
  for (auto [side, function] : {std::pair{"/Kiln", kiln}, std::pair{"/Std", baseline}}) {
    auto* b = benchmark::RegisterBenchmark((std::string(name) + side).c_str(), function);
    for (int64_t a : args) b->Arg(a);
  }
}

const bool registered = [] {
  addPair("HashMapInsert", hashMapInsert<KilnHash>, hashMapInsert<StdHash>, {1024, 65536});
  addPair("HashMapHit", hashMapHit<KilnHash>, hashMapHit<StdHash>, {1024, 65536});
  addPair("HashMapMiss", hashMapMiss<KilnHash>, hashMapMiss<StdHash>, {1024, 65536});
  addPair("HashMapErase", hashMapErase<KilnHash>, hashMapErase<StdHash>, {1024, 65536});
  addPair("HashMapIterate", hashMapIterate<KilnHash>, hashMapIterate<StdHash>, {1024, 65536});
  const std::initializer_list<int64_t> orders = {kAscending, kRandom, kDescending};
  addPair("RbTreeInsert", treeInsert<KilnTree>, treeInsert<StdTree>, orders);
  addPair("RbTreeFind", treeFind<KilnTree>, treeFind<StdTree>, orders);
  addPair("RbTreeErase", treeErase<KilnTree>, treeErase<StdTree>, orders);
  addPair("RbTreeIterate", treeIterate<KilnTree>, treeIterate<StdTree>, {});
  addPair("QueueEnqDeq", queueEnqDeq<KilnQueue>, queueEnqDeq<StdQueue>, {64, 4096});
  for (int64_t n : {64, 4096}) {
    benchmark::RegisterBenchmark("QueueEnqDeq/StdList", queueEnqDeq<StdListQueue>)->Arg(n);
  }
  return true;
}();

}  // namespace
