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

std::string micro(Kiln::Seconds value) {
  char text[64];
  std::snprintf(text, sizeof(text), "%g us", value * 1e6);
  return text;
}

// "1 run", "9 runs".
std::string counted(U64 n, const std::string& one, const std::string& many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string occupancyText(const Occupancy& o) {
  const FreeSpace space = o.freeSpace();
  return counted(space.free, "usable free entry", "usable free entries") + " in " +
         counted(space.runs, "run", "runs") + ", largest " + std::to_string(space.largestRun) +
         ", stranded " + std::to_string(space.stranded()) + "; swap area " +
         std::to_string(o.count(Cell::swap)) + " free (t = " + seconds(o.time) + ")";
}

// "61848 succeeded at the first attempt, 19 refused", the parts that are
// not zero after the first.
std::string outcomeText(const RequestCounts& c) {
  std::string text = std::to_string(c.succeeded) + " succeeded at the first attempt";
  if (c.refused) text += ", " + std::to_string(c.refused) + " refused";
  if (c.skipped) text += ", " + std::to_string(c.skipped) + " skipped";
  if (c.withdrawn) text += ", " + std::to_string(c.withdrawn) + " withdrew a waiting create";
  return text;
}

}  // namespace

std::string codeMeaning(S32 code) {
  switch (code) {
    case -1: return "invalid request";
    case -2: return "no room";
    case -3: return "next-hop kind differs from the group's";
    case -7: return "table not initialised";
    default: return "unknown status";
  }
}

std::vector<Occupancy> Report::pictures() const {
  std::vector<Occupancy> list = {start, worst};
  if (!afterLargestRun.cells.empty()) list.push_back(afterLargestRun);
  list.push_back(end);
  return list;
}

int exitStatusOf(const Report& report) {
  if (!report.passed()) return exitCheckFailed;
  if (!report.complete()) return exitIncomplete;
  return exitPassed;
}

void printReport(std::ostream& out, const Report& r) {
  out << "Agent run\n";
  line(out, "workload",
       r.workload + ": " + counted(r.workloadRequests, "request", "requests") + " and " +
           counted(r.workloadPauses, "pause", "pauses") + " (sleep)");
  std::string clock = std::string(r.manualClock ? "manual" : "real") + ", agent time " +
                      seconds(r.agentTime) + ", wall time " + seconds(r.wallTime, "%.2f");
  if (r.manualClock) {
    clock +=
        "; chip calls take " + micro(r.chipCallTime) + " + " + micro(r.chipWordTime) + " per word";
  }
  line(out, "clock", clock);
  line(out, "behaviour",
       r.hardened ? "hardened (no valid request can stop the agent)"
                  : "reference (--reference-behaviour)");
  line(out, "ended by",
       r.endedBy + (r.workloadCompleted ? "" : ", before the end of the workload"));
  line(out, "table",
       "bound " + std::to_string(r.tableBound) + ", swap index " + std::to_string(r.swapIndex) +
           " (swap area " + std::to_string(r.tableBound - r.swapIndex) + " entries), " +
           counted(r.groupsAtEnd, "group", "groups") + " at the end");

  out << "Requests (outcome of the first attempt)\n";
  RequestCounts all;
  for (const auto& [kind, c] : r.requests) {
    all.requested += c.requested;
    all.succeeded += c.succeeded;
    all.refused += c.refused;
    all.skipped += c.skipped;
    all.withdrawn += c.withdrawn;
    line(out, requestKindName(kind), std::to_string(c.requested) + " requested: " + outcomeText(c));
  }
  line(out, "all", std::to_string(all.requested) + " requested: " + outcomeText(all));
  std::string refused;
  for (const auto& [code, count] : r.refusals) {
    const auto retried = r.retryRefusals.find(code);
    const U64 retries = retried == r.retryRefusals.end() ? 0 : retried->second;
    refused += (refused.empty() ? "" : ", ") + std::to_string(code) + " " + codeMeaning(code) +
               ": " + std::to_string(count) + " (" + std::to_string(count - retries) + " first, " +
               counted(retries, "retry", "retries") + ")";
  }
  line(out, "refused by code", refused.empty() ? "none" : refused);
  U64 refusalsTotal = 0;
  for (const auto& [code, count] : r.refusals) refusalsTotal += count;
  for (const Refusal& f : r.refusalList) {
    line(out, "",
         r.lineWord + " " + std::to_string(f.line) + " (" + f.label +
             "): " + requestKindName(f.kind) + (f.retry ? " retry" : "") + " refused, " +
             std::to_string(f.code) + " " + f.meaning);
  }
  if (refusalsTotal > r.refusalList.size()) {
    line(out, "", "... and " + std::to_string(refusalsTotal - r.refusalList.size()) + " more");
  }
  line(out, "retried",
       counted(r.queuedForRetry, "create", "creates") +
           " refused with -2 and queued: " + std::to_string(r.retriesSucceeded) +
           " placed by a retry, " + std::to_string(r.retriesDropped) + " refused otherwise, " +
           std::to_string(r.cancelled) + " deleted while waiting, " + std::to_string(r.abandoned) +
           " still waiting (" + counted(r.retryAttempts, "retry attempt", "retry attempts") + ")");
  line(out, "skipped", std::to_string(r.skipped) + " (the label's group not in the table)");
  line(out, "reads",
       std::to_string(r.readsCompared) + " compared with the chip, " +
           std::to_string(r.readMismatches) + " differed");
  for (const std::string& problem : r.readProblems) line(out, "", problem);

  out << "Defragmentation\n";
  line(out, "runs",
       std::to_string(r.defragRuns) + " (" + std::to_string(r.defragRunsCut) +
           " cut by the budget and rescheduled; budget " + seconds(r.defragBudget, "%g") +
           " of agent time per pass)");
  line(out, "groups moved", std::to_string(r.groupsMoved));
  line(out, "entries moved",
       std::to_string(r.entriesMoved) + " (" + std::to_string(r.defragEntriesWritten) +
           " written, swap-area legs included)");
  line(out, "longest run",
       seconds(r.longestDefragRun, "%.4f") + " of agent time" +
           (r.longestDefragRunWhat.empty() ? "" : " (" + r.longestDefragRunWhat + ")"));
  line(out, "longest activity stop",
       seconds(r.longestStop, "%.4f") + " of agent time" +
           (r.longestStopWhat.empty() ? "" : " (" + r.longestStopWhat + ")"));
  line(out, "longest in wall time",
       seconds(r.longestWallStop, "%.4f") + " on this machine, checks left out" +
           (r.longestWallStopWhat.empty() ? "" : " (" + r.longestWallStopWhat + ")"));

  out << "Checks\n";
  line(out, "hitless",
       std::string(r.hitlessViolations == 0 ? "passed" : "FAILED") + ": " +
           counted(r.hitlessWritesChecked, "chip write", "chip writes") + " checked, " +
           counted(r.hitlessViolations, "violation", "violations"));
  for (const std::string& problem : r.hitlessProblems) line(out, "", problem);
  line(out, "table checker",
       std::string(r.tableViolations == 0 ? "passed" : "FAILED") + ": " +
           counted(r.tableChecks, "whole-table check", "whole-table checks") + " (" +
           (r.tableCheckedEveryWrite ? "at every defragmenter write, " : "") +
           "after defragmentation runs and at the end), " +
           counted(r.tableViolations, "violation", "violations"));
  for (const std::string& problem : r.tableProblems) line(out, "", problem);
  line(out, "feature views",
       std::string(r.viewMismatches.empty() ? "passed" : "FAILED") + ": " +
           counted(r.viewGroupsChecked, "(group, feature) pair", "(group, feature) pairs") +
           " of " + counted(r.viewDistinctGroups, "group", "groups") +
           " checked against the manager's records, " +
           counted(r.viewMismatches.size(), "difference", "differences"));
  for (const std::string& mismatch : r.viewMismatches) line(out, "", mismatch);

  if (!r.restarts.empty()) {
    out << "Warm restarts\n";
    U64 changed = 0;
    for (const Report::Restart& restart : r.restarts) changed += restart.wordsChanged;
    line(out, "restarts",
         std::to_string(r.restarts.size()) + ", " + std::to_string(changed) +
             " table words changed by the restores");
    for (const Report::Restart& restart : r.restarts) line(out, "", restartText(restart));
  }

  out << "Occupancy (usable: free below the swap index; the swap area is kept for moves)\n";
  line(out, "start", occupancyText(r.start));
  line(out, "worst fragmentation", occupancyText(r.worst));
  line(out, "end", occupancyText(r.end));
  line(out, "summary's free count",
       std::to_string(r.end.freeSpace().free + r.end.count(Cell::swap)) + " = usable " +
           std::to_string(r.end.freeSpace().free) + " + swap area " +
           std::to_string(r.end.count(Cell::swap)));

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
