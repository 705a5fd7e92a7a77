// What an agent run did and what it found: the figures printed at the end of
// a run, kept as values so that tests can check them.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "Occupancy.h"
#include "Workload.h"

namespace Agent {

struct RequestCounts {
  // Requests of the workload of this kind.
  U64 requested = 0;
  // Those that the manager accepted at the first attempt.
  U64 succeeded = 0;
};

struct Report {
  // Where the requests came from ("built-in, seed 1" or the file name).
  std::string workload;
  // The table's resource counters at the end, as "show resources" prints them.
  std::string resources;
  bool manualClock = false;
  U32 tableBound = 0;
  U32 swapIndex = 0;
  // Agent time at the end of the run, and real time the run took.
  Kiln::Seconds agentTime = 0;
  Kiln::Seconds wallTime = 0;
  // What ended the run: "workload done" (and the table settled), "settle
  // limit" (creates still waiting), "quit request" or "signal".
  std::string endedBy;
  // Every request of the workload was replayed.
  bool workloadCompleted = false;

  // Requests by kind (sleeps not counted).
  std::map<RequestKind, RequestCounts> requests;
  // Manager calls refused, by status code: first attempts and retries.
  std::map<S32, U64> refusals;
  // Creates refused with -2 and queued to be retried later.
  U64 queuedForRetry = 0;
  // Retry attempts made, and queued creates that succeeded on a retry.
  U64 retryAttempts = 0;
  U64 retriesSucceeded = 0;
  // Queued creates still waiting at the end, and those deleted by the
  // workload while still waiting.
  U64 abandoned = 0;
  U64 cancelled = 0;
  // Requests on a label whose group the manager does not hold (its create
  // was refused or is still waiting).
  U64 skipped = 0;
  // Reads compared with what the feature wrote, and how many differed.
  U64 readsCompared = 0;
  U64 readMismatches = 0;
  std::vector<std::string> readProblems;

  // Defragmentation runs made (the defragmenter's counter), moves of groups
  // told to their owners, and the table entries those groups hold.
  U32 defragRuns = 0;
  U64 groupsMoved = 0;
  U64 entriesMoved = 0;
  // Table entries written by the defragmenter (both legs of a move through
  // the swap area count).
  U64 defragEntriesWritten = 0;

  // The longest time the activity thread spent in one handler (a timer's
  // or a diagnostic request's), in real seconds, and what it was.
  Kiln::Seconds longestStop = 0;
  std::string longestStopWhat;

  // Hitless check: chip writes examined, and the violations found (a write
  // that changed an entry that some owner's view still pointed at, or an
  // owner told of a base whose entries did not hold the group).
  U64 hitlessWritesChecked = 0;
  U64 hitlessViolations = 0;
  std::vector<std::string> hitlessProblems;
  // The library's hitless checker: checks of the whole table (records,
  // owners' bases, allocation and chip words) at every chip write of the
  // defragmenter, after every run and at the end; violations found.
  // Whether it ran at every defragmenter write, or after every run only.
  bool tableCheckedEveryWrite = false;
  U64 tableChecks = 0;
  U64 tableViolations = 0;
  std::vector<std::string> tableProblems;
  // Warm restarts: each saved the snapshot, dropped the state and the
  // manager and restored them on the same chip.
  struct Restart {
    Kiln::Seconds agentTime = 0;
    // What asked for it ("workload request", "every 600.0 s").
    std::string cause;
    // "warm", "rewritten" or "cold", and why it went cold.
    std::string outcome;
    // Real time of the restore, the table words it read from the chip and
    // the table words that differ afterwards from before the restart.
    Kiln::Seconds restoreSeconds = 0;
    U64 wordsRead = 0;
    U64 wordsChanged = 0;
  };
  std::vector<Restart> restarts;
  // Feature views: groups each feature believes it owns, checked against
  // the manager's records at the end; differences found.
  U64 viewGroupsChecked = 0;
  std::vector<std::string> viewMismatches;

  // The table at the start, at its most fragmented, and at the end.
  Occupancy start;
  Occupancy worst;
  Occupancy end;

  // Groups live at the end.
  U64 groupsAtEnd = 0;

  // True when every check passed.
  bool passed() const {
    for (const Restart& restart : restarts) {
      if (restart.wordsChanged != 0) return false;
    }
    return hitlessViolations == 0 && tableViolations == 0 && viewMismatches.empty() &&
           readMismatches == 0;
  }
};

// One restart in a line: when, why, outcome, restore time, words read and
// changed.
std::string restartText(const Report::Restart& restart);

// Writes the report as text (everything but the free-entry summary, which
// the manager writes itself).
void printReport(std::ostream& out, const Report& report);

}  // namespace Agent
