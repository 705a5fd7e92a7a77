// What the next-hop table tests share: a fresh simulated chip, a manual
// clock, the activity lock held as on the agent's thread, a new manager,
// and checks of the table against the manager's records.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "FmSim/FmSim.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"
#include "Trace/Trace.h"
#include "support/HeldActivityLock.h"

namespace NextHopTest {

using Brevant::ECMPGroup;
using Brevant::FeatureType;
using Brevant::NextHopEntry;
using Brevant::NextHopManager;
using Brevant::U64Collection;

// Outside simulation mode.
constexpr U16 tableBound = 65534;
constexpr U16 swapIndex = 65278;

// The glorts that the reserved entries 1 and 2 hold.
inline U64 reservedWord(U16 index) { return FmSim::defaultGlort(index == 1 ? 65532 : 65530); }

// Words by position: {w0, w1, ...}.
inline U64Collection words(std::initializer_list<U64> values) {
  U64Collection c;
  U16 p = 0;
  for (U64 v : values) c.dataIs(p++, v);
  return c;
}

// size distinct words starting at base.
inline U64Collection wordRun(U16 size, U64 base) {
  U64Collection c;
  for (U16 p = 0; p < size; ++p) c.dataIs(p, base + p);
  return c;
}

// The keys of an ordered bool map, ascending.
template <class Map>
std::vector<U32> keysOf(const Map& map) {
  std::vector<U32> keys;
  for (const auto& m : map) keys.push_back(m.key());
  return keys;
}

// The keys lo..hi.
inline std::vector<U32> range(U32 lo, U32 hi) {
  std::vector<U32> keys;
  for (U32 k = lo; k <= hi; ++k) keys.push_back(k);
  return keys;
}

// True when the chip's words of every placed group (every group that
// hwStartToGroupId names) equal the group's next hops, and the reserved
// entries hold their glorts; failures are reported as test failures.
inline void expectTableMatchesRecords(const NextHopManager& m) {
  EXPECT_EQ(FmSim::tableWord(1), reservedWord(1));
  EXPECT_EQ(FmSim::tableWord(2), reservedWord(2));
  for (const auto& placed : m.hwStartToGroupId()) {
    Kiln::Ptr<ECMPGroup> g = m.ecmpGroups(placed.value());
    ASSERT_TRUE(g) << "no group " << placed.value() << " at " << placed.key();
    ASSERT_EQ(g->hwStartIndex(), placed.key());
    const U32 stride = g->wide() ? 2 : 1;
    for (U16 p = 0; p < g->size(); ++p) {
      const NextHopEntry e = g->nextHops(p);
      const U32 index = placed.key() + stride * p;
      EXPECT_EQ(FmSim::tableWord(index), e.data())
          << "group " << g->groupId() << " position " << p << " at " << index;
      if (g->wide()) {
        EXPECT_EQ(FmSim::tableWord(index + 1), e.wideData())
            << "group " << g->groupId() << " wide word of position " << p;
      }
    }
  }
}

// The library runs on the activity thread, which holds the activity lock:
// so does every test of this fixture. Each test gets a fresh chip, a manual
// clock at 0 (before the manager takes it), an empty Flashlog file and a
// new manager; it ends checking that no chip call held the lock.
class NextHopTableTest : public testing::Test {
 protected:
  void SetUp() override {
    savedLevels_ = Brevant::nextHopTrace().levels();
    FmSim::reset();
    Flashlog::defaultHandleIs(&Flashlog::processHandle());
    Flashlog::processHandle().clear();
    clock_ = new Kiln::ManualClock(0);
    Kiln::ActivityManager::instance().clockIs(clock_);
    activity_.take();
    manager_ = new NextHopManager();
  }

  void TearDown() override {
    manager_ = nullptr;
    activity_.release();
    EXPECT_EQ(FmSim::lockViolations(), 0u);
    Brevant::nextHopTrace().levelsIs(savedLevels_);
  }

  NextHopManager& m() { return *manager_; }
  Brevant::DefragManager& defrag() { return *manager_->defragManager(); }

  // Creates a group of size next hops with distinct words; returns its id
  // or the failure.
  S32 create(U16 size, bool wide = false, U64 base = 0x1000,
             FeatureType feature = Brevant::RoutingUnicastFeature) {
    return m().createECMPGroup(0, wide, true, size, wordRun(size, base),
                               wordRun(size, base + 0x800), feature, false);
  }

  Kiln::Ptr<Kiln::ManualClock> clock_;
  Kiln::Ptr<NextHopManager> manager_;

 private:
  NextHopTest::HeldActivityLock activity_;
  Trace::LevelMask savedLevels_ = Trace::noLevels;
};

// Long random runs, parameterised by (seed, simulated bound or 0 for the
// full table, steps): the traces off, the table simulated at the bound when
// there is one, and a generator seeded so that a failure reproduces.
// BREVANT_RANDOM_STEPS_PERCENT=p makes the randomized tests run p percent of
// their steps (at least one): the sanitizer phases of scripts/test look for
// memory and undefined-behaviour faults, which shorter runs reach, and leave
// the full runs to the plain build.
inline int randomSteps(int steps) {
  const char* text = std::getenv("BREVANT_RANDOM_STEPS_PERCENT");
  const long percent = text ? std::strtol(text, nullptr, 10) : 100;
  if (percent <= 0 || percent >= 100) return steps;
  return std::max(1, int(steps * percent / 100));
}

class RandomTableTest : public NextHopTableTest,
                        public testing::WithParamInterface<std::tuple<unsigned, U16, int>> {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    Brevant::nextHopTrace().levelsIs(Trace::noLevels);
    if (bound()) m().setSimulationMode(true, bound());
    random_.seed(std::get<0>(GetParam()));
  }

  U16 bound() const { return std::get<1>(GetParam()); }
  int steps() const { return randomSteps(std::get<2>(GetParam())); }

  // A number from lo to hi, both included.
  U32 pick(U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(random_); }

  std::mt19937 random_;
};

// Death tests build their manager inside the statement, with the activity
// lock taken there: a forked child cannot release a mutex its parent took.
class NextHopTableDeathTest : public testing::Test {
 protected:
  void SetUp() override {
    FmSim::reset();
    Kiln::ActivityManager::instance().clockIs(new Kiln::ManualClock(0));
  }
};

}  // namespace NextHopTest
