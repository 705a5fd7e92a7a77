// Rewriting and reading the next hops of placed groups.
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"

namespace Brevant {
namespace {

// The table index of position nhId of a placed group, in 16 bits; false
// when that entry (or, for a wide group, its wide word) is not allocated, as
// in a group that is not or only partly placed.
bool placedIndex(const NextHopManager& manager, const ECMPGroup& group, U16 nhId, U16& index) {
  const U16 stride = group.wide() ? 2 : 1;
  index = U16(group.hwStartIndex() + nhId * stride);
  if (!manager.allocatedEntries(index)) return false;
  return !group.wide() || manager.allocatedEntries(U16(index + 1));
}

}  // namespace

S32 NextHopManager::updateECMPGroup(U32, S32 groupId, const U64Collection& data,
                                    const U64Collection& wideData) {
  NH_TRACE(8, "updateECMPGroup"
                  << " : " << groupId);
  if (!initialized_) {
    NH_TRACE(1, "NexthopTable not initialized");
    return -7;
  }
  const U16 id = U16(groupId);
  Kiln::Ptr<ECMPGroup> group = ecmpGroups(id);
  if (!group) {
    NH_TRACE(1, "Invalid Group Id");
    return -1;
  }
  // Positions from size on are ignored; a missing position writes 0. There
  // is no roll-back: positions before a failure stay rewritten.
  for (U16 p = 0; p < group->size(); ++p) {
    NH_TRACE(
        9, "nhData " << std::hex << data.data(p) << "nhWideData " << wideData.data(p) << std::dec);
    const NextHopEntry entry(0, group->wide(), data.data(p), group->wide() ? wideData.data(p) : 0);
    const S32 rc = updateNextHop(id, p, entry);
    if (rc != 0) {
      NH_TRACE(1, "Failed to update nextHop at index : " << p);
      return rc;
    }
  }
  return 0;
}

S32 NextHopManager::updateNextHop(U16 groupId, U16 nhId, const NextHopEntry& entry) {
  if (!initialized_) return -7;
  Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId);
  if (!group) return -1;
  if (nhId >= group->size()) return -1;
  U16 index;
  if (!placedIndex(*this, *group, nhId, index)) return -1;
  NH_TRACE(8, "checkNextHopType");
  if (entry.wide() != group->wide()) return -3;
  NH_TRACE(3, "Modifying next hop " << nhId << " of ECMP group " << groupId);
  U64 words[2] = {entry.data(), entry.wideData()};
  NH_TRACE(2, "write nhData[0]:" << std::hex << words[0]);
  NH_TRACE(2, "write nhData[1]:" << std::hex << words[1]);
  writeNextHopInternal(index, group->wide() ? 2 : 1, words);
  // The caller's entry is kept as given, hwIndex included: it is recomputed
  // only when the group is next placed.
  group->nextHopsIs(nhId, entry);
  return 0;
}

NextHopEntry NextHopManager::readNextHop(U16 groupId, U16 nhId) {
  NH_TRACE(8, "readNextHop"
                  << "groupId: " << groupId << "NexthopId: " << nhId);
  if (!initialized_) {
    NH_TRACE(1, "NextHoptable is not initiliazed");
    return NextHopEntry();
  }
  Kiln::Ptr<ECMPGroup> group = ecmpGroups(groupId);
  if (!group) {
    NH_TRACE(1, "Invalid ECMP Group ");
    return NextHopEntry();
  }
  if (nhId >= group->size()) {
    NH_TRACE(1, "NextHopId is greater than Ecmp group Size : " << group->size());
    return NextHopEntry();
  }
  U16 index;
  if (!placedIndex(*this, *group, nhId, index)) return NextHopEntry();
  NH_TRACE(2,
           "Reading next hop number " << nhId << " of group " << groupId << " at index " << index);
  // Read from the chip, not from the record: comparing the two is how a
  // caller checks the hardware.
  U64 words[2] = {0, 0};
  readNextHopInternal(index, group->wide() ? 2 : 1, words);
  return NextHopEntry(index, group->wide(), words[0], group->wide() ? words[1] : 0);
}

}  // namespace Brevant
