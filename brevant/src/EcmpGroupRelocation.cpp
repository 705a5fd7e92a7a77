// Relocating one ECMP group to another block of the table without a moment
// in which its traffic points at entries that are not programmed: copy
// first, repoint, then free. A move whose destination overlaps the group's
// current block goes through the swap area, each leg by the same steps.
#include "BlockWords.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "GroupRelocation.h"
#include "Kiln/Assert.h"
#include "ResourcesHold.h"

namespace Brevant {
namespace {

// Points the group's next hops 0 to size - 1 at `to` + step x position. A
// position the group does not hold becomes an all-zero entry at its index.
// Each present entry is found once and changed in place: the group has no
// notifiees, so nextHopsIs would tell nobody either.
void repointNextHops(ECMPGroup& group, U16 to) {
  const U16 step = group.wide() ? 2 : 1;
  for (U32 p = 0; p < group.size(); ++p) {
    const U16 hwIndex = U16(to + step * p);
    if (ECMPGroup::KilnNextHops* held = group.nextHops().find(U16(p))) {
      held->value().hwIndexIs(hwIndex);
    } else {
      NextHopEntry absent;
      absent.hwIndexIs(hwIndex);
      group.nextHopsIs(U16(p), absent);
    }
  }
}

// Starts loading the records a leg will change, before its chip calls, so
// that their cache misses overlap with each other and with the copy instead
// of stalling the bookkeeping one by one after it: each entry's members in
// allocatedEntries and freeEntries at both blocks (at the old block the
// free entries are absent: only their places in the array, written when
// they come), both starts in hwStartToGroupId (with their buckets while it
// is chained) and the group's next hops. The members lie scattered in
// memory. Inlined by force (HashMap::prefetchMembers says why).
[[gnu::always_inline]] inline void startLoadingRecords(const NextHopManager& manager,
                                                       const ECMPGroup& group, U16 from, U16 to,
                                                       U16 numEntries) {
  for (U32 i = 0; i < numEntries; ++i) {
    manager.allocatedEntries().prefetch(U16(to + i));
    manager.freeEntries().prefetch(U16(to + i));
    manager.allocatedEntries().prefetch(U16(from + i));
    manager.freeEntries().prefetchPlace(U16(from + i));
  }
  manager.hwStartToGroupId().prefetch(from);
  manager.hwStartToGroupId().prefetch(to);
  group.nextHops().prefetchMembers();
}

// One leg of a move: copies the group's numEntries entries to `to`,
// repoints the group's records, tells its owners `announced`, and only then
// releases the old block. The chip's old entries are left as they are: the
// owners may still be reading them until they hear of the move.
void moveLeg(NextHopManager& manager, ECMPGroup& group, U16 to, U16 numEntries, U16 announced,
             BlockWords& buffer) {
  const U16 from = group.hwStartIndex();
  startLoadingRecords(manager, group, from, to, numEntries);
  readNextHopInternal(from, numEntries, buffer.words());
  manager.allocateBlock(to, numEntries);
  writeNextHopInternal(to, numEntries, buffer.words());
  repointNextHops(group, to);
  group.hwStartIndexIs(to);
  manager.ecmpGroupsIs(group.groupId());
  manager.hwStartToGroupIdIs(to, group.groupId());
  manager.notifyGroupMoved(group, announced);
  manager.hwStartToGroupIdDel(from);
  manager.freeBlock(from, numEntries);
}

}  // namespace

S32 moveGroup(NextHopManager& manager, U16 groupId, const Kiln::Ptr<ECMPGroup>& group,
              U16 newBaseIndex, bool overlap) {
  NH_TRACE(8, "moveECMPGroup"
                  << "groupId: " << groupId << " to index " << newBaseIndex
                  << " overlap : " << overlap);
  if (!manager.initialized()) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  if (groupId == 0) {
    NH_TRACE(1, "Invalid GroupId 0");
    return -1;
  }
  // The defragmenter only passes ids it has just found in hwStartToGroupId;
  // any other caller naming no group is refused as placing one would be.
  if (!group) {
    NH_TRACE(1, "Invalid Group Id");
    return -1;
  }
  const U16 step = group->wide() ? 2 : 1;
  const U16 numEntries = U16(step * group->size());
  const U16 swapIndex = manager.getNextHopTableSwapIndex();
  // Index 0 passes the first test on purpose: only the reserved entries 1
  // and 2 are refused. The block may end just below the swap index.
  if (U16(newBaseIndex - 1) <= 1 || S32(newBaseIndex) + S32(numEntries) > S32(swapIndex)) {
    NH_TRACE(1, "baseIndex:" << newBaseIndex << "is out of range");
    return -1;
  }
  ResourcesHold hold(manager);
  BlockWords buffer(numEntries);
  if (overlap) {
    // The assertion text names the manager's operation and keeps its blanks
    // inside the parentheses.
    const auto getNextHopTableBound = [&manager] { return manager.getNextHopTableBound(); };
    // clang-format off
    KILN_ASSERT(( swapIndex + numEntries ) <= getNextHopTableBound());
    // clang-format on
    // Both legs announce the final base, never the swap index.
    moveLeg(manager, *group, swapIndex, numEntries, newBaseIndex, buffer);
  }
  moveLeg(manager, *group, newBaseIndex, numEntries, newBaseIndex, buffer);
  manager.resources_->groupMovedIs(numEntries, overlap);
  return 0;
}

S32 NextHopManager::moveECMPGroup(U16 groupId, U16 newBaseIndex, bool overlap) {
  return moveGroup(*this, groupId, ecmpGroups(groupId), newBaseIndex, overlap);
}

}  // namespace Brevant
