// A diagnostic that tells whether traffic could hit an unprogrammed or
// foreign next-hop entry at a given moment. Meant to be asked at every chip
// write while groups move (a move, a defragmentation run): the simulator's
// write observer is the natural place.
//
//   Brevant::HitlessChecker checker(*manager, [](U16 i) { return FmSim::tableWord(i); });
//   FmSim::writeObserverIs([&](const FmSim::Call&, const U64*) { checker.check(); });
//   ... moves, defragmentation runs ...
//   if (!checker.hitless()) std::cerr << checker.report();
//
// What traffic may use at any moment is a group's block at two places: the
// base its record holds (hwStartIndex, what the manager and the defragmenter
// work from) and the base its owners hold (what they were told through
// updateNextHopAction, or the record's base when the group was created).
// Both must be programmed: the chip words there equal the group's next
// hops. Owners are modelled by callbacks that the checker registers in the
// manager's features, one per feature, which track every base they are told.
//
// The checker reads the chip through the reader it is given, not through the
// library, so it may run inside a chip call (with the activity lock given
// up) without touching the lock. It has no test-framework dependency.
//
// It works in two modes, which may be used together:
// - whole table (check(), checkSettled()): every group's records, owners'
//   bases and chip words compared at once; its cost grows with the table;
// - incremental (written()), fed by the chip's write observer with each
//   write's words: the owners of groups (a program's features) tell the
//   checker what they created and the words they wrote (ownedGroupIs,
//   ownedWordsIs, ownedGroupDel); the checker hears their moves through
//   its owner callbacks. A write that changes an entry an owner points at
//   to another word than the owner's is a violation; so is a group whose
//   owners were told it moved and whose new place is not fully programmed
//   at the next write or settle() (owners of a group moved through the swap
//   area hear the final base before the last leg writes it, so the check
//   waits for the next write), a group placed over another's entries, and
//   a created group not in the chip. Its cost is the entries written, so it
//   can run at every write of a full table.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Brevant/ECMPGroup.h"
#include "Brevant/NextHopCallback.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Brevant {

class NextHopManager;

class HitlessChecker {
 public:
  // Returns table entry index as the chip holds it now.
  typedef std::function<U64(U16 index)> TableReader;

  // The prefix of the names under which the owner callbacks are registered:
  // "HitlessChecker." followed by the feature's name.
  static constexpr const char* ownerNamePrefix = "HitlessChecker.";

  // How many violations are kept for report(); all are counted.
  static constexpr size_t violationsKept = 64;

  // The check that found a violation.
  enum class Mode { wholeTable, incremental };

  // One broken expectation.
  struct Violation {
    // The number of the check that found it: checks() at that time for the
    // whole-table mode, writesChecked() for the incremental mode.
    U64 check;
    U16 groupId;
    // What is wrong, in one line.
    std::string text;
    Mode mode = Mode::wholeTable;
  };

  // A group as its owners hold it, for the incremental mode: where they
  // believe it starts and the words of its next hops by position.
  struct OwnedGroup {
    // The owner's name for the group (shown in violations; may be empty).
    std::string label;
    U16 base = 0;
    bool wide = false;
    std::vector<U64> data;
    std::vector<U64> wideData;
    U16 size() const { return static_cast<U16>(data.size()); }
    U32 entries() const { return (wide ? 2u : 1u) * static_cast<U32>(data.size()); }
    // Returns the word the owners expect at table index `index`, inside the
    // group.
    U64 word(U32 index) const;
  };

  // Watches manager, reading the chip through reader, and registers the
  // owner callbacks in manager's features. The manager must outlive the
  // checker.
  HitlessChecker(NextHopManager& manager, TableReader reader);
  // Unregisters the owner callbacks (those still registered under its names).
  ~HitlessChecker();
  HitlessChecker(const HitlessChecker&) = delete;
  HitlessChecker& operator=(const HitlessChecker&) = delete;

  // Checks the table now: every placed group (a group whose record holds a
  // base and next hops; the reserved entries keep no words in their
  // records) is checked at its record's base and, when different, at its
  // owners' base. At each, every entry of the block is allocated, claimed by
  // no other group, and holds the group's data word (and a wide group's
  // wide word after it); and the manager maps the record's base to the
  // group. Returns the number of violations found by this check.
  U32 check();

  // check(), plus what holds between moves: the owners hold the base the
  // record holds. Returns the number of violations found.
  U32 checkSettled();

  // --- Incremental mode ---

  // A group its owner has just created (after the manager wrote it): from
  // now on its entries are in use. Checks that the chip holds it.
  void ownedGroupIs(U16 groupId, OwnedGroup group);
  // The owner deleted the group: its entries are no longer in use.
  void ownedGroupDel(U16 groupId);
  // Returns the group as its owners hold it, or null.
  const OwnedGroup* ownedGroup(U16 groupId) const;
  // Returns every owned group by id (to hand them to another checker, e.g.
  // across a warm restart).
  const std::map<U16, OwnedGroup>& ownedGroups() const { return owned_; }
  // The words the owner is about to write at a position of its group
  // (before the write, so that the write is expected).
  void ownedWordsIs(U16 groupId, U16 position, U64 data, U64 wideData);
  // The owners were told that the group starts at base: its entries there
  // are in use, those at the old base no longer; checked at the next write
  // or settle(). The owner callbacks call it; a caller whose owners are
  // told otherwise may too.
  void ownedMovedTo(U16 groupId, U16 base);
  // A chip write of count entries from table index first, with the words
  // written (already in the chip). Returns the violations it found.
  U32 written(U32 first, U32 count, const U64* data);
  // Checks the groups moved since the last write (the end of a handler).
  void settle();
  // Checks that the chip holds every owned group at its owners' base.
  void checkOwnedGroups(const char* when);
  // Returns the number of writes checked.
  U64 writesChecked() const { return writesChecked_; }

  // --- Both modes ---

  // Returns the number of checks made.
  U64 checks() const { return checks_; }
  // Returns the number of violations found by all checks.
  U64 violationCount() const { return violationCount_; }
  // Returns the number of violations found by the checks of one mode.
  U64 violationCount(Mode mode) const {
    return mode == Mode::wholeTable ? violationCount_ - incrementalViolationCount_
                                    : incrementalViolationCount_;
  }
  // True when no check has found a violation.
  bool hitless() const { return violationCount_ == 0; }
  // Returns the first violationsKept violations, in the order found.
  const std::vector<Violation>& violations() const { return violations_; }
  // Returns a report: the count, then one line per kept violation.
  std::string report() const;
  // Forgets every violation found so far (the count of checks stays).
  void violationsDelAll();

  // Returns the base the owners of groupId hold, or -1 when they hold none
  // (the group has not been placed or checked since it was created).
  S32 ownerBase(U16 groupId) const;

 private:
  class Owner;
  // Where the owners of a group believe it lies. The record is held so that
  // a new group under a recycled id is never taken for the old one.
  struct OwnerView {
    Kiln::Ptr<ECMPGroup> group;
    U16 base;
  };

  // Records that the owners of groupId were told baseIndex.
  void ownerToldIs(U16 groupId, U16 baseIndex);
  // The owners' base of group, adopting the record's base for a group they
  // have not heard of yet (owners learn it from their own create call).
  U16 ownerBaseOf(const Kiln::Ptr<ECMPGroup>& group);
  // Checks group's block at base, as `view` sees it. claims maps each
  // entry checked so far to the group that uses it.
  void checkBlock(const ECMPGroup& group, U16 base, const char* view, std::map<U16, U16>& claims);
  void violationIs(U16 groupId, std::string text, Mode mode = Mode::wholeTable);
  // Marks (or clears) the entries of an owned group as in use by it.
  void own(U16 groupId, const OwnedGroup& group, bool owned);
  void checkProgrammed(U16 groupId, const OwnedGroup& group, const std::string& when);

  NextHopManager& manager_;
  TableReader reader_;
  std::vector<Kiln::Ptr<NextHopCallback>> owners_;
  std::map<U16, OwnerView> ownerViews_;
  U64 checks_ = 0;
  U64 violationCount_ = 0;
  U64 incrementalViolationCount_ = 0;
  // Incremental mode: the owned groups, the group whose owners point at
  // each table index (empty until the first owned group), the groups moved
  // since the last write, and the writes checked.
  std::map<U16, OwnedGroup> owned_;
  std::vector<U16> ownerOfIndex_;
  std::vector<U16> movedSinceWrite_;
  U64 writesChecked_ = 0;
  U32 violationsOfThisCheck_ = 0;
  std::vector<Violation> violations_;
};

}  // namespace Brevant
