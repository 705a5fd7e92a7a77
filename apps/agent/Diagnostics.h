// The requests of the diagnostic socket that read and change the agent's
// state: attributes by path through the reflective interface, and a group
// with its next hops read back from the chip.
//
// Path syntax: attribute names separated by dots, starting at the agent's
// shared state (BrevantCommonSmData). Every name but the last must hold an
// entity: a singleton or reference attribute (nextHopManager,
// defragManager), or a member of a collection of entities given by its key
// in brackets, in the key's text form (ecmpGroups[5], features['unicast']).
// The last name is the attribute read or written; a collection attribute
// reads as its members, one "key: value" line each, and a member of a
// value collection is named with its key (hwStartToGroupId[100]).
//
//   nextHopManager.simMode
//   nextHopManager.defragManager.defragDelay
//   nextHopManager.ecmpGroups[3].hwStartIndex
//   nextHopManager.freeGroupIds
//
// `trace.NAME` is the levels of trace handle NAME ("1-4,8", "all", "none"),
// and `trace` lists the handles: the state has no attribute of that name.
//
// Only attributes that the schema declares `settable` can be set, each with
// a range check of its own (settings()); everything else is refused with the
// type's and the attribute's names, and nothing changes.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brevant/NextHopManager.h"
#include "Kiln/Ptr.h"

namespace Agent {

// A request or path that cannot be answered; what() says why.
class RequestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Returns the text of the attribute at path (without a trailing newline;
// collections: one "key: value" line per member, each ending in a newline).
// Throws RequestError for a path that does not parse or leads nowhere, and
// passes on the reflective interface's exceptions.
std::string pathGet(Kiln::PtrInterface& root, const std::string& path);

// What the caller of pathSet checks beyond an attribute's own range. A
// change of the table's geometry (simulation mode or its bound) is shown the
// bound the table would then have (absent: the full table) before anything
// changes; it throws RequestError to refuse the change.
struct SetChecks {
  std::function<void(std::optional<U16> simBound)> tableGeometry;
};

// Stores value (in the attribute's text form) at path when the attribute is
// settable and the value within its range; throws RequestError, changing
// nothing, otherwise.
void pathSet(Kiln::PtrInterface& root, const std::string& path, const std::string& value,
             const SetChecks& checks = {});

// The attributes of the entity at path (empty: the root), one aligned line
// each: name, kind, value type, and whether it can be set; `trace` lists
// the trace handles. Throws RequestError for a path that leads nowhere.
std::string pathList(Kiln::PtrInterface& root, const std::string& path);

// One settable attribute: the values it takes, and how a value is checked
// and written (through the owner's own operations where a plain store would
// not keep the table consistent).
struct Setting {
  const char* typeName;
  const char* attribute;
  const char* range;
  void (*write)(Kiln::PtrInterface& owner, const Setting& setting, const std::string& value,
                const SetChecks& checks);
};

// Every attribute the socket can set; each schema attribute declared
// `settable` has exactly one entry.
const std::vector<Setting>& settings();

// Returns a group and its next hops as the chip holds them (read back with
// readNextHop), one line per next hop; a word that differs from the group's
// record is flagged. Throws RequestError when the manager has no such group.
std::string groupText(Brevant::NextHopManager& manager, U16 groupId);

// Returns the resource counters, one "name value" line per attribute in
// declaration order, the names padded to one column.
std::string resourcesText(Brevant::NextHopResources& resources);

// The requests the socket answers, one per line.
std::string requestHelp();

}  // namespace Agent
