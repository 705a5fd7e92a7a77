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

// What became of the requests of one kind: requested = succeeded + refused
// + skipped + withdrawn.
struct RequestCounts {
  // Requests of the workload of this kind.
  U64 requested = 0;
  // Those that the manager accepted at the first attempt.
  U64 succeeded = 0;
  // Those the manager refused at the first attempt (a create refused with
  // -2 is then retried; the retries are counted apart).
  U64 refused = 0;
  // Those not made, because the label's group is not in the table (its
  // create was refused, or is still waiting).
  U64 skipped = 0;
  // Deletes of a create still waiting for a retry: the create is withdrawn.
  U64 withdrawn = 0;
};

// One refused manager call, located in the workload.
struct Refusal {
  // The request's line in the workload file; for a generated workload, its
  // position (1 for the first request).
  U32 line = 0;
  std::string label;
  RequestKind kind = RequestKind::create;
  S32 code = 0;
  // What the code means for this request ("no room: no block of 24 free
  // entries in a row").
  std::string meaning;
  // Refused on a retry rather than at the first attempt.
  bool retry = false;
};

// Returns what a status code of the manager means in general ("no room").
std::string codeMeaning(S32 code);

struct Report {
  // Where the requests came from ("built-in, seed 1" or the file name).
  std::string workload;
  // The table's resource counters at the end, as "show resources" prints them.
  std::string resources;
  bool manualClock = false;
  // The manager's hardened switch during the run.
  bool hardened = true;
  U32 tableBound = 0;
  U32 swapIndex = 0;
  // Agent time at the end of the run, and real time the run took.
  Kiln::Seconds agentTime = 0;
  Kiln::Seconds wallTime = 0;
  // Where the requests are numbered: "line" for a workload file, "request"
  // for a generated workload.
  std::string lineWord = "line";
  // Requests of the workload (sleeps aside), and its sleeps.
  U64 workloadRequests = 0;
  U64 workloadPauses = 0;
  // What ended the run: "workload done" (and the table settled), "settle
  // limit" (creates still waiting), "quit request" or "signal".
  std::string endedBy;
  // Every request of the workload was replayed.
  bool workloadCompleted = false;

  // Requests by kind (sleeps not counted).
  std::map<RequestKind, RequestCounts> requests;
  // Manager calls refused, by status code: first attempts and retries, and
  // of those the retries.
  std::map<S32, U64> refusals;
  std::map<S32, U64> retryRefusals;
  // The first refusals (first attempts and retries), in order.
  std::vector<Refusal> refusalList;
  // Creates refused with -2 and queued to be retried later.
  U64 queuedForRetry = 0;
  // Retry attempts made, queued creates that succeeded on a retry, and those
  // a retry refused with another code than -2 (dropped).
  U64 retryAttempts = 0;
  U64 retriesSucceeded = 0;
  U64 retriesDropped = 0;
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
  // Runs that ran out of their time budget and were rescheduled.
  U32 defragRunsCut = 0;
  U64 groupsMoved = 0;
  U64 entriesMoved = 0;
  // Table entries written by the defragmenter (both legs of a move through
  // the swap area count).
  U64 defragEntriesWritten = 0;

  // The longest time the activity thread spent in one handler (a timer's
  // or a diagnostic request's) in agent time, and what it was: on the manual
  // clock the time the simulated chip's calls took, the figure the
  // defragmenter's budget is measured in.
  Kiln::Seconds longestStop = 0;
  std::string longestStopWhat;
  // The longest handler that made a defragmentation run, in agent time: the
  // figure to compare with the budget (each of a run's two passes has the
  // budget, and a pass stops between moves).
  Kiln::Seconds longestDefragRun = 0;
  std::string longestDefragRunWhat;
  // The longest stop in wall time, leaving out the agent's own checks: what this
  // machine took to simulate it.
  Kiln::Seconds longestWallStop = 0;
  std::string longestWallStopWhat;
  // The defragmenter's budget per pass and the chip timing of the run.
  Kiln::Seconds defragBudget = 0;
  Kiln::Seconds chipCallTime = 0;
  Kiln::Seconds chipWordTime = 0;

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
  // the manager's records at the end: the (group, feature) pairs and the
  // groups they name; differences found.
  U64 viewGroupsChecked = 0;
  U64 viewDistinctGroups = 0;
  std::vector<std::string> viewMismatches;

  // The table at the start, at its most fragmented, right after the
  // defragmentation run that moved the most groups (empty cells when no run
  // moved any), and at the end.
  Occupancy start;
  Occupancy worst;
  Occupancy afterLargestRun;
  U64 largestRunMoves = 0;
  Occupancy end;
  // The free space over agent time, the runs and the refused creates.
  Timeline timeline;

  // The pictures of the table in time order: start, worst fragmentation,
  // after the largest run (when there was one), end.
  std::vector<Occupancy> pictures() const;

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
  // True when the whole workload was replayed and nothing is still waiting.
  bool complete() const { return workloadCompleted && abandoned == 0; }
};

// One restart in a line: when, why, outcome, restore time, words read and
// changed.
std::string restartText(const Report::Restart& restart);
// The program's exit status for a finished run: the checks first, then
// whether the run was complete.
constexpr int exitPassed = 0;
constexpr int exitCheckFailed = 1;
constexpr int exitCannotRun = 2;
constexpr int exitIncomplete = 3;
int exitStatusOf(const Report& report);

// Writes the report as text (everything but the free-entry summary, which
// the manager writes itself).
void printReport(std::ostream& out, const Report& report);

}  // namespace Agent
