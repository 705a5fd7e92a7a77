// The free-entry summary: the table's use, the defragmenter's state and every
// run of free entries, written to a descriptor (typically a diagnostic
// client's socket).
#include <fcntl.h>
#include <stdio.h>

#include <cstdint>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"

namespace Brevant {
namespace {

// Writes the line of the run of `count` free entries from `first`: its label
// left-aligned in 15 columns (the longest, "65533-65533:", takes 12), then
// the count left-aligned in 5.
void writeFreeRun(int fd, U32 first, U32 count) {
  char label[16];
  if (count == 1) {
    snprintf(label, sizeof(label), "%u:", first);
  } else {
    snprintf(label, sizeof(label), "%u-%u:", first, first + count - 1);
  }
  dprintf(fd, "%-15s%-5d\n", label, static_cast<int>(count));
}

}  // namespace

void NextHopManager::showFreeEntrySummary(U32 socket) {
  NH_TRACE(8, "showFreeEntrySummary");
  if (!initialized()) {
    NH_TRACE(1, "Next-hop table is not initialized");
    return;
  }
  // Each line goes straight to the descriptor, unbuffered; a failed write is
  // the client's loss and changes nothing here.
  const int fd = static_cast<int>(socket);
  // dprintf on a descriptor that is not open leaves the C library's
  // buffers behind: check it first.
  if (socket > static_cast<U32>(INT32_MAX) || fcntl(fd, F_GETFD) == -1) {
    NH_TRACE(1, "showFreeEntrySummary: descriptor " << socket << " is not open");
    return;
  }
  const U32 free = freeEntries_.members();
  const S32 bound = getNextHopTableBound();
  const DefragManager* defrag = defragManager_.ptr();
  dprintf(fd, "NextHopTable Defragmentation Scheduled : %s\n",
          defrag && defrag->scheduleDefragment() ? "yes" : "no");
  dprintf(fd, "Defrag Counter : %d\n", defrag ? static_cast<int>(defrag->defragCount()) : 0);
  dprintf(fd, "Next Hops Used/Next Hops Total: %d/%d\n", bound - static_cast<S32>(free), bound);
  dprintf(fd, "Free Next Hops:\n");
  if (free == 0) {
    dprintf(fd, "None\n");
    return;
  }
  // Runs of consecutive indexes; only membership counts, not the values.
  U32 first = 0;
  U32 count = 0;
  for (const KilnFreeEntries& member : freeEntries_) {
    const U32 index = member.key();
    if (count != 0 && index == first + count) {
      ++count;
      continue;
    }
    if (count != 0) writeFreeRun(fd, first, count);
    first = index;
    count = 1;
  }
  writeFreeRun(fd, first, count);
}

}  // namespace Brevant
