// Costs of the activity pieces that sit on the library's hot paths.
//
// A chip call releases and retakes the activity lock through UnlockAnchor;
// compare it with a bare unlock/lock pair of an error-checking pthread mutex
// (the baseline), to show what the owner tracking and the protocol checks
// add. Re-arming a timer (the defragmenter re-arms its one timer every run)
// is compared with the erase and insert of a std::multiset of the same size.
#include <pthread.h>

#include <set>
#include <vector>

#include <benchmark/benchmark.h>

#include "Kiln/Clock.h"
#include "Kiln/Lock.h"

namespace {

void ActivityBaselineMutexUnlockLock(benchmark::State& state) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutex_lock(&mutex);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
    benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
  }
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attributes);
}
BENCHMARK(ActivityBaselineMutexUnlockLock);

void ActivityUnlockAnchorRoundTrip(benchmark::State& state) {
  Kiln::ActivityLockGuard held;
  Kiln::Lock* lock = Kiln::ActivityUnlockAnchor::lock();
  for (auto _ : state) {
    Kiln::UnlockAnchor guard(lock);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ActivityUnlockAnchorRoundTrip);

void ActivityBaselineMultisetMove(benchmark::State& state) {
  std::multiset<double> schedule;
  for (int i = 0; i < state.range(0); ++i) schedule.insert(1000.0 + i);
  double time = 0;
  auto at = schedule.insert(time);
  for (auto _ : state) {
    schedule.erase(at);
    time = time == 0 ? 1 : 0;
    at = schedule.insert(time);
    benchmark::DoNotOptimize(at);
  }
}
BENCHMARK(ActivityBaselineMultisetMove)->Arg(1)->Arg(64)->Arg(1024);

void ActivityTimerReArm(benchmark::State& state) {
  Kiln::Ptr<Kiln::ManualClock> clock = new Kiln::ManualClock();
  std::vector<Kiln::Ptr<Kiln::Clock::Notifiee>> others;
  for (int i = 0; i < state.range(0); ++i) {
    others.push_back(new Kiln::Clock::Notifiee());
    others.back()->notifierIs(clock);
    others.back()->timeMinIs(1000.0 + i);
  }
  Kiln::Ptr<Kiln::Clock::Notifiee> timer = new Kiln::Clock::Notifiee();
  timer->notifierIs(clock);
  double time = 0;
  for (auto _ : state) {
    time = time == 0 ? 1 : 0;
    timer->timeMinIs(time);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ActivityTimerReArm)->Arg(1)->Arg(64)->Arg(1024);

}  // namespace
