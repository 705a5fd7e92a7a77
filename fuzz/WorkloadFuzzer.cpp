// Fuzzes the agent's workload parser (apps/agent/Workload.*).
//
// Input: a workload file's text. A bad workload must be refused with
// Agent::WorkloadError naming a line of the text; a good one must read the
// same from a stream as from memory, each request's workload line must read
// back to an equal request, and the check for requests that cannot run on a
// table answers for both swap-area sizes of the agent.
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "Workload.h"

namespace {

// The workload with its line numbers cleared (they name the file's lines,
// which a rewritten workload does not keep).
Agent::Workload withoutLines(Agent::Workload workload) {
  for (Agent::Request& request : workload) request.line = 0;
  return workload;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(Fuzz::inputText(data, size));
  Agent::Workload workload;
  try {
    workload = Agent::parseWorkload(std::string_view(text));
  } catch (const Agent::WorkloadError& e) {
    Fuzz::check(e.line() >= 1 && e.line() <= Fuzz::lines(text).size() + 1,
                "error on line " + std::to_string(e.line()) + " of a shorter text: " + e.what());
    // The stream reader refuses it as well.
    std::istringstream stream(text);
    try {
      Agent::parseWorkload(stream);
    } catch (const Agent::WorkloadError&) {
      return 0;
    }
    Fuzz::propertyFailed(std::string("only the text reader refuses: ") + e.what());
  }

  std::istringstream stream(text);
  Fuzz::check(Agent::parseWorkload(stream) == workload, "the stream reader reads another workload");

  std::string rewritten;
  for (const Agent::Request& request : workload) rewritten += Agent::requestText(request) + "\n";
  Agent::Workload again;
  try {
    again = Agent::parseWorkload(std::string_view(rewritten));
  } catch (const Agent::WorkloadError& e) {
    Fuzz::propertyFailed("the rewritten workload is refused: " + std::string(e.what()) + "\n" +
                         rewritten);
  }
  Fuzz::check(withoutLines(again) == withoutLines(workload),
              "the rewritten workload reads back differently:\n" + rewritten);

  Agent::unfitRequests(workload, 8);
  Agent::unfitRequests(workload, 256);
  return 0;
}
