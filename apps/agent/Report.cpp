#include "Report.h"

#include <cstdio>

namespace Agent {
namespace {

// One report line: the label in a 26-column field, then the text.
void line(std::ostream& out, const std::string& label, const std::string& text) {
  char field[64];
  std::snprintf(field, sizeof(field), "  %-24s", label.c_str());
  out << field << text << '\n';
}

std::string seconds(Kiln::Seconds value, const char* format = "%.1f") {
  char text[64];
  std::snprintf(text, sizeof(text), format, value);
  return std::string(text) + " s";
}

std::string occupancyText(const Occupancy& o) {
  return freeSpaceText(o.freeSpace()) + " (t = " + seconds(o.time) + ")";
}

}  // namespace

void printReport(std::ostream& out, const Report& r) {
  out << "Agent run\n";
  line(out, "workload", r.workload);
  line(out, "clock", std::string(r.manualClock ? "manual" : "real") + ", agent time " +
                         seconds(r.agentTime) + ", wall time " + seconds(r.wallTime, "%.2f"));
  line(out, "ended by", r.endedBy + (r.workloadCompleted ? "" : ", before the end of the workload"));
  line(out, "table", "bound " + std::to_string(r.tableBound) + ", swap index " +
                         std::to_string(r.swapIndex) + ", " + std::to_string(r.groupsAtEnd) +
                         " groups at the end");

  out << "Requests\n";
  U64 total = 0;
  U64 succeeded = 0;
  for (const auto& [kind, counts] : r.requests) {
    total += counts.requested;
    succeeded += counts.succeeded;
    line(out, requestKindName(kind), std::to_string(counts.requested) + " requested, " +
                                         std::to_string(counts.succeeded) + " succeeded");
  }
  line(out, "all", std::to_string(total) + " requested, " + std::to_string(succeeded) + " succeeded");
  std::string refused;
  for (const auto& [code, count] : r.refusals) {
    refused += (refused.empty() ? "" : ", ") + std::to_string(code) + ": " + std::to_string(count);
  }
  line(out, "refused by code", refused.empty() ? "none" : refused);
  line(out, "retried", std::to_string(r.queuedForRetry) + " creates queued, " +
                           std::to_string(r.retryAttempts) + " attempts, " +
                           std::to_string(r.retriesSucceeded) + " later succeeded, " +
                           std::to_string(r.cancelled) + " deleted while waiting, " +
                           std::to_string(r.abandoned) + " still waiting");
  line(out, "skipped", std::to_string(r.skipped) + " (group not in the table)");
  line(out, "reads", std::to_string(r.readsCompared) + " compared with the chip, " +
                         std::to_string(r.readMismatches) + " differed");
  for (const std::string& problem : r.readProblems) line(out, "", problem);

  out << "Defragmentation\n";
  line(out, "runs", std::to_string(r.defragRuns));
  line(out, "groups moved", std::to_string(r.groupsMoved));
  line(out, "entries moved", std::to_string(r.entriesMoved) + " (" +
                                 std::to_string(r.defragEntriesWritten) +
                                 " written, swap-area legs included)");
  line(out, "longest activity stop",
       seconds(r.longestStop, "%.4f") + (r.longestStopWhat.empty() ? "" : " (" + r.longestStopWhat + ")"));

  out << "Checks\n";
  line(out, "hitless", std::string(r.hitlessViolations == 0 ? "passed" : "FAILED") + ": " +
                           std::to_string(r.hitlessWritesChecked) + " chip writes checked, " +
                           std::to_string(r.hitlessViolations) + " violations");
  for (const std::string& problem : r.hitlessProblems) line(out, "", problem);
  line(out, "table checker", std::string(r.tableViolations == 0 ? "passed" : "FAILED") + ": " +
                                 std::to_string(r.tableChecks) + " whole-table checks (" +
                                 (r.tableCheckedEveryWrite ? "every defragmenter write"
                                                           : "after every defragmentation run") +
                                 "), " + std::to_string(r.tableViolations) + " violations");
  for (const std::string& problem : r.tableProblems) line(out, "", problem);
  line(out, "feature views", std::string(r.viewMismatches.empty() ? "passed" : "FAILED") + ": " +
                                 std::to_string(r.viewGroupsChecked) +
                                 " groups checked against the manager's records, " +
                                 std::to_string(r.viewMismatches.size()) + " differences");
  for (const std::string& mismatch : r.viewMismatches) line(out, "", mismatch);

  if (!r.restarts.empty()) {
    out << "Warm restarts\n";
    U64 changed = 0;
    for (const Report::Restart& restart : r.restarts) changed += restart.wordsChanged;
    line(out, "restarts", std::to_string(r.restarts.size()) + ", " + std::to_string(changed) +
                              " table words changed by the restores");
    for (const Report::Restart& restart : r.restarts) line(out, "", restartText(restart));
  }

  out << "Occupancy (free space below the swap index)\n";
  line(out, "start", occupancyText(r.start));
  line(out, "worst fragmentation", occupancyText(r.worst));
  line(out, "end", occupancyText(r.end));

  if (!r.resources.empty()) out << "Resources\n" << r.resources;
}

std::string restartText(const Report::Restart& restart) {
  char took[32];
  snprintf(took, sizeof took, "%.1f ms", restart.restoreSeconds * 1e3);
  return "t = " + seconds(restart.agentTime) + " (" + restart.cause + "): " + restart.outcome +
         ", restore " + took + ", " + std::to_string(restart.wordsRead) + " chip words read, " +
         std::to_string(restart.wordsChanged) + " changed";
}

}  // namespace Agent
