// The brevant-agent program itself: its commands, exit codes and output.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "Brevant/Version.h"
#include "XmlCheck.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

struct Outcome {
  int status = -1;  // the exit status, or -1 when it did not exit
  std::string out;
  std::string err;
};

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/agent-program-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    const std::string command = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }

  std::string file(const std::string& name, const std::string& text) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  // Starts the program with args, its output going to files.
  pid_t start(const std::vector<std::string>& args) {
    const pid_t pid = fork();
    if (pid == 0) {
      const int out = open((dir_ + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = open((dir_ + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      std::vector<char*> argv{const_cast<char*>(BREVANT_AGENT_PROGRAM)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    return pid;
  }

  Outcome finish(pid_t pid) {
    int status = 0;
    Outcome o;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) o.status = WEXITSTATUS(status);
    o.out = fileText(dir_ + "/out");
    o.err = fileText(dir_ + "/err");
    return o;
  }

  Outcome run(const std::vector<std::string>& args) { return finish(start(args)); }

  // Runs the client in its own output files.
  Outcome client(const std::string& socket, const std::string& request) {
    const std::string out = dir_ + "/client.out";
    const std::string command = std::string(BREVANT_AGENT_PROGRAM) + " client --socket '" + socket +
                                "' " + request + " > '" + out + "' 2>&1";
    Outcome o;
    const int status = std::system(command.c_str());
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    o.out = fileText(out);
    return o;
  }

  std::string dir_;
};

const char* const goodWorkload =
    "# two groups\n"
    "create a narrow 4 unicast\n"
    "create t wide 2 vxlan-tunnel\n"
    "sleep 1\n"
    "read a 2\n";

}  // namespace

TEST_F(ProgramTest, HelpPrintsTheUsage) {
  const Outcome o = run({"help"});
  EXPECT_EQ(o.status, 0);
  EXPECT_THAT(o.out, StartsWith("usage: brevant-agent [run] [options]"));
}

TEST_F(ProgramTest, VersionPrintsTheLibraryVersion) {
  const Outcome o = run({"--version"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, std::string("brevant-agent ") + Brevant::version() + "\n");
}

TEST_F(ProgramTest, RunsAWorkloadAndPrintsTheReportAndTheSummary) {
  const std::string workload = file("w.txt", goodWorkload);
  const std::string svg = dir_ + "/table.svg";
  const Outcome o = run({"run", "--manual-clock", "--sim-bound", "64", "--workload", workload,
                         "--svg", svg, "--no-progress"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(o.out, StartsWith("Agent run\n  workload                " + workload +
                                ": 3 requests and 1 pause (sleep)\n"));
  EXPECT_THAT(o.out, HasSubstr("  clock                   manual, agent time 1.0 s"));
  EXPECT_THAT(
      o.out,
      HasSubstr("  create                  2 requested: 2 succeeded at the first attempt\n"));
  EXPECT_THAT(o.out,
              HasSubstr("  hitless                 passed: 2 chip writes checked, 0 violations\n"));
  EXPECT_THAT(
      o.out,
      HasSubstr("  feature views           passed: 2 (group, feature) pairs of 2 groups checked"));
  EXPECT_THAT(o.out, HasSubstr("  occupancy picture       " + svg + "\n"));
  EXPECT_THAT(o.out, HasSubstr("Free-entry summary\n"
                               "NextHopTable Defragmentation Scheduled : no\n"
                               "Defrag Counter : 0\n"
                               "Next Hops Used/Next Hops Total: 11/64\n"
                               "Free Next Hops:\n"
                               "7-51:          45   \n"
                               "56-63:         8    \n"));
  EXPECT_EQ(o.err, "");  // no progress line when asked not to
  EXPECT_EQ(AgentTest::xmlProblem(fileText(svg)), "");
}

TEST_F(ProgramTest, ShowsProgressOnlyWhenAsked) {
  const std::string workload = file("w.txt", goodWorkload);
  // stderr is a file here, not a terminal: quiet by default.
  Outcome o = run({"run", "--manual-clock", "--sim-bound", "64", "--workload", workload});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.err, "");
  o = run({"run", "--manual-clock", "--sim-bound", "64", "--workload", workload, "--progress"});
  EXPECT_EQ(o.status, 0);
  EXPECT_THAT(o.err, StartsWith("\rbrevant-agent: t = "));
  EXPECT_THAT(o.err, HasSubstr("requests 3 of 3, groups 2, defragmentation runs 0, waiting 0"));
}

TEST_F(ProgramTest, ABadWorkloadLineStopsBeforeAnythingRuns) {
  const std::string workload =
      file("bad.txt", "create a narrow 4 unicast\n\ncrate b narrow 1 nat\n");
  const Outcome o = run({"run", "--manual-clock", "--workload", workload});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, StartsWith("brevant-agent: " + workload + ":3: unknown request 'crate'"));
  EXPECT_EQ(o.out, "");
}

TEST_F(ProgramTest, AWorkloadThatIsNotARegularFileIsAnError) {
  for (const std::string& workload : {dir_, std::string("/dev/zero")}) {
    const Outcome o = run({"run", "--manual-clock", "--workload", workload});
    EXPECT_EQ(o.status, 2) << workload;
    EXPECT_THAT(o.err,
                StartsWith("brevant-agent: workload " + workload + " is not a regular file"));
    EXPECT_EQ(o.out, "");
  }
}

TEST_F(ProgramTest, NoArgumentsRunTheBuiltInWorkload) {
  const Outcome o = run({"--sim-bound", "64", "--manual-clock", "--duration", "60"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(o.out, HasSubstr("Checks"));
}

TEST_F(ProgramTest, AWorkloadTooLargeForTheTableIsRefusedWithItsLines) {
  const std::string workload =
      file("big.txt",
           "create a narrow 4 unicast\ncreate b narrow 16 unicast\ncreate c wide 8 vxlan-tunnel\n");
  const Outcome o = run({"run", "--manual-clock", "--sim-bound", "64", "--workload", workload});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, StartsWith("brevant-agent: " + workload + ":2: group 'b' takes 16 entries"));
  EXPECT_THAT(o.err, HasSubstr("\nbrevant-agent: " + workload + ":3: group 'c' takes 16 entries"));
  EXPECT_EQ(o.out, "");
}

TEST_F(ProgramTest, CreatesStillWaitingAtTheEndExitWithThree) {
  std::string text;
  for (int g = 0; g < 6; ++g) text += "create a" + std::to_string(g) + " narrow 8 unicast\n";
  text += "create a6 narrow 5 unicast\ncreate c narrow 8 nat\n";
  const Outcome o =
      run({"run", "--manual-clock", "--sim-bound", "64", "--workload", file("w.txt", text)});
  EXPECT_EQ(o.status, 3) << o.err;
  EXPECT_THAT(o.out, HasSubstr("  ended by                settle limit\n"));
  EXPECT_THAT(
      o.out,
      HasSubstr("line 8 (c): create refused, -2 no room: no block of 8 free entries in a row\n"));
}

TEST_F(ProgramTest, AnUnwritablePictureIsRefusedBeforeTheRun) {
  const std::string workload = file("w.txt", goodWorkload);
  Outcome o =
      run({"run", "--manual-clock", "--workload", workload, "--svg", dir_ + "/missing/t.svg"});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, HasSubstr("cannot write the picture " + dir_ +
                               "/missing/t.svg: No such file or directory"));
  EXPECT_EQ(o.out, "");
  o = run({"run", "--manual-clock", "--workload", workload, "--svg", dir_});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, HasSubstr("not a regular file"));
}

TEST_F(ProgramTest, ARealClockRunWithoutATerminalLogsItsProgress) {
  const Outcome o =
      run({"run", "--sim-bound", "64", "--workload", file("w.txt", "create a narrow 1 nat\n")});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(o.err, StartsWith("brevant-agent: t = 0 s, "));
  EXPECT_THAT(o.err, HasSubstr("requests 1 of 1, groups 1, defragmentation runs 0, waiting 0\n"));
  EXPECT_EQ(o.err.find('\r'), std::string::npos);
}

TEST_F(ProgramTest, EverySubcommandAnswersHelp) {
  for (const char* command : {"run", "serve", "client"}) {
    const Outcome o = run({command, "--help"});
    EXPECT_EQ(o.status, 0) << command;
    EXPECT_THAT(o.out, StartsWith("usage: brevant-agent ")) << command;
  }
  const Outcome o = run({"serv"});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, HasSubstr("unknown command 'serv'"));
}

// Seven valid requests after which the reference's narrow boundary scan
// wraps and the next compaction run stops the process (an assertion).
const char* const sevenRequests =
    "create w1 wide 2 vxlan-tunnel\n"
    "create n1 narrow 1 unicast\n"
    "create w2 wide 2 vxlan-tunnel\n"
    "delete w1\n"
    "delete n1      # the only narrow group, at index 3\n"
    "create w3 wide 1 vxlan-tunnel\n"
    "create w4 wide 4 vxlan-tunnel\n";

TEST_F(ProgramTest, SevenValidRequestsNeverStopTheHardenedAgent) {
  const std::string workload = file("seven.txt", sevenRequests);
  for (const std::vector<std::string>& table :
       {std::vector<std::string>{}, std::vector<std::string>{"--sim-bound", "64"}}) {
    std::vector<std::string> args = {"run", "--manual-clock", "--workload", workload};
    args.insert(args.end(), table.begin(), table.end());
    const Outcome o = run(args);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_THAT(o.out, HasSubstr("  behaviour               hardened"));
    EXPECT_THAT(o.out, HasSubstr("  ended by                workload done\n"));
    EXPECT_THAT(o.out, HasSubstr("  create                  5 requested:"));
    EXPECT_THAT(o.out, HasSubstr("Free-entry summary\n"));
  }
}

TEST_F(ProgramTest, SevenValidRequestsRunAsTheLibraryDoesInTheReferenceBehaviour) {
  // Whatever the library's reference does (its own tests pin it), the agent
  // either ends with its report or the library stops it on an assertion
  // with the expression text; nothing else.
  const std::string workload = file("seven.txt", sevenRequests);
  for (const std::vector<std::string>& table :
       {std::vector<std::string>{}, std::vector<std::string>{"--sim-bound", "64"}}) {
    std::vector<std::string> args = {"run", "--manual-clock", "--reference-behaviour", "--workload",
                                     workload};
    args.insert(args.end(), table.begin(), table.end());
    const Outcome o = run(args);
    if (o.status == -1) {
      EXPECT_THAT(o.err, HasSubstr("Assertion `")) << o.err;
    } else {
      EXPECT_THAT(o.out, HasSubstr("  behaviour               reference")) << o.err;
      EXPECT_THAT(o.out, HasSubstr("Free-entry summary\n"));
    }
  }
}

TEST_F(ProgramTest, UsageErrorsExitWithTwo) {
  Outcome o = run({"run", "--fast"});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, HasSubstr("unknown option '--fast'"));
  o = run({"run", "--workload", dir_ + "/missing.txt"});
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.err, HasSubstr("cannot read workload"));
}

TEST_F(ProgramTest, ServesUntilQuitAndAnswersTheClient) {
  const std::string workload = file("w.txt", goodWorkload);
  const std::string socket = dir_ + "/agent.sock";
  const pid_t agent = start({"serve", "--manual-clock", "--sim-bound", "64", "--workload", workload,
                             "--socket", socket, "--no-progress"});
  // The client waits for the socket to appear.
  const Outcome summary = client(socket, "show free-entries");
  EXPECT_EQ(summary.status, 0);
  EXPECT_THAT(summary.out, StartsWith("NextHopTable Defragmentation Scheduled : no\n"));
  EXPECT_THAT(summary.out, HasSubstr("7-51:          45   \n"));
  const Outcome group = client(socket, "show group 3");
  EXPECT_EQ(group.status, 0);
  EXPECT_THAT(group.out, StartsWith("group 3: narrow"));
  const Outcome bad = client(socket, "get nextHopManager.nothing");
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.out, StartsWith("error: "));
  const Outcome set = client(socket, "set nextHopManager.defragManager.defragDelay 2.5");
  EXPECT_EQ(set.out, "2.5\n");
  const Outcome quit = client(socket, "quit");
  EXPECT_EQ(quit.out, "ok: stopping\n");
  const Outcome served = finish(agent);
  EXPECT_EQ(served.status, 0) << served.err;
  EXPECT_THAT(served.out, HasSubstr("\n  ended by                quit request\n"));
  EXPECT_THAT(served.out, HasSubstr("Free-entry summary\n"));
}

TEST_F(ProgramTest, ASignalEndsAServingAgentWithItsReport) {
  const std::string socket = dir_ + "/agent.sock";
  const std::string workload = file("w.txt", goodWorkload);
  const pid_t agent = start({"serve", "--manual-clock", "--sim-bound", "64", "--workload", workload,
                             "--socket", socket, "--no-progress"});
  // Once it answers, it is serving.
  EXPECT_EQ(client(socket, "help").status, 0);
  kill(agent, SIGTERM);
  const Outcome served = finish(agent);
  EXPECT_EQ(served.status, 0) << served.err;
  EXPECT_THAT(served.out, HasSubstr("\n  ended by                signal\n"));
  EXPECT_NE(access(socket.c_str(), F_OK), 0);
}

TEST_F(ProgramTest, AClientWithoutAgentFails) {
  const Outcome o = client(dir_ + "/nobody.sock", "help");
  EXPECT_EQ(o.status, 2);
  EXPECT_THAT(o.out, HasSubstr("cannot connect to"));
}
