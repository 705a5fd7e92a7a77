// The free-entry summary: its exact bytes, read back through a pipe.
#include <fcntl.h>
#include <unistd.h>

#include "Kiln/TypeRecord.h"
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;

class FreeEntrySummary : public NextHopTableTest {
 protected:
  // What showFreeEntrySummary writes, read back from the other end of a
  // pipe.
  std::string summary() {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    // The pipe holds the whole text of these small tables; make it large
    // enough for a few hundred lines anyway.
    fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
    m().showFreeEntrySummary(static_cast<U32>(fds[1]));
    close(fds[1]);
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof(chunk))) > 0) text.append(chunk, static_cast<size_t>(n));
    close(fds[0]);
    return text;
  }

  static std::string header(const char* scheduled, int counter, int used, int total) {
    return std::string("NextHopTable Defragmentation Scheduled : ") + scheduled + "\n" +
           "Defrag Counter : " + std::to_string(counter) + "\n" +
           "Next Hops Used/Next Hops Total: " + std::to_string(used) + "/" + std::to_string(total) +
           "\n" + "Free Next Hops:\n";
  }

  // Leaves exactly the given indexes free, allocating every other entry
  // from 3 to the table's last.
  void leaveFree(std::initializer_list<U16> free) {
    U32 from = 3;
    const U32 bound = m().getNextHopTableBound();
    auto allocateUpTo = [&](U32 end) {
      if (end > from) {
        EXPECT_EQ(m().allocateBlock(U16(from), U16(end - from)), 0);
      }
    };
    for (U16 index : free) {
      allocateUpTo(index);
      from = index + 1u;
    }
    allocateUpTo(bound);
  }
};

TEST_F(FreeEntrySummary, AFreshTableIsFiveLines) {
  EXPECT_EQ(summary(),
            "NextHopTable Defragmentation Scheduled : no\n"
            "Defrag Counter : 0\n"
            "Next Hops Used/Next Hops Total: 3/65534\n"
            "Free Next Hops:\n"
            "3-65533:       65531\n");
}

TEST_F(FreeEntrySummary, ASingleFreeEntryIsLabelledAlone) {
  leaveFree({70});
  EXPECT_FALSE(m().freeEntries(69));
  EXPECT_FALSE(m().freeEntries(71));
  EXPECT_EQ(summary(), header("no", 0, 65533, 65534) + "70:            1    \n");
}

TEST_F(FreeEntrySummary, RunsAreCutWhereIndexesAreNotConsecutive) {
  leaveFree({10, 11, 12, 20});
  EXPECT_EQ(summary(), header("no", 0, 65530, 65534) +
                           "10-12:         3    \n"
                           "20:            1    \n");
}

TEST_F(FreeEntrySummary, NoFreeEntryPrintsNone) {
  leaveFree({});
  EXPECT_EQ(m().freeEntries().members(), 0u);
  EXPECT_EQ(summary(),
            "NextHopTable Defragmentation Scheduled : no\n"
            "Defrag Counter : 0\n"
            "Next Hops Used/Next Hops Total: 65534/65534\n"
            "Free Next Hops:\n"
            "None\n");
}

TEST_F(FreeEntrySummary, SimulationModeShowsTheSimulatedBound) {
  m().setSimulationMode(true, 64);
  EXPECT_EQ(summary(), header("no", 0, 3, 64) + "3-63:          61   \n");
}

TEST_F(FreeEntrySummary, TheSwapAreaAndGroupsShape) {
  m().setSimulationMode(true, 64);
  const S32 narrow = create(4);
  const S32 wide = create(2, true);
  ASSERT_EQ(narrow, 3);
  ASSERT_EQ(wide, 4);
  // Narrow 3..6 from the bottom, wide 52..55 just below the swap area
  // 56..63, which stays free and joins the gap's run.
  EXPECT_EQ(summary(), header("no", 0, 11, 64) +
                           "7-51:          45   \n"
                           "56-63:         8    \n");
}

TEST_F(FreeEntrySummary, ShowsTheDefragmentersStateAndCounter) {
  defrag().scheduleDefragmentIs(true);
  defrag().defragCountIs(12);
  EXPECT_EQ(summary(), header("yes", 12, 3, 65534) + "3-65533:       65531\n");
}

TEST_F(FreeEntrySummary, CountsFreeMembersWhateverTheirValue) {
  m().setSimulationMode(true, 16);
  leaveFree({});
  // A member whose value is false is still a member: only indexes count.
  m().freeEntriesIs(9, false);
  EXPECT_EQ(summary(), header("no", 0, 15, 16) + "9:             1    \n");
}

TEST_F(FreeEntrySummary, TracesItsEntry) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  summary();
  EXPECT_TRUE(capture.contains(8, "showFreeEntrySummary"));
  EXPECT_TRUE(capture.texts(1).empty());
}

TEST_F(FreeEntrySummary, AnUninitialisedTableWritesNothing) {
  m().initializedIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(summary(), "");
  EXPECT_TRUE(capture.contains(8, "showFreeEntrySummary"));
  EXPECT_THAT(capture.texts(1), testing::ElementsAre("Next-hop table is not initialized"));
}

TEST_F(FreeEntrySummary, ABadDescriptorIsIgnored) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  close(fds[1]);
  m().showFreeEntrySummary(static_cast<U32>(fds[1]));
  EXPECT_EQ(m().freeEntries().members(), 65531u);
}

TEST_F(FreeEntrySummary, IsReachableByNameWithItsParameterSocket) {
  const Kiln::OperationRecord* op = m().fwkType().operation("showFreeEntrySummary");
  ASSERT_NE(op, nullptr);
  EXPECT_THAT(op->parameterNames, testing::ElementsAre("socket"));
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(m().fwkType().invoke(m(), "showFreeEntrySummary", {std::to_string(fds[1])}), "");
  close(fds[1]);
  char text[256] = {};
  const ssize_t n = read(fds[0], text, sizeof(text) - 1);
  close(fds[0]);
  EXPECT_EQ(std::string(text, n > 0 ? static_cast<size_t>(n) : 0),
            header("no", 0, 3, 65534) + "3-65533:       65531\n");
}

}  // namespace

namespace {

// A descriptor that is not open gets nothing written and a trace line; the
// table is untouched.
TEST_F(FreeEntrySummary, ADescriptorThatIsNotOpenIsRefusedBeforeAnyWrite) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  close(fds[1]);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  m().showFreeEntrySummary(static_cast<U32>(fds[1]));
  m().showFreeEntrySummary(0xFFFFFFFFu);
  EXPECT_THAT(capture.texts(1),
              testing::ElementsAre(
                  "showFreeEntrySummary: descriptor " + std::to_string(fds[1]) + " is not open",
                  "showFreeEntrySummary: descriptor 4294967295 is not open"));
  EXPECT_EQ(m().freeEntries().members(), 65531u);
}

}  // namespace
