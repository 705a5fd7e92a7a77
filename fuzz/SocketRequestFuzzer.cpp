// Fuzzes the diagnostic socket's request handler (AgentSimulation::answer,
// the handler the agent gives its DiagnosticServer).
//
// Input: request lines, answered in turn by one agent that has replayed a
// small workload on a simulated table of 64 entries (groups of each kind
// and owner to name in requests). Lines the server refuses before the
// handler sees them (longer than Agent::maxRequestLength, or holding a
// control character) are skipped, as are lines after the first
// maxRequestsPerInput. Every request must be answered, or refused with an
// exception the server turns into an "error: " line; nothing may stop the
// agent. Answers go to /dev/null.
//
// Setting an agent up takes about a second under the sanitizers (the
// manager builds its table of 65536 entries before trimming it to 64), so
// one agent answers input after input as long as they only read: an input
// in which a request that may write was answered (set, quit, chip-timing
// with times) has the next input start on a new agent. After an input that
// only read or was refused, the manager's records (its snapshot text) must
// be as they were: a refused request changes nothing.
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include "Agent.h"
#include "Brevant/WarmRestart.h"
#include "DiagnosticSocket.h"
#include "FuzzSupport.h"
#include "Kiln/Lock.h"
#include "Workload.h"

namespace {

// The agent each input talks to: two narrow groups (one multicast), two
// wide groups and a refused create, then a delete and an update.
const char* const agentWorkload =
    "create a narrow 4 unicast\n"
    "create t wide 2 vxlan-tunnel\n"
    "create m narrow 3 multicast variable mcast\n"
    "create n narrow 2 nat fixed\n"
    "create w wide 3 vxlan variable\n"
    "create big narrow 257 nat\n"
    "add-feature a vxlan\n"
    "update a 1\n"
    "read t 0\n"
    "delete n\n";

constexpr size_t maxRequestsPerInput = 32;

// Mirrors the server's refusal of a request with a control character.
bool refusedByServer(std::string_view line) {
  if (line.size() > Agent::maxRequestLength) return true;
  for (unsigned char c : line) {
    if ((c < 0x20 && c != '\t') || c == 0x7f) return true;
  }
  return false;
}

// Whether a request may change the agent (a request the handler refuses
// changes nothing, whatever its words).
bool mayWrite(std::string_view line) {
  std::istringstream words{std::string(line)};
  std::string first, second;
  words >> first >> second;
  return first == "set" || first == "quit" || (first == "chip-timing" && !second.empty());
}

// The agent the inputs talk to, and its manager's records as they were
// after the replay.
class FuzzedAgent {
 public:
  ~FuzzedAgent() { unlink(snapshotPath_.c_str()); }

  // An agent as after the replay: the one of the last input if that input
  // only read, else a new one.
  Agent::AgentSimulation& clean() {
    if (agent_ && !written_) return *agent_;
    agent_.reset();
    Agent::AgentConfig config;
    config.workload = Agent::parseWorkload(std::string_view(agentWorkload));
    config.workloadName = "fuzz";
    config.simBound = 64;
    config.manualClock = true;
    config.chipTiming = {};
    config.snapshotPath = snapshotPath_;
    agent_ = std::make_unique<Agent::AgentSimulation>(std::move(config));
    agent_->run();
    Kiln::ActivityLockGuard activity;
    replayed_ = Brevant::snapshotText(agent_->manager());
    written_ = false;
    return *agent_;
  }

  void writtenIs() { written_ = true; }

  // After an input that only read: the records are unchanged.
  void checkUnchanged() {
    if (written_) return;
    Kiln::ActivityLockGuard activity;
    Fuzz::check(Brevant::snapshotText(agent_->manager()) == replayed_,
                "requests that only read changed the manager's records");
  }

 private:
  std::string snapshotPath_ = "/tmp/brevant-fuzz-socket-" + std::to_string(getpid());
  std::unique_ptr<Agent::AgentSimulation> agent_;
  std::string replayed_;
  bool written_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int answers = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Fuzz::check(answers >= 0, "cannot open /dev/null");
  static FuzzedAgent fuzzed;
  Agent::AgentSimulation& agent = fuzzed.clean();

  size_t answered = 0;
  for (std::string_view line : Fuzz::lines(Fuzz::inputText(data, size))) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (refusedByServer(line)) continue;
    if (++answered > maxRequestsPerInput) break;
    // As the server runs the handler: on the loop, with the activity lock.
    Kiln::ActivityLockGuard activity;
    try {
      agent.answer(std::string(line), answers);
    } catch (const std::exception&) {
      // Answered as "error: <what>".
      continue;
    }
    if (mayWrite(line)) fuzzed.writtenIs();
  }
  fuzzed.checkUnchanged();
  return 0;
}
