// Timed defragmentation: the timer's handler, and the passes that slide
// narrow groups down towards the low end and wide groups up towards the swap
// index, each pass within its own time budget.
#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "GroupRelocation.h"
#include "Kiln/Assert.h"
#include "Kiln/Clock.h"
#include "ResourcesHold.h"

namespace Brevant {
namespace {

constexpr U16 invalidGroupId = 0xFFFF;

// The time budget of one pass, on the activity manager's clock. The pass
// goes on while the budget exceeds the time elapsed since it started, read
// again after every index or group it examines, so a move in progress is
// never cut short.
class PassBudget {
 public:
  explicit PassBudget(Kiln::Seconds budget) : budget_(budget), start_(Kiln::now()) {}

  // True while the pass may examine one more index or group.
  bool holds() const { return budget_ > elapsed_; }
  // Reads the time again, once an index or group has been examined.
  void tick() { elapsed_ = Kiln::now() - start_; }
  // True when the pass stopped with more than its budget spent: unfinished.
  bool ranOut() const { return elapsed_ > budget_; }

 private:
  const Kiln::Seconds budget_;
  const Kiln::Seconds start_;
  Kiln::Seconds elapsed_ = 0;
};

// Returns the group that groupId, found at index, names. An index the table
// maps to no group is a program fault.
Kiln::Ptr<ECMPGroup> groupAt(const NextHopManager& nhm, U16 index, U16 groupId) {
  Kiln::Ptr<ECMPGroup> group = groupId == invalidGroupId ? nullptr : nhm.ecmpGroups(groupId);
  if (!group) {
    NH_TRACE(1, "Can not find group for index : " << index);
    KILN_ASSERT(0);
  }
  return group;
}

// Walks down from index (included) to the nearest index that
// hwStartToGroupId maps to a group, with no bound but the 16-bit index
// space: index becomes that start and its group id is returned. A walk that
// comes back round to where it began has found no start: index is left
// there and the invalid id is returned, which the caller reports.
U16 walkDownToGroupStart(const NextHopManager& nhm, U16& index) {
  const TableBitmap& starts = nhm.groupStartIndex();
  S32 found = starts.findLast(0, index + 1U);
  if (found < 0) found = starts.findLast(index + 1U, TableBitmap::indexes);
  if (found < 0) return invalidGroupId;
  index = U16(found);
  return nhm.hwStartToGroupId(index);
}

// The first index from index on, below end, that the narrow pass stops at:
// allocated and the start of a group. end when there is none. Every index
// stepped over counts as a gap.
U16 nextPlacedStart(const NextHopManager& nhm, U16 index, U16 end) {
  const TableBitmap& starts = nhm.groupStartIndex();
  for (S32 at = starts.findFirst(index, end); at >= 0; at = starts.findFirst(at + 1U, end)) {
    if (nhm.allocatedIndex().test(U32(at))) return U16(at);
  }
  return end;
}

}  // namespace

void DefragManager::handleDefragSchedulerTimeOut() {
  NH_TRACE(8, "handleDefragSchedulerTimeOut");
  if (scheduleDefragment_) {
    scheduleDefragmentIs(false);
    defragCountIs(defragCount_ + 1);
    const Kiln::Seconds start = Kiln::now();
    defragment();
    nhm_->resources_->compactionRunIs(Kiln::now() - start, scheduleDefragment_);
    nhm_->refreshResources();
    // A pass that ran out of time asked for another run.
    if (scheduleDefragment_) {
      NH_TRACE(3, "Rescheduling defragmet Scheduler");
      startDefragScheduler();
      return;
    }
  }
  NH_TRACE(3, "Stop defragment scheduler");
  defragScheduler_->timeMinIs(Kiln::Clock::never);
}

void DefragManager::defragment() {
  NH_TRACE(8, "defragment");
  NextHopManager* const nhm = nhm_;
  KILN_ASSERT(nhm != NULL);
  ResourcesHold hold(*nhm);
  // With no free entry at all there is no hole for the narrow pass to close.
  const auto* lowestFree = nhm->freeEntries().first();
  if (lowestFree && lowestFree->key() < nhm->lastNarrowIndex()) defragNarrowBlock();
  if (!scheduleDefragment_) defragWideBlock();
}

void DefragManager::defragNarrowBlock() {
  NH_TRACE(8, "defragNarrowBlock");
  NextHopManager* const nhm = nhm_;
  KILN_ASSERT(nhm != NULL);
  // Without a free entry the walk starts at the wide region: nothing to do.
  const auto* lowestFree = nhm->freeEntries().first();
  U16 index = lowestFree ? lowestFree->key() : nhm->lastWideIndex();
  U16 lastIndex = nhm->lastNarrowIndex();
  U16 gap = 0;
  bool overlapSeen = false;
  PassBudget budget(defragTime_);
  while (index < nhm->lastWideIndex() && budget.holds()) {
    const U16 groupId = nhm->allocatedIndex().test(index) ? nhm->hwStartToGroupId(index) : 0;
    if (groupId == 0) {
      // The entries up to the next group all count as gap, at once: no time
      // passes while the pass steps over them, so one budget check for the
      // whole gap answers as one per entry would.
      const U16 next = nextPlacedStart(*nhm, U16(index + 1), nhm->lastWideIndex());
      gap = U16(gap + (next - index));
      index = next;
    } else {
      Kiln::Ptr<ECMPGroup> g = groupAt(*nhm, index, groupId);
      // Hardened, a wide group ends the narrow region for this pass.
      if (nhm->hardened() && g->wide()) break;
      if (gap != 0) {
        // Once a move of this pass needed the swap area, every later one
        // goes through it too.
        if (gap < g->size()) overlapSeen = true;
        const U16 newBase = U16(g->hwStartIndex() - gap);
        moveGroup(*nhm, groupId, g, newBase, overlapSeen);
        lastIndex = U16(newBase + g->size() - 1);
      } else {
        lastIndex = U16(g->hwStartIndex() + g->size() - 1);
      }
      index = U16(index + g->size());
    }
    budget.tick();
  }
  if (budget.ranOut()) {
    NH_TRACE(3, "Defrag is not complete in 100ms. Rescheduling..  ");
    scheduleDefragmentIs(true);
    return;
  }
  NH_TRACE(3, "Defragmention is done. Check wide block ");
  NH_TRACE(4, "last Narrow index is " << lastIndex);
  nhm->lastNarrowIndexIs(lastIndex);
}

void DefragManager::defragWideBlock() {
  NH_TRACE(8, "defragWideBlock");
  // defragment() has asserted nhm already.
  NextHopManager* const nhm = nhm_;
  U16 index = U16(nhm->getNextHopTableSwapIndex() - 1);
  U16 lastWide = nhm->lastWideIndex();
  U16 blockLength = 0;
  bool overlapSeen = false;
  PassBudget budget(defragTime_);
  while (index > nhm->lastNarrowIndex() && budget.holds()) {
    if (!nhm->allocatedIndex().test(index)) {
      // The free entries down to the next allocated one (or to the narrow
      // region) join the hole at once, with one budget check for them all.
      const S32 below = nhm->allocatedIndex().findLast(nhm->lastNarrowIndex() + 1U, index);
      const U16 next = below < 0 ? nhm->lastNarrowIndex() : U16(below);
      blockLength = U16(blockLength + (index - next));
      index = next;
    } else {
      // index may lie inside a block: its group is known by its start,
      // wherever that lies (a block may straddle lastNarrowIndex).
      const U16 groupId = walkDownToGroupStart(*nhm, index);
      Kiln::Ptr<ECMPGroup> g = groupAt(*nhm, index, groupId);
      // Hardened, a narrow group ends the wide region for this pass.
      if (nhm->hardened() && !g->wide()) break;
      if (!g->wide()) {
        FLASHLOG(1, "%s index: %d", __func__, index);
        FLASHLOG(1, "%s last Narrow index: %d", __func__, nhm->lastNarrowIndex());
        KILN_ASSERT(g->wide());
      }
      // Wide blocks stay on even indexes: an odd hole or start is a fault.
      const U16 newBaseIndex = U16(blockLength + g->hwStartIndex());
      if (blockLength % 2 != 0 || newBaseIndex % 2 != 0) {
        FLASHLOG(1, "%s BlockLength: %d", __func__, blockLength);
        FLASHLOG(1, "%s newBaseIndex: %d", __func__, newBaseIndex);
        KILN_ASSERT(blockLength % 2 == 0);
        KILN_ASSERT(newBaseIndex % 2 == 0);
      }
      if (blockLength != 0) {
        const U16 numEntries = U16(2 * g->size());
        NH_TRACE(4, " Shuffling block from " << g->hwStartIndex() << "to " << newBaseIndex
                                             << " length: " << numEntries);
        if (blockLength < numEntries) overlapSeen = true;
        moveGroup(*nhm, groupId, g, newBaseIndex, overlapSeen);
      }
      lastWide = newBaseIndex;
      --index;
    }
    budget.tick();
  }
  if (budget.ranOut()) {
    NH_TRACE(3, "Defragment did not complete in 100ms. Rescheduling.. ");
    scheduleDefragmentIs(true);
    return;
  }
  NH_TRACE(3, "Defragmention is done. don't schedule again ");
  NH_TRACE(4, " Last Wide index : " << lastWide);
  nhm->lastWideIndexIs(lastWide);
}

}  // namespace Brevant
