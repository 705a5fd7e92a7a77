// A picture of the next-hop table at one moment: what each entry holds, and
// the figures that say how fragmented its free space is.
#pragma once

#include <string>
#include <vector>

#include "Kiln/Types.h"

namespace Agent {

// What one table entry holds.
enum class Cell : U8 {
  free,      // free, outside the swap area
  narrow,    // an entry of a narrow group
  wide,      // an entry of a wide group
  reserved,  // entry 0 (never handed out) and the reserved entries 1 and 2
  swap,      // a free entry of the swap area, kept for relocations
  other,     // allocated, but no placed group covers it (never expected)
};

constexpr int cellKinds = 6;

// Returns the name of a cell kind ("free", "narrow", ...).
const char* cellName(Cell cell);

// Figures of the free space outside the swap area: the space a block search
// may hand out.
struct FreeSpace {
  // Free entries below the swap index.
  U32 free = 0;
  // Maximal runs of consecutive free entries below the swap index.
  U32 runs = 0;
  // Length of the longest run: the largest block a search could find.
  U32 largestRun = 0;
  // Free entries outside the longest run: space that is free but too
  // scattered to hold a block as large as the free total. 0 for a compact
  // table. This is the figure "worst fragmentation" maximises.
  U32 stranded() const { return free - largestRun; }

  friend bool operator==(const FreeSpace&, const FreeSpace&) = default;
};

// Adds one free run to the figures.
void addFreeRun(FreeSpace& space, U32 length);

// The table at one moment.
struct Occupancy {
  // What is shown ("start", "worst fragmentation", "end").
  std::string title;
  // Agent time of the picture.
  Kiln::Seconds time = 0;
  // The table bound (entries 0 to bound - 1) and the swap index.
  U32 bound = 0;
  U32 swapIndex = 0;
  // One cell per entry, bound cells.
  std::vector<Cell> cells;

  // The free-space figures computed from the cells.
  FreeSpace freeSpace() const;
  // The number of cells of each kind.
  U32 count(Cell cell) const;
};

// Returns "<free> usable free in <runs> runs, largest <largestRun>,
// stranded <n>" ("1 run" for one).
std::string freeSpaceText(const FreeSpace& space);

// The free space over agent time, with the moments that changed it.
struct Timeline {
  struct Point {
    Kiln::Seconds time = 0;
    FreeSpace space;
  };
  // Measurements in time order (the agent's samples: every 16 requests,
  // after each workload step, before every timer's handler).
  std::vector<Point> points;
  // Agent times at which a defragmentation run ended.
  std::vector<Kiln::Seconds> defragRuns;
  // Agent times of refused creates (first attempts and retries).
  std::vector<Kiln::Seconds> refusedCreates;
  // The agent time the timeline covers, from 0.
  Kiln::Seconds end = 0;
};

// True when `candidate` is more fragmented than `worst`: more stranded free
// entries, then more runs. Ties keep the earlier picture.
bool moreFragmented(const FreeSpace& candidate, const FreeSpace& worst);

}  // namespace Agent
