// The command line of brevant-agent.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kiln/Types.h"

namespace Agent {

// A command line that cannot be run; what() says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The table's resource watermarks (NextHopResources), in percent.
struct Watermarks {
  double usedHigh = 0;
  double usedLow = 0;
  double fragmentationHigh = 0;
  double fragmentationLow = 0;
};

struct RunOptions {
  // The workload file to replay; the built-in workload when absent.
  std::optional<std::string> workloadFile;
  // Seed and agent time of the built-in workload.
  U64 seed = 1;
  Kiln::Seconds duration = 7200;
  // Simulation mode with this table bound (even, 16 to 65534).
  std::optional<U16> simBound;
  // The resource watermarks, in percent (0 leaves an alarm off).
  Watermarks watermarks;
  // Run on a manual clock that jumps from one timer to the next.
  bool manualClock = false;
  // Write the occupancy picture here.
  std::optional<std::string> svgFile;
  // Serve the diagnostic socket here.
  std::optional<std::string> socketPath;
  // Close a socket connection idle this long (real time); absent: the
  // server's default.
  std::optional<Kiln::Seconds> socketIdleTimeout;
  // Keep running after the workload until stopped (signal or quit request).
  bool serve = false;
  // Progress line: when absent, shown exactly when stderr is a terminal.
  std::optional<bool> progress;
  // Run the library's whole-table check at every defragmenter write even
  // on a large table (slow).
  bool checkEveryWrite = false;
  // Restart warm every this many seconds of agent time (0: never).
  Kiln::Seconds restartEvery = 0;
  // Run the manager with its hardened switch off (the reference behaviour).
  bool referenceBehaviour = false;
  // The simulated chip's time per call and per 64-bit word (the manual
  // clock's figures; absent: the bus estimate).
  std::optional<Kiln::Seconds> chipCallTime;
  std::optional<Kiln::Seconds> chipWordTime;
};

struct ClientOptions {
  std::string socketPath;
  // The request words joined by single blanks.
  std::string request;
};

struct CommandLine {
  enum class Command { run, client, help, version };
  Command command = Command::run;
  // help: the subcommand asked about ("run", "serve", "client"), or empty
  // for the whole usage.
  std::string helpTopic;
  RunOptions run;
  ClientOptions client;
};

// The arguments after the program name. A process may be started with no
// argument at all, not even its name (argc 0): then there are none.
std::vector<std::string> argumentsOf(int argc, const char* const* argv);

// Parses the arguments after the program name. Throws UsageError.
CommandLine parseCommandLine(const std::vector<std::string>& args);

// The text printed by `brevant-agent help`, or by `brevant-agent TOPIC
// --help` for one subcommand (an empty topic: every subcommand).
std::string usageText(const std::string& topic = {});

}  // namespace Agent
