#include "CommandLine.h"

#include <charconv>
#include <cstdint>
#include <sstream>

namespace Agent {
namespace {

template <class T>
std::string numberText(T value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

class ArgumentReader {
 public:
  explicit ArgumentReader(const std::vector<std::string>& args) : args_(args) {}

  bool done() const { return at_ >= args_.size(); }
  const std::string& next() { return args_[at_++]; }

  // The value after option `name`.
  const std::string& value(const std::string& name) {
    if (done()) throw UsageError(name + " needs a value");
    return next();
  }

  template <class T>
  T number(const std::string& name, T least, T most) {
    const std::string& text = value(name);
    T result{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    if (error != std::errc() || end != text.data() + text.size() || !(result >= least) ||
        !(result <= most)) {
      throw UsageError(name + " expects a number from " + numberText(least) + " to " +
                       numberText(most) + ", not '" + text + "'");
    }
    return result;
  }

 private:
  const std::vector<std::string>& args_;
  size_t at_ = 0;
};

void parseRunOption(const std::string& option, ArgumentReader& in, RunOptions& run) {
  if (option == "--workload") {
    run.workloadFile = in.value(option);
  } else if (option == "--seed") {
    run.seed = in.number<U64>(option, 0, UINT64_MAX);
  } else if (option == "--duration") {
    run.duration = in.number<double>(option, 0, 1e7);
  } else if (option == "--sim-bound") {
    const U32 bound = in.number<U32>(option, 16, 65534);
    // Wide blocks must start on even indexes; an odd bound puts the swap
    // index, and so the top of the wide region, on an odd index.
    if (bound % 2 != 0) throw UsageError("--sim-bound must be even, not " + std::to_string(bound));
    run.simBound = static_cast<U16>(bound);
  } else if (option == "--restart-every") {
    run.restartEvery = in.number<double>(option, 0.001, 1e7);
  } else if (option == "--used-high") {
    run.watermarks.usedHigh = in.number<double>(option, 0, 100);
  } else if (option == "--used-low") {
    run.watermarks.usedLow = in.number<double>(option, 0, 100);
  } else if (option == "--fragmentation-high") {
    run.watermarks.fragmentationHigh = in.number<double>(option, 0, 100);
  } else if (option == "--fragmentation-low") {
    run.watermarks.fragmentationLow = in.number<double>(option, 0, 100);
  } else if (option == "--manual-clock") {
    run.manualClock = true;
  } else if (option == "--svg") {
    run.svgFile = in.value(option);
  } else if (option == "--socket") {
    run.socketPath = in.value(option);
  } else if (option == "--serve") {
    run.serve = true;
  } else if (option == "--progress") {
    run.progress = true;
  } else if (option == "--no-progress") {
    run.progress = false;
  } else if (option == "--check-every-write") {
    run.checkEveryWrite = true;
  } else {
    throw UsageError("unknown option '" + option + "'");
  }
}

}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  CommandLine line;
  ArgumentReader in(args);
  std::string first = in.done() ? "run" : args[0];
  if (first == "run" || first == "serve" || first == "client" || first == "help" ||
      first == "--help" || first == "-h" || first == "--version") {
    in.next();
  } else {
    first = "run";  // options without a command: run
  }
  if (first == "help" || first == "--help" || first == "-h") {
    line.command = CommandLine::Command::help;
    return line;
  }
  if (first == "--version") {
    line.command = CommandLine::Command::version;
    return line;
  }
  if (first == "client") {
    line.command = CommandLine::Command::client;
    while (!in.done()) {
      const std::string& word = in.next();
      if (word == "--socket" && line.client.request.empty()) {
        line.client.socketPath = in.value(word);
      } else {
        line.client.request += (line.client.request.empty() ? "" : " ") + word;
      }
    }
    if (line.client.socketPath.empty()) throw UsageError("client needs --socket PATH");
    if (line.client.request.empty()) throw UsageError("client needs a request");
    return line;
  }
  line.command = CommandLine::Command::run;
  line.run.serve = first == "serve";
  while (!in.done()) parseRunOption(in.next(), in, line.run);
  if (line.run.serve && !line.run.socketPath) throw UsageError("serving needs --socket PATH");
  return line;
}

std::string usageText() {
  return "usage: brevant-agent [run] [options]     replay a workload and print the report\n"
         "       brevant-agent serve --socket PATH [options]\n"
         "                                         the same, then serve until stopped\n"
         "       brevant-agent client --socket PATH REQUEST...\n"
         "                                         send one request to a running agent\n"
         "       brevant-agent help\n"
         "       brevant-agent --version\n"
         "\n"
         "options of run and serve:\n"
         "  --workload FILE     replay FILE (see docs/agent.md) instead of the built-in workload\n"
         "  --seed N            seed of the built-in workload (default 1)\n"
         "  --duration SECONDS  agent time of the built-in workload's churn (default 7200)\n"
         "  --sim-bound N       simulation mode with a table of N entries (even, 16..65534)\n"
         "  --used-high P, --used-low P, --fragmentation-high P, --fragmentation-low P\n"
         "                      the table's resource watermarks in percent (0: alarm off)\n"
         "  --manual-clock      run on a manual clock: hours of agent time in seconds\n"
         "  --restart-every SECONDS\n"
         "                      restart warm (snapshot, new state, restore) every SECONDS of agent time\n"
         "  --svg FILE          write the occupancy picture (start, worst, end)\n"
         "  --socket PATH       serve the diagnostic socket at PATH (mode 0600)\n"
         "  --serve             keep running after the workload (SIGINT, SIGTERM or quit end it)\n"
         "  --progress, --no-progress\n"
         "                      progress line on stderr (default: when stderr is a terminal)\n"
         "  --check-every-write the library's whole-table check at every defragmenter write\n"
         "                      also above 8192 entries (slow on a full table)\n"
         "\n"
         "requests: show free-entries | show resources | show group ID | get PATH | set PATH VALUE | help | quit\n"
         "          show restart | save\n";
}

}  // namespace Agent
