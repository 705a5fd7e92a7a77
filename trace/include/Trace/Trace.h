// Named trace handles with numbered levels.
//
// A handle is created on first use and lives until the process exits. Each
// of its levels 1 to 9 is switched on or off at run time, through levelIs()
// or levelsIs(), through configure(), or through the environment variable
// BREVANT_TRACE read when the first handle is created:
//
//   BREVANT_TRACE="BrevantNextHop=1-4,8;FmApi=all"
//
// The text is a list of entries separated by ';'. An entry is NAME=LEVELS;
// NAME "*" applies to every handle. LEVELS is a comma-separated list of
// levels (7) and inclusive ranges (1-4), or "all", or "none" (an empty list
// is "none" too). Blanks around names and numbers are ignored. Later entries
// override earlier ones for the handles they name.
//
// A line is built only when its level is enabled:
//
//   TRACE_LINE(handle, 3, "moved group " << id << " to " << std::hex << base);
//
// The disabled path is one load and one test of the handle's level word; the
// stream expression is not evaluated. An enabled line goes to the process's
// sink: by default stderr, as "<handle> <level>: <text>".
#pragma once

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Types.h"

namespace Trace {

constexpr int minLevel = 1;
constexpr int maxLevel = 9;

// Level of a handle that switches chip-call tracing for the code tracing to
// that handle: with it enabled, each chip API call is traced through
// FmApi::trace1 before it is made.
constexpr int chipCallLevel = 7;

// Bit L of a level mask enables level L; bit 0 is never used.
typedef U32 LevelMask;

// Returns the mask bit of level (0 for a level outside 1..9).
constexpr LevelMask levelBit(int level) {
  return level >= minLevel && level <= maxLevel ? LevelMask(1) << level : 0;
}

constexpr LevelMask noLevels = 0;
constexpr LevelMask allLevels = 0x3FE;

// Parses a LEVELS text of BREVANT_TRACE ("1-4,8", "all", "none", "") into a
// mask. Throws Kiln::RangeException naming the text when it does not parse or
// names a level outside 1..9.
LevelMask parseLevels(std::string_view text);

// The shortest LEVELS text of a mask that parseLevels reads back: "none",
// "all", or levels and ranges in ascending order ("1-4,8").
std::string levelsText(LevelMask levels);

class Handle {
 public:
  explicit Handle(std::string name, LevelMask levels = noLevels);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // The name lines are traced under.
  const std::string& name() const { return name_; }

  // True when lines at level are traced. Any thread may ask.
  bool enabled(int level) const {
    return (levels_.load(std::memory_order_relaxed) & levelBit(level)) != 0;
  }

  // The enabled levels as a mask.
  LevelMask levels() const { return levels_.load(std::memory_order_relaxed); }

  // Replaces the enabled levels; bits outside levels 1..9 are dropped.
  void levelsIs(LevelMask levels) { levels_.store(levels & allLevels, std::memory_order_relaxed); }

  // Switches one level on or off. Throws Kiln::RangeException for a level
  // outside 1..9.
  void levelIs(int level, bool on);

 private:
  const std::string name_;
  std::atomic<LevelMask> levels_;
};

// Returns the handle called name, creating it on first use with the levels
// that configure() and BREVANT_TRACE give it. Thread-safe; the handle lives
// until the process exits.
Handle& handle(std::string_view name);

// Returns the handle called name if it has been created, else null (and
// creates none).
Handle* existingHandle(std::string_view name);

// Every handle created so far, ordered by name.
std::vector<Handle*> handles();

// Applies a BREVANT_TRACE-style text to the existing handles and remembers it
// for handles created later. Throws Kiln::RangeException (and changes
// nothing) when the text does not parse.
void configure(std::string_view settings);

// Where enabled lines go.
class Sink {
 public:
  virtual ~Sink() = default;
  // Receives one complete line (no trailing newline). May be called from any
  // thread that traces.
  virtual void lineIs(const Handle& handle, int level, std::string_view text) = 0;
};

// Returns the sink lines currently go to.
Sink* sink();

// Makes sink the destination of every line and returns the previous one;
// nullptr restores the stderr sink. Change the sink while no other thread is
// tracing.
Sink* sinkIs(Sink* sink);

// Sends a line to the sink whatever the handle's levels: for code that has
// made the level decision itself (the macros, the chip-call trace).
void emit(const Handle& handle, int level, std::string_view text);

// A sink that drops every line (for measuring the cost of building lines).
class NullSink : public Sink {
 public:
  void lineIs(const Handle&, int, std::string_view) override {}
};

// One captured line.
struct Line {
  std::string handle;
  int level;
  std::string text;
  friend bool operator==(const Line&, const Line&) = default;
};

// Test helper: while it exists, every line of every handle goes to it
// instead of the previous sink, which it restores on destruction.
//
//   Trace::Capture cap(Brevant::nextHopTrace(), Trace::allLevels);
//   ...
//   EXPECT_TRUE(cap.contains(1, "Error:Invalid Argument"));
class Capture : public Sink {
 public:
  Capture();
  // Also enables levels on handle (in addition to those already enabled)
  // until destruction, when the handle's previous levels come back.
  Capture(Handle& handle, LevelMask levels);
  ~Capture() override;
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  void lineIs(const Handle& handle, int level, std::string_view text) override;

  // Returns the lines captured so far, in the order they were traced.
  std::vector<Line> lines() const;

  // Returns the texts of the lines captured at level, in order.
  std::vector<std::string> texts(int level) const;

  // True when some line at level has exactly this text.
  bool contains(int level, std::string_view text) const;

  // Forgets the lines captured so far.
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  Sink* previous_;
  Handle* handle_ = nullptr;
  LevelMask previousLevels_ = noLevels;
};

}  // namespace Trace

// Traces the stream expression expr at level on handle when that level is
// enabled; expr may use any ostream manipulator (std::hex, std::dec). The
// line is built in a function of its own, kept out of line and apart from
// the hot code: a traced operation's own instructions stay together in the
// instruction cache instead of around the stream code of every trace site.
#define TRACE_LINE(handle, level, expr)                               \
  do {                                                                \
    ::Trace::Handle& traceHandle_ = (handle);                         \
    if (traceHandle_.enabled(level)) [[unlikely]] {                   \
      const auto traceLine_ = [&]() __attribute__((cold, noinline)) { \
        std::ostringstream traceStream_;                              \
        traceStream_ << expr;                                         \
        ::Trace::emit(traceHandle_, (level), traceStream_.view());    \
      };                                                              \
      traceLine_();                                                   \
    }                                                                 \
  } while (0)
