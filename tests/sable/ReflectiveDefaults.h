// Reads every attribute of an object through its type record, by name and by
// index, and checks each against the defaults a test declares. Shared by the
// tests of the agent-common bases and of the library's state entities.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "Kiln/Exception.h"
#include "Kiln/TypeRecord.h"

namespace StateTest {

// Text of each scalar-like attribute (scalar, counter, key, constructor
// parameter, queue metadata, singleton, reference, base) of a fresh object.
typedef std::map<std::string, std::string> DefaultTexts;

// The metadata text of an empty queue that never held anything.
inline const std::string emptyQueueMetadata =
    "Value('Kiln::LinkQueueMetadata', ** {'headIndex': 0, 'nextIndex': 0})";

// Walks every attribute record of o's type, the bases' first:
// - a scalar-like attribute reads the same text by name and by index, and
//   that text is the declared default (every such attribute must be declared);
// - a collection or queue has no members, by name and by index;
// - an attribute listed in the record only cannot be read.
// Every declared name must be an attribute of the type.
inline void expectDeclaredDefaults(const Kiln::PtrInterface& o, const DefaultTexts& defaults) {
  const Kiln::TypeRecord& type = o.fwkType();
  for (const auto& [name, text] : defaults) {
    EXPECT_NE(type.attribute(name), nullptr) << type.name() << " has no attribute " << name;
  }
  for (const Kiln::AttributeRecord* a : type.attributes()) {
    SCOPED_TRACE(type.name() + "::" + a->name + " #" + std::to_string(a->index));
    switch (a->kind) {
      case Kiln::AttributeKind::collection:
      case Kiln::AttributeKind::orderedCollection:
      case Kiln::AttributeKind::queue:
        EXPECT_TRUE(type.members(o, a->name).empty());
        EXPECT_TRUE(type.members(o, a->index).empty());
        EXPECT_EQ(defaults.count(a->name), 0u) << "a collection has no scalar default";
        break;
      case Kiln::AttributeKind::recordOnly:
        EXPECT_THROW(type.get(o, a->name), Kiln::OperationNotSupportedException);
        EXPECT_THROW(type.get(o, a->index), Kiln::OperationNotSupportedException);
        break;
      default: {
        auto expected = defaults.find(a->name);
        if (expected == defaults.end()) {
          ADD_FAILURE() << "no declared default";
          break;
        }
        EXPECT_EQ(type.get(o, a->name), expected->second);
        EXPECT_EQ(type.get(o, a->index), expected->second);
      }
    }
  }
}

// The texts of a fresh entity named `name` of type `typeName` (a
// Sable::SableCommonSmData or a type derived from it): Kiln::Entity's base
// attributes and the agent-common attributes, every one at its default.
inline DefaultTexts sableCommonSmDataDefaults(const std::string& name,
                                              const std::string& typeName) {
  const std::string zeroMac = "Value('Nimbet::EthAddr', ** {'word0': 0, 'word1': 0, 'word2': 0})";
  return {{"name", "'" + name + "'"},
          {"parent", "None"},
          {"parentAttrName", "''"},
          {"fullName", "'" + name + "'"},
          {"entity", "Ref('" + typeName + "', '" + name + "')"},
          {"operationalMode", "0"},
          {"vlanHelper", "None"},
          {"minIntfs", "0"},
          {"cpuIntf", "''"},
          {"mlagPeerLinkPort", "''"},
          {"hasInitialLagColls", "False"},
          {"virtualMac", zeroMac},
          {"peerRouterMac", zeroMac},
          {"cliConfig", "None"},
          {"freeMirrorSessionMetadata", emptyQueueMetadata},
          {"isFabricSlice", "False"},
          {"parityEvent", "0"},
          {"verifyData", "False"},
          {"verifySm", "False"},
          {"doCleanup", "False"},
          {"zeltFastBoot", "False"},
          {"zeltRenice", "False"},
          {"zeltReniceValue", "0"},
          {"initialized", "False"},
          {"pfcWatchdogDropActionSupported", "False"},
          {"handleInitialized", "False"}};
}

}  // namespace StateTest
