// Warm restart of the next-hop table: the agent process saves the manager's
// software state in a snapshot file, restarts while the chip keeps
// forwarding, and builds the manager again from the snapshot on the chip
// that kept its contents, without rewriting a table word the chip already
// holds.
//
//   Brevant::saveSnapshot(manager, "/var/run/nexthop.snapshot");
//   ... the process restarts; the chip keeps its table ...
//   Brevant::RestoreResult result;
//   Kiln::Ptr<Brevant::NextHopManager> manager =
//       Brevant::restoreNextHopManager("/var/run/nexthop.snapshot", {}, &result);
//   ... features register their callbacks again and find their groups by id ...
//
// The snapshot is the manager written through its type record (every
// attribute, collection member and owned record in its text form; the pools
// and next hops that a full table holds by the tens of thousands through
// their typed accessors, see docs/warm-restart.md), its resource counters,
// the defragmentation timer's due time, and a digest of the words the chip
// holds in each run of free entries. The format is versioned and
// checksummed, and a file is replaced atomically.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/NextHopManager.h"
#include "Kiln/Exception.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Brevant {

// The format this library writes, and the oldest one it still reads (a
// version 1 snapshot has no resource counters: their history starts at 0).
constexpr U32 snapshotFormatVersion = 2;
constexpr U32 oldestSnapshotFormatVersion = 1;

// A snapshot that cannot be used: the file is absent or unreadable, shorter
// than its header says, fails its checksum or does not parse, or was written
// in another format version.
class SnapshotError : public Kiln::Exception {
 public:
  enum class Problem { missing, unreadable, truncated, corrupt, otherVersion };
  SnapshotError(Problem problem, const std::string& text)
      : Kiln::Exception(text), problem_(problem) {}
  Problem problem() const { return problem_; }

 private:
  Problem problem_;
};

// Returns the problem's name ("missing", "unreadable", "truncated",
// "corrupt", "other version").
const char* problemName(SnapshotError::Problem problem);

// The checksum of a snapshot's body: FNV-1a over its bytes taken as
// little-endian 64-bit words (the last few bytes one at a time), then over
// its length. Any change of one word or of the length changes it.
U64 snapshotChecksum(std::string_view body);

// Returns the snapshot of manager: header and body, ready to be written.
// Reads the chip's table once (for the free entries' digests).
std::string snapshotText(NextHopManager& manager);

// Writes snapshotText(manager) to path atomically: a temporary file beside
// it is written, flushed to the disk and renamed over path, so that a crash
// leaves either the old snapshot or the new one. Throws Kiln::ErrnoException
// when the file cannot be written (path is then unchanged).
void saveSnapshot(NextHopManager& manager, const std::string& path);

// What the restore does when the chip disagrees with the snapshot.
enum class RestorePolicy {
  // Start cold: a new manager initialises the table as on a first start.
  refuse,
  // Keep the snapshot's records and write the differing groups (and
  // reserved entries) to the chip from them.
  rewrite,
};

struct RestoreOptions {
  RestorePolicy policy = RestorePolicy::refuse;
  // A missing, unreadable, truncated, corrupt or other-version snapshot
  // starts cold instead of throwing SnapshotError.
  bool coldOnBadSnapshot = false;
  // When not 0: the table bound the caller runs with; a snapshot whose
  // manager has another bound starts cold whatever the policy.
  U32 expectedTableBound = 0;
};

// One way in which the chip or the caller disagrees with the snapshot.
struct RestoreDifference {
  enum class Kind {
    groupWords,     // a placed group's block holds other words
    reservedEntry,  // entry 1 or 2 does not hold its logical port's glort
    freeEntries,    // a run of free entries was written since the snapshot
    tableBound,     // the snapshot's table bound is not the expected one
  };
  Kind kind;
  // The group (groupWords, reservedEntry), else 65535.
  U16 groupId = 0xFFFF;
  // The first table index concerned and how many entries.
  U32 index = 0;
  U32 count = 0;
  // One line saying what differs.
  std::string text;
};

struct RestoreResult {
  enum class Outcome {
    warm,       // the chip agreed: nothing was written
    rewritten,  // the differing groups were written from the snapshot
    cold,       // the table was initialised as on a first start
  };
  Outcome outcome = Outcome::cold;
  // Every disagreement found, in table order.
  std::vector<RestoreDifference> differences;
  // Why the restore started cold ("" when it did not).
  std::string coldReason;
  // Table words read from the chip and written to it by the restore.
  U64 wordsRead = 0;
  U64 wordsWritten = 0;
  // Groups restored (the reserved and placeholder groups included).
  U32 groups = 0;
};

// Returns the outcome's name ("warm", "rewritten", "cold").
const char* outcomeName(RestoreResult::Outcome outcome);

// Builds a manager from the snapshot at path (or from its text) on the chip
// as it is, following options; fills *result when given. Every record is
// filled through the manager's own mutators; the resource counters keep
// their history and their figures are counted again from the records. A
// defragmentation that was scheduled is scheduled again for the time it was
// due (or, on a clock that started again, after the time that was left).
// Throws SnapshotError for a bad snapshot unless options ask to start cold.
Kiln::Ptr<NextHopManager> restoreNextHopManager(const std::string& path,
                                                const RestoreOptions& options = {},
                                                RestoreResult* result = nullptr);
Kiln::Ptr<NextHopManager> restoreNextHopManagerFromText(std::string_view text,
                                                        const RestoreOptions& options = {},
                                                        RestoreResult* result = nullptr);

// Restores state's nextHopManager the same way: state must hold none yet; on
// return it holds the restored (or cold) manager.
RestoreResult restoreNextHopManager(BrevantCommonSmData& state, const std::string& path,
                                    const RestoreOptions& options = {});

}  // namespace Brevant
