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
#pragma once

#include <stdexcept>
#include <string>

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

// Stores value (in the attribute's text form) at path: a scalar through its
// generated mutator, a collection member through its xIs(key, value).
void pathSet(Kiln::PtrInterface& root, const std::string& path, const std::string& value);

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
