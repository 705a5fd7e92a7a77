#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

using namespace Agent;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

std::string usageErrorOf(const std::vector<std::string>& args) {
  try {
    parseCommandLine(args);
  } catch (const UsageError& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace

TEST(CommandLine, NoArgumentsRunTheBuiltInWorkloadOnTheRealClock) {
  const CommandLine line = parseCommandLine({});
  EXPECT_EQ(line.command, CommandLine::Command::run);
  EXPECT_FALSE(line.run.workloadFile);
  EXPECT_FALSE(line.run.manualClock);
  EXPECT_FALSE(line.run.simBound);
  EXPECT_FALSE(line.run.serve);
  EXPECT_EQ(line.run.seed, 1u);
  EXPECT_EQ(line.run.duration, 7200.0);
  EXPECT_FALSE(line.run.progress);
}

TEST(CommandLine, RunTakesEveryOption) {
  const CommandLine line =
      parseCommandLine({"run", "--workload", "w.txt", "--seed", "42", "--duration", "60.5",
                        "--sim-bound", "64", "--manual-clock", "--svg", "t.svg", "--socket",
                        "/tmp/a.sock", "--serve", "--no-progress", "--check-every-write"});
  EXPECT_EQ(line.command, CommandLine::Command::run);
  EXPECT_EQ(line.run.workloadFile, "w.txt");
  EXPECT_EQ(line.run.seed, 42u);
  EXPECT_EQ(line.run.duration, 60.5);
  EXPECT_EQ(line.run.simBound, 64);
  EXPECT_TRUE(line.run.manualClock);
  EXPECT_EQ(line.run.svgFile, "t.svg");
  EXPECT_EQ(line.run.socketPath, "/tmp/a.sock");
  EXPECT_TRUE(line.run.serve);
  EXPECT_EQ(line.run.progress, false);
  EXPECT_TRUE(line.run.checkEveryWrite);
  EXPECT_FALSE(parseCommandLine({}).run.checkEveryWrite);
  // Options alone mean run.
  EXPECT_TRUE(parseCommandLine({"--manual-clock", "--progress"}).run.progress.value());
}

TEST(CommandLine, ServeIsRunThatKeepsServing) {
  const CommandLine line = parseCommandLine({"serve", "--socket", "/tmp/a.sock"});
  EXPECT_EQ(line.command, CommandLine::Command::run);
  EXPECT_TRUE(line.run.serve);
  EXPECT_EQ(usageErrorOf({"serve"}), "serving needs --socket PATH");
  EXPECT_EQ(usageErrorOf({"run", "--serve"}), "serving needs --socket PATH");
}

TEST(CommandLine, ClientJoinsTheRequestWords) {
  const CommandLine line = parseCommandLine({"client", "--socket", "/tmp/a.sock", "set",
                                             "nextHopManager.defragManager.defragDelay", "2.5"});
  EXPECT_EQ(line.command, CommandLine::Command::client);
  EXPECT_EQ(line.client.socketPath, "/tmp/a.sock");
  EXPECT_EQ(line.client.request, "set nextHopManager.defragManager.defragDelay 2.5");
  EXPECT_EQ(usageErrorOf({"client", "show", "free-entries"}), "client needs --socket PATH");
  EXPECT_EQ(usageErrorOf({"client", "--socket", "/tmp/a.sock"}), "client needs a request");
  EXPECT_EQ(usageErrorOf({"client", "--socket"}), "--socket needs a value");
}

TEST(CommandLine, RefusesBadValues) {
  EXPECT_EQ(usageErrorOf({"--sim-bound", "63"}), "--sim-bound must be even, not 63");
  EXPECT_EQ(usageErrorOf({"--sim-bound", "8"}),
            "--sim-bound expects a number from 16 to 65534, not '8'");
  EXPECT_EQ(usageErrorOf({"--sim-bound", "65536"}),
            "--sim-bound expects a number from 16 to 65534, not '65536'");
  EXPECT_EQ(usageErrorOf({"--seed", "x"}),
            "--seed expects a number from 0 to 18446744073709551615, not 'x'");
  EXPECT_EQ(usageErrorOf({"--duration", "-1"}),
            "--duration expects a number from 0 to 1e+07, not '-1'");
  EXPECT_EQ(usageErrorOf({"--workload"}), "--workload needs a value");
  EXPECT_EQ(usageErrorOf({"run", "--fast"}), "unknown option '--fast'");
}

TEST(CommandLine, HelpListsCommandsAndRequests) {
  EXPECT_EQ(parseCommandLine({"help"}).command, CommandLine::Command::help);
  EXPECT_EQ(parseCommandLine({"--help"}).command, CommandLine::Command::help);
  EXPECT_EQ(parseCommandLine({"--version"}).command, CommandLine::Command::version);
  EXPECT_THAT(usageText(), HasSubstr("brevant-agent --version"));
  EXPECT_THAT(usageText(), HasSubstr("brevant-agent client --socket PATH REQUEST..."));
  EXPECT_THAT(
      usageText(),
      HasSubstr("show free-entries | show resources | show group ID | get PATH | set PATH VALUE"));
}

TEST(CommandLine, RestartEveryTakesSecondsOfAgentTime) {
  EXPECT_EQ(parseCommandLine({"run", "--restart-every", "600"}).run.restartEvery, 600.0);
  EXPECT_EQ(parseCommandLine({}).run.restartEvery, 0.0);
  EXPECT_NE(usageErrorOf({"run", "--restart-every", "0"}), "no error");
  EXPECT_THAT(usageText(), ::testing::HasSubstr("list [PATH] | show restart | save"));
}

TEST(CommandLine, TheSocketsIdleTimeoutIsRealSecondsAboveZero) {
  EXPECT_FALSE(parseCommandLine({}).run.socketIdleTimeout);
  EXPECT_EQ(parseCommandLine({"--socket-idle-timeout", "2.5"}).run.socketIdleTimeout, 2.5);
  EXPECT_EQ(usageErrorOf({"--socket-idle-timeout", "0"}),
            "--socket-idle-timeout expects a number from 0.01 to 86400, not '0'");
  EXPECT_EQ(usageErrorOf({"--socket-idle-timeout", "nan"}),
            "--socket-idle-timeout expects a number from 0.01 to 86400, not 'nan'");
  EXPECT_EQ(usageErrorOf({"--socket-idle-timeout"}), "--socket-idle-timeout needs a value");
  EXPECT_THAT(usageText("serve"), HasSubstr("--socket-idle-timeout SECONDS"));
}

TEST(CommandLine, EveryOptionsHelpStartsInOneColumn) {
  std::istringstream lines(usageText("run"));
  std::string line;
  std::set<size_t> columns;
  while (std::getline(lines, line)) {
    if (line.rfind("  --", 0) != 0) continue;
    // The help starts after the blanks that follow the option and its value.
    const size_t gap = line.find("  ", 2);
    ASSERT_NE(gap, std::string::npos) << line;
    columns.insert(line.find_first_not_of(' ', gap));
  }
  EXPECT_EQ(columns.size(), 1u) << usageText("run");
}

TEST(CommandLine, AProcessStartedWithoutEvenItsNameHasNoArguments) {
  const char* const none[] = {nullptr};
  EXPECT_TRUE(argumentsOf(0, none).empty());
  const char* const nameOnly[] = {"brevant-agent", nullptr};
  EXPECT_TRUE(argumentsOf(1, nameOnly).empty());
  const char* const some[] = {"brevant-agent", "run", "--seed", "7", nullptr};
  EXPECT_EQ(argumentsOf(4, some), (std::vector<std::string>{"run", "--seed", "7"}));
  EXPECT_EQ(parseCommandLine(argumentsOf(0, none)).command, CommandLine::Command::run);
}

TEST(CommandLine, EveryPrefixOfACommandLineParsesOrIsRefusedWithoutReadingPastItsEnd) {
  // The reader's accesses are checked: reading past the end would throw
  // std::out_of_range here instead of a UsageError.
  const std::vector<std::vector<std::string>> lines = {
      {"run",         "--workload",       "w.txt", "--seed",      "42",    "--duration",
       "60.5",        "--sim-bound",      "64",    "--svg",       "t.svg", "--socket",
       "/tmp/a.sock", "--restart-every",  "10",    "--used-high", "90",    "--chip-call-time",
       "1e-6",        "--chip-word-time", "0"},
      {"serve", "--socket", "/tmp/a.sock", "--manual-clock", "--progress"},
      {"client", "--socket", "/tmp/a.sock", "show", "group", "3"},
      {"help", "client"},
      {"--seed", "3", "--help"},
      {"--version"},
  };
  for (const auto& line : lines) {
    for (size_t n = 0; n <= line.size(); ++n) {
      const std::vector<std::string> prefix(line.begin(), line.begin() + n);
      try {
        parseCommandLine(prefix);
      } catch (const UsageError&) {
      } catch (const std::exception& e) {
        ADD_FAILURE() << "prefix of " << n << " words of " << line[0] << ": " << e.what();
      }
    }
  }
}

TEST(CommandLine, EverySubcommandAnswersHelp) {
  for (const char* command : {"run", "serve", "client"}) {
    for (const char* help : {"--help", "-h"}) {
      const CommandLine line = parseCommandLine({command, help});
      EXPECT_EQ(line.command, CommandLine::Command::help) << command;
      EXPECT_EQ(line.helpTopic, command);
    }
    EXPECT_EQ(parseCommandLine({"help", command}).helpTopic, command);
    EXPECT_THAT(usageText(command), testing::StartsWith("usage: brevant-agent "));
    EXPECT_THAT(usageText(command), HasSubstr(command));
  }
  // Help wins over options before it, even incomplete ones.
  EXPECT_EQ(parseCommandLine({"serve", "--manual-clock", "--help"}).command,
            CommandLine::Command::help);
  EXPECT_EQ(parseCommandLine({"--help"}).helpTopic, "");
  EXPECT_THAT(usageText("run"), HasSubstr("--chip-call-time SECONDS"));
  EXPECT_THAT(usageText("client"), Not(HasSubstr("--seed")));
  EXPECT_THAT(usageText("client"), HasSubstr("status"));
}

TEST(CommandLine, AnUnknownSubcommandIsNamedAsSuch) {
  EXPECT_EQ(usageErrorOf({"serv", "--socket", "/tmp/a"}), "unknown command 'serv'");
  EXPECT_EQ(usageErrorOf({"help", "fly"}), "unknown command 'fly'");
  EXPECT_EQ(usageErrorOf({"--fast"}), "unknown option '--fast'");
}

TEST(CommandLine, RunsHardenedUnlessTheReferenceBehaviourIsAsked) {
  EXPECT_FALSE(parseCommandLine({}).run.referenceBehaviour);
  EXPECT_TRUE(parseCommandLine({"--reference-behaviour"}).run.referenceBehaviour);
  EXPECT_THAT(usageText("run"), HasSubstr("--reference-behaviour"));
}

TEST(CommandLine, TakesTheChipTiming) {
  const CommandLine line = parseCommandLine({"--chip-call-time", "2e-6", "--chip-word-time", "0"});
  EXPECT_EQ(line.run.chipCallTime, 2e-6);
  EXPECT_EQ(line.run.chipWordTime, 0.0);
  EXPECT_FALSE(parseCommandLine({}).run.chipCallTime);
  EXPECT_EQ(usageErrorOf({"--chip-word-time", "-1"}),
            "--chip-word-time expects a number from 0 to 1, not '-1'");
}
