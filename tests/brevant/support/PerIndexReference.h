// The table's searches, boundary scans and compaction passes as they were
// first written: one look-up per index, straight from the algorithm's
// description (with the hardened switch's departures). The library now
// answers from its table index; the differential test holds the two to the
// same results, boundaries, traces and Flashlog records.
//
// Where the library would stop the process on an assertion, these return
// its expression text instead, having done what the library does before it.
#pragma once

#include <cstdio>
#include <string>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "Kiln/Clock.h"

namespace PerIndexReference {

using Brevant::ECMPGroup;
using Brevant::NextHopManager;

constexpr U16 invalidGroupId = 0xFFFF;

// What a reference operation did: its result, or the assertion the library
// stops on at that point ("" when none).
struct Outcome {
  S32 result = 0;
  std::string assertion;
};

inline Outcome stop(const char* expression) { return Outcome{0, expression}; }

inline Outcome findAvailableNarrowBlock(NextHopManager& m, U16 length) {
  NH_TRACE(8, "findAvailableNarrowBlock"
                  << "Length: " << length);
  const auto* first = m.freeEntries().first();
  const U32 start = first ? first->key() : m.lastWideIndex();
  NH_TRACE(4, "finding narrow block from index: " << start << "length: " << length);
  if (!(length <= 256)) return stop("length <= 256");
  U32 run = 0;
  U16 narrowIndex = 0;
  bool found = false;
  for (U32 index = start; index < m.lastWideIndex(); ++index) {
    if (m.freeEntries(U16(index))) {
      if (run == 0) narrowIndex = U16(index);
      if (++run == length) {
        found = true;
        break;
      }
    } else {
      run = 0;
    }
  }
  if (!found) {
    NH_TRACE(1, "NOT found narrow block of length " << length);
    return {-2, ""};
  }
  if (narrowIndex == 0) return stop("narrowIndex != 0");
  const U16 last = U16(narrowIndex + length - 1);
  if (last > m.lastNarrowIndex()) m.lastNarrowIndexIs(last);
  NH_TRACE(4, "Found narrow block at index: " << narrowIndex
                                              << "Last narrow index is : " << m.lastNarrowIndex());
  return {narrowIndex, ""};
}

inline Outcome findAvailableWideBlock(NextHopManager& m, U16 length) {
  NH_TRACE(8, "findAvailableWideBlock"
                  << " length: " << length);
  U16 index = U16(m.getNextHopTableSwapIndex() - 1);
  NH_TRACE(4, "finding wide block from index: " << index << " of length: " << length);
  if (!(length <= 256)) return stop("length <= 256");
  if (index <= m.lastNarrowIndex()) return {-2, ""};
  U32 run = 0;
  for (;;) {
    if (m.freeEntries(index)) {
      if (++run == length) break;
    } else {
      run = 0;
    }
    --index;
    if (index <= m.lastNarrowIndex()) return {-2, ""};
  }
  NH_TRACE(4, "Found wide block at index( last wide index ): " << index);
  if (index < m.lastWideIndex()) m.lastWideIndexIs(index);
  if ((index % 2) != 0) return stop("(index % 2) == 0");
  return {index, ""};
}

// The boundary that removing a group whose block is [start, start + length)
// leaves, before the block is freed: the scans read the block as free.
// result is the new boundary, or -1 when it stays; the trace line is the
// one the scan writes.
inline Outcome boundaryAfterRemoving(NextHopManager& m, bool wide, U16 start, U16 length) {
  auto allocated = [&](U16 i) { return U16(i - start) >= length && m.allocatedEntries(i); };
  if (wide && start == m.lastWideIndex()) {
    const U16 swapIndex = m.getNextHopTableSwapIndex();
    U16 index = U16(start + 1);
    while (!allocated(index)) {
      ++index;
      if (index == swapIndex) break;
    }
    NH_TRACE(4, " updated Wide index : " << index);
    if (!(index % 2 == 0)) return stop("index % 2 == 0");
    return {index, ""};
  }
  if (!wide && start == U16(m.lastNarrowIndex() - length + 1)) {
    U16 index = U16(start - 1);
    while (!allocated(index)) {
      if (m.hardened() && index <= 2) {
        index = 2;
        break;
      }
      --index;
      if (index == 2) break;
    }
    NH_TRACE(4, " updated Narrow index : " << index);
    return {index, ""};
  }
  return {-1, ""};
}

// True when moving groupId to newBaseIndex would stop the process: a move
// through the swap area that does not fit in it. Moves are not what the
// table index changed; the reference runs the library's.
inline bool moveStops(NextHopManager& m, U16 groupId, U16 newBaseIndex, bool overlap) {
  Kiln::Ptr<ECMPGroup> g = m.initialized() && groupId != 0 ? m.ecmpGroups(groupId) : nullptr;
  if (!g || !overlap) return false;
  const U16 numEntries = U16((g->wide() ? 2 : 1) * g->size());
  if (U16(newBaseIndex - 1) <= 1 ||
      S32(newBaseIndex) + S32(numEntries) > S32(m.getNextHopTableSwapIndex())) {
    return false;
  }
  return m.getNextHopTableSwapIndex() + numEntries > m.getNextHopTableBound();
}

inline const char* const swapAreaAssertion = "( swapIndex + numEntries ) <= getNextHopTableBound()";

// The time budget of a pass, read after every index or group examined.
//
// It also counts the pass's steps (indexes examined, walk steps): a pass on
// a table that direct allocations or by-name writes have left without a
// group start below an allocated entry can walk round the index space again
// and again, and under the tests' manual clock, which does not move while a
// pass runs, never end. Four circles of the index space are more than any
// pass on a consistent table takes; past that the reference gives up and
// the test does not compare the run.
class PassBudget {
 public:
  explicit PassBudget(Kiln::Seconds budget) : budget_(budget), start_(Kiln::now()) {}
  bool holds() const { return budget_ > elapsed_; }
  void tick() {
    elapsed_ = Kiln::now() - start_;
    step();
  }
  bool ranOut() const { return elapsed_ > budget_; }
  void step() { ++steps_; }
  bool endless() const { return steps_ > 4 * 65536; }

 private:
  const Kiln::Seconds budget_;
  const Kiln::Seconds start_;
  Kiln::Seconds elapsed_ = 0;
  U32 steps_ = 0;
};

inline const char* const endlessPass = "a pass that does not end on a manual clock";

// The group groupId found at index names, or null with the trace written.
inline Kiln::Ptr<ECMPGroup> groupAt(const NextHopManager& m, U16 index, U16 groupId) {
  Kiln::Ptr<ECMPGroup> group = groupId == invalidGroupId ? nullptr : m.ecmpGroups(groupId);
  if (!group) NH_TRACE(1, "Can not find group for index : " << index);
  return group;
}

inline Outcome defragNarrowBlock(NextHopManager& m) {
  Brevant::DefragManager& d = *m.defragManager();
  NH_TRACE(8, "defragNarrowBlock");
  const auto* lowestFree = m.freeEntries().first();
  U16 index = lowestFree ? lowestFree->key() : m.lastWideIndex();
  U16 lastIndex = m.lastNarrowIndex();
  U16 gap = 0;
  bool overlapSeen = false;
  PassBudget budget(d.defragTime());
  while (index < m.lastWideIndex() && budget.holds()) {
    if (budget.endless()) return stop(endlessPass);
    const U16 groupId = m.allocatedEntries(index) ? m.hwStartToGroupId(index) : 0;
    if (groupId == 0) {
      ++gap;
      ++index;
    } else {
      Kiln::Ptr<ECMPGroup> g = groupAt(m, index, groupId);
      if (!g) return stop("0");
      if (m.hardened() && g->wide()) break;
      const U16 newBase = U16(g->hwStartIndex() - gap);
      if (gap != 0) {
        if (gap < g->size()) overlapSeen = true;
        if (moveStops(m, groupId, newBase, overlapSeen)) return stop(swapAreaAssertion);
        m.moveECMPGroup(groupId, newBase, overlapSeen);
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
    d.scheduleDefragmentIs(true);
    return {};
  }
  NH_TRACE(3, "Defragmention is done. Check wide block ");
  NH_TRACE(4, "last Narrow index is " << lastIndex);
  m.lastNarrowIndexIs(lastIndex);
  return {};
}

inline Outcome defragWideBlock(NextHopManager& m) {
  Brevant::DefragManager& d = *m.defragManager();
  NH_TRACE(8, "defragWideBlock");
  U16 index = U16(m.getNextHopTableSwapIndex() - 1);
  U16 lastWide = m.lastWideIndex();
  U16 blockLength = 0;
  bool overlapSeen = false;
  PassBudget budget(d.defragTime());
  while (index > m.lastNarrowIndex() && budget.holds()) {
    if (budget.endless()) return stop(endlessPass);
    if (!m.allocatedEntries(index)) {
      ++blockLength;
      --index;
    } else {
      // Down to the group's start, however far; a walk round the whole
      // index space finds none.
      const U16 begin = index;
      U16 groupId = 0;
      do {
        groupId = m.hwStartToGroupId(index);
        if (groupId != 0) break;
        --index;
        budget.step();
      } while (index != begin);
      Kiln::Ptr<ECMPGroup> g = groupAt(m, index, groupId == 0 ? invalidGroupId : groupId);
      if (!g) return stop("0");
      if (m.hardened() && !g->wide()) break;
      if (!g->wide()) {
        FLASHLOG(1, "%s index: %d", "defragWideBlock", index);
        FLASHLOG(1, "%s last Narrow index: %d", "defragWideBlock", m.lastNarrowIndex());
        return stop("g->wide()");
      }
      const U16 newBaseIndex = U16(blockLength + g->hwStartIndex());
      if (blockLength % 2 != 0 || newBaseIndex % 2 != 0) {
        FLASHLOG(1, "%s BlockLength: %d", "defragWideBlock", blockLength);
        FLASHLOG(1, "%s newBaseIndex: %d", "defragWideBlock", newBaseIndex);
        return stop(blockLength % 2 != 0 ? "blockLength % 2 == 0" : "newBaseIndex % 2 == 0");
      }
      if (blockLength != 0) {
        const U16 numEntries = U16(2 * g->size());
        NH_TRACE(4, " Shuffling block from " << g->hwStartIndex() << "to " << newBaseIndex
                                             << " length: " << numEntries);
        if (blockLength < numEntries) overlapSeen = true;
        if (moveStops(m, groupId, newBaseIndex, overlapSeen)) return stop(swapAreaAssertion);
        m.moveECMPGroup(groupId, newBaseIndex, overlapSeen);
      }
      lastWide = newBaseIndex;
      --index;
    }
    budget.tick();
  }
  if (budget.ranOut()) {
    NH_TRACE(3, "Defragment did not complete in 100ms. Rescheduling.. ");
    d.scheduleDefragmentIs(true);
    return {};
  }
  NH_TRACE(3, "Defragmention is done. don't schedule again ");
  NH_TRACE(4, " Last Wide index : " << lastWide);
  m.lastWideIndexIs(lastWide);
  return {};
}

// defragment(): the narrow pass when a hole lies below the narrow region,
// then the wide pass unless the narrow one ran out of time.
inline Outcome defragment(NextHopManager& m) {
  NH_TRACE(8, "defragment");
  const auto* lowestFree = m.freeEntries().first();
  if (lowestFree && lowestFree->key() < m.lastNarrowIndex()) {
    Outcome narrow = defragNarrowBlock(m);
    if (!narrow.assertion.empty()) return narrow;
  }
  if (!m.defragManager()->scheduleDefragment()) return defragWideBlock(m);
  return {};
}

}  // namespace PerIndexReference
