// Relocating one ECMP group to another block of the table without a moment
// in which its traffic points at entries that are not programmed: copy
// first, repoint, then free. A move whose destination overlaps the group's
// current block goes through the swap area, each leg by the same steps.
#include <memory>

#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Kiln/Assert.h"
#include "ResourcesHold.h"

namespace Brevant {
namespace {

// One leg of a move: copies the group's numEntries entries to `to`,
// repoints the group's records, tells its owners `announced`, and only then
// releases the old block. The chip's old entries are left as they are: the
// owners may still be reading them until they hear of the move.
void moveLeg(NextHopManager& manager, ECMPGroup& group, U16 to, U16 numEntries, U16 announced) {
  const U16 step = group.wide() ? 2 : 1;
  const U16 from = group.hwStartIndex();
  {
    // A buffer even for 0 entries: the chip API refuses a null one.
    std::unique_ptr<U64[]> words(new U64[numEntries]);
    readNextHopInternal(from, numEntries, words.get());
    manager.allocateBlock(to, numEntries);
    writeNextHopInternal(to, numEntries, words.get());
  }
  for (U32 p = 0; p < group.size(); ++p) {
    NextHopEntry entry = group.nextHops(U16(p));
    entry.hwIndexIs(U16(to + step * p));
    group.nextHopsIs(U16(p), entry);
  }
  group.hwStartIndexIs(to);
  manager.ecmpGroupsIs(group.groupId());
  manager.hwStartToGroupIdIs(to, group.groupId());
  manager.notifyGroupMoved(group, announced);
  manager.hwStartToGroupIdDel(from);
  manager.freeBlock(from, numEntries);
}

}  // namespace

S32 NextHopManager::moveECMPGroup(U16 groupId, U16 newBaseIndex, bool overlap) {
  NH_TRACE(8, "moveECMPGroup"
                  << "groupId: " << groupId << " to index " << newBaseIndex
                  << " overlap : " << overlap);
  if (!initialized_) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  if (groupId == 0) {
    NH_TRACE(1, "Invalid GroupId 0");
    return -1;
  }
  // The defragmenter only passes ids it has just found in hwStartToGroupId;
  // any other caller naming no group is refused as placing one would be.
  Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId);
  if (!group) {
    NH_TRACE(1, "Invalid Group Id");
    return -1;
  }
  const U16 step = group->wide() ? 2 : 1;
  const U16 numEntries = U16(step * group->size());
  // Index 0 passes the first test on purpose: only the reserved entries 1
  // and 2 are refused. The block may end just below the swap index.
  if (U16(newBaseIndex - 1) <= 1 ||
      S32(newBaseIndex) + S32(numEntries) > S32(getNextHopTableSwapIndex())) {
    NH_TRACE(1, "baseIndex:" << newBaseIndex << "is out of range");
    return -1;
  }
  ResourcesHold hold(*this);
  if (overlap) {
    const U16 swapIndex = getNextHopTableSwapIndex();
    // The assertion text keeps its blanks inside the parentheses.
    // clang-format off
    KILN_ASSERT(( swapIndex + numEntries ) <= getNextHopTableBound());
    // clang-format on
    // Both legs announce the final base, never the swap index.
    moveLeg(*this, *group, swapIndex, numEntries, newBaseIndex);
  }
  moveLeg(*this, *group, newBaseIndex, numEntries, newBaseIndex);
  resources_->groupMovedIs(numEntries, overlap);
  return 0;
}

}  // namespace Brevant
