// The move as it was before its copy buffer, group look-up and next-hop
// records were cut down: the tests' oracle for NextHopManager::moveECMPGroup.
// Each leg allocates its own buffer, reads every next hop by position and
// stores it back, and reads the group's features to tell its owners; the
// move looks its group up by id.
#pragma once

#include <memory>

#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopCallback.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Kiln/Assert.h"

namespace MoveReference {

using Brevant::ECMPGroup;
using Brevant::NextHopEntry;
using Brevant::NextHopManager;

// Every (feature the group supports, callback of that feature) pair, told
// the move; the features looked at even when no callback is registered.
inline void notifyGroupMoved(NextHopManager& manager, const ECMPGroup& group, U16 baseIndex) {
  for (const auto& supported : group.featuresSupported()) {
    if (!supported.value()) continue;
    for (const auto& registered : manager.features()) {
      const Kiln::Ptr<Brevant::NextHopCallback>& callback = registered.value();
      if (callback->fType() == supported.key()) {
        callback->updateNextHopAction(group.groupId(), baseIndex, group.size());
      }
    }
  }
}

inline void moveLeg(NextHopManager& manager, ECMPGroup& group, U16 to, U16 numEntries,
                    U16 announced) {
  const U16 step = group.wide() ? 2 : 1;
  const U16 from = group.hwStartIndex();
  {
    std::unique_ptr<U64[]> words(new U64[numEntries]);
    Brevant::readNextHopInternal(from, numEntries, words.get());
    manager.allocateBlock(to, numEntries);
    Brevant::writeNextHopInternal(to, numEntries, words.get());
  }
  for (U32 p = 0; p < group.size(); ++p) {
    NextHopEntry entry = group.nextHops(U16(p));
    entry.hwIndexIs(U16(to + step * p));
    group.nextHopsIs(U16(p), entry);
  }
  group.hwStartIndexIs(to);
  manager.ecmpGroupsIs(group.groupId());
  manager.hwStartToGroupIdIs(to, group.groupId());
  notifyGroupMoved(manager, group, announced);
  manager.hwStartToGroupIdDel(from);
  manager.freeBlock(from, numEntries);
}

// What NextHopManager::moveECMPGroup(groupId, newBaseIndex, overlap) did; the
// caller keeps away the one assertion (a swap area too small for the group).
inline S32 moveECMPGroup(NextHopManager& m, U16 groupId, U16 newBaseIndex, bool overlap) {
  NH_TRACE(8, "moveECMPGroup"
                  << "groupId: " << groupId << " to index " << newBaseIndex
                  << " overlap : " << overlap);
  if (!m.initialized()) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  if (groupId == 0) {
    NH_TRACE(1, "Invalid GroupId 0");
    return -1;
  }
  Kiln::Ptr<ECMPGroup> group = m.ecmpGroups(groupId);
  if (!group) {
    NH_TRACE(1, "Invalid Group Id");
    return -1;
  }
  const U16 step = group->wide() ? 2 : 1;
  const U16 numEntries = U16(step * group->size());
  if (U16(newBaseIndex - 1) <= 1 ||
      S32(newBaseIndex) + S32(numEntries) > S32(m.getNextHopTableSwapIndex())) {
    NH_TRACE(1, "baseIndex:" << newBaseIndex << "is out of range");
    return -1;
  }
  // As the library's ResourcesHold: the counters are published once, when
  // the move ends.
  ++m.resourcesHeld;
  if (overlap) {
    const U16 swapIndex = m.getNextHopTableSwapIndex();
    KILN_ASSERT(swapIndex + numEntries <= m.getNextHopTableBound());
    moveLeg(m, *group, swapIndex, numEntries, newBaseIndex);
  }
  moveLeg(m, *group, newBaseIndex, numEntries, newBaseIndex);
  m.resources_->groupMovedIs(numEntries, overlap);
  if (--m.resourcesHeld == 0) m.refreshResources();
  return 0;
}

}  // namespace MoveReference
