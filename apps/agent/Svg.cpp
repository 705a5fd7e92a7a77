#include "Svg.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "Kiln/Exception.h"

namespace Agent {
namespace {

constexpr U32 panelWidth = 512;
constexpr U32 margin = 24;
constexpr U32 titleHeight = 52;
constexpr U32 legendHeight = 40;

const Cell legendOrder[cellKinds] = {Cell::free,     Cell::narrow, Cell::wide,
                                     Cell::reserved, Cell::swap,   Cell::other};

std::string fixed1(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%.1f", value);
  return buffer;
}

struct Geometry {
  U32 columns;
  U32 rows;
  U32 cell;  // pixels per entry, square
  U32 height() const { return rows * cell; }
};

Geometry geometry(U32 bound) {
  Geometry g;
  g.columns = gridColumns(bound);
  g.rows = std::max<U32>(1, (bound + g.columns - 1) / g.columns);
  g.cell = panelWidth / g.columns;
  return g;
}

void writePanel(std::ostream& out, const Occupancy& o, size_t index, U32 x, U32 y,
                const Geometry& g) {
  const FreeSpace space = o.freeSpace();
  out << "<g id=\"panel-" << index << "\">\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 16 << "\" class=\"title\">" << xmlEscaped(o.title)
      << " (t = " << fixed1(o.time) << " s)</text>\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 32 << "\" class=\"note\">"
      << xmlEscaped(freeSpaceText(space)) << "</text>\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 46 << "\" class=\"note\">"
      << o.count(Cell::narrow) << " narrow, " << o.count(Cell::wide) << " wide entries of "
      << o.bound << "; swap area from " << o.swapIndex << "</text>\n";
  const U32 top = y + titleHeight;
  out << "<rect x=\"" << x << "\" y=\"" << top << "\" width=\"" << g.columns * g.cell
      << "\" height=\"" << g.height() << "\" fill=\"none\" stroke=\"#999999\"/>\n";
  const U32 count = static_cast<U32>(o.cells.size());
  for (U32 row = 0; row * g.columns < count; ++row) {
    const U32 first = row * g.columns;
    const U32 last = std::min(count, first + g.columns);
    U32 i = first;
    while (i < last) {
      U32 end = i + 1;
      while (end < last && o.cells[end] == o.cells[i]) ++end;
      out << "<rect x=\"" << x + (i - first) * g.cell << "\" y=\"" << top + row * g.cell
          << "\" width=\"" << (end - i) * g.cell << "\" height=\"" << g.cell << "\" fill=\""
          << cellColour(o.cells[i]) << "\"/>\n";
      i = end;
    }
  }
  out << "</g>\n";
}

void writeLegend(std::ostream& out, U32 x, U32 y) {
  out << "<g id=\"legend\">\n";
  for (Cell cell : legendOrder) {
    out << "<rect x=\"" << x << "\" y=\"" << y << "\" width=\"12\" height=\"12\" fill=\""
        << cellColour(cell) << "\" stroke=\"#666666\"/>\n";
    out << "<text x=\"" << x + 16 << "\" y=\"" << y + 11 << "\" class=\"note\">"
        << xmlEscaped(cellName(cell)) << "</text>\n";
    x += 150;
  }
  out << "</g>\n";
}

}  // namespace

const char* cellColour(Cell cell) {
  switch (cell) {
    case Cell::free: return "#f2f2f2";
    case Cell::narrow: return "#2f6db5";
    case Cell::wide: return "#e8892b";
    case Cell::reserved: return "#333333";
    case Cell::swap: return "#b39ddb";
    case Cell::other: return "#d62728";
  }
  return "#000000";
}

U32 gridColumns(U32 bound) {
  if (bound > 16384) return 256;
  if (bound > 4096) return 128;
  if (bound > 1024) return 64;
  if (bound > 256) return 32;
  return 16;
}

std::string xmlEscaped(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': result += "&amp;"; break;
      case '<': result += "&lt;"; break;
      case '>': result += "&gt;"; break;
      case '"': result += "&quot;"; break;
      case '\'': result += "&apos;"; break;
      default: result += c;
    }
  }
  return result;
}

void writeOccupancySvg(std::ostream& out, const std::vector<Occupancy>& panels) {
  U32 gridHeight = 0;
  std::vector<Geometry> geometries;
  for (const Occupancy& o : panels) {
    geometries.push_back(geometry(o.bound));
    gridHeight = std::max(gridHeight, geometries.back().height());
  }
  const U32 panelCount = std::max<U32>(1, static_cast<U32>(panels.size()));
  const U32 width = margin + panelCount * (panelWidth + margin);
  const U32 legendTop = margin + titleHeight + gridHeight + margin;
  const U32 height = legendTop + legendHeight;
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << ' ' << height << "\">\n"
      << "<title>Next-hop table occupancy</title>\n"
      << "<style>text { font-family: sans-serif; } .title { font-size: 14px; font-weight: bold; }"
         " .note { font-size: 11px; }</style>\n"
      << "<rect x=\"0\" y=\"0\" width=\"" << width << "\" height=\"" << height
      << "\" fill=\"#ffffff\"/>\n";
  for (size_t i = 0; i < panels.size(); ++i) {
    writePanel(out, panels[i], i, margin + static_cast<U32>(i) * (panelWidth + margin), margin,
               geometries[i]);
  }
  writeLegend(out, margin, legendTop);
  out << "</svg>\n";
}

bool writeOccupancySvgFile(const std::string& path, const std::vector<Occupancy>& panels,
                           std::string& error) {
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file) {
    error = "cannot open " + path + ": " + Kiln::errorString(errno);
    return false;
  }
  writeOccupancySvg(file, panels);
  file.close();
  if (!file) {
    error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace Agent
