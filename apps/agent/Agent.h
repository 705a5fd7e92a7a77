// The agent simulation: the agent's shared state with its next-hop manager
// on the simulated chip, one callback per routing feature, a workload of
// feature requests replayed on the activity manager's event loop, the
// defragmenter's timer firing as on a switch, optional diagnostic socket,
// and the checks and figures of the final report.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/HitlessChecker.h"
#include "Brevant/NextHopManager.h"
#include "CommandLine.h"
#include "DiagnosticSocket.h"
#include "FmSim/FmSim.h"
#include "Kiln/Clock.h"
#include "Report.h"
#include "Workload.h"

namespace Agent {

struct AgentConfig {
  Workload workload;
  // Named in the report ("built-in, seed 1", a file name).
  std::string workloadName = "built-in";
  // Simulation mode with this table bound.
  std::optional<U16> simBound;
  // The table's resource watermarks.
  Watermarks watermarks;
  // A manual clock jumps from one timer to the next, so hours of agent time
  // pass in seconds; otherwise the monotonic clock runs the timers.
  bool manualClock = false;
  // The time each chip call takes; charged to the manual clock only (the
  // real clock's path is unchanged). On the manual clock it is what makes a
  // defragmentation run take agent time and meet its budget.
  FmSim::Timing chipTiming = FmSim::Timing::busEstimate();
  // The manager's hardened switch off: the reference behaviour, under which
  // some valid request sequences stop the process on an assertion. The
  // agent runs hardened by default.
  bool referenceBehaviour = false;
  // Serve the diagnostic socket here while the agent runs.
  std::optional<std::string> socketPath;
  // A socket connection that sends no complete request for this long (real
  // time) is closed.
  Kiln::Seconds socketIdleTimeout = defaultIdleTimeout;
  // After the workload, keep serving until quit (request or signal).
  bool serve = false;
  // A progress line on stderr, every progressEvery seconds of wall time:
  // redrawn in place (a terminal), or one line each time (a log).
  bool progress = false;
  bool progressInPlace = true;
  double progressEvery = 0.25;
  // Delay before the first retry of a create refused with -2 when no
  // defragmentation is scheduled; it doubles (up to maxRetryDelay) while
  // retries make no progress.
  Kiln::Seconds retryDelay = 1.0;
  Kiln::Seconds maxRetryDelay = 64.0;
  // Agent time allowed after the last request for queued creates and a
  // pending defragmentation to finish; creates still queued then are
  // abandoned.
  Kiln::Seconds settleLimit = 600.0;
  // Requests replayed per handler run, so that the loop serves the socket
  // and the timers between them.
  U32 requestsPerStep = 64;
  // Requests between two measurements of the free space (for the worst
  // fragmentation picture).
  U32 sampleEvery = 16;
  // The library's whole-table check runs at every chip write of the
  // defragmenter for tables up to this bound; above it (a check costs a
  // walk of every group) after every defragmentation run only. The agent's
  // own owner check runs at every write whatever the size.
  U32 tableCheckEveryWriteUpTo = 8192;
  // Restart warm every this many seconds of agent time while the workload
  // runs (0: only on restart requests).
  Kiln::Seconds restartEvery = 0;
  // Where restarts and the socket's save request write the snapshot.
  std::string snapshotPath;
};

// The entries of the swap area of the table the agent runs on: 256 on the
// full table, 8 on a simulated one.
U32 swapAreaEntries(std::optional<U16> simBound);

// A workload that cannot run on the chosen table (see unfitRequests); thrown
// before anything is set up.
class UnfitWorkload : public std::runtime_error {
 public:
  explicit UnfitWorkload(std::vector<WorkloadError> problems);
  // The requests that cannot run, in workload order.
  const std::vector<WorkloadError>& problems() const { return problems_; }

 private:
  std::vector<WorkloadError> problems_;
};

class DiagnosticServer;
class FeatureCallback;
class StopWatch;

class AgentSimulation {
 public:
  // Sets up the run: a fresh simulated chip, the clock, the agent's state
  // and its next-hop manager (in simulation mode when asked), the feature
  // callbacks, the chip-write check, and the diagnostic socket. Throws
  // UnfitWorkload, before anything else, when the workload cannot run on
  // the table, and SocketError when the socket cannot be served.
  explicit AgentSimulation(AgentConfig config);
  ~AgentSimulation();
  AgentSimulation(const AgentSimulation&) = delete;
  AgentSimulation& operator=(const AgentSimulation&) = delete;

  // Replays the workload on the event loop until it is done and the table
  // has settled (or, serving, until quit) and returns the report. Call once.
  Report run();

  // Answers one diagnostic request on fd (the socket's handler).
  void answer(const std::string& request, int fd);

  // Restarts warm: saves the snapshot, drops the shared state and the
  // manager (not the chip), restores them from the snapshot, registers the
  // features again and goes on. cause is named in the report.
  void restart(const std::string& cause);

  // Ends the run after the current handler (the quit request).
  void quit();

  // The answer to the status request: whether the replay is running,
  // settling (every request made, retries or a defragmentation pending) or
  // done, agent time, requests so far, pending retries, runs made.
  std::string statusText() const;

  // Ends a running simulation from a signal handler (async-signal-safe).
  static void interrupt();

  Brevant::BrevantCommonSmData& state() { return *state_; }
  Brevant::NextHopManager& manager() { return *manager_; }

  // The feature views: for each group a feature owns, where it believes the
  // group starts and how many next hops it has.
  struct Placement {
    U16 base = 0;
    U16 size = 0;
    friend bool operator==(const Placement&, const Placement&) = default;
  };
  const std::map<U16, Placement>& view(Feature feature) const;

 private:
  friend class FeatureCallback;
  class Replayer;
  struct RequestHandler;
  // The requests of the diagnostic socket.
  static const std::vector<RequestHandler>& requestHandlers();
  // Accepts a change of the table to simulation mode with that bound
  // (absent: the full table) when the workload still fits it; throws
  // RequestError otherwise.
  void tableGeometryIs(std::optional<U16> simBound);
  static std::string chipTimingText();
  class Retrier;
  class Restarter;
  // Sets the resource watermarks of the options on the manager.
  void watermarksIs();

  // A workload label: waiting for a retry, placed as a group, or refused.
  struct Label {
    enum class State { waiting, placed, refused } state = State::waiting;
    U16 id = 0;
    Request create;
    U32 version = 0;
  };

  // Replays requests from the current position; returns after a sleep (the
  // replayer re-armed), a step's worth of requests, or the end.
  void replayStep();
  void execute(const Request& request);
  void create(const Request& request, bool retry);
  void remove(const Request& request);
  void update(const Request& request);
  void read(const Request& request);
  void addFeature(const Request& request);
  // Counts a refused manager call and lists the first ones; groupSize is
  // the next hops of the request's group where a position was refused.
  void refused(S32 code, const Request& request, bool retry = false, U16 groupSize = 0);
  // Counts a request not made because its label's group is not placed.
  void skipped(const Request& request);
  // The data words of a label's group at a version.
  static U64 word(const std::string& label, U32 version, U16 position, bool wide);

  // Retrying queued creates.
  void retryQueued();
  void armRetry();

  // A feature's callback was told that a group moved.
  void moved(Feature feature, U16 id, U16 base, U16 size);
  // Run by the simulator after each chip write.
  void chipWritten(U32 address, S32 count, const U64* data);

  // Measures the free space for the worst-fragmentation picture: now, or
  // when enough requests have run since the last time.
  void sample(bool now = false);
  Occupancy snapshot(const std::string& title);

  // Agent time since the run started (the real clock counts from boot).
  Kiln::Seconds agentTime() const;

  // The run loop and its stop conditions.
  void drive();
  bool settled() const;
  bool finished() const;
  void handlerDone();
  // Notes the defragmentation runs made since the last look: their time,
  // and the picture after the run that moved the most groups.
  void noteDefragRuns();
  void showProgress(bool last);

  // End-of-run check of the feature views against the manager's records.
  void checkViews();

  AgentConfig config_;
  std::shared_ptr<StopWatch> watch_;
  Kiln::Ptr<Kiln::Clock> previousClock_;
  Kiln::Ptr<Kiln::Clock> clock_;
  Kiln::ManualClock* manualClock_ = nullptr;
  Kiln::Ptr<Brevant::BrevantCommonSmData> state_;
  Kiln::Ptr<Brevant::NextHopManager> manager_;
  std::vector<Kiln::Ptr<FeatureCallback>> callbacks_;
  // The library's hitless checker in both modes: incremental at every chip
  // write (the features' groups and words, handed over as they create and
  // rewrite them), whole-table at every chip write the defragmenter makes
  // (on tables up to tableCheckEveryWriteUpTo) and after every run.
  std::unique_ptr<Brevant::HitlessChecker> checker_;
  U32 defragRunsChecked_ = 0;
  U32 defragRunsNoted_ = 0;
  U64 groupsMovedAtLastRun_ = 0;
  Kiln::Ptr<Replayer> replayer_;
  Kiln::Ptr<Retrier> retrier_;
  Kiln::Ptr<Restarter> restarter_;
  // The library checker's figures from before the last restart.
  U64 tableChecksBefore_ = 0;
  U64 tableViolationsBefore_ = 0;
  U64 hitlessWritesBefore_ = 0;
  U64 hitlessViolationsBefore_ = 0;
  std::unique_ptr<DiagnosticServer> server_;

  Kiln::Seconds startTime_ = 0;
  size_t next_ = 0;  // position in the workload
  bool workloadDone_ = false;
  Kiln::Seconds workloadEnd_ = 0;
  bool quit_ = false;
  bool inRequest_ = false;

  std::unordered_map<std::string, Label> labels_;
  // Groups the features hold now; the check keeps their bases and words.
  U64 placedGroups_ = 0;
  std::deque<std::string> retryQueue_;
  Kiln::Seconds retryBackoff_ = 0;
  U32 defragRunsAtLastRetry_ = 0;

  // The base the features were last told of each placed group, to count
  // each move once.
  std::unordered_map<U16, U16> toldBase_;

  U64 requestsSinceSample_ = 0;
  FreeSpace worstSpace_;
  bool worstTaken_ = false;
  double lastProgress_ = 0;

  Report report_;
};

}  // namespace Agent
