#include "Svg.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "Kiln/Exception.h"

namespace Agent {
namespace {

constexpr U32 panelWidth = 512;
// Left of each grid: the index of a row's first entry.
constexpr U32 scaleWidth = 48;
constexpr U32 margin = 24;
constexpr U32 titleHeight = 68;
constexpr U32 legendLine = 16;
// The free-space plot: its title and key above, the axis labels below.
constexpr U32 plotHead = 40;
constexpr U32 plotBody = 180;
constexpr U32 plotFoot = 40;
constexpr U32 plotAxisWidth = 56;

const Cell legendOrder[cellKinds] = {Cell::free,     Cell::narrow, Cell::wide,
                                     Cell::reserved, Cell::swap,   Cell::other};

// What each colour of the grid means, for the legend.
const char* cellMeaning(Cell cell) {
  switch (cell) {
    case Cell::free: return "below the swap index, usable for a new group's block";
    case Cell::narrow: return "an entry of a narrow group (one entry per next hop)";
    case Cell::wide: return "an entry of a wide group (two entries per next hop)";
    case Cell::reserved: return "entry 0 (never used) and the reserved groups' entries 1 and 2";
    case Cell::swap: return "a free entry of the swap area, kept for moving groups";
    case Cell::other: return "allocated but in no group's block (never expected)";
  }
  return "";
}

// The words of the panels' figures, for the legend.
const char* const legendWords[] = {
    "runs: stretches of consecutive usable free entries; largest: the longest run, the largest "
    "block a create can get",
    "stranded: usable free entries outside the largest run, free but too scattered for a block as "
    "large as the free total",
};
constexpr U32 legendLines = cellKinds + 2;

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

// The left scale: the first index of every few rows, about eight labels.
void writeScale(std::ostream& out, U32 x, U32 top, const Geometry& g, U32 bound) {
  const U32 step = std::max<U32>(1, g.rows / 8);
  out << "<g class=\"scale\">\n";
  for (U32 row = 0; row < g.rows && row * g.columns < bound; row += step) {
    const U32 y = top + row * g.cell;
    out << "<line x1=\"" << x + scaleWidth - 3 << "\" y1=\"" << y << "\" x2=\"" << x + scaleWidth
        << "\" y2=\"" << y << "\" stroke=\"#666666\"/>\n";
    out << "<text x=\"" << x + scaleWidth - 5 << "\" y=\"" << y + 9
        << "\" class=\"small\" text-anchor=\"end\">" << row * g.columns << "</text>\n";
  }
  out << "</g>\n";
}

void writePanel(std::ostream& out, const Occupancy& o, size_t index, U32 x, U32 y,
                const Geometry& g) {
  const FreeSpace space = o.freeSpace();
  out << "<g id=\"panel-" << index << "\">\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 16 << "\" class=\"title\">" << xmlEscaped(o.title)
      << " (t = " << fixed1(o.time) << " s)</text>\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 32 << "\" class=\"note\">"
      << xmlEscaped(freeSpaceText(space)) << "; swap area " << o.count(Cell::swap)
      << " free</text>\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 46 << "\" class=\"note\">" << o.count(Cell::narrow)
      << " narrow, " << o.count(Cell::wide) << " wide entries of " << o.bound << "; swap area from "
      << o.swapIndex << "</text>\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 60 << "\" class=\"note\">rows of " << g.columns
      << " entries; left: the index of a row's first entry</text>\n";
  const U32 top = y + titleHeight;
  writeScale(out, x, top, g, o.bound);
  const U32 left = x + scaleWidth;
  out << "<rect x=\"" << left << "\" y=\"" << top << "\" width=\"" << g.columns * g.cell
      << "\" height=\"" << g.height() << "\" fill=\"none\" stroke=\"#999999\"/>\n";
  const U32 count = static_cast<U32>(o.cells.size());
  for (U32 row = 0; row * g.columns < count; ++row) {
    const U32 first = row * g.columns;
    const U32 last = std::min(count, first + g.columns);
    U32 i = first;
    while (i < last) {
      U32 end = i + 1;
      while (end < last && o.cells[end] == o.cells[i]) ++end;
      out << "<rect x=\"" << left + (i - first) * g.cell << "\" y=\"" << top + row * g.cell
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
    out << "<text x=\"" << x + 16 << "\" y=\"" << y + 11 << "\" class=\"key\">"
        << xmlEscaped(cellName(cell)) << "</text>\n";
    out << "<text x=\"" << x + 150 << "\" y=\"" << y + 11 << "\" class=\"note\">"
        << xmlEscaped(cellMeaning(cell)) << "</text>\n";
    y += legendLine;
  }
  for (const char* words : legendWords) {
    out << "<text x=\"" << x + 16 << "\" y=\"" << y + 11 << "\" class=\"note\">"
        << xmlEscaped(words) << "</text>\n";
    y += legendLine;
  }
  out << "</g>\n";
}

// The series of the free-space plot.
struct Series {
  const char* name;
  const char* colour;
  U32 (*value)(const FreeSpace&);
};

const Series plotSeries[] = {
    {"usable free entries", "#2ca02c", [](const FreeSpace& s) { return s.free; }},
    {"largest free block", "#1f77b4", [](const FreeSpace& s) { return s.largestRun; }},
    {"stranded entries", "#d62728", [](const FreeSpace& s) { return s.stranded(); }},
};
constexpr const char* defragColour = "#7f7f7f";
constexpr const char* refusedColour = "#000000";

void writeTimeline(std::ostream& out, const Timeline& timeline, U32 x, U32 y, U32 width) {
  Kiln::Seconds end = timeline.end;
  for (const Timeline::Point& p : timeline.points) end = std::max(end, p.time);
  if (!(end > 0)) end = 1;
  // The scale fits the values after the first hundredth of the time, so
  // that an empty table at the start does not flatten the rest; earlier
  // values above it are drawn at the top, and the plot says so.
  U32 most = 1;
  U32 mostOverall = 1;
  for (const Timeline::Point& p : timeline.points) {
    mostOverall = std::max(mostOverall, p.space.free);
    if (p.time >= end / 100) most = std::max(most, p.space.free);
  }
  const U32 left = x + plotAxisWidth;
  const U32 right = x + width;
  const U32 top = y + plotHead;
  const U32 bottom = top + plotBody;
  auto px = [&](Kiln::Seconds t) { return fixed1(left + (right - left) * (t / end)); };
  auto py = [&](U32 v) { return fixed1(bottom - double(plotBody) * std::min(v, most) / most); };

  out << "<g id=\"timeline\">\n";
  out << "<text x=\"" << x << "\" y=\"" << y + 16 << "\" class=\"title\">Free space over agent time"
      << "</text>\n";
  if (mostOverall > most) {
    out << "<text x=\"" << x + 220 << "\" y=\"" << y + 16 << "\" class=\"note\">(values above "
        << most << " in the first hundredth of the time, up to " << mostOverall
        << ", are drawn at the top)</text>\n";
  }
  // The key, on one line under the title.
  U32 keyX = x;
  auto key = [&](const char* colour, const std::string& name, bool dashed) {
    out << "<line x1=\"" << keyX << "\" y1=\"" << y + 28 << "\" x2=\"" << keyX + 16 << "\" y2=\""
        << y + 28 << "\" stroke=\"" << colour << "\" stroke-width=\"2\""
        << (dashed ? " stroke-dasharray=\"3,2\"" : "") << "/>\n";
    out << "<text x=\"" << keyX + 20 << "\" y=\"" << y + 32 << "\" class=\"note\">"
        << xmlEscaped(name) << "</text>\n";
    keyX += 40 + 6 * static_cast<U32>(name.size());
  };
  for (const Series& series : plotSeries) key(series.colour, series.name, false);
  key(defragColour, "defragmentation run (" + std::to_string(timeline.defragRuns.size()) + ")",
      true);
  key(refusedColour,
      "refused create, tick below the axis (" + std::to_string(timeline.refusedCreates.size()) +
          ")",
      false);

  out << "<rect x=\"" << left << "\" y=\"" << top << "\" width=\"" << right - left << "\" height=\""
      << plotBody << "\" fill=\"none\" stroke=\"#999999\"/>\n";
  // Axes: five times, three entry counts.
  for (int k = 0; k <= 4; ++k) {
    const Kiln::Seconds t = end * k / 4;
    out << "<text x=\"" << px(t) << "\" y=\"" << bottom + 30
        << "\" class=\"small\" text-anchor=\"middle\">" << fixed1(t) << " s</text>\n";
  }
  for (U32 v : {0u, most / 2, most}) {
    out << "<text x=\"" << left - 4 << "\" y=\"" << py(v)
        << "\" class=\"small\" text-anchor=\"end\">" << v << "</text>\n";
  }
  out << "<g id=\"defrag-runs\">\n";
  for (Kiln::Seconds t : timeline.defragRuns) {
    out << "<line x1=\"" << px(t) << "\" y1=\"" << top << "\" x2=\"" << px(t) << "\" y2=\""
        << bottom << "\" stroke=\"" << defragColour << "\" stroke-dasharray=\"3,2\"/>\n";
  }
  out << "</g>\n<g id=\"refused-creates\">\n";
  for (Kiln::Seconds t : timeline.refusedCreates) {
    out << "<line x1=\"" << px(t) << "\" y1=\"" << bottom + 2 << "\" x2=\"" << px(t) << "\" y2=\""
        << bottom + 12 << "\" stroke=\"" << refusedColour << "\"/>\n";
  }
  out << "</g>\n";
  for (const Series& series : plotSeries) {
    if (timeline.points.empty()) break;
    out << "<polyline fill=\"none\" stroke=\"" << series.colour
        << "\" stroke-width=\"1.5\" points=\"";
    for (const Timeline::Point& p : timeline.points)
      out << px(p.time) << ',' << py(series.value(p.space)) << ' ';
    out << "\"/>\n";
  }
  out << "</g>\n";
}

}  // namespace

const char* cellColour(Cell cell) {
  switch (cell) {
    case Cell::free: return "#a6dba0";
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

void writeOccupancySvg(std::ostream& out, const std::vector<Occupancy>& panels,
                       const Timeline* timeline) {
  U32 gridHeight = 0;
  std::vector<Geometry> geometries;
  for (const Occupancy& o : panels) {
    geometries.push_back(geometry(o.bound));
    gridHeight = std::max(gridHeight, geometries.back().height());
  }
  const U32 panelCount = std::max<U32>(1, static_cast<U32>(panels.size()));
  const U32 panelStep = scaleWidth + panelWidth + margin;
  const U32 width = margin + panelCount * panelStep;
  const U32 legendTop = margin + titleHeight + gridHeight + margin;
  const U32 timelineTop = legendTop + legendLines * legendLine + margin;
  const U32 height = timelineTop + (timeline ? plotHead + plotBody + plotFoot + margin : 0);
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << ' ' << height << "\">\n"
      << "<title>Next-hop table occupancy</title>\n"
      << "<style>text { font-family: sans-serif; } rect { shape-rendering: crispEdges; } .title { "
         "font-size: 14px; font-weight: bold; }"
         " .key { font-size: 11px; font-weight: bold; } .note { font-size: 11px; } .small { "
         "font-size: 9px; }"
         "</style>\n"
      << "<rect x=\"0\" y=\"0\" width=\"" << width << "\" height=\"" << height
      << "\" fill=\"#ffffff\"/>\n";
  for (size_t i = 0; i < panels.size(); ++i) {
    writePanel(out, panels[i], i, margin + static_cast<U32>(i) * panelStep, margin, geometries[i]);
  }
  writeLegend(out, margin, legendTop);
  if (timeline) writeTimeline(out, *timeline, margin, timelineTop, width - 2 * margin);
  out << "</svg>\n";
}

bool writeOccupancySvgFile(const std::string& path, const std::vector<Occupancy>& panels,
                           const Timeline* timeline, std::string& error) {
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file) {
    error = "cannot open " + path + ": " + Kiln::errorString(errno);
    return false;
  }
  writeOccupancySvg(file, panels, timeline);
  file.close();
  if (!file) {
    error = "cannot write " + path;
    return false;
  }
  return true;
}

}  // namespace Agent
