// The requests that routing features make of the next-hop table manager, as
// the agent program replays them: parsed from a workload file or generated as
// the built-in route-churn workload.
//
// Groups are named by labels chosen by the workload; the manager's group ids
// are issued at run time, so a label stands for "the group this feature
// created under that name". A label is live from its create to its delete.
#pragma once

#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Types.h"

namespace Agent {

// The routing features that own groups; the numbers are those of
// Brevant::FeatureType.
enum class Feature : U8 { unicast = 0, multicast = 1, nat = 2, vxlan = 3, vxlanTunnel = 4 };

constexpr int featureCount = 5;

// Returns the workload name of a feature ("unicast", "multicast", "nat",
// "vxlan", "vxlan-tunnel").
const char* featureName(Feature feature);

// Returns the feature of a workload name, or nothing for an unknown name.
std::optional<Feature> featureNamed(std::string_view name);

enum class RequestKind : U8 {
  create,      // createECMPGroup
  remove,      // deleteECMPGroup ("delete" in a workload file)
  update,      // updateECMPGroup, or updateNextHop when a position is given
  read,        // readNextHop, compared with what the feature wrote
  addFeature,  // addFeatureToGroup ("add-feature")
  sleep,       // let agent time pass
  restart,     // the agent restarts warm: snapshot, new state, restore
};

// Returns the workload keyword of a kind ("create", "delete", ...).
const char* requestKindName(RequestKind kind);

struct Request {
  RequestKind kind = RequestKind::sleep;
  std::string label;
  // create: the group's shape and owner; addFeature: the feature added.
  bool wide = false;
  bool fixedSize = true;
  bool mcast = false;
  U16 size = 0;
  Feature feature = Feature::unicast;
  // update (when hasPosition) and read: the next hop's position.
  bool hasPosition = false;
  U16 position = 0;
  // sleep: how long.
  Kiln::Seconds seconds = 0;
  // Where the request came from: its line in the workload file, 0 when
  // generated.
  U32 line = 0;

  friend bool operator==(const Request&, const Request&) = default;
};

// Returns the request as a workload line (without comment or newline); the
// parser reads it back to an equal request (line aside).
std::string requestText(const Request& request);

typedef std::vector<Request> Workload;

// A workload line that does not parse, or that refers to a label in a way
// the sequence of requests does not allow. what() reads
// "line <n>: <message>".
class WorkloadError : public std::runtime_error {
 public:
  WorkloadError(U32 line, const std::string& message);
  // The line the error is on (1 for the first line).
  U32 line() const { return line_; }
  // The message without the line number.
  const std::string& message() const { return message_; }

 private:
  U32 line_;
  std::string message_;
};

// Longest accepted label.
constexpr size_t maxLabelLength = 64;

// Parses a whole workload. Each line holds one request, or nothing; '#'
// starts a comment that runs to the end of the line. Throws WorkloadError for
// the first bad line, so nothing of a bad workload is run.
// The longest workload line, in characters (without its newline).
constexpr size_t maxWorkloadLineLength = 4096;

Workload parseWorkload(std::istream& in);
Workload parseWorkload(std::string_view text);

// The requests of a workload that cannot run on a table whose swap area
// holds swapAreaEntries entries, one error per request with its line: a
// create of a wide group of more than 128 next hops (it can never be
// placed), and a create of a group the manager would place but whose block
// is longer than the swap area (the defragmenter could not move it). Sizes
// the manager refuses at once (0, over 256) are left to it.
std::vector<WorkloadError> unfitRequests(const Workload& workload, U32 swapAreaEntries);

// Shape of the built-in workload.
struct BuiltInOptions {
  // Seed of its random choices: equal options give equal workloads.
  U64 seed = 1;
  // Entries the workload may use: the table's entries between the reserved
  // entries and the swap area (swap index - 3).
  U32 capacity = 65275;
  // Agent time covered by the churn that follows the initial convergence.
  Kiln::Seconds duration = 7200;
  // The most table entries one group may take. A group moved through the
  // swap area must fit it, so a simulated table (8-entry swap area) wants 8.
  U32 maxEntries = 256;
};

// Generates a route-churn workload: an initial convergence that fills most of
// the table (unicast groups of 1 to 64 next hops, most of them small; VXLAN
// tunnel groups of wide next hops; some NAT and VXLAN groups; a few multicast
// groups; no group larger than maxEntries entries), then for `duration`
// seconds the events of a routed network: peers
// flapping (a burst of deletes, a pause, the groups re-created with new
// sizes), routes learnt and withdrawn, next hops rewritten and read back.
Workload builtInWorkload(const BuiltInOptions& options);

}  // namespace Agent
