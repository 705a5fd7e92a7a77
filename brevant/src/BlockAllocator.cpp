// The block allocator: finds runs of free table entries for groups and
// records entries as allocated or free. Narrow blocks are packed upward from
// index 3, wide blocks downward from just below the swap area.
#include <algorithm>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "Kiln/Assert.h"

namespace Brevant {
namespace {

// How many entries ahead of the one being marked markBlock starts loading
// the records: enough to cover a cache miss with the marking of the others.
// The places of the records in the arrays by key go first, twice as far
// ahead, so that loading a record need not wait for its address.
constexpr U32 fetchAhead = 8;
constexpr U32 placesAhead = 2 * fetchAhead;

// Starts loading where the records of one entry lie. The fetches are
// inlined by force, here and below (HashMap::prefetchMembers says why).
[[gnu::always_inline]] inline void fetchPlaces(const NextHopManager& manager, U16 index) {
  manager.allocatedEntries().prefetchPlace(index);
  manager.freeEntries().prefetchPlace(index);
}

// Starts loading the records of one entry, which lie scattered in memory,
// so that marking it need not wait for them.
[[gnu::always_inline]] inline void fetchEntry(const NextHopManager& manager, U16 index) {
  manager.allocatedEntries().prefetch(index);
  manager.freeEntries().prefetch(index);
}

// The line updateNextHopHWIndex traces for every entry it marks.
[[gnu::always_inline]] inline void traceEntryMarking(U16 index, bool value) {
  NH_TRACE(8, "updateNextHopHWIndex"
                  << "NextHop at " << index << "allocate: " << value);
}

// updateNextHopHWIndex once the table is known to be initialised: one
// entry allocated or freed. Inlined where a block is marked entry by entry.
[[gnu::always_inline]] inline void markEntry(NextHopManager& manager, U16 index, bool value) {
  manager.allocatedEntriesIs(index, value);
  if (value) {
    manager.freeEntriesDel(index);
  } else {
    manager.freeEntriesIs(index, true);
  }
}

// allocateBlock and freeBlock: record entries index to index + length - 1
// as allocated or free. operation names the caller in the messages.
S32 markBlock(NextHopManager& manager, const char* operation, U16 index, U16 length,
              bool allocate) {
  NH_TRACE(8, operation << " at " << index << " of length " << length);
  if (!manager.initialized()) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  // Index 0 passes this test although it is never free: kept as it is.
  if (index == 1 || index == 2 || U32(index) + length > manager.getNextHopTableBound()) {
    NH_TRACE(1, "Index is out of range");
    FLASHLOG(1, "%s: Index is out of range", operation);
    return -1;
  }
  const U32 end = U32(index) + length;
  manager.prefetchBlockPlaces(index, length);
  for (U32 i = index; i < std::min(end, index + fetchAhead); ++i) fetchEntry(manager, U16(i));
  for (U32 i = index; i < end; ++i) {
    if (i + placesAhead < end) fetchPlaces(manager, U16(i + placesAhead));
    if (i + fetchAhead < end) fetchEntry(manager, U16(i + fetchAhead));
    traceEntryMarking(U16(i), allocate);
    markEntry(manager, U16(i), allocate);
  }
  manager.refreshResources();
  return 0;
}

}  // namespace

S32 NextHopManager::findAvailableBlock(U16 length, bool wide) {
  NH_TRACE(8, "findAvailableBlock"
                  << " length: " << length << " Wide: " << wide);
  if (!initialized_) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  // The longest block asked for sets what counts as a short free run.
  if (length > freeRuns.shortLength()) freeRuns.shortLengthIs(length);
  const S32 found = wide ? findAvailableWideBlock(length) : findAvailableNarrowBlock(length);
  // A block found is allocated next, after the counters are refreshed.
  if (found > 0) prefetchBlockPlaces(U16(found), length);
  refreshResources();
  if (found > 0) {
    NH_TRACE(2, "Found a block at index " << found);
    return found;
  }
  if (freeEntries_.members() >= length) {
    // The space exists but no run is long enough: compaction may make one.
    if (!defragManager_->scheduleDefragment()) {
      NH_TRACE(1, "NexthopTable appears to be full. Schedule defragment");
      defragManager_->scheduleDefragmentIs(true);
      defragManager_->startDefragScheduler();
    } else {
      NH_TRACE(1, "Defragment is already scheduled");
    }
    return -2;
  }
  NH_TRACE(1, "NextHopTable is FULL. Can not defragment");
  return -2;
}

S32 NextHopManager::findAvailableNarrowBlock(U16 length) {
  NH_TRACE(8, "findAvailableNarrowBlock"
                  << "Length: " << length);
  // With no free entry at all the scan is empty and finds nothing.
  const KilnFreeEntries* first = freeEntries_.first();
  const U32 start = first ? first->key() : lastWideIndex_;
  NH_TRACE(4, "finding narrow block from index: " << start << "length: " << length);
  KILN_ASSERT(length <= 256);
  // First fit from the lowest free index: the start of the lowest run that
  // is long enough, so holes are reused before the region grows.
  freeRuns.refresh();
  const S32 found = freeRuns.firstRun(start, lastWideIndex_, length);
  if (found < 0) {
    NH_TRACE(1, "NOT found narrow block of length " << length);
    return -2;
  }
  const U16 narrowIndex = U16(found);
  KILN_ASSERT(narrowIndex != 0);
  const U16 last = U16(narrowIndex + length - 1);
  if (last > lastNarrowIndex_) lastNarrowIndexIs(last);
  NH_TRACE(4, "Found narrow block at index: " << narrowIndex
                                              << "Last narrow index is : " << lastNarrowIndex_);
  return narrowIndex;
}

S32 NextHopManager::findAvailableWideBlock(U16 length) {
  NH_TRACE(8, "findAvailableWideBlock"
                  << " length: " << length);
  const U16 top = U16(getNextHopTableSwapIndex() - 1);
  NH_TRACE(4, "finding wide block from index: " << top << " of length: " << length);
  KILN_ASSERT(length <= 256);
  if (top <= lastNarrowIndex_) return -2;
  // First fit from the top: the block ends the highest run that is long
  // enough, keeping the wide region packed against the swap area. The run
  // lies above lastNarrowIndex and no higher than top.
  freeRuns.refresh();
  const S32 found = freeRuns.lastRun(lastNarrowIndex_ + 1U, top + 1U, length);
  if (found < 0) return -2;
  const U16 index = U16(found);
  NH_TRACE(4, "Found wide block at index( last wide index ): " << index);
  if (index < lastWideIndex_) lastWideIndexIs(index);
  // Wide blocks must start even; only the result is checked.
  KILN_ASSERT((index % 2) == 0);
  return index;
}

S32 NextHopManager::allocateBlock(U16 startIndex, U16 size) {
  return markBlock(*this, "allocateBlock", startIndex, size, true);
}

S32 NextHopManager::freeBlock(U16 startIndex, U16 size) {
  return markBlock(*this, "freeBlock", startIndex, size, false);
}

S32 NextHopManager::updateNextHopHWIndex(U16 index, bool value) {
  traceEntryMarking(index, value);
  if (!initialized_) {
    NH_TRACE(1, "NexthopTable is not initialized");
    return -7;
  }
  markEntry(*this, index, value);
  return 0;
}

void NextHopManager::prefetchBlockPlaces(U16 start, U16 length) const {
  const U32 end = std::min(U32(start) + length, U32(start) + placesAhead);
  for (U32 i = start; i < end; ++i) fetchPlaces(*this, U16(i));
  hwStartToGroupId_.prefetchPlace(start);
}

// The observers keep the table index (and the free runs the resource
// counters are published from) exact: whatever changes a member (the
// allocator, initialisation, simulation mode, deleting every member, a write
// by name), they hear of it. A member whose value is false is neither free
// nor allocated.
void NextHopManager::freeEntriesObserved(U16 key, const bool* value) {
  const bool free = value && *value;
  freeRuns.entryChanging(key);  // keeps the word as it was, so before the index changes
  freeIndex_.set(key, free);
}

void NextHopManager::allocatedEntriesObserved(U16 key, const bool* value) {
  allocatedIndex_.set(key, value && *value);
}

void NextHopManager::hwStartToGroupIdObserved(U16 key, const U16* value) {
  groupStartIndex_.set(key, value && *value != 0);
}

}  // namespace Brevant
