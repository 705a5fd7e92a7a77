// brevant-agent: the agent simulation on the simulated chip, and the client
// of its diagnostic socket.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "Agent.h"
#include "Brevant/Version.h"
#include "CommandLine.h"
#include "DiagnosticSocket.h"
#include "Kiln/Lock.h"
#include "Svg.h"

namespace {

// Exit codes (Report.h): 0 every check passed and the run was complete, 1 a
// check failed (or the picture could not be written), 2 nothing could be
// run, 3 the run was incomplete (interrupted before the end of the
// workload, or creates still waiting at the end).
using Agent::exitCannotRun;
using Agent::exitCheckFailed;

void onStopSignal(int) { Agent::AgentSimulation::interrupt(); }

void installStopSignals() {
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a wait in progress ends at once.
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

Agent::AgentConfig configFor(const Agent::RunOptions& options) {
  Agent::AgentConfig config;
  if (options.workloadFile) {
    std::error_code error;
    const std::filesystem::file_status status =
        std::filesystem::status(*options.workloadFile, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
      throw Agent::UsageError("workload " + *options.workloadFile + " is not a regular file");
    }
    std::ifstream in(*options.workloadFile);
    if (!in) throw Agent::UsageError("cannot read workload " + *options.workloadFile);
    try {
      config.workload = Agent::parseWorkload(in);
    } catch (const Agent::WorkloadError& e) {
      throw Agent::UsageError(*options.workloadFile + ":" + std::to_string(e.line()) + ": " +
                              e.message());
    }
    config.workloadName = *options.workloadFile;
  } else {
    Agent::BuiltInOptions builtIn;
    builtIn.seed = options.seed;
    builtIn.duration = options.duration;
    // The entries the workload may plan for: the table less the reserved
    // entries and the swap area.
    const U32 bound = options.simBound ? *options.simBound : 65534;
    const U32 swapArea = Agent::swapAreaEntries(options.simBound);
    builtIn.capacity = bound - swapArea - 3;
    builtIn.maxEntries = swapArea;
    config.workload = Agent::builtInWorkload(builtIn);
    config.workloadName = "built-in, seed " + std::to_string(options.seed);
  }
  config.simBound = options.simBound;
  config.watermarks = options.watermarks;
  config.manualClock = options.manualClock;
  config.socketPath = options.socketPath;
  if (options.socketIdleTimeout) config.socketIdleTimeout = *options.socketIdleTimeout;
  config.serve = options.serve;
  // On a terminal the progress line is redrawn in place; otherwise (a log)
  // a run on the real clock writes one line a minute, and a manual-clock
  // run, over in seconds, none.
  const bool terminal = isatty(STDERR_FILENO) == 1;
  config.progress = options.progress.value_or(terminal || !options.manualClock);
  config.progressInPlace = options.progress.value_or(terminal);
  if (!config.progressInPlace) config.progressEvery = 60;
  if (options.chipCallTime) config.chipTiming.perCall = *options.chipCallTime;
  if (options.chipWordTime) config.chipTiming.perWord = *options.chipWordTime;
  if (options.checkEveryWrite) config.tableCheckEveryWriteUpTo = 65534;
  config.restartEvery = options.restartEvery;
  config.referenceBehaviour = options.referenceBehaviour;
  if (!config.manualClock) config.settleLimit = 30;
  return config;
}

// Fails unless path can be written: an existing regular file that may be
// written, or a new name in a folder that may be written.
void checkWritable(const std::string& path, const char* what) {
  struct stat info {};
  std::string problem;
  if (stat(path.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) {
      problem = "not a regular file";
    } else if (access(path.c_str(), W_OK) != 0) {
      problem = strerror(errno);
    }
  } else {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    if (access(folder.c_str(), W_OK | X_OK) != 0) problem = strerror(errno);
  }
  if (!problem.empty())
    throw Agent::UsageError(std::string("cannot write ") + what + " " + path + ": " + problem);
}

int run(const Agent::RunOptions& options) {
  // Outputs are checked before anything runs, so that a long run is never
  // lost for want of a place to write its picture.
  if (options.svgFile) checkWritable(*options.svgFile, "the picture");
  const Agent::AgentConfig config = configFor(options);
  std::unique_ptr<Agent::AgentSimulation> made;
  try {
    made = std::make_unique<Agent::AgentSimulation>(config);
  } catch (const Agent::UnfitWorkload& e) {
    const std::string where = options.workloadFile ? *options.workloadFile + ":" : "request ";
    for (const Agent::WorkloadError& problem : e.problems()) {
      std::cerr << "brevant-agent: " << where << problem.line() << ": " << problem.message()
                << '\n';
    }
    std::cerr << "brevant-agent: the workload cannot run on this table; nothing was run\n";
    return exitCannotRun;
  }
  Agent::AgentSimulation& agent = *made;
  installStopSignals();
  const Agent::Report report = agent.run();
  if (options.svgFile) {
    std::string error;
    if (!Agent::writeOccupancySvgFile(*options.svgFile, report.pictures(), &report.timeline,
                                      error)) {
      std::cerr << "brevant-agent: " << error << '\n';
      return exitCheckFailed;
    }
  }
  Agent::printReport(std::cout, report);
  if (options.svgFile) std::cout << "  occupancy picture       " << *options.svgFile << '\n';
  std::cout << "Free-entry summary\n";
  std::cout.flush();
  {
    Kiln::ActivityLockGuard activity;
    agent.manager().showFreeEntrySummary(STDOUT_FILENO);
  }
  return Agent::exitStatusOf(report);
}

int client(const Agent::ClientOptions& options) {
  const std::string answer = Agent::diagnosticRequest(options.socketPath, options.request);
  std::cout << answer;
  return answer.rfind("error: ", 0) == 0 ? exitCheckFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Agent::CommandLine line = Agent::parseCommandLine(Agent::argumentsOf(argc, argv));
    switch (line.command) {
      case Agent::CommandLine::Command::version:
        std::cout << "brevant-agent " << Brevant::version() << '\n';
        return 0;
      case Agent::CommandLine::Command::help:
        std::cout << Agent::usageText(line.helpTopic);
        return 0;
      case Agent::CommandLine::Command::client: return client(line.client);
      case Agent::CommandLine::Command::run: return run(line.run);
    }
  } catch (const Agent::UsageError& e) {
    std::cerr << "brevant-agent: " << e.what() << "\n(brevant-agent help lists the commands)\n";
    return exitCannotRun;
  } catch (const std::exception& e) {
    std::cerr << "brevant-agent: " << e.what() << '\n';
    return exitCannotRun;
  }
  return exitCannotRun;
}
