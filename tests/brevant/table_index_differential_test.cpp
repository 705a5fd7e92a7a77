// The table index against the per-index algorithms it replaced: random
// operations on full-size and small simulated tables, after each of which
// the searches, boundary scans and compaction passes must answer exactly as
// the per-index reference does (results, boundaries, traces, Flashlog
// records), and the index must match the collections it observes.
//
// BREVANT_DIFFERENTIAL_ROUNDS=n multiplies the number of operations by n
// for a longer run.
#include <cctype>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "next_hop_table_fixture.h"
#include "support/PerIndexReference.h"

namespace {

using namespace NextHopTest;
namespace Ref = PerIndexReference;

// What an operation left behind that the reference must match.
struct Observed {
  std::vector<Trace::Line> traces;
  std::vector<std::string> flashlog;
  bool operator==(const Observed&) const = default;
};

// The first place where two observations part, for a failure message.
std::string firstDifference(const Observed& a, const Observed& b) {
  for (size_t i = 0; i < std::max(a.traces.size(), b.traces.size()); ++i) {
    const std::string x = i < a.traces.size() ? a.traces[i].text : "(none)";
    const std::string y = i < b.traces.size() ? b.traces[i].text : "(none)";
    if (x != y ||
        (i < a.traces.size() && i < b.traces.size() && a.traces[i].level != b.traces[i].level)) {
      return "trace line " + std::to_string(i) + ": \"" + x + "\" against \"" + y + "\"";
    }
  }
  for (size_t i = 0; i < std::max(a.flashlog.size(), b.flashlog.size()); ++i) {
    const std::string x = i < a.flashlog.size() ? a.flashlog[i] : "(none)";
    const std::string y = i < b.flashlog.size() ? b.flashlog[i] : "(none)";
    if (x != y)
      return "Flashlog record " + std::to_string(i) + ": \"" + x + "\" against \"" + y + "\"";
  }
  return "no difference";
}

// A trace line with the addresses of buffers (which differ between two
// managers' identical calls) written as "0x<address>".
std::string withoutAddresses(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t digits = 0;
    if (text.compare(i, 2, "0x") == 0) {
      while (i + 2 + digits < text.size() && std::isxdigit(U8(text[i + 2 + digits]))) ++digits;
    }
    // Table addresses and words written in hexadecimal are shorter than a
    // user-space pointer.
    if (digits >= 10) {
      out += "0x<address>";
      i += 2 + digits;
    } else {
      out += text[i++];
    }
  }
  return out;
}

class Recording {
 public:
  Recording() : capture_(Brevant::nextHopTrace(), Trace::allLevels) {
    Flashlog::processHandle().clear();
  }
  Observed observed() const {
    Observed o{capture_.lines(), {}};
    for (Trace::Line& line : o.traces) line.text = withoutAddresses(line.text);
    for (const Flashlog::Record& r : Flashlog::records()) {
      o.flashlog.push_back(std::to_string(r.site->level) + ": " + r.text());
    }
    return o;
  }

 private:
  Trace::Capture capture_;
};

// True (with a test failure naming the first difference otherwise) when the
// index holds exactly what the collections say.
template <class Map, class Holds>
void expectIndexMatches(const Brevant::TableBitmap& index, const Map& map, Holds holds,
                        const char* what) {
  U32 members = 0;
  for (const auto& m : map) {
    const bool in = holds(m.value());
    members += in;
    if (index.test(m.key()) != in) {
      ADD_FAILURE() << what << ": index disagrees at " << m.key();
      return;
    }
  }
  EXPECT_EQ(index.count(0, Brevant::TableBitmap::indexes), members) << what;
}

void expectIndexExact(const NextHopManager& m) {
  expectIndexMatches(
      m.freeIndex(), m.freeEntries(), [](bool v) { return v; }, "freeEntries");
  expectIndexMatches(
      m.allocatedIndex(), m.allocatedEntries(), [](bool v) { return v; }, "allocatedEntries");
  expectIndexMatches(
      m.groupStartIndex(), m.hwStartToGroupId(), [](U16 v) { return v != 0; }, "hwStartToGroupId");
}

template <class Map>
std::vector<std::pair<U32, U32>> pairsOf(const Map& map) {
  std::vector<std::pair<U32, U32>> pairs;
  for (const auto& m : map) pairs.emplace_back(m.key(), U32(m.value()));
  std::sort(pairs.begin(), pairs.end());
  return pairs;
}

// Everything the two managers' records hold, side by side.
void expectSameTables(const NextHopManager& a, const NextHopManager& b) {
  EXPECT_EQ(a.lastNarrowIndex(), b.lastNarrowIndex());
  EXPECT_EQ(a.lastWideIndex(), b.lastWideIndex());
  EXPECT_EQ(pairsOf(a.freeEntries()), pairsOf(b.freeEntries()));
  EXPECT_EQ(pairsOf(a.allocatedEntries()), pairsOf(b.allocatedEntries()));
  EXPECT_EQ(pairsOf(a.hwStartToGroupId()), pairsOf(b.hwStartToGroupId()));
  ASSERT_EQ(a.ecmpGroups().members(), b.ecmpGroups().members());
  for (auto ga = a.ecmpGroups().begin(), gb = b.ecmpGroups().begin(); ga != a.ecmpGroups().end();
       ++ga, ++gb) {
    ASSERT_EQ(ga->key(), gb->key());
    EXPECT_EQ(ga->value()->hwStartIndex(), gb->value()->hwStartIndex()) << "group " << ga->key();
  }
  EXPECT_EQ(a.defragManager()->scheduleDefragment(), b.defragManager()->scheduleDefragment());
}

// Two managers on one chip driven by the same random operations: `lib`
// answers with the library, and its searches and scans are first asked of
// the reference on the same state; `twin` receives the same operations, but
// its compaction runs are the reference's, so that the two runs can be set
// side by side.
class Differential {
 public:
  Differential(U32 seed, U16 bound, bool hardened) : random_(seed), bound_(bound) {
    for (Kiln::Ptr<NextHopManager>* m : {&lib_, &twin_}) {
      *m = new NextHopManager();
      if (bound != 0) (*m)->setSimulationMode(true, bound);
      (*m)->hardenedIs(hardened);
    }
  }

  // Runs ops operations; returns how many ran (an episode that reached a
  // state the reference stops the process in starts over).
  void run(U32 ops) {
    if (bound_ == 0) prefill();
    for (U32 i = 0; i < ops && !testing::Test::HasFailure(); ++i) {
      step();
      if (bound_ != 0 || i % 128 == 0) {
        expectIndexExact(*lib_);
        expectIndexExact(*twin_);
      }
    }
    expectSameTables(*lib_, *twin_);
  }

  // Compaction runs compared, and operations not compared because the
  // reference stops the process there.
  U32 compactions() const { return compactions_; }
  U32 predictedStops() const { return predictedStops_; }

 private:
  U32 pick(U32 n) { return std::uniform_int_distribution<U32>(0, n - 1)(random_); }
  bool chance(U32 percent) { return pick(100) < percent; }
  U16 tableTop() const { return bound_ == 0 ? 65534 : bound_; }

  // The chip's words that the managers may write (nothing above a
  // simulated bound), to set back after a run that read them.
  std::vector<U64> chipWords() const {
    std::vector<U64> words(bound_ == 0 ? 65536 : bound_);
    for (U32 i = 0; i < words.size(); ++i) words[i] = FmSim::tableWord(i);
    return words;
  }
  static void chipWordsIs(const std::vector<U64>& words) {
    for (U32 i = 0; i < words.size(); ++i) FmSim::tableWordIs(i, words[i]);
  }

  // A full-size table starts full of large groups, so that churn leaves
  // holes everywhere.
  void prefill() {
    while (lib_->freeEntries().members() > 2000) {
      if (create(U16(1 + pick(255)), chance(30)) < 0) break;
    }
  }

  // A group id of lib (and twin), or 0 when there is none to pick.
  U16 someGroup() {
    std::vector<U16> ids;
    for (const auto& g : lib_->ecmpGroups()) {
      if (g.key() >= 3 && g.key() != 65535) ids.push_back(g.key());
    }
    return ids.empty() ? 0 : ids[pick(U32(ids.size()))];
  }

  void step() {
    const U32 what = pick(100);
    if (what < 30) {
      const bool wide = chance(35);
      create(groupSize(wide), wide);
    } else if (what < 55) {
      if (const U16 id = someGroup()) remove(id);
    } else if (what < 62) {
      const bool wide = chance(50);
      search(groupSize(wide) * (wide ? 2 : 1), wide);
    } else if (what < 68) {
      compact();
    } else if (what < 71) {
      // Moves, direct allocations and by-name writes can leave the table in
      // a state the passes stop the process in, which ends the episode:
      // a few percent each.
      if (const U16 id = someGroup()) move(id);
    } else if (what < 73) {
      const U16 start = U16(pick(tableTop() + 2u));
      const U16 length = U16(pick(6));
      bothSame([&](NextHopManager& m) {
        return chance(50) ? m.allocateBlock(start, length) : m.freeBlock(start, length);
      });
    } else if (what < 75) {
      writeFreeEntryByName();
    } else if (what < 77) {
      // Leaving simulation mode rebuilds the full table's pools: rarely.
      if (bound_ == 0 || chance(20)) switchSimulationMode();
    } else if (what < 78) {
      const bool on = chance(50);
      lib_->hardenedIs(on);
      twin_->hardenedIs(on);
    } else {
      const bool wide = chance(35);
      create(groupSize(wide), wide);
    }
  }

  U16 groupSize(bool wide) {
    // A small table's swap area holds 8 entries: larger groups could not
    // be moved through it.
    if (bound_ != 0) return U16(1 + pick(wide ? 4 : 8));
    return U16(1 + (chance(80) ? pick(wide ? 16 : 32) : pick(wide ? 128 : 256)));
  }

  // Runs op on both managers, each with the same pick of random choices,
  // and expects the same results, traces and Flashlog records; returns
  // lib's.
  template <class Op>
  Observed bothSame(Op op) {
    const std::mt19937 saved = random_;
    Observed seen[2];
    S32 results[2];
    int i = 0;
    for (NextHopManager* m : {lib_.ptr(), twin_.ptr()}) {
      random_ = saved;
      Recording recording;
      results[i] = op(*m);
      seen[i++] = recording.observed();
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_TRUE(seen[0] == seen[1]) << firstDifference(seen[0], seen[1]);
    return seen[0];
  }

  // Asks the reference and then the library for a block on lib's state;
  // the search's boundary update is undone after each, so that both make
  // it. False when the reference stops the process there.
  bool search(U32 length, bool wide) {
    const U16 narrow = lib_->lastNarrowIndex();
    const U16 wideIndex = lib_->lastWideIndex();
    Ref::Outcome expected;
    Observed referenceSeen;
    {
      Recording recording;
      expected = wide ? Ref::findAvailableWideBlock(*lib_, U16(length))
                      : Ref::findAvailableNarrowBlock(*lib_, U16(length));
      referenceSeen = recording.observed();
    }
    const U16 expectedNarrow = lib_->lastNarrowIndex();
    const U16 expectedWide = lib_->lastWideIndex();
    lib_->lastNarrowIndexIs(narrow);
    lib_->lastWideIndexIs(wideIndex);
    if (!expected.assertion.empty() || length > 65535) {
      ++predictedStops_;
      return false;
    }
    Recording recording;
    const S32 found = wide ? lib_->findAvailableWideBlock(U16(length))
                           : lib_->findAvailableNarrowBlock(U16(length));
    EXPECT_EQ(found, expected.result) << (wide ? "wide" : "narrow") << " length " << length;
    EXPECT_EQ(lib_->lastNarrowIndex(), expectedNarrow);
    EXPECT_EQ(lib_->lastWideIndex(), expectedWide);
    EXPECT_TRUE(recording.observed() == referenceSeen)
        << firstDifference(recording.observed(), referenceSeen);
    lib_->lastNarrowIndexIs(narrow);
    lib_->lastWideIndexIs(wideIndex);
    return true;
  }

  S32 create(U16 size, bool wide) {
    const bool refused = size > 256 || (lib_->hardened() && wide && size > 128);
    if (!refused && !search(U32(size) * (wide ? 2 : 1), wide)) return -1;
    S32 id = 0;
    bothSame([&](NextHopManager& m) {
      return id = m.createECMPGroup(0, wide, true, size, wordRun(size, 0x1000 + size),
                                    wordRun(size, 0x7000), Brevant::RoutingUnicastFeature, false);
    });
    return id;
  }

  void remove(U16 id) {
    Kiln::Ptr<ECMPGroup> g = lib_->ecmpGroups(id);
    const U16 length = U16(g->size() * (g->wide() ? 2 : 1));
    const U16 narrow = lib_->lastNarrowIndex();
    const U16 wideIndex = lib_->lastWideIndex();
    Ref::Outcome expected;
    std::vector<Trace::Line> scanLines;
    {
      Recording recording;
      expected = Ref::boundaryAfterRemoving(*lib_, g->wide(), g->hwStartIndex(), length);
      scanLines = recording.observed().traces;
    }
    if (!expected.assertion.empty()) {
      ++predictedStops_;
      return;
    }
    const Observed seen = bothSame([&](NextHopManager& m) { return m.deleteECMPGroup(0, id); });
    std::vector<Trace::Line> libScanLines;
    for (const Trace::Line& line : seen.traces) {
      if (line.text.starts_with(" updated ")) libScanLines.push_back(line);
    }
    EXPECT_EQ(libScanLines, scanLines);
    EXPECT_EQ(lib_->lastNarrowIndex(),
              !g->wide() && expected.result >= 0 ? U16(expected.result) : narrow);
    EXPECT_EQ(lib_->lastWideIndex(),
              g->wide() && expected.result >= 0 ? U16(expected.result) : wideIndex);
  }

  // A move to a random place, through the swap area or not: the chip is set
  // back before the twin repeats it, since a move reads the chip.
  void move(U16 id) {
    const U16 to = U16(pick(tableTop()));
    const bool overlap = chance(50);
    if (Ref::moveStops(*lib_, id, to, overlap)) {
      ++predictedStops_;
      return;
    }
    const std::vector<U64> before = chipWords();
    Observed seen[2];
    S32 results[2];
    std::vector<U64> after;
    int i = 0;
    for (NextHopManager* m : {lib_.ptr(), twin_.ptr()}) {
      if (i == 1) {
        after = chipWords();
        chipWordsIs(before);
      }
      Recording recording;
      results[i] = m->moveECMPGroup(id, to, overlap);
      seen[i++] = recording.observed();
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_TRUE(seen[0] == seen[1]) << firstDifference(seen[0], seen[1]);
    EXPECT_TRUE(chipWords() == after);
  }

  // A compaction run: the reference's passes on the twin, then the
  // library's on lib from the same chip. An episode whose run the
  // reference stops in starts over.
  void compact() {
    const std::vector<U64> before = chipWords();
    Observed referenceSeen;
    Ref::Outcome expected;
    twin_->defragManager()->scheduleDefragmentIs(false);
    {
      Recording recording;
      expected = Ref::defragment(*twin_);
      referenceSeen = recording.observed();
    }
    if (!expected.assertion.empty()) {
      ++predictedStops_;
      restart();
      return;
    }
    ++compactions_;
    const std::vector<U64> referenceChip = chipWords();
    chipWordsIs(before);
    lib_->defragManager()->scheduleDefragmentIs(false);
    Recording recording;
    lib_->defragManager()->defragment();
    EXPECT_TRUE(recording.observed() == referenceSeen)
        << "compaction " << compactions_ << ": "
        << firstDifference(recording.observed(), referenceSeen);
    EXPECT_TRUE(chipWords() == referenceChip);
    expectSameTables(*lib_, *twin_);
  }

  // Starts an episode over on fresh managers with the same settings.
  void restart() {
    const bool hardened = lib_->hardened();
    lib_ = nullptr;
    twin_ = nullptr;
    FmSim::reset();
    for (Kiln::Ptr<NextHopManager>* m : {&lib_, &twin_}) {
      *m = new NextHopManager();
      if (bound_ != 0) (*m)->setSimulationMode(true, bound_);
      (*m)->hardenedIs(hardened);
    }
    if (bound_ == 0) prefill();
  }

  // A write by name through the reflective interface, as the diagnostic
  // socket makes: a member set true or false, or deleted.
  void writeFreeEntryByName() {
    const U16 key = U16(3 + pick(tableTop() - 3u));
    const U32 how = pick(3);
    bothSame([&](NextHopManager& m) {
      const Kiln::TypeRecord& type = NextHopManager::kilnType();
      if (how == 2) {
        type.memberDel(m, "freeEntries", std::to_string(key));
      } else {
        type.memberIs(m, "freeEntries", std::to_string(key), how ? "True" : "False");
      }
      return 0;
    });
  }

  // Leaves simulation mode or enters it (with the episode's bound, kept
  // even), then goes back, as an agent's operator might.
  void switchSimulationMode() {
    const bool into = !lib_->simMode();
    const U16 bound = bound_ != 0 ? bound_ : U16(1024 + 2 * pick(4096));
    bothSame([&](NextHopManager& m) {
      m.setSimulationMode(into, bound);
      return 0;
    });
    if (bound_ == 0 && into) {
      bothSame([&](NextHopManager& m) {
        m.setSimulationMode(false, bound);
        return 0;
      });
    } else if (bound_ != 0 && !into) {
      bothSame([&](NextHopManager& m) {
        m.setSimulationMode(true, bound_);
        return 0;
      });
    }
  }

  std::mt19937 random_;
  const U16 bound_;  // 0: the full table
  Kiln::Ptr<NextHopManager> lib_;
  Kiln::Ptr<NextHopManager> twin_;
  U32 compactions_ = 0;
  U32 predictedStops_ = 0;
};

// BREVANT_DIFFERENTIAL_ROUNDS=n runs n times the operations; a longer run.
U32 rounds() {
  const char* text = std::getenv("BREVANT_DIFFERENTIAL_ROUNDS");
  const long n = text ? std::strtol(text, nullptr, 10) : 1;
  return n > 0 ? U32(n) : 1;
}

struct Case {
  U16 bound;  // 0: the full table
  U32 ops;
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << "bound " << c.bound << ", " << c.ops << " operations per run";
}

class TableIndexDifferentialTest : public NextHopTableTest,
                                   public testing::WithParamInterface<Case> {};

TEST_P(TableIndexDifferentialTest, EveryAnswerMatchesThePerIndexReference) {
  const Case c = GetParam();
  U32 compactions = 0;
  for (U32 seed : {11u, 23u, 57u, 101u}) {
    for (bool hardened : {false, true}) {
      Differential d(seed * (c.bound + 1), c.bound, hardened);
      d.run(U32(randomSteps(int(c.ops))) * rounds());
      compactions += d.compactions();
      ASSERT_FALSE(HasFailure()) << "seed " << seed << " hardened " << hardened;
    }
  }
  // Most compaction runs are compared, not cut short by a predicted stop.
  EXPECT_GT(compactions, U32(randomSteps(8 * 20)));
}

// 8 runs per case: 3 x 8 x 4,000 + 8 x 500 operations, plus the prefill of
// the full tables.
INSTANTIATE_TEST_SUITE_P(Tables, TableIndexDifferentialTest,
                         testing::Values(Case{64, 4000}, Case{256, 4000}, Case{2048, 4000},
                                         Case{0, 500}),
                         [](const testing::TestParamInfo<Case>& info) {
                           return info.param.bound == 0
                                      ? std::string("FullSize")
                                      : "Bound" + std::to_string(info.param.bound);
                         });

}  // namespace
