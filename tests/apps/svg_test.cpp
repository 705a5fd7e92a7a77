#include "Svg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "PngCheck.h"
#include "XmlCheck.h"

using namespace Agent;
using ::testing::HasSubstr;

namespace {

// A small simulated table: reserved 0..2, narrow 3..9, free 10..11, narrow
// 12, free 13..47, wide 48..55, swap area 56..63.
Occupancy smallTable(const std::string& title) {
  Occupancy o;
  o.title = title;
  o.time = 12.25;
  o.bound = 64;
  o.swapIndex = 56;
  o.cells.assign(64, Cell::free);
  for (U32 i = 0; i < 3; ++i) o.cells[i] = Cell::reserved;
  for (U32 i = 3; i < 10; ++i) o.cells[i] = Cell::narrow;
  o.cells[12] = Cell::narrow;
  for (U32 i = 48; i < 56; ++i) o.cells[i] = Cell::wide;
  for (U32 i = 56; i < 64; ++i) o.cells[i] = Cell::swap;
  return o;
}

std::string svgOf(const std::vector<Occupancy>& panels) {
  std::ostringstream out;
  writeOccupancySvg(out, panels);
  return out.str();
}

// True when pattern matches text at offset at, where each '#' of the pattern
// stands for a run of one or more digits; the runs' values are appended to
// numbers. (Plain scanning rather than <regex>: g++ 12 with sanitizers warns
// of maybe-uninitialized members inside <regex>'s own code.)
bool matchesAt(const std::string& text, size_t at, const std::string& pattern,
               std::vector<unsigned long>* numbers = nullptr) {
  for (const char p : pattern) {
    if (p != '#') {
      if (at >= text.size() || text[at] != p) return false;
      ++at;
      continue;
    }
    const size_t start = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == start) return false;
    if (numbers) numbers->push_back(std::stoul(text.substr(start, at - start)));
  }
  return true;
}

int matches(const std::string& text, const std::string& pattern) {
  int n = 0;
  for (size_t at = 0; at < text.size(); ++at) n += matchesAt(text, at, pattern);
  return n;
}

int occurrences(const std::string& text, const std::string& piece) {
  int n = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
  return n;
}

}  // namespace

TEST(Occupancy, FreeSpaceCountsRunsBelowTheSwapIndex) {
  const FreeSpace space = smallTable("x").freeSpace();
  EXPECT_EQ(space.free, 37u);  // 10..11 and 13..47; the swap area does not count
  EXPECT_EQ(space.runs, 2u);
  EXPECT_EQ(space.largestRun, 35u);
  EXPECT_EQ(space.stranded(), 2u);
  EXPECT_EQ(freeSpaceText(space), "37 usable free in 2 runs, largest 35, stranded 2");
}

TEST(Occupancy, MoreFragmentedPrefersMoreStrandedEntriesThenMoreRuns) {
  FreeSpace compact;
  addFreeRun(compact, 100);
  FreeSpace scattered;
  addFreeRun(scattered, 40);
  addFreeRun(scattered, 30);
  addFreeRun(scattered, 30);
  FreeSpace splinters;
  addFreeRun(splinters, 40);
  for (int i = 0; i < 60; ++i) addFreeRun(splinters, 1);
  EXPECT_TRUE(moreFragmented(scattered, compact));
  EXPECT_FALSE(moreFragmented(compact, scattered));
  // Same stranded total (60): more runs is worse.
  EXPECT_TRUE(moreFragmented(splinters, scattered));
  EXPECT_FALSE(moreFragmented(scattered, scattered));
  addFreeRun(compact, 0);
  EXPECT_EQ(compact.runs, 1u);
}

TEST(OccupancySvg, IsWellFormedXml) {
  const std::string svg =
      svgOf({smallTable("start"), smallTable("worst fragmentation"), smallTable("end")});
  EXPECT_EQ(AgentTest::xmlProblem(svg), "");
  EXPECT_THAT(svg, HasSubstr("<svg xmlns=\"http://www.w3.org/2000/svg\""));
}

TEST(OccupancySvg, DrawsEachPanelWithTitleFiguresAndRuns) {
  const std::string svg = svgOf({smallTable("start"), smallTable("end")});
  EXPECT_EQ(occurrences(svg, "<g id=\"panel-"), 2);
  EXPECT_THAT(svg, HasSubstr(">start (t = 12.2 s)</text>"));
  EXPECT_THAT(
      svg, HasSubstr(">37 usable free in 2 runs, largest 35, stranded 2; swap area 8 free</text>"));
  EXPECT_THAT(svg, HasSubstr(">8 narrow, 8 wide entries of 64; swap area from 56</text>"));
  // 16 columns of 32 pixels: entries 0..2 reserved are one rectangle, 3..9
  // narrow another, and row 3 (48..63) holds wide 48..55 and swap 56..63.
  EXPECT_THAT(svg,
              HasSubstr("<rect x=\"72\" y=\"92\" width=\"96\" height=\"32\" fill=\"#333333\"/>"));
  EXPECT_THAT(svg,
              HasSubstr("<rect x=\"168\" y=\"92\" width=\"224\" height=\"32\" fill=\"#2f6db5\"/>"));
  EXPECT_THAT(svg,
              HasSubstr("<rect x=\"72\" y=\"188\" width=\"256\" height=\"32\" fill=\"#e8892b\"/>"));
  EXPECT_THAT(
      svg, HasSubstr("<rect x=\"328\" y=\"188\" width=\"256\" height=\"32\" fill=\"#b39ddb\"/>"));
  // A rectangle per run of one kind on a row: rows 0 (reserved, narrow, free,
  // narrow, free), 1 and 2 (free), 3 (wide, swap).
  const std::string firstPanel =
      svg.substr(svg.find("<g id=\"panel-0\">"),
                 svg.find("<g id=\"panel-1\">") - svg.find("<g id=\"panel-0\">"));
  EXPECT_EQ(matches(firstPanel, "<rect x=\"#\" y=\"#\" width=\"#\" height=\"32\" fill="), 9);
}

TEST(OccupancySvg, HasALegendOfEveryKind) {
  const std::string svg = svgOf({smallTable("start")});
  const size_t legend = svg.find("<g id=\"legend\">");
  ASSERT_NE(legend, std::string::npos);
  for (int i = 0; i < cellKinds; ++i) {
    const Cell cell = static_cast<Cell>(i);
    EXPECT_NE(svg.find(std::string("fill=\"") + cellColour(cell), legend), std::string::npos);
    EXPECT_NE(svg.find(std::string(">") + cellName(cell) + "</text>", legend), std::string::npos);
  }
}

TEST(OccupancySvg, EscapesTitles) {
  const std::string svg = svgOf({smallTable("a < b & \"c\"")});
  EXPECT_THAT(svg, HasSubstr("a &lt; b &amp; &quot;c&quot;"));
  EXPECT_EQ(AgentTest::xmlProblem(svg), "");
  EXPECT_EQ(xmlEscaped("'<>&\""), "&apos;&lt;&gt;&amp;&quot;");
}

TEST(OccupancySvg, AFullTableIsAGridOf256Columns) {
  Occupancy o;
  o.title = "full";
  o.bound = 65534;
  o.swapIndex = 65278;
  o.cells.assign(65534, Cell::free);
  for (U32 i = 65278; i < 65534; ++i) o.cells[i] = Cell::swap;
  const std::string svg = svgOf({o});
  EXPECT_EQ(gridColumns(65534), 256u);
  EXPECT_EQ(AgentTest::xmlProblem(svg), "");
  // 256 rows of 256 entries: rows 0 to 253 are one free rectangle each, row
  // 254 one before the swap area (which begins at 254 * 256 + 254), and row
  // 255 is all swap area.
  EXPECT_EQ(occurrences(svg, "fill=\"#a6dba0\"/>"), 255);
  EXPECT_EQ(occurrences(svg, "fill=\"#b39ddb\"/>"), 2);
}

TEST(OccupancySvg, WritesAFileAndReportsAnUnwritableOne) {
  char dir[] = "/tmp/agent-svg-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/table.svg";
  std::string error;
  ASSERT_TRUE(writeOccupancySvgFile(path, {smallTable("start")}, nullptr, error)) << error;
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(AgentTest::xmlProblem(text.str()), "");
  EXPECT_FALSE(writeOccupancySvgFile(std::string(dir) + "/missing/table.svg", {smallTable("x")},
                                     nullptr, error));
  EXPECT_THAT(error, HasSubstr("cannot open"));
  unlink(path.c_str());
  rmdir(dir);
}

namespace {

// A timeline over 100 s: free space falls, two runs restore it, one create
// is refused.
Timeline sampleTimeline() {
  Timeline t;
  for (int i = 0; i <= 100; i += 5) {
    FreeSpace space;
    addFreeRun(space, 40 - (i % 50) / 5);
    addFreeRun(space, 1 + (i % 50) / 10);
    t.points.push_back({double(i), space});
  }
  t.defragRuns = {45, 95};
  t.refusedCreates = {40};
  t.end = 100;
  return t;
}

}  // namespace

TEST(OccupancySvg, TheLegendExplainsEveryColourAndWord) {
  const std::string svg = svgOf({smallTable("start")});
  const std::string legend = svg.substr(svg.find("<g id=\"legend\">"));
  EXPECT_THAT(legend, HasSubstr("usable for a new group&apos;s block"));
  EXPECT_THAT(legend, HasSubstr("kept for moving groups"));
  EXPECT_THAT(legend, HasSubstr("allocated but in no group&apos;s block (never expected)"));
  EXPECT_THAT(legend, HasSubstr(">stranded: usable free entries outside the largest run"));
  EXPECT_THAT(legend, HasSubstr(">runs: stretches of consecutive usable free entries"));
}

TEST(OccupancySvg, EachPanelHasAnIndexScale) {
  const std::string svg = svgOf({smallTable("start")});
  EXPECT_THAT(svg, HasSubstr(">rows of 16 entries; left: the index of a row's first entry</text>"));
  // Four rows of 16: every row is labelled with its first index.
  for (const char* label : {">0</text>", ">16</text>", ">32</text>", ">48</text>"}) {
    EXPECT_THAT(svg, HasSubstr(label));
  }
}

TEST(OccupancySvg, PlotsFreeSpaceOverTimeWithRunsAndRefusalsMarked) {
  std::ostringstream out;
  const Timeline timeline = sampleTimeline();
  writeOccupancySvg(out, {smallTable("start"), smallTable("end")}, &timeline);
  const std::string svg = out.str();
  EXPECT_EQ(AgentTest::xmlProblem(svg), "");
  const std::string plot = svg.substr(svg.find("<g id=\"timeline\">"));
  EXPECT_THAT(plot, HasSubstr(">Free space over agent time</text>"));
  EXPECT_EQ(occurrences(plot, "<polyline "), 3);
  EXPECT_THAT(plot, HasSubstr(">defragmentation run (2)</text>"));
  EXPECT_THAT(plot, HasSubstr(">refused create, tick below the axis (1)</text>"));
  const std::string runs =
      plot.substr(plot.find("<g id=\"defrag-runs\">"),
                  plot.find("<g id=\"refused-creates\">") - plot.find("<g id=\"defrag-runs\">"));
  EXPECT_EQ(occurrences(runs, "<line "), 2);
  EXPECT_THAT(plot, HasSubstr(">100.0 s</text>"));
  // Without a timeline there is no plot.
  EXPECT_EQ(svgOf({smallTable("start")}).find("timeline"), std::string::npos);
}

TEST(OccupancySvg, AnEmptyTableAtTheStartDoesNotFlattenThePlot) {
  Timeline timeline = sampleTimeline();
  FreeSpace empty;
  addFreeRun(empty, 1000);
  timeline.points.insert(timeline.points.begin(), {0.0, empty});
  std::ostringstream out;
  writeOccupancySvg(out, {smallTable("start")}, &timeline);
  const std::string plot = out.str().substr(out.str().find("<g id=\"timeline\">"));
  // The scale's top is the largest later value (41), not 1000.
  EXPECT_THAT(plot, HasSubstr(">41</text>"));
  EXPECT_THAT(plot, HasSubstr("(values above 41 in the first hundredth of the time, up to 1000, "
                              "are drawn at the top)"));
  EXPECT_EQ(AgentTest::xmlProblem(out.str()), "");
}

TEST(OccupancySvg, RendersToAWellFormedPictureThatIsNotBlank) {
#ifndef BREVANT_RSVG_CONVERT
  GTEST_SKIP()
      << "rsvg-convert was not found when the build was configured (Debian package librsvg2-bin)";
#else
  char dir[] = "/tmp/agent-png-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string svgPath = std::string(dir) + "/table.svg";
  const std::string pngPath = std::string(dir) + "/table.png";
  const Timeline timeline = sampleTimeline();
  std::string error;
  ASSERT_TRUE(
      writeOccupancySvgFile(svgPath, {smallTable("start"), smallTable("end")}, &timeline, error))
      << error;
  const std::string command =
      std::string(BREVANT_RSVG_CONVERT) + " -o '" + pngPath + "' '" + svgPath + "' 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  std::ifstream in(pngPath, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  AgentTest::PngImage image;
  ASSERT_EQ(AgentTest::decodePng(bytes.str(), image), "");
  // The picture has the document's size.
  std::ifstream svgIn(svgPath);
  std::stringstream svgText;
  svgText << svgIn.rdbuf();
  const std::string svg = svgText.str();
  const size_t tagStart = svg.find("<svg ");
  const size_t tagEnd = svg.find('>', tagStart);
  std::vector<unsigned long> size;
  for (size_t at = tagStart; at < tagEnd && size.empty(); ++at) {
    matchesAt(svg, at, " width=\"#\" height=\"#\"", &size);
  }
  ASSERT_EQ(size.size(), 2u) << svg.substr(0, 200);
  EXPECT_EQ(image.width, size[0]);
  EXPECT_EQ(image.height, size[1]);
  // Not blank: many colours, a fair share of ink, and the free colour shows.
  EXPECT_GT(image.colours(), 8u);
  EXPECT_GT(image.inkShare(), 0.05);
  EXPECT_LT(image.inkShare(), 0.95);
  const U32 freeColour = 0xa6dba0ffu;
  EXPECT_NE(std::count(image.pixels.begin(), image.pixels.end(), freeColour), 0);
  unlink(svgPath.c_str());
  unlink(pngPath.c_str());
  rmdir(dir);
#endif
}

TEST(PngCheck, RefusesWhatIsNotAPicture) {
  AgentTest::PngImage image;
  EXPECT_EQ(AgentTest::decodePng("GIF89a", image), "no PNG signature");
  EXPECT_EQ(AgentTest::decodePng(std::string("\x89PNG\r\n\x1a\n", 8) + "\0\0", image),
            "a chunk runs past the end of the file");
}

TEST(XmlCheck, FindsTheProblemsItIsFor) {
  EXPECT_EQ(AgentTest::xmlProblem("<a><b/></a>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a><b></a>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a x=1/>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a x=\"1\" x=\"2\"/>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a>&nbsp;</a>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a/><b/>"), "");
  EXPECT_NE(AgentTest::xmlProblem("<a>"), "");
  EXPECT_EQ(AgentTest::xmlProblem("<?xml version=\"1.0\"?>\n<!-- c --><a>&#60;&amp;</a>\n"), "");
}
