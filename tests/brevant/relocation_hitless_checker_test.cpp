// The hitless checker itself: it must see real violations, so that its
// silence over moves and defragmentation runs means something.
#include <memory>
#include <vector>

#include "Brevant/HitlessChecker.h"
#include "Brevant/NextHopAccess.h"
#include "next_hop_table_fixture.h"
#include "support/ChipWriteWatch.h"

namespace {

using namespace NextHopTest;
using Brevant::HitlessChecker;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> textsOf(const HitlessChecker& checker) {
  std::vector<std::string> texts;
  for (const HitlessChecker::Violation& v : checker.violations()) texts.push_back(v.text);
  return texts;
}

class HitlessCheckerTest : public NextHopTableTest {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    m().setSimulationMode(true, 64);
    checker_ = std::make_unique<HitlessChecker>(m(), [](U16 i) { return FmSim::tableWord(i); });
  }
  void TearDown() override {
    checker_.reset();
    NextHopTableTest::TearDown();
  }

  HitlessChecker& checker() { return *checker_; }

  // Moves group id to `to` the wrong way round: copied and repointed in the
  // records, but the owners are not told; the old block is freed when
  // `release`.
  void moveBehindTheOwnersBack(U16 id, U16 to, bool release) {
    Kiln::Ptr<ECMPGroup> g = m().ecmpGroups(id);
    const U16 from = g->hwStartIndex();
    std::vector<U64> words(g->size());
    Brevant::readNextHopInternal(from, g->size(), words.data());
    m().allocateBlock(to, g->size());
    Brevant::writeNextHopInternal(to, g->size(), words.data());
    for (U16 p = 0; p < g->size(); ++p) {
      NextHopEntry e = g->nextHops(p);
      e.hwIndexIs(to + p);
      g->nextHopsIs(p, e);
    }
    g->hwStartIndexIs(to);
    m().hwStartToGroupIdIs(to, id);
    m().hwStartToGroupIdDel(from);
    if (release) m().freeBlock(from, g->size());
  }

 private:
  std::unique_ptr<HitlessChecker> checker_;
};

TEST_F(HitlessCheckerTest, FindsNothingWrongWithAFreshTableOfGroups) {
  create(4, false, 0x100);
  create(2, true, 0x200);
  EXPECT_EQ(checker().check(), 0u);
  EXPECT_EQ(checker().checkSettled(), 0u);
  EXPECT_TRUE(checker().hitless());
  EXPECT_EQ(checker().checks(), 2u);
  EXPECT_EQ(checker().report(), "0 violations in 2 checks\n");
}

TEST_F(HitlessCheckerTest, RegistersOneOwnerPerFeatureAndRemovesThemWhenDestroyed) {
  std::vector<std::string> names;
  for (const auto& f : m().features()) names.push_back(f.key());
  EXPECT_THAT(names, testing::UnorderedElementsAre("HitlessChecker.RoutingUnicastFeature",
                                                   "HitlessChecker.RoutingMulticastFeature",
                                                   "HitlessChecker.RoutingNatFeature",
                                                   "HitlessChecker.RoutingVxlanFeature",
                                                   "HitlessChecker.RoutingVxlanTunnelFeature"));
  {
    HitlessChecker second(m(), [](U16) { return U64(0); });
    EXPECT_EQ(m().features().members(), 5u);
  }
  // The second checker took the names over and removed them.
  EXPECT_EQ(m().features().members(), 0u);
}

TEST_F(HitlessCheckerTest, SeesAWordThatDiffersFromTheGroupsNextHop) {
  const S32 id = create(4, false, 0x100);  // 3..6
  FmSim::tableWordIs(5, 0xBAD);
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_FALSE(checker().hitless());
  EXPECT_THAT(textsOf(checker()),
              ElementsAre("group " + std::to_string(id) +
                          ": entry 5 of its block at 3 (record) holds 0xbad, not 0x102"));
  EXPECT_EQ(checker().violations().at(0).groupId, id);
  EXPECT_EQ(checker().violations().at(0).check, 1u);
}

TEST_F(HitlessCheckerTest, SeesAWideWordThatDiffers) {
  const S32 id = create(2, true, 0x100);  // 52..55 below the swap index 56
  FmSim::tableWordIs(55, 0);
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_THAT(textsOf(checker()),
              ElementsAre("group " + std::to_string(id) +
                          ": entry 55 of its block at 52 (record) holds 0x0, not 0x901"));
}

TEST_F(HitlessCheckerTest, SeesABlockThatIsNoLongerAllocated) {
  const S32 id = create(2, false, 0x100);  // 3..4
  m().freeBlock(4, 1);
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_THAT(textsOf(checker()),
              ElementsAre("group " + std::to_string(id) +
                          ": entry 4 of its block at 3 (record) is not allocated"));
}

TEST_F(HitlessCheckerTest, SeesAStartTheTableDoesNotMapToTheGroup) {
  const S32 id = create(2, false, 0x100);
  m().hwStartToGroupIdDel(3);
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_THAT(textsOf(checker()), ElementsAre("group " + std::to_string(id) +
                                              ": the table maps its start 3 to group 0"));
}

TEST_F(HitlessCheckerTest, SeesTwoGroupsUsingOneEntry) {
  const S32 a = create(2, false, 0x100);  // 3..4
  const S32 b = create(2, false, 0x101);  // 5..6
  // b's record claims 4..5, whose words are b's: only the sharing is wrong.
  FmSim::tableWordIs(5, 0x102);
  m().ecmpGroups(U16(b))->hwStartIndexIs(4);
  m().hwStartToGroupIdIs(4, U16(b));
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_THAT(textsOf(checker()),
              ElementsAre("group " + std::to_string(b) +
                          ": entry 4 of its block at 4 (record) is also used by group " +
                          std::to_string(a)));
}

TEST_F(HitlessCheckerTest, CatchesAnOverlappingMoveMadeWithoutTheSwapArea) {
  // Copying 10..13 straight onto 8..11 overwrites live entries while the
  // records still point at them.
  ChipWriteWatch watch(m());
  create(7, false, 0x100);                 // 3..9
  const S32 id = create(4, false, 0x500);  // 10..13
  ASSERT_EQ(m().ecmpGroups(U16(id))->hwStartIndex(), 10);
  m().deleteECMPGroup(0, 3);
  ASSERT_EQ(m().moveECMPGroup(U16(id), 8, false), 0);
  EXPECT_FALSE(watch.checker().hitless());
  EXPECT_THAT(textsOf(watch.checker()),
              Contains("group " + std::to_string(id) +
                       ": entry 10 of its block at 10 (record) holds 0x502, not 0x500"));
}

TEST_F(HitlessCheckerTest, CatchesAFreedBlockReusedBeforeTheOwnersWereTold) {
  ChipWriteWatch watch(m());
  const S32 g = create(4, false, 0x100);  // 3..6
  create(4, false, 0x200);                // 7..10
  watch.checker().check();                // the owners learn where g lies
  moveBehindTheOwnersBack(U16(g), 11, true);
  const S32 h = create(4, false, 0x300);  // first fit: 3..6, g's old block
  ASSERT_EQ(m().ecmpGroups(U16(h))->hwStartIndex(), 3);
  EXPECT_FALSE(watch.checker().hitless());
  const std::vector<std::string> texts = textsOf(watch.checker());
  const std::string gs = "group " + std::to_string(g);
  EXPECT_THAT(texts, Contains(gs + ": entry 3 of its block at 3 (owners) holds 0x300, not 0x100"));
  EXPECT_THAT(texts, Contains("group " + std::to_string(h) +
                              ": entry 3 of its block at 3 (record) is also used by group " +
                              std::to_string(g)));
  EXPECT_EQ(watch.checker().ownerBase(U16(g)), 3);
}

TEST_F(HitlessCheckerTest, CatchesABlockFreedUnderItsOwnersEvenBeforeItIsReused) {
  const S32 g = create(4, false, 0x100);
  checker().check();
  moveBehindTheOwnersBack(U16(g), 11, true);
  EXPECT_EQ(checker().check(), 4u);
  EXPECT_THAT(textsOf(checker()),
              Contains("group " + std::to_string(g) +
                       ": entry 3 of its block at 3 (owners) is not allocated"));
}

TEST_F(HitlessCheckerTest, BetweenMovesTheOwnersMustHoldTheRecordsBase) {
  const S32 g = create(4, false, 0x100);
  checker().check();
  // Both copies programmed and allocated: no moment is unsafe yet, but the
  // move never reached the owners.
  moveBehindTheOwnersBack(U16(g), 11, false);
  EXPECT_EQ(checker().check(), 0u);
  EXPECT_EQ(checker().checkSettled(), 1u);
  EXPECT_THAT(textsOf(checker()),
              ElementsAre("group " + std::to_string(g) + ": owners hold base 3, the record 11"));
}

TEST_F(HitlessCheckerTest, FollowsTheBasesTheOwnersAreTold) {
  const S32 g = create(4, false, 0x100);  // 3..6
  create(4, false, 0x200);                // 7..10
  EXPECT_EQ(checker().ownerBase(U16(g)), -1);
  checker().check();
  EXPECT_EQ(checker().ownerBase(U16(g)), 3);
  ASSERT_EQ(m().moveECMPGroup(U16(g), 11, false), 0);
  EXPECT_EQ(checker().ownerBase(U16(g)), 11);
  EXPECT_EQ(checker().checkSettled(), 0u);
}

TEST_F(HitlessCheckerTest, ANewGroupUnderARecycledIdIsNotTakenForTheOldOne) {
  const S32 g = create(4, false, 0x100);  // 3..6
  create(4, false, 0x200);                // 7..10
  ASSERT_EQ(m().moveECMPGroup(U16(g), 11, false), 0);
  checker().check();
  ASSERT_EQ(m().deleteECMPGroup(0, U16(g)), 0);
  EXPECT_EQ(checker().ownerBase(U16(g)), -1);
  const S32 again = create(2, false, 0x400);
  ASSERT_EQ(again, g);
  ASSERT_EQ(m().ecmpGroups(U16(g))->hwStartIndex(), 3);
  EXPECT_EQ(checker().checkSettled(), 0u);
  EXPECT_EQ(checker().ownerBase(U16(g)), 3);
}

TEST_F(HitlessCheckerTest, KeepsTheFirstViolationsAndCountsThemAll) {
  create(50, false, 0x100);  // 3..52
  for (U16 i = 3; i < 53; ++i) FmSim::tableWordIs(i, 0);
  EXPECT_EQ(checker().check(), 50u);
  EXPECT_EQ(checker().check(), 50u);
  EXPECT_EQ(checker().violationCount(), 100u);
  EXPECT_EQ(checker().violations().size(), HitlessChecker::violationsKept);
  const std::string report = checker().report();
  EXPECT_THAT(report,
              testing::StartsWith("100 violations in 2 checks\ncheck 1: group 3: entry 3 of"));
  checker().violationsDelAll();
  EXPECT_TRUE(checker().hitless());
  EXPECT_THAT(checker().violations(), IsEmpty());
  EXPECT_EQ(checker().checks(), 2u);
}

TEST_F(HitlessCheckerTest, LeavesTheReservedEntriesAndUnplacedGroupsAlone) {
  // Their records hold no words to compare with.
  m().getECMPGroup(999);  // creates the placeholder 65535
  EXPECT_EQ(checker().check(), 0u);
}

}  // namespace

namespace {

// The two modes together, as a program runs them: the incremental mode fed
// by the simulator's write observer, groups handed over as their owners
// create them, the whole-table mode asked now and then.
class HitlessCheckerBothModesTest : public HitlessCheckerTest {
 protected:
  void SetUp() override {
    HitlessCheckerTest::SetUp();
    FmSim::writeObserverIs([this](const FmSim::Call& call, const U64* data) {
      checker().written((call.address - FmSim::nextHopTableBase) / 2, U32(call.count), data);
    });
  }
  void TearDown() override {
    FmSim::writeObserverIs({});
    HitlessCheckerTest::TearDown();
  }

  // Creates a narrow group and hands it to the incremental mode as its
  // owner holds it.
  U16 owned(U16 size, U64 base) {
    const S32 id = create(size, false, base);
    EXPECT_GE(id, 3);
    HitlessChecker::OwnedGroup g;
    g.base = m().ecmpGroups(U16(id))->hwStartIndex();
    for (U16 p = 0; p < size; ++p) g.data.push_back(base + p);
    checker().ownedGroupIs(U16(id), g);
    return U16(id);
  }

  U64 incremental() { return checker().violationCount(HitlessChecker::Mode::incremental); }
};

}  // namespace

TEST_F(HitlessCheckerBothModesTest, ARealMoveIsHitlessInBothModes) {
  const U16 a = owned(3, 0x100);  // 3..5
  const U16 b = owned(2, 0x200);  // 6..7
  ASSERT_EQ(m().deleteECMPGroup(0, a), 0);
  checker().ownedGroupDel(a);
  // b moves from 6 to 3 (no overlap): the owners hear the new base from
  // the manager, after the new block is written.
  ASSERT_EQ(m().moveECMPGroup(b, 3, false), 0);
  checker().settle();
  EXPECT_EQ(checker().ownedGroup(b)->base, 3);
  EXPECT_EQ(incremental(), 0u) << checker().report();
  EXPECT_GT(checker().writesChecked(), 0u);
  EXPECT_EQ(checker().checkSettled(), 0u);
  EXPECT_TRUE(checker().hitless());
}

TEST_F(HitlessCheckerBothModesTest, TheIncrementalModeSeesAWriteOverAnOwnedGroupAtOnce) {
  const U16 a = owned(4, 0x100);  // 3..6
  // Someone writes into the group's block behind its owners' back.
  U64 word = 0xBAD;
  Brevant::writeNextHopInternal(4, 1, &word);
  EXPECT_EQ(incremental(), 1u);
  EXPECT_THAT(checker().violations().at(0).text,
              HasSubstr("write of 0xbad at 4 inside group " + std::to_string(a) +
                        " at 3, whose owners expect 0x101"));
  // The whole-table mode sees it too, when asked.
  EXPECT_EQ(checker().check(), 1u);
  EXPECT_EQ(checker().violationCount(HitlessChecker::Mode::wholeTable), 1u);
}

TEST_F(HitlessCheckerBothModesTest, OnlyTheWholeTableModeSeesAMoveTheOwnersWereNotToldOf) {
  const U16 a = owned(2, 0x100);     // 3..4
  EXPECT_EQ(checker().check(), 0u);  // the whole-table owners learn base 3
  moveBehindTheOwnersBack(a, 10, true);
  // The owners' block at 3 still holds their words: no write touched it.
  EXPECT_EQ(incremental(), 0u);
  EXPECT_GE(checker().checkSettled(), 1u);
}
