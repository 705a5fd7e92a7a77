// The occupancy picture: the next-hop table drawn as a grid of entries
// coloured by what they hold, one panel per moment, with a legend. Plain SVG
// written by hand.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Occupancy.h"

namespace Agent {

// The fill colour of a cell kind ("#rrggbb").
const char* cellColour(Cell cell);

// Grid columns used for a table of `bound` entries: wider grids for larger
// tables, so that a full table draws as 256 x 256.
U32 gridColumns(U32 bound);

// Writes a complete SVG document with the panels side by side, left to
// right, each titled with its title, agent time and free-space figures and
// with a scale of row indexes on its left; one legend below them that says
// what every colour and word means; and, given a timeline, a plot of the
// usable free entries, the largest free block and the stranded entries over
// agent time, with every defragmentation run (a dashed line) and every
// refused create (a tick below the axis) marked. Consecutive entries of one
// kind on a grid row are one rectangle.
void writeOccupancySvg(std::ostream& out, const std::vector<Occupancy>& panels,
                       const Timeline* timeline = nullptr);

// Writes the document to a file. Returns false with a reason in `error` when
// the file cannot be written.
bool writeOccupancySvgFile(const std::string& path, const std::vector<Occupancy>& panels,
                           const Timeline* timeline, std::string& error);

// Returns text with the five XML special characters escaped.
std::string xmlEscaped(const std::string& text);

}  // namespace Agent
