// The move against the move it replaced (support/MoveReference.h): two
// managers driven by the same random operations, one moving groups with
// NextHopManager::moveECMPGroup, the other with the reference, must answer
// alike after every move: results, traces, Flashlog records, chip calls and
// words, what each owner is told and sees while it is told, the records
// (down to the order in which a group's next hops are held) and the
// resource counters. The tables are left in odd states on purpose: blocks
// allocated and freed by hand, free entries written by name, groups with
// missing or extra next-hop positions, owners leaving and coming back,
// moves of reserved and unknown groups and to refused places.
//
// BREVANT_DIFFERENTIAL_ROUNDS=n multiplies the number of operations by n.
#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Brevant/NextHopCallback.h"
#include "Brevant/NextHopResources.h"
#include "Kiln/TypeRecord.h"
#include "next_hop_table_fixture.h"
#include "support/MoveReference.h"
#include "support/PerIndexReference.h"

namespace {

using namespace NextHopTest;

// An owner that writes down every call and what the table looked like to it
// at that moment.
class WatchingOwner : public Brevant::NextHopCallback {
 public:
  WatchingOwner(NextHopManager& manager, const std::string& name, FeatureType feature)
      : NextHopCallback(name, feature), manager_(manager), label_(name) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    std::ostringstream seen;
    seen << label_ << " told " << groupId << " " << baseIndex << " " << numNextHops;
    const Kiln::Ptr<ECMPGroup> g = manager_.ecmpGroups(groupId);
    if (g) {
      seen << " at " << g->hwStartIndex() << " hops";
      for (const auto& hop : g->nextHops())
        seen << " " << hop.key() << "@" << hop.value().hwIndex();
    }
    seen << " starts " << manager_.hwStartToGroupId().members() << " free "
         << manager_.freeEntries().members() << " allocated "
         << manager_.allocatedIndex().count(0, Brevant::TableBitmap::indexes) << " published free "
         << manager_.resources()->totalFree();
    log.push_back(seen.str());
  }

  std::vector<std::string> log;

 private:
  NextHopManager& manager_;
  const std::string label_;
};

// Everything one move left behind that the other must match.
struct Observed {
  S32 result = 0;
  std::vector<std::string> traces;
  std::vector<std::string> flashlog;
  std::vector<std::string> chipCalls;
  std::vector<U64> chipWords;
  std::vector<std::string> owners;
  std::string records;
  bool operator==(const Observed&) const = default;
};

// A trace line with buffer addresses (which differ between the two moves)
// written as "0x<address>"; table addresses are shorter.
std::string withoutBufferAddresses(const std::string& text) {
  static const std::regex pointer("0x[0-9a-fA-F]{10,}");
  return std::regex_replace(text, pointer, "0x<address>");
}

// The manager's records and published counters, as text.
std::string recordsOf(const NextHopManager& m) {
  std::ostringstream out;
  out << "narrow " << m.lastNarrowIndex() << " wide " << m.lastWideIndex() << "\nfree";
  for (const auto& e : m.freeEntries()) out << " " << e.key() << "=" << e.value();
  out << "\nallocated";
  for (const auto& e : m.allocatedEntries()) out << " " << e.key() << "=" << e.value();
  out << "\nstarts";
  for (const auto& e : m.hwStartToGroupId()) out << " " << e.key() << "=" << e.value();
  for (const auto& member : m.ecmpGroups()) {
    const ECMPGroup& g = *member.value();
    out << "\ngroup " << member.key() << " id " << g.groupId() << " wide " << g.wide() << " size "
        << g.size() << " start " << g.hwStartIndex() << ":";
    // In the order the group holds them: the same inserts in the same order.
    for (const auto& hop : g.nextHops()) {
      const NextHopEntry& e = hop.value();
      out << " " << hop.key() << "@" << e.hwIndex() << "/" << e.wide() << "/" << e.data() << "/"
          << e.wideData();
    }
  }
  const Brevant::NextHopResources& r = *m.resources();
  out << "\ncounters " << r.narrowUsed() << " " << r.narrowFree() << " " << r.wideUsed() << " "
      << r.wideFree() << " " << r.swapUsed() << " " << r.swapFree() << " " << r.totalFree() << " "
      << r.usedPercent() << " " << r.narrowGroups() << " " << r.wideGroups() << " "
      << r.largestNarrowBlock() << " " << r.largestWideBlock() << " " << r.freeRuns() << " "
      << r.fragmentationPercent() << " " << r.groupsMoved() << " " << r.entriesMoved() << " "
      << r.swapAreaLegs() << " " << r.usedAlarm() << " " << r.fragmentationAlarm();
  return out.str();
}

class MoveDifferential {
 public:
  MoveDifferential(U32 seed, U16 bound) : random_(seed), bound_(bound) {
    for (Side& side : sides_) {
      side.manager = new NextHopManager();
      if (bound != 0) side.manager->setSimulationMode(true, bound);
      // Two owners of one feature, one of another, none of the rest.
      for (const auto& [name, feature] : {std::pair{"unicastA", Brevant::RoutingUnicastFeature},
                                          std::pair{"unicastB", Brevant::RoutingUnicastFeature},
                                          std::pair{"nat", Brevant::RoutingNatFeature}}) {
        Kiln::Ptr<WatchingOwner> owner = new WatchingOwner(*side.manager, name, feature);
        side.manager->featuresIs(owner);
        side.owners.push_back(owner);
      }
    }
  }

  void run(U32 ops) {
    for (U32 i = 0; i < ops && !testing::Test::HasFailure(); ++i) step();
  }

  U32 movesCompared() const { return moves_; }
  // Moves that succeeded and told at least one owner.
  U32 movesTold() const { return movesTold_; }

 private:
  struct Side {
    Kiln::Ptr<NextHopManager> manager;
    std::vector<Kiln::Ptr<WatchingOwner>> owners;
  };

  U32 pick(U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(random_); }
  bool chance(U32 percent) { return pick(100) < percent; }
  U16 tableTop() const { return bound_ == 0 ? 65534 : bound_; }
  NextHopManager& lib() { return *sides_[0].manager; }

  // Runs op on both managers alike (same random picks for both).
  template <class Op>
  void onBoth(Op op) {
    const std::mt19937 saved = random_;
    for (Side& side : sides_) {
      random_ = saved;
      op(*side.manager);
    }
  }

  U16 someGroup() {
    std::vector<U16> ids;
    for (const auto& g : lib().ecmpGroups()) ids.push_back(g.key());
    if (ids.empty() || chance(5)) return U16(pick(8));  // reserved, unused or absent ids
    return ids[pick(U32(ids.size()))];
  }

  U16 groupSize(bool wide) {
    if (bound_ != 0 && bound_ <= 256) return U16(1 + pick(wide ? 4 : 8));
    return U16(1 + (chance(80) ? pick(wide ? 8 : 16) : pick(wide ? 128 : 256)));
  }

  void step() {
    const U32 what = pick(100);
    if (what < 30) {
      const bool wide = chance(35);
      const U16 size = groupSize(wide);
      const FeatureType feature = FeatureType(pick(3) * 2);  // unicast, NAT, tunnel
      if (createStops(U16(size * (wide ? 2 : 1)), wide)) return;
      onBoth([&](NextHopManager& m) {
        m.createECMPGroup(0, wide, true, size, wordRun(size, 0x1000 + size),
                          wordRun(size, 0x7000 + size), feature, false);
      });
    } else if (what < 45) {
      const U16 id = someGroup();
      if (id >= 3 && !deleteStops(id)) onBoth([&](NextHopManager& m) { m.deleteECMPGroup(0, id); });
    } else if (what < 50) {
      reshapeNextHops(someGroup());
    } else if (what < 53) {
      // Never index 0: a free entry 0 stops the narrow search.
      const U16 start = U16(1 + pick(tableTop() + 1u));
      const U16 length = U16(pick(6));
      const bool allocate = chance(50);
      onBoth([&](NextHopManager& m) {
        allocate ? m.allocateBlock(start, length) : m.freeBlock(start, length);
      });
    } else if (what < 55) {
      const U16 key = U16(3 + pick(tableTop() - 3u));
      const U32 how = pick(3);
      onBoth([&](NextHopManager& m) {
        const Kiln::TypeRecord& type = NextHopManager::kilnType();
        if (how == 2) {
          type.memberDel(m, "freeEntries", std::to_string(key));
        } else {
          type.memberIs(m, "freeEntries", std::to_string(key), how ? "True" : "False");
        }
      });
    } else if (what < 57) {
      // An owner leaves or comes back: sometimes nobody is registered.
      const U32 which = pick(3);
      const bool leave = chance(50);
      for (Side& side : sides_) {
        const Kiln::Ptr<WatchingOwner>& owner = side.owners[which];
        if (leave) {
          side.manager->featuresDel(owner->name());
        } else {
          side.manager->featuresIs(owner);
        }
      }
    } else if (what < 58) {
      const U16 id = someGroup();
      const FeatureType feature = FeatureType(pick(5));
      onBoth([&](NextHopManager& m) { m.addFeatureToGroup(id, feature); });
    } else {
      move();
    }
  }

  // True when a search for length entries would stop the process on the
  // table as it is; the search's boundary updates are undone.
  bool createStops(U16 length, bool wide) {
    const U16 narrow = lib().lastNarrowIndex();
    const U16 wideIndex = lib().lastWideIndex();
    const PerIndexReference::Outcome found =
        wide ? PerIndexReference::findAvailableWideBlock(lib(), length)
             : PerIndexReference::findAvailableNarrowBlock(lib(), length);
    lib().lastNarrowIndexIs(narrow);
    lib().lastWideIndexIs(wideIndex);
    return !found.assertion.empty();
  }

  // True when deleting the group would stop the process in a boundary scan.
  bool deleteStops(U16 id) {
    Kiln::Ptr<ECMPGroup> g = lib().ecmpGroups(id);
    if (!g) return false;
    const U16 length = U16(g->size() * (g->wide() ? 2 : 1));
    return !PerIndexReference::boundaryAfterRemoving(lib(), g->wide(), g->hwStartIndex(), length)
                .assertion.empty();
  }

  // Drops a position of the group, adds one past its size, or rewrites one:
  // what a write by name could leave behind.
  void reshapeNextHops(U16 id) {
    Kiln::Ptr<ECMPGroup> g = lib().ecmpGroups(id);
    if (!g || g->size() == 0) return;
    const U16 position = U16(pick(g->size() + 2u));
    const U32 how = pick(3);
    onBoth([&](NextHopManager& m) {
      ECMPGroup& group = *m.ecmpGroups(id);
      if (how == 0) {
        group.nextHopsDel(position);
      } else {
        NextHopEntry e = group.nextHops(position);
        e.dataIs(e.data() ^ 0x55);
        if (how == 2) e.hwIndexIs(U16(e.hwIndex() + 1));
        group.nextHopsIs(position, e);
      }
    });
  }

  // One move to a random place, through the swap area or not, by the
  // library on the first manager and by the reference on the second, from
  // the same chip.
  void move() {
    const U16 id = someGroup();
    // Index 0 is left out: a group moved away from it leaves entry 0 free,
    // which stops the next narrow search.
    const U16 to = chance(5) ? U16(1 + pick(2)) : U16(3 + pick(tableTop() - 3u));
    const bool overlap = chance(50);
    const bool uninitialized = chance(2);
    if (PerIndexReference::moveStops(lib(), id, to, overlap)) return;
    std::vector<U64> before(tableTop() + 2u);
    for (U32 i = 0; i < before.size(); ++i) before[i] = FmSim::tableWord(i);
    Observed seen[2];
    for (int i = 0; i < 2; ++i) {
      NextHopManager& m = *sides_[i].manager;
      for (U32 w = 0; w < before.size(); ++w) FmSim::tableWordIs(w, before[w]);
      FmSim::callsDelAll();
      Flashlog::processHandle().clear();
      for (const Kiln::Ptr<WatchingOwner>& owner : sides_[i].owners) owner->log.clear();
      if (uninitialized) m.initializedIs(false);
      {
        Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
        seen[i].result = i == 0 ? m.moveECMPGroup(id, to, overlap)
                                : MoveReference::moveECMPGroup(m, id, to, overlap);
        for (const Trace::Line& line : capture.lines()) {
          seen[i].traces.push_back(std::to_string(line.level) + ": " +
                                   withoutBufferAddresses(line.text));
        }
      }
      if (uninitialized) m.initializedIs(true);
      for (const Flashlog::Record& r : Flashlog::records()) {
        seen[i].flashlog.push_back(std::to_string(r.site->level) + ": " + r.text());
      }
      for (const FmSim::Call& c : FmSim::calls()) {
        seen[i].chipCalls.push_back(std::to_string(int(c.function)) + " " +
                                    std::to_string(c.address) + " " + std::to_string(c.count));
      }
      for (U32 w = 0; w < before.size(); ++w) seen[i].chipWords.push_back(FmSim::tableWord(w));
      for (const Kiln::Ptr<WatchingOwner>& owner : sides_[i].owners) {
        seen[i].owners.insert(seen[i].owners.end(), owner->log.begin(), owner->log.end());
      }
      seen[i].records = recordsOf(m);
    }
    ++moves_;
    if (seen[0].result == 0 && !seen[0].owners.empty()) ++movesTold_;
    EXPECT_EQ(seen[0].result, seen[1].result) << "move " << id << " to " << to;
    EXPECT_EQ(seen[0].traces, seen[1].traces);
    EXPECT_EQ(seen[0].flashlog, seen[1].flashlog);
    EXPECT_EQ(seen[0].chipCalls, seen[1].chipCalls);
    EXPECT_TRUE(seen[0].chipWords == seen[1].chipWords);
    EXPECT_EQ(seen[0].owners, seen[1].owners);
    EXPECT_EQ(seen[0].records, seen[1].records);
  }

  std::mt19937 random_;
  const U16 bound_;  // 0: the full table
  Side sides_[2];
  U32 moves_ = 0;
  U32 movesTold_ = 0;
};

U32 rounds() {
  const char* text = std::getenv("BREVANT_DIFFERENTIAL_ROUNDS");
  const long n = text ? std::strtol(text, nullptr, 10) : 1;
  return n > 0 ? U32(n) : 1;
}

class MoveDifferentialTest : public NextHopTableTest,
                             public testing::WithParamInterface<std::pair<U16, U32>> {};

TEST_P(MoveDifferentialTest, EveryMoveMatchesTheMoveItReplaced) {
  const auto [bound, ops] = GetParam();
  // A shortened run (BREVANT_RANDOM_STEPS_PERCENT) keeps 60 operations a
  // seed at least: fewer may move no group that owners hear of.
  const U32 steps = std::max(U32(randomSteps(int(ops))), std::min(ops, 60U));
  U32 moves = 0, told = 0;
  for (U32 seed : {3u, 29u, 71u}) {
    MoveDifferential d(seed * (bound + 1), bound);
    d.run(steps * rounds());
    moves += d.movesCompared();
    told += d.movesTold();
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
  EXPECT_GT(moves, steps / 4);
  // Many of them are real moves that owners hear of, not refusals.
  EXPECT_GT(told, moves / 10) << moves << " moves compared";
}

INSTANTIATE_TEST_SUITE_P(Tables, MoveDifferentialTest,
                         testing::Values(std::pair<U16, U32>{64, 1500},
                                         std::pair<U16, U32>{256, 1500},
                                         std::pair<U16, U32>{2048, 600},
                                         std::pair<U16, U32>{0, 60}),
                         [](const testing::TestParamInfo<std::pair<U16, U32>>& info) {
                           return info.param.first == 0
                                      ? std::string("FullSize")
                                      : "Bound" + std::to_string(info.param.first);
                         });

}  // namespace
