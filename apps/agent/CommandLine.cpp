#include "CommandLine.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <functional>
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
  // The next argument; only when !done() (checked: a parser that asks
  // beyond the end throws instead of reading past it).
  const std::string& next() { return args_.at(at_++); }
  // The next argument without taking it; only when !done().
  const std::string& peek() const { return args_.at(at_); }

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

// One option of run and serve: its name, the value it takes (empty for a
// flag), its help text, and what it sets.
struct RunOption {
  const char* name;
  const char* value;
  const char* help;
  std::function<void(ArgumentReader& in, const std::string& name, RunOptions& run)> apply;
};

const std::vector<RunOption>& runOptions() {
  static const std::vector<RunOption> options = {
      {"--workload", "FILE", "replay FILE (see docs/agent.md) instead of the built-in workload",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.workloadFile = in.value(name);
       }},
      {"--seed", "N", "seed of the built-in workload (default 1)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.seed = in.number<U64>(name, 0, UINT64_MAX);
       }},
      {"--duration", "SECONDS", "agent time of the built-in workload's churn (default 7200)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.duration = in.number<double>(name, 0, 1e7);
       }},
      {"--sim-bound", "N", "simulation mode with a table of N entries (even, 16..65534)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         const U32 bound = in.number<U32>(name, 16, 65534);
         // Wide blocks must start on even indexes; an odd bound puts the swap
         // index, and so the top of the wide region, on an odd index.
         if (bound % 2 != 0) throw UsageError(name + " must be even, not " + std::to_string(bound));
         run.simBound = static_cast<U16>(bound);
       }},
      {"--restart-every", "SECONDS",
       "restart warm (snapshot, new state, restore) every SECONDS of agent time",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.restartEvery = in.number<double>(name, 0.001, 1e7);
       }},
      {"--used-high", "P", "high watermark of the table's used share in percent (0: alarm off)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.watermarks.usedHigh = in.number<double>(name, 0, 100);
       }},
      {"--used-low", "P", "low watermark of the table's used share in percent",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.watermarks.usedLow = in.number<double>(name, 0, 100);
       }},
      {"--fragmentation-high", "P",
       "high watermark of the fragmentation figure in percent (0: alarm off)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.watermarks.fragmentationHigh = in.number<double>(name, 0, 100);
       }},
      {"--fragmentation-low", "P", "low watermark of the fragmentation figure in percent",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.watermarks.fragmentationLow = in.number<double>(name, 0, 100);
       }},
      {"--manual-clock", "", "run on a manual clock: hours of agent time in seconds",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.manualClock = true; }},
      {"--chip-call-time", "SECONDS", "manual clock: time of one chip call (default 5e-06)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.chipCallTime = in.number<double>(name, 0, 1);
       }},
      {"--chip-word-time", "SECONDS",
       "manual clock: time per 64-bit word of a chip call (default 1e-06)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.chipWordTime = in.number<double>(name, 0, 1);
       }},
      {"--svg", "FILE", "write the picture: the table at four moments, free space over time",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.svgFile = in.value(name);
       }},
      {"--socket", "PATH", "serve the diagnostic socket at PATH (mode 0600)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.socketPath = in.value(name);
       }},
      {"--socket-idle-timeout", "SECONDS",
       "close a socket connection that sends no complete request for SECONDS of real time "
       "(default 10)",
       [](ArgumentReader& in, const std::string& name, RunOptions& run) {
         run.socketIdleTimeout = in.number<double>(name, 0.01, 86400);
       }},
      {"--serve", "", "keep running after the workload (SIGINT, SIGTERM or quit end it)",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.serve = true; }},
      {"--progress", "",
       "progress line on stderr, redrawn (default: on a terminal; else once a minute on the real "
       "clock)",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.progress = true; }},
      {"--no-progress", "", "no progress line",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.progress = false; }},
      {"--reference-behaviour", "",
       "the manager's reference behaviour, whose hazards the default avoids "
       "(docs/next-hop-table.md)",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.referenceBehaviour = true; }},
      {"--check-every-write", "",
       "the library's whole-table check at every defragmenter write also above 8192 entries (slow)",
       [](ArgumentReader&, const std::string&, RunOptions& run) { run.checkEveryWrite = true; }},
  };
  return options;
}

void parseRunOption(const std::string& option, ArgumentReader& in, RunOptions& run) {
  for (const RunOption& known : runOptions()) {
    if (option == known.name) return known.apply(in, option, run);
  }
  throw UsageError("unknown option '" + option + "'");
}

bool isHelp(const std::string& word) { return word == "--help" || word == "-h" || word == "help"; }

// The subcommands and their usage lines.
struct Subcommand {
  const char* name;
  const char* usage;
  const char* summary;
};

const std::vector<Subcommand>& subcommands() {
  static const std::vector<Subcommand> list = {
      {"run", "brevant-agent [run] [options]", "replay a workload and print the report"},
      {"serve", "brevant-agent serve --socket PATH [options]",
       "the same, then serve until stopped"},
      {"client", "brevant-agent client --socket PATH REQUEST...",
       "send one request to a running agent"},
      {"help", "brevant-agent help [COMMAND]", "this text, or one command's"},
      {"--version", "brevant-agent --version", "the library's version"},
  };
  return list;
}

bool isSubcommand(const std::string& word) {
  for (const Subcommand& c : subcommands()) {
    if (word == c.name) return true;
  }
  return false;
}

CommandLine helpFor(std::string topic) {
  CommandLine line;
  line.command = CommandLine::Command::help;
  if (!topic.empty() && !isSubcommand(topic)) throw UsageError("unknown command '" + topic + "'");
  line.helpTopic = std::move(topic);
  return line;
}

CommandLine parseClient(ArgumentReader& in) {
  CommandLine line;
  line.command = CommandLine::Command::client;
  while (!in.done()) {
    const std::string& word = in.next();
    if (line.client.request.empty() && isHelp(word) && word != "help") return helpFor("client");
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

}  // namespace

std::vector<std::string> argumentsOf(int argc, const char* const* argv) {
  std::vector<std::string> args;
  for (int i = 1; i < argc && argv[i]; ++i) args.emplace_back(argv[i]);
  return args;
}

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  ArgumentReader in(args);
  if (!in.done() && (in.peek() == "--help" || in.peek() == "-h")) return helpFor({});
  if (!in.done() && in.peek() == "--version") {
    CommandLine line;
    line.command = CommandLine::Command::version;
    return line;
  }
  // Options without a command mean run.
  const std::string command = in.done() || in.peek().rfind("-", 0) == 0 ? "run" : in.next();
  if (command == "help") return helpFor(in.done() ? std::string() : in.next());
  if (!isSubcommand(command)) throw UsageError("unknown command '" + command + "'");
  if (command == "client") return parseClient(in);

  CommandLine line;
  line.command = CommandLine::Command::run;
  line.run.serve = command == "serve";
  while (!in.done()) {
    const std::string& option = in.next();
    if (option == "--help" || option == "-h") return helpFor(command);
    parseRunOption(option, in, line.run);
  }
  if (line.run.serve && !line.run.socketPath) throw UsageError("serving needs --socket PATH");
  return line;
}

std::string usageText(const std::string& topic) {
  std::string text;
  bool first = true;
  for (const Subcommand& c : subcommands()) {
    if (!topic.empty() && topic != c.name) continue;
    char head[160];
    snprintf(head, sizeof(head), "%s%s\n       %-34s %s\n", first ? "usage: " : "       ", c.usage,
             "", c.summary);
    text += head;
    first = false;
  }
  if (topic.empty() || topic == "run" || topic == "serve") {
    text += "\noptions of run and serve:\n";
    // Every help text starts in one column, after the longest option.
    auto nameOf = [](const RunOption& o) {
      return std::string(o.name) + (*o.value ? std::string(" ") + o.value : "");
    };
    size_t width = 0;
    for (const RunOption& o : runOptions()) width = std::max(width, nameOf(o).size());
    for (const RunOption& o : runOptions()) {
      const std::string name = nameOf(o);
      text += "  " + name + std::string(width + 2 - name.size(), ' ') + o.help + "\n";
    }
  }
  if (topic.empty() || topic == "client" || topic == "serve") {
    text +=
        "\nrequests: show free-entries | show resources | show group ID | get PATH | set PATH "
        "VALUE | status | help | quit\n"
        "          list [PATH] | show restart | save | chip-timing [CALL WORD]\n";
  }
  return text;
}

}  // namespace Agent
