// Watches the chip's next-hop table from the point of view of the groups'
// owners: at every chip write, no entry that an owner points at may change
// to anything but that owner's word, and a group whose owners were told it
// moved must be fully programmed at its new base by the next write (or the
// end of the handler that moved it). So traffic never meets an unprogrammed
// or foreign entry, whatever the order of the manager's steps.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Kiln/Types.h"

namespace Agent {

class HitlessCheck {
 public:
  // What the owners hold of one group: where it starts and the words of its
  // next hops by position.
  struct Group {
    std::string label;
    U16 base = 0;
    bool wide = false;
    std::vector<U64> data;
    std::vector<U64> wideData;
    U16 size() const { return static_cast<U16>(data.size()); }
    U32 entries() const { return (wide ? 2u : 1u) * static_cast<U32>(data.size()); }
    // The word an owner expects at table index `index` inside the group.
    U64 word(U32 index) const;
  };

  // chipWord(i) reads table entry i from the chip.
  explicit HitlessCheck(std::function<U64(U32 index)> chipWord);

  // A group its owner has just created: from now on its entries are in use.
  // Checks that the chip holds it.
  void groupIs(U16 id, Group group);
  // The owner deleted the group: its entries are no longer in use.
  void groupDel(U16 id);
  // The group, or null.
  const Group* group(U16 id) const;
  // The words the owner is about to write into its group (before the
  // write, so that the write is expected).
  void wordsIs(U16 id, U16 position, U64 data, U64 wideData);

  // The owners were told that the group starts at base: its entries there
  // are in use, those at the old base no longer. Checked at the next write.
  void movedTo(U16 id, U16 base);

  // A chip write of count entries from table index first, with the words
  // written (already in the chip).
  void written(U32 first, U32 count, const U64* data);

  // Checks the groups moved since the last write (end of a handler).
  void settle();
  // Checks that the chip holds every group at its owners' base.
  void checkAll(const char* when);

  U64 writesChecked() const { return writesChecked_; }
  U64 violations() const { return violations_; }
  // The first problems found, described.
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  void own(U16 id, const Group& group, bool owned);
  void checkProgrammed(U16 id, const Group& group, const std::string& when);
  void violation(const std::string& problem);

  std::function<U64(U32)> chipWord_;
  std::map<U16, Group> groups_;
  // For each table index, the group whose owners point at it, or noOwner.
  std::vector<U16> owner_;
  std::vector<U16> moved_;
  U64 writesChecked_ = 0;
  U64 violations_ = 0;
  std::vector<std::string> problems_;
};

}  // namespace Agent
