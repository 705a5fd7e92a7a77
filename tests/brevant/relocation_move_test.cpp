// Moving one ECMP group: validation, the direct and the swap leg, the order
// in which the chip, the records and the owners learn of the move.
#include <vector>

#include "next_hop_table_fixture.h"
#include "support/ChipWriteWatch.h"
#include "support/RecordingOwner.h"

namespace {

using namespace NextHopTest;
using Brevant::RoutingNatFeature;
using Brevant::RoutingUnicastFeature;
using FmSim::Function;
using testing::ElementsAre;
using testing::HasSubstr;
using Told = RecordingOwner::Told;

// A simulated table of bound 208: swap index 200, swap area 200..207.
constexpr U16 simBound = 208;
constexpr U16 simSwap = 200;

class RelocationTest : public NextHopTableTest {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    m().setSimulationMode(true, simBound);
  }

  // Places a narrow group of size next hops at start (above every other
  // narrow group) with words from base; returns its id.
  U16 narrowAt(U16 start, U16 size, U64 base = 0x1000) {
    const S32 first = m().freeEntries().first()->key();
    S32 filler = -1;
    if (start > first) filler = create(U16(start - first), false, 0xF000);
    const S32 id = create(size, false, base);
    EXPECT_GT(id, 0);
    EXPECT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), start);
    if (filler > 0) {
      EXPECT_EQ(m().deleteECMPGroup(0, U16(filler)), 0);
    }
    return U16(id);
  }

  // Registers a recording owner of feature under name.
  Kiln::Ptr<RecordingOwner> owner(const char* name, FeatureType feature = RoutingUnicastFeature) {
    Kiln::Ptr<RecordingOwner> o = new RecordingOwner(name, feature);
    m().featuresIs(o);
    return o;
  }

  // The chip calls made since the last callsDelAll, as (function, first
  // entry, count) triples.
  static std::vector<std::vector<S64>> tableCalls() {
    std::vector<std::vector<S64>> out;
    for (const FmSim::Call& c : FmSim::calls()) {
      out.push_back({S64(c.function), S64((c.address - FmSim::nextHopTableBase) / 2), c.count});
    }
    return out;
  }
  static std::vector<S64> readCall(U16 index, S32 count) {
    return {S64(Function::readUINT64Mult), index, count};
  }
  static std::vector<S64> writeCall(U16 index, S32 count) {
    return {S64(Function::writeUINT64Mult), index, count};
  }
};

TEST_F(RelocationTest, ANarrowMoveWithoutOverlapCopiesRepointsAndFrees) {
  const U16 id = narrowAt(100, 4, 0x500);
  Kiln::Ptr<RecordingOwner> uc = owner("uc");
  FmSim::callsDelAll();
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), 0);
  // One bulk read and one bulk write.
  EXPECT_THAT(tableCalls(), ElementsAre(readCall(100, 4), writeCall(96, 4)));
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
  EXPECT_EQ(g->hwStartIndex(), 96);
  for (U16 p = 0; p < 4; ++p) {
    EXPECT_EQ(FmSim::tableWord(96 + p), 0x500u + p);
    EXPECT_EQ(g->nextHops(p), NextHopEntry(96 + p, false, 0x500 + p, 0));
    EXPECT_TRUE(m().allocatedEntries(96 + p));
    EXPECT_FALSE(m().freeEntries(96 + p));
    EXPECT_FALSE(m().allocatedEntries(100 + p));
    EXPECT_TRUE(m().freeEntries(100 + p));
    // The old entries are freed but never cleared in the chip.
    EXPECT_EQ(FmSim::tableWord(100 + p), 0x500u + p);
  }
  EXPECT_EQ(m().hwStartToGroupId(96), id);
  EXPECT_EQ(m().hwStartToGroupId(100), 0);
  EXPECT_EQ(m().hwStartToGroupId().members(), 1u);
  EXPECT_THAT(uc->told, ElementsAre(Told{id, 96, 4}));
  expectTableMatchesRecords(m());
}

TEST_F(RelocationTest, AnOverlappingMoveGoesThroughTheSwapAreaAndAnnouncesTheFinalBaseTwice) {
  const U16 id = narrowAt(100, 4, 0x500);
  Kiln::Ptr<RecordingOwner> uc = owner("uc");
  FmSim::callsDelAll();
  EXPECT_EQ(m().moveECMPGroup(id, 98, true), 0);
  EXPECT_THAT(tableCalls(), ElementsAre(readCall(100, 4), writeCall(simSwap, 4),
                                        readCall(simSwap, 4), writeCall(98, 4)));
  EXPECT_THAT(uc->told, ElementsAre(Told{id, 98, 4}, Told{id, 98, 4}));
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
  EXPECT_EQ(g->hwStartIndex(), 98);
  for (U16 p = 0; p < 4; ++p) {
    EXPECT_EQ(FmSim::tableWord(98 + p), 0x500u + p);
    EXPECT_EQ(g->nextHops(p).hwIndex(), 98 + p);
    // The swap area is free again and keeps its copy.
    EXPECT_TRUE(m().freeEntries(simSwap + p));
    EXPECT_FALSE(m().allocatedEntries(simSwap + p));
    EXPECT_EQ(FmSim::tableWord(simSwap + p), 0x500u + p);
  }
  EXPECT_EQ(m().hwStartToGroupId(98), id);
  EXPECT_EQ(m().hwStartToGroupId(100), 0);
  EXPECT_EQ(m().hwStartToGroupId(simSwap), 0);
  EXPECT_TRUE(m().freeEntries(102));
  EXPECT_TRUE(m().freeEntries(103));
  EXPECT_FALSE(m().freeEntries(100));
  expectTableMatchesRecords(m());
}

TEST_F(RelocationTest, BetweenTheLegsTheGroupLivesInTheSwapArea) {
  const U16 id = narrowAt(100, 4, 0x500);
  // What the records say when the destination write of the second leg is
  // made (the fourth chip call).
  struct Seen {
    U16 start;
    U16 mappedSwap;
    U16 mappedOld;
    bool swapAllocated;
    bool oldFree;
  };
  std::vector<Seen> seen;
  FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) {
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    seen.push_back({g->hwStartIndex(), m().hwStartToGroupId(simSwap), m().hwStartToGroupId(100),
                    m().allocatedEntries(simSwap + 3), m().freeEntries(103)});
  });
  EXPECT_EQ(m().moveECMPGroup(id, 98, true), 0);
  FmSim::writeObserverIs({});
  ASSERT_EQ(seen.size(), 2u);
  // First write (into the swap area): still at the old place.
  EXPECT_EQ(seen[0].start, 100);
  EXPECT_EQ(seen[0].mappedOld, id);
  EXPECT_FALSE(seen[0].oldFree);
  // Second write (the destination): at the swap area, the old range freed.
  EXPECT_EQ(seen[1].start, simSwap);
  EXPECT_EQ(seen[1].mappedSwap, id);
  EXPECT_EQ(seen[1].mappedOld, 0);
  EXPECT_TRUE(seen[1].swapAllocated);
  EXPECT_TRUE(seen[1].oldFree);
}

TEST_F(RelocationTest, TheDestinationIsWrittenBeforeAnythingPointsAtIt) {
  const U16 id = narrowAt(100, 4, 0x500);
  Kiln::Ptr<RecordingOwner> uc = owner("uc");
  size_t toldAtWrite = 99;
  U16 startAtWrite = 0;
  bool mappedAtWrite = true;
  FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) {
    toldAtWrite = uc->told.size();
    startAtWrite = m().ecmpGroups(id)->hwStartIndex();
    mappedAtWrite = m().hwStartToGroupId(96) != 0;
  });
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), 0);
  FmSim::writeObserverIs({});
  EXPECT_EQ(toldAtWrite, 0u);
  EXPECT_EQ(startAtWrite, 100);
  EXPECT_FALSE(mappedAtWrite);
}

TEST_F(RelocationTest, AWideGroupMovesAllItsWordsAndItsNextHopsStepByTwo) {
  const S32 id = create(3, true, 0x700);
  ASSERT_GT(id, 0);
  ASSERT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), simSwap - 6);
  EXPECT_EQ(m().moveECMPGroup(U16(id), 180, false), 0);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(U16(id));
  for (U16 p = 0; p < 3; ++p) {
    EXPECT_EQ(g->nextHops(p), NextHopEntry(180 + 2 * p, true, 0x700 + p, 0xF00 + p));
    EXPECT_EQ(FmSim::tableWord(180 + 2 * p), 0x700u + p);
    EXPECT_EQ(FmSim::tableWord(181 + 2 * p), 0xF00u + p);
  }
  for (U16 i = 180; i < 186; ++i) EXPECT_TRUE(m().allocatedEntries(i));
  for (U16 i = simSwap - 6; i < simSwap; ++i) EXPECT_TRUE(m().freeEntries(i));
  expectTableMatchesRecords(m());
}

TEST_F(RelocationTest, AWideOverlappingMoveUsesTwiceItsSizeOfTheSwapArea) {
  const S32 id = create(2, true, 0x700);  // 196..199
  ASSERT_GT(id, 0);
  FmSim::callsDelAll();
  EXPECT_EQ(m().moveECMPGroup(U16(id), 194, true), 0);
  EXPECT_THAT(tableCalls(), ElementsAre(readCall(196, 4), writeCall(simSwap, 4),
                                        readCall(simSwap, 4), writeCall(194, 4)));
  EXPECT_EQ(m().ecmpGroups(U16(id))->nextHops(1).hwIndex(), 196);
  expectTableMatchesRecords(m());
}

TEST_F(RelocationTest, TheTraceOnEntryJoinsItsArgumentsWithoutSeparators) {
  const U16 id = narrowAt(100, 4);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(8));
  m().moveECMPGroup(id, 98, true);
  m().moveECMPGroup(id, 94, false);
  const std::vector<std::string> lines = capture.texts(8);
  EXPECT_EQ(lines.front(),
            "moveECMPGroupgroupId: " + std::to_string(id) + " to index 98 overlap : 1");
  EXPECT_TRUE(capture.contains(
      8, "moveECMPGroupgroupId: " + std::to_string(id) + " to index 94 overlap : 0"));
}

TEST_F(RelocationTest, IndexesOneAndTwoAreRefusedButZeroIsNot) {
  const U16 id = narrowAt(100, 1);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  FmSim::callsDelAll();
  EXPECT_EQ(m().moveECMPGroup(id, 1, false), -1);
  EXPECT_EQ(m().moveECMPGroup(id, 2, true), -1);
  EXPECT_THAT(capture.texts(1),
              ElementsAre("baseIndex:1is out of range", "baseIndex:2is out of range"));
  EXPECT_TRUE(FmSim::calls().empty());
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 100);
  EXPECT_EQ(m().moveECMPGroup(id, 0, false), 0);
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 0);
  EXPECT_EQ(m().hwStartToGroupId(0), id);
  EXPECT_TRUE(m().allocatedEntries(0));
}

TEST_F(RelocationTest, TheBlockMayEndJustBelowTheSwapIndexButNotReachIt) {
  const U16 id = narrowAt(100, 4);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(m().moveECMPGroup(id, 197, false), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("baseIndex:197is out of range"));
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 100);
  EXPECT_EQ(m().moveECMPGroup(id, 196, false), 0);
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 196);
  expectTableMatchesRecords(m());
}

TEST_F(RelocationTest, TheRangeTestAddsInThirtyTwoBitsSoADestinationNearTheTopIsRefused) {
  // 65534 + 4 would wrap to 2 in 16 bits and pass.
  const U16 id = narrowAt(100, 4);
  EXPECT_EQ(m().moveECMPGroup(id, 65534, false), -1);
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 100);
}

TEST_F(RelocationTest, GroupZeroIsRefused) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(m().moveECMPGroup(0, 50, false), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Invalid GroupId 0"));
  EXPECT_EQ(m().ecmpGroups(0)->hwStartIndex(), 1);
}

TEST_F(RelocationTest, AGroupThatDoesNotExistIsRefused) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(m().moveECMPGroup(77, 50, false), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Invalid Group Id"));
  EXPECT_FALSE(m().ecmpGroups(77));
}

TEST_F(RelocationTest, AnUninitialisedTableRefusesBeforeAnythingElse) {
  const U16 id = narrowAt(100, 4);
  m().initializedIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(m().moveECMPGroup(0, 1, false), -7);
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), -7);
  EXPECT_THAT(capture.texts(1),
              ElementsAre("NexthopTable is not initialized", "NexthopTable is not initialized"));
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 100);
  m().initializedIs(true);
}

TEST_F(RelocationTest, GroupZeroIsRefusedBeforeTheDestinationIsLookedAt) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::levelBit(1));
  EXPECT_EQ(m().moveECMPGroup(0, 1, false), -1);
  EXPECT_THAT(capture.texts(1), ElementsAre("Invalid GroupId 0"));
}

TEST_F(RelocationTest, WithoutACallbackForItsFeatureTheMoveTellsNobodyAndSucceeds) {
  const U16 id = narrowAt(100, 4);
  Kiln::Ptr<RecordingOwner> nat = owner("nat", RoutingNatFeature);
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), 0);
  EXPECT_TRUE(nat->told.empty());
  EXPECT_EQ(m().ecmpGroups(id)->hwStartIndex(), 96);
}

TEST_F(RelocationTest, EveryCallbackOfEverySupportedFeatureIsToldOncePerLeg) {
  const U16 id = narrowAt(100, 4);
  ASSERT_EQ(m().addFeatureToGroup(id, RoutingNatFeature), 0);
  Kiln::Ptr<RecordingOwner> uc1 = owner("uc1");
  Kiln::Ptr<RecordingOwner> uc2 = owner("uc2");
  Kiln::Ptr<RecordingOwner> nat = owner("nat", RoutingNatFeature);
  Kiln::Ptr<RecordingOwner> mc = owner("mc", Brevant::RoutingMulticastFeature);
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), 0);
  EXPECT_THAT(uc1->told, ElementsAre(Told{id, 96, 4}));
  EXPECT_THAT(uc2->told, ElementsAre(Told{id, 96, 4}));
  EXPECT_THAT(nat->told, ElementsAre(Told{id, 96, 4}));
  EXPECT_TRUE(mc->told.empty());
}

TEST_F(RelocationTest, ACallbackReplacedUnderItsNameIsNoLongerTold) {
  const U16 id = narrowAt(100, 4);
  Kiln::Ptr<RecordingOwner> first = owner("uc");
  Kiln::Ptr<RecordingOwner> second = owner("uc");
  EXPECT_EQ(m().moveECMPGroup(id, 96, false), 0);
  EXPECT_TRUE(first->told.empty());
  EXPECT_THAT(second->told, ElementsAre(Told{id, 96, 4}));
}

TEST_F(RelocationTest, AWideGroupIsAnnouncedWithItsNextHopCountNotItsEntries) {
  // Swap index 216, so that the group first lies at 208..215.
  m().setSimulationMode(false, simBound);
  m().setSimulationMode(true, 224);
  const S32 id = create(4, true);
  ASSERT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), 208);
  Kiln::Ptr<RecordingOwner> uc = owner("uc");
  EXPECT_EQ(m().moveECMPGroup(U16(id), 200, false), 0);
  EXPECT_THAT(uc->told, ElementsAre(Told{U16(id), 200, 4}));
}

TEST_F(RelocationTest, BothKindsOfMoveAreHitless) {
  ChipWriteWatch watch(m());
  const U16 narrow = narrowAt(100, 4);
  const S32 wide = create(3, true, 0x700);
  EXPECT_EQ(m().moveECMPGroup(narrow, 98, true), 0);
  EXPECT_EQ(m().moveECMPGroup(narrow, 90, false), 0);
  EXPECT_EQ(m().moveECMPGroup(U16(wide), 192, true), 0);
  EXPECT_EQ(m().moveECMPGroup(U16(wide), 180, false), 0);
  EXPECT_GE(watch.checker().checks(), 8u);
  EXPECT_TRUE(watch.checker().hitless()) << watch.checker().report();
  watch.checker().checkSettled();
  EXPECT_TRUE(watch.checker().hitless()) << watch.checker().report();
}

// Death tests build everything inside the statement (see the fixture).
using RelocationDeathTest = NextHopTableDeathTest;

TEST_F(RelocationDeathTest, ASwapAreaTooSmallForTheGroupIsAProgramFault) {
  EXPECT_DEATH(
      {
        Kiln::ActivityLockGuard activity;
        Kiln::Ptr<NextHopManager> m = new NextHopManager();
        m->setSimulationMode(true, 64);  // swap area 56..63: 8 entries
        const S32 id = m->createECMPGroup(0, false, true, 9, wordRun(9, 1), U64Collection(),
                                          Brevant::RoutingUnicastFeature, false);
        m->moveECMPGroup(U16(id), 4, true);
      },
      HasSubstr("Assertion `( swapIndex + numEntries ) <= getNextHopTableBound()' failed."));
}

// A group grown by name past the largest size a create accepts moves
// through words taken from the heap: 600 entries, more than a block's words
// on the stack hold (a full-size table, no swap area in the way).
TEST_F(NextHopTableTest, AGroupGrownPastTheLargestSizeMovesWhole) {
  ASSERT_EQ(create(2, false, 0x500), 3);
  Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(3);
  g->sizeIs(600);                 // positions 2 .. 599 are missing: all-zero entries
  FmSim::tableWordIs(602, 0x77);  // the old block's last word, copied as it is
  EXPECT_EQ(m().moveECMPGroup(3, 2000, false), 0);
  EXPECT_EQ(g->hwStartIndex(), 2000);
  EXPECT_EQ(FmSim::tableWord(2000), 0x500u);
  EXPECT_EQ(FmSim::tableWord(2001), 0x501u);
  EXPECT_EQ(FmSim::tableWord(2599), 0x77u);
  EXPECT_EQ(g->nextHops(599).hwIndex(), 2599);
  EXPECT_TRUE(m().allocatedEntries(2599));
  EXPECT_TRUE(m().freeEntries(602));
}

}  // namespace
