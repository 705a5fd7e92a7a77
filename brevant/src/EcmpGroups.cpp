// ECMP groups: issuing ids, creating, placing, removing, deleting and
// looking up groups.
#include "BlockWords.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "Kiln/Assert.h"

namespace Brevant {
namespace {

// The invalid group id: what genECMPGroupId answers when the pool is empty,
// and the id of the placeholder group that failed lookups return.
constexpr U16 invalidGroupId = 0xFFFF;

// The largest group, narrow or wide, in next hops.
constexpr U16 maxGroupSize = 256;
// The largest wide group that fits the largest block (256 entries): a
// hardened manager refuses larger wide groups instead of stopping on the
// block-length assertion.
constexpr U16 maxHardenedWideGroupSize = 128;

// Table entries per next hop.
U16 strideOf(const ECMPGroup& group) { return group.wide() ? 2 : 1; }

// The group that placing or removing works on, or null with the refusal
// (-7 on an uninitialised table, -1 for an unknown id) traced and stored in
// *refusal.
Kiln::Ptr<ECMPGroup> groupToPlaceOrRemove(const NextHopManager& manager, U16 groupId,
                                          S32* refusal) {
  if (!manager.initialized()) {
    NH_TRACE(1, "NexthopTable is not initialized");
    *refusal = -7;
    return nullptr;
  }
  Kiln::Ptr<ECMPGroup> group = manager.ecmpGroups(groupId);
  if (!group) {
    NH_TRACE(1, "Invalid Group Id");
    *refusal = -1;
  }
  return group;
}

// Gives the next hop at position p of group, placed at start, its table
// index where it is (all nextHopsIs does for a type that tells nobody: were
// nextHops ever observed, valueIs would be private to the group and this
// would not compile), and puts its words at p in words.
void placeNextHop(const ECMPGroup& group, ECMPGroup::KilnNextHops& member, U32 p, U16 start,
                  U64* words) {
  const U16 stride = strideOf(group);
  NextHopEntry entry = member.value();
  entry.hwIndexIs(U16(start + stride * p));
  member.valueIs(entry);
  words[stride * p] = entry.data();
  if (group.wide()) words[stride * p + 1] = entry.wideData();
}

// Gives positions 0 to size - 1 of group, placed at start, their table
// indexes, and their words to words. A missing position reads as an all-zero
// entry and is stored. A group holding exactly its positions (as one just
// created does) is placed in one walk over its members, in the map's order:
// no position is looked up. Any other group goes position by position from
// the last, each looked up once, storing the missing ones in that order;
// the positions the walk placed are placed again alike.
void placeNextHops(ECMPGroup& group, U16 start, U64* words) {
  const U32 size = group.size();
  U32 placed = 0;
  for (ECMPGroup::KilnNextHops& member : group.nextHops()) {
    if (member.key() >= size) continue;
    placeNextHop(group, member, member.key(), start, words);
    ++placed;
  }
  if (placed == size) return;  // keys are distinct: every position was met
  for (U32 p = size; p-- > 0;) {
    if (!group.nextHops().find(U16(p))) group.nextHopsIs(U16(p), NextHopEntry());
    placeNextHop(group, *group.nextHops().find(U16(p)), p, start, words);
  }
}

}  // namespace

U16 NextHopManager::genECMPGroupId() {
  NH_TRACE(8, "genECMPGroupId");
  for (auto it = freeGroupIds_.begin(); it != freeGroupIds_.end(); ++it) {
    if (!it->value()) continue;
    const U16 id = it->key();
    freeGroupIdsDel(id);
    NH_TRACE(9, "Issuing ECMP group ID " << id);
    return id;
  }
  return invalidGroupId;
}

S32 NextHopManager::createECMPGroup(U32, bool wide, bool fixedSize, U16 size,
                                    const U64Collection& data, const U64Collection& wideData,
                                    FeatureType feature, bool mcast) {
  NH_TRACE(8, "createECMPGroup"
                  << ": Creating a " << (fixedSize ? "fixed" : "variable")
                  << " sized ECMP group with " << size << " " << (wide ? "wide" : "narrow")
                  << " entries for feature" << feature);
  if (!initialized_) {
    NH_TRACE(1, "NexthopTable not initialized");
    return createRefused(-7);
  }
  // A wide group takes two entries per next hop; hardened, one that could
  // not be allocated is refused here rather than stopping the allocator.
  const U16 maxSize = hardened_ && wide ? maxHardenedWideGroupSize : maxGroupSize;
  if ((fixedSize && size == 0) || size > maxSize) {
    NH_TRACE(1, "ECMP Group size is invalid");
    return createRefused(-1);
  }
  const U16 id = genECMPGroupId();
  if (id == invalidGroupId) {
    NH_TRACE(1, "Can not allocate ECMPGroupId");
    return createRefused(-2);
  }
  Kiln::Ptr<ECMPGroup> group = ecmpGroupsIs(id);
  group->wideIs(wide);
  group->fixedSizeIs(fixedSize);
  group->sizeIs(size);
  group->mcastIs(mcast);
  group->hwStartIndexIs(0);
  group->featuresSupportedIs(feature, true);
  // The buckets are sized for the group's next hops at once, as filling
  // them one by one would end: nothing is rehashed on the way.
  group->nextHopsReserve(size);
  for (U16 p = 0; p < size; ++p) {
    NH_TRACE(
        9, "nhData " << std::hex << data.data(p) << "nhWideData " << wideData.data(p) << std::dec);
    // Until the group is placed, an entry's hwIndex holds its position.
    group->nextHopsIs(p, NextHopEntry(p, wide, data.data(p), wide ? wideData.data(p) : 0));
  }
  const S32 rc = addECMPGroupToTable(id);
  if (rc == 0) {
    NH_TRACE(9, "Successfully created ECMP group " << id);
    return id;
  }
  // Placing fails before it allocates anything, so the record and the id
  // are all there is to undo.
  NH_TRACE(1, "Something went wrong when creating ECMP group " << id << "; deleting group");
  FLASHLOG(1, "Something went wrong when creating ECMP group %d", id);
  ecmpGroupsDel(id);
  freeGroupIdsIs(id, true);
  return createRefused(rc);
}

S32 NextHopManager::addECMPGroupToTable(U16 groupId) {
  NH_TRACE(8, "addECMPGroupToTable"
                  << " groupId: " << groupId);
  S32 refusal = 0;
  Kiln::Ptr<ECMPGroup> group = groupToPlaceOrRemove(*this, groupId, &refusal);
  if (!group) return refusal;
  const U16 stride = strideOf(*group);
  const U16 length = U16(stride * group->size());
  const S32 start = findAvailableBlock(length, group->wide());
  if (start < 0) return start;
  allocateBlock(U16(start), length);
  group->hwStartIndexIs(U16(start));
  // A start that already names a group (only after a simulation-mode
  // switch gave back entries in use) loses that group from the counts.
  if (const U16 previousId = hwStartToGroupId(U16(start))) {
    if (Kiln::Ptr<ECMPGroup> previous = ecmpGroups(previousId)) {
      resources_->groupPlacedIs(previous->wide(), false);
    }
  }
  hwStartToGroupIdIs(U16(start), groupId);
  resources_->groupPlacedIs(group->wide(), true);
  // Every position gets its table index, and the whole block is written to
  // the chip in one call. Every word of the block is set below, so the
  // buffer needs no clearing.
  BlockWords words(length);
  placeNextHops(*group, U16(start), words.words());
  writeNextHopInternal(U16(start), length, words.words());
  NH_TRACE(3, "ECMP group " << groupId << " of length " << length << " written to " << start);
  return 0;
}

S32 NextHopManager::removeECMPGroupFromTable(U16 groupId) {
  NH_TRACE(8, "removeECMPGroupFromTable"
                  << "groupId: " << groupId);
  S32 refusal = 0;
  Kiln::Ptr<ECMPGroup> group = groupToPlaceOrRemove(*this, groupId, &refusal);
  if (!group) return refusal;
  const U16 length = U16(strideOf(*group) * group->size());
  const U16 start = group->hwStartIndex();
  // The chip's entries and the group's record stay as they are.
  if (hwStartToGroupIdDel(start) == groupId && groupId != 0) {
    resources_->groupPlacedIs(group->wide(), false);
  }
  freeBlock(start, length);
  // A block at the edge of its region pulls the boundary back to the next
  // allocated entry. Both scans test the entry first and the limit only
  // after a step, in 16 bits: the wide scan may end on the swap index, and
  // the narrow scan below index 3 wraps round through 65535 until it meets
  // an allocated entry or comes back to 2 (unless the manager is hardened).
  if (group->wide() && start == lastWideIndex_) {
    const U16 index = wideBoundaryAfterRemoving(start);
    NH_TRACE(4, " updated Wide index : " << index);
    KILN_ASSERT(index % 2 == 0);
    lastWideIndexIs(index);
  } else if (!group->wide() && start == U16(lastNarrowIndex_ - length + 1)) {
    const U16 index = narrowBoundaryAfterRemoving(start);
    NH_TRACE(4, " updated Narrow index : " << index);
    lastNarrowIndexIs(index);
  }
  refreshResources();
  NH_TRACE(3, "ECMP group " << groupId << " removed from next hop table");
  return 0;
}

U16 NextHopManager::wideBoundaryAfterRemoving(U16 start) {
  // From start + 1 upward, the first allocated entry; the swap index is
  // reached (and ends the scan untested) only after a step.
  const U16 first = U16(start + 1);
  if (allocatedIndex_.test(first)) return first;
  const U16 swapIndex = getNextHopTableSwapIndex();
  S32 found;
  if (first < swapIndex) {
    found = allocatedIndex_.findFirst(first + 1U, swapIndex);
  } else {
    found = allocatedIndex_.findFirst(first + 1U, TableBitmap::indexes);
    if (found < 0) found = allocatedIndex_.findFirst(0, swapIndex);
  }
  return found < 0 ? swapIndex : U16(found);
}

U16 NextHopManager::narrowBoundaryAfterRemoving(U16 start) {
  // From start - 1 downward, the first allocated entry; 2 is reached (and ends
  // the scan untested) only after a step. Below 3 the scan wraps round through
  // 65535, unless the manager is hardened: then it ends on 2 at once.
  const U16 first = U16(start - 1);
  if (allocatedIndex_.test(first)) return first;
  S32 found;
  if (first > 2) {
    found = allocatedIndex_.findLast(3, first);
  } else if (hardened_) {
    found = -1;
  } else {
    found = allocatedIndex_.findLast(0, first);
    if (found < 0) found = allocatedIndex_.findLast(3, TableBitmap::indexes);
  }
  return found < 0 ? 2 : U16(found);
}

S32 NextHopManager::deleteECMPGroup(U32, U16 groupId) {
  if (!initialized_) return -7;
  {
    const Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId);
    if (!group) return -1;
    // The group's record is released at the end, member by member: its
    // members start loading now, while the table's entries are freed, and
    // so do its start's member, which goes first, and the block's records.
    prefetchBlockPlaces(group->hwStartIndex(), U16(strideOf(*group) * group->size()));
    group->nextHops().prefetchMembers();
    group->featuresSupported().prefetchMembers();
    hwStartToGroupId().prefetch(group->hwStartIndex());
  }
  NH_TRACE(3, "Deleting ECMP group " << groupId);
  // The reserved groups 0 and 1 are not protected: their ids go back into
  // the pool like any other.
  const S32 rc = removeECMPGroupFromTable(groupId);
  if (rc != 0) return rc;
  ecmpGroupsDel(groupId);
  freeGroupIdsIs(groupId, true);
  return 0;
}

Kiln::Ptr<ECMPGroup> NextHopManager::getECMPGroup(U16 groupId) {
  NH_TRACE(8, "getECMPGroup"
                  << "groupId: " << groupId);
  // The placeholder answers every failed lookup, so the result is never
  // null; callers recognise it by its id.
  Kiln::Ptr<ECMPGroup> placeholder = ecmpGroupsIs(invalidGroupId);
  if (!initialized_) return placeholder;
  if (Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId)) return group;
  NH_TRACE(1, "Failed to get ECMP Group for :" << groupId);
  return placeholder;
}

S32 NextHopManager::addFeatureToGroup(U16 groupId, FeatureType feature) {
  if (!initialized_) return -7;
  Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId);
  if (!group) return -1;
  NH_TRACE(9, "Adding a feature to ECMP group " << groupId);
  group->featuresSupportedIs(feature, true);
  ecmpGroupsIs(groupId);
  return 0;
}

}  // namespace Brevant
