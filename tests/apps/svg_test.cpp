#include "Svg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

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
  EXPECT_EQ(freeSpaceText(space), "37 free in 2 runs, largest 35, stranded 2");
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
  EXPECT_THAT(svg, HasSubstr(">37 free in 2 runs, largest 35, stranded 2</text>"));
  EXPECT_THAT(svg, HasSubstr(">8 narrow, 8 wide entries of 64; swap area from 56</text>"));
  // 16 columns of 32 pixels: entries 0..2 reserved are one rectangle, 3..9
  // narrow another, and row 3 (48..63) holds wide 48..55 and swap 56..63.
  EXPECT_THAT(svg, HasSubstr("<rect x=\"24\" y=\"76\" width=\"96\" height=\"32\" fill=\"#333333\"/>"));
  EXPECT_THAT(svg, HasSubstr("<rect x=\"120\" y=\"76\" width=\"224\" height=\"32\" fill=\"#2f6db5\"/>"));
  EXPECT_THAT(svg, HasSubstr("<rect x=\"24\" y=\"172\" width=\"256\" height=\"32\" fill=\"#e8892b\"/>"));
  EXPECT_THAT(svg, HasSubstr("<rect x=\"280\" y=\"172\" width=\"256\" height=\"32\" fill=\"#b39ddb\"/>"));
  // A rectangle per run of one kind on a row: rows 0 (reserved, narrow, free,
  // narrow, free), 1 and 2 (free), 3 (wide, swap).
  const std::regex cellRect("<rect x=\"\\d+\" y=\"\\d+\" width=\"\\d+\" height=\"32\" fill=");
  const std::string firstPanel = svg.substr(svg.find("<g id=\"panel-0\">"),
                                            svg.find("<g id=\"panel-1\">") - svg.find("<g id=\"panel-0\">"));
  EXPECT_EQ(std::distance(std::sregex_iterator(firstPanel.begin(), firstPanel.end(), cellRect),
                          std::sregex_iterator()),
            9);
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
  EXPECT_EQ(occurrences(svg, "fill=\"#f2f2f2\"/>"), 255);
  EXPECT_EQ(occurrences(svg, "fill=\"#b39ddb\"/>"), 2);
}

TEST(OccupancySvg, WritesAFileAndReportsAnUnwritableOne) {
  char dir[] = "/tmp/agent-svg-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/table.svg";
  std::string error;
  ASSERT_TRUE(writeOccupancySvgFile(path, {smallTable("start")}, error)) << error;
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(AgentTest::xmlProblem(text.str()), "");
  EXPECT_FALSE(writeOccupancySvgFile(std::string(dir) + "/missing/table.svg", {smallTable("x")}, error));
  EXPECT_THAT(error, HasSubstr("cannot open"));
  unlink(path.c_str());
  rmdir(dir);
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
