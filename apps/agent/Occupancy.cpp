#include "Occupancy.h"

#include <algorithm>

namespace Agent {

const char* cellName(Cell cell) {
  switch (cell) {
    case Cell::free: return "free";
    case Cell::narrow: return "narrow";
    case Cell::wide: return "wide";
    case Cell::reserved: return "reserved";
    case Cell::swap: return "swap area";
    case Cell::other: return "allocated, no group";
  }
  return "?";
}

void addFreeRun(FreeSpace& space, U32 length) {
  if (length == 0) return;
  space.free += length;
  space.runs += 1;
  space.largestRun = std::max(space.largestRun, length);
}

FreeSpace Occupancy::freeSpace() const {
  FreeSpace space;
  U32 run = 0;
  const U32 end = std::min<U32>(swapIndex, static_cast<U32>(cells.size()));
  for (U32 i = 0; i < end; ++i) {
    if (cells[i] == Cell::free) {
      ++run;
    } else {
      addFreeRun(space, run);
      run = 0;
    }
  }
  addFreeRun(space, run);
  return space;
}

U32 Occupancy::count(Cell cell) const {
  return static_cast<U32>(std::count(cells.begin(), cells.end(), cell));
}

std::string freeSpaceText(const FreeSpace& space) {
  return std::to_string(space.free) + " usable free in " + std::to_string(space.runs) +
         (space.runs == 1 ? " run" : " runs") + ", largest " + std::to_string(space.largestRun) +
         ", stranded " + std::to_string(space.stranded());
}

bool moreFragmented(const FreeSpace& candidate, const FreeSpace& worst) {
  if (candidate.stranded() != worst.stranded()) return candidate.stranded() > worst.stranded();
  return candidate.runs > worst.runs;
}

}  // namespace Agent
