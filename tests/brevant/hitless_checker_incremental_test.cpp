// The hitless checker's incremental mode: the owners' side of every chip
// write, fed write by write as the simulator's write observer would.
#include <memory>
#include <vector>

#include "Brevant/HitlessChecker.h"
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::HitlessChecker;
using ::testing::HasSubstr;

// A chip of plain words, and a checker that reads it; the manager is only
// there to host the checker's owner callbacks.
class HitlessCheckTest : public NextHopTableTest {
 protected:
  void SetUp() override {
    NextHopTableTest::SetUp();
    chip_.assign(65536, 0);
    checker_ = std::make_unique<HitlessChecker>(m(), [this](U16 i) { return chip_[i]; });
  }
  void TearDown() override {
    checker_.reset();
    NextHopTableTest::TearDown();
  }

  HitlessChecker& check() { return *checker_; }

  // Writes words from index first into the chip, then tells the checker.
  void write(U32 first, std::vector<U64> words) {
    for (size_t k = 0; k < words.size(); ++k) chip_[first + k] = words[k];
    check().written(first, static_cast<U32>(words.size()), words.data());
  }

  static HitlessChecker::OwnedGroup narrow(U16 base, std::vector<U64> data) {
    HitlessChecker::OwnedGroup g;
    g.label = "n";
    g.base = base;
    g.data = std::move(data);
    return g;
  }

  // A group created as the manager does: written, then handed to its owner.
  void created(U16 id, HitlessChecker::OwnedGroup g) {
    std::vector<U64> words;
    for (U32 i = g.base; i < g.base + g.entries(); ++i) words.push_back(g.word(i));
    write(g.base, words);
    check().ownedGroupIs(id, std::move(g));
  }

  U64 violations() const { return checker_->violationCount(HitlessChecker::Mode::incremental); }
  std::string problem(size_t i) const { return checker_->violations().at(i).text; }

  std::vector<U64> chip_;
  std::unique_ptr<HitlessChecker> checker_;
};

}  // namespace

TEST_F(HitlessCheckTest, WritesOutsideOwnedEntriesAreFine) {
  created(3, narrow(100, {0xa, 0xb, 0xc}));
  write(96, {1, 2, 3, 4});
  write(103, {5});
  EXPECT_EQ(violations(), 0u);
  EXPECT_EQ(check().writesChecked(), 3u);
}

TEST_F(HitlessCheckTest, AWriteThatChangesAnOwnedEntryIsAViolation) {
  created(3, narrow(100, {0xa, 0xb, 0xc}));
  write(101, {0xb});  // the same word: harmless
  EXPECT_EQ(violations(), 0u);
  write(100, {0xa, 0xdead});
  EXPECT_EQ(violations(), 1u);
  EXPECT_THAT(
      problem(0),
      HasSubstr("write of 0xdead at 101 inside group 3 (n) at 100, whose owners expect 0xb"));
}

TEST_F(HitlessCheckTest, AnOwnersRewriteIsExpected) {
  created(3, narrow(100, {0xa, 0xb}));
  check().ownedWordsIs(3, 1, 0xbb, 0);
  write(101, {0xbb});
  EXPECT_EQ(violations(), 0u);
  EXPECT_EQ(check().ownedGroup(3)->data[1], 0xbbu);
}

TEST_F(HitlessCheckTest, WideGroupsExpectTheirWideWords) {
  HitlessChecker::OwnedGroup g;
  g.base = 200;
  g.wide = true;
  g.data = {0x1, 0x2};
  g.wideData = {0x11, 0x22};
  created(4, g);
  EXPECT_EQ(check().ownedGroup(4)->word(203), 0x22u);
  write(202, {0x2, 0x99});
  EXPECT_EQ(violations(), 1u);
}

TEST_F(HitlessCheckTest, CopyFirstThenRepointIsHitless) {
  created(3, narrow(100, {0xa, 0xb, 0xc, 0xd}));
  write(96, {0xa, 0xb, 0xc, 0xd});  // new place written first
  check().ownedMovedTo(3, 96);      // owners told
  write(100, {7, 7, 7, 7});         // the old place is free now
  EXPECT_EQ(violations(), 0u);
}

TEST_F(HitlessCheckTest, RepointingBeforeWritingIsCaughtAtTheNextWrite) {
  created(3, narrow(100, {0xa, 0xb, 0xc, 0xd}));
  check().ownedMovedTo(3, 96);  // nothing at 96 yet
  write(500, {1});              // any later write
  EXPECT_EQ(violations(), 1u);
  EXPECT_THAT(
      problem(0),
      HasSubstr(
          "group 3 (n) at 96: entry 96 holds 0x0, not 0xa, when its owners were told it moved"));
}

TEST_F(HitlessCheckTest, RepointingIsCheckedWhenTheHandlerEnds) {
  created(3, narrow(100, {0xa}));
  check().ownedMovedTo(3, 90);
  check().settle();
  EXPECT_EQ(violations(), 1u);
}

TEST_F(HitlessCheckTest, OwnersToldTheFinalBaseBeforeTheLastLegIsFine) {
  // A move through the swap area: the group is copied to the swap area,
  // the owners hear the final base, and the final place is written next.
  created(3, narrow(100, {0xa, 0xb, 0xc, 0xd}));
  write(56, {0xa, 0xb, 0xc, 0xd});
  check().ownedMovedTo(3, 98);
  write(98, {0xa, 0xb, 0xc, 0xd});
  check().ownedMovedTo(3, 98);
  check().settle();
  EXPECT_EQ(violations(), 0u);
}

TEST_F(HitlessCheckTest, FreedEntriesMayBeRewritten) {
  created(3, narrow(100, {0xa}));
  check().ownedGroupDel(3);
  write(100, {0x55});
  EXPECT_EQ(violations(), 0u);
  EXPECT_EQ(check().ownedGroup(3), nullptr);
}

TEST_F(HitlessCheckTest, AGroupPlacedOverAnotherIsAViolation) {
  created(3, narrow(100, {0xa, 0xb}));
  chip_[101] = 0xc;  // as if the manager had written the new group there
  check().ownedGroupIs(4, narrow(101, {0xc}));
  EXPECT_GE(violations(), 1u);
  EXPECT_THAT(problem(0), HasSubstr("group 4 placed at 101 over entry 101 of group 3"));
}

TEST_F(HitlessCheckTest, ACreatedGroupMustBeInTheChip) {
  check().ownedGroupIs(5, narrow(10, {0xf}));
  EXPECT_EQ(violations(), 1u);
  EXPECT_THAT(problem(0), HasSubstr("after its create"));
  check().checkOwnedGroups("at the end");
  EXPECT_EQ(violations(), 2u);
}

TEST_F(HitlessCheckTest, AMoveOfAnUnknownGroupIsAViolation) {
  check().ownedMovedTo(9, 40);
  EXPECT_EQ(violations(), 1u);
}

TEST_F(HitlessCheckTest, KeepsTheFirstViolationsAndCountsAll) {
  created(3, narrow(100, {0xa}));
  for (int i = 0; i < 70; ++i) write(100, {U64(i + 100)});
  EXPECT_EQ(violations(), 70u);
  EXPECT_EQ(check().violations().size(), HitlessChecker::violationsKept);
  EXPECT_EQ(check().violations().front().mode, HitlessChecker::Mode::incremental);
  // The whole-table mode's count is apart.
  EXPECT_EQ(check().violationCount(HitlessChecker::Mode::wholeTable), 0u);
  EXPECT_EQ(check().violationCount(), 70u);
}
