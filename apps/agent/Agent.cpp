#include "Agent.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>

#include "Brevant/DefragManager.h"
#include "Brevant/ECMPGroup.h"
#include "Brevant/NextHopCallback.h"
#include "Brevant/U64Collection.h"
#include "Brevant/WarmRestart.h"
#include "DiagnosticSocket.h"
#include "Diagnostics.h"
#include "FmSim/FmSim.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Lock.h"

namespace Agent {
namespace {

// No group: the manager's invalid group id.
constexpr U16 noGroup = 65535;

// Agent time between two steps of a burst of requests: the loop serves the
// socket and any due timer in between.
constexpr Kiln::Seconds stepGap = 1e-6;

// Differences listed in the report, beyond which only counts grow.
constexpr size_t listedProblems = 10;

std::atomic<bool> interrupted{false};

double wallNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Brevant::FeatureType featureType(Feature feature) {
  return static_cast<Brevant::FeatureType>(static_cast<int>(feature));
}

std::string secondsText(Kiln::Seconds t) {
  char text[32];
  snprintf(text, sizeof(text), "%.1f s", t);
  return text;
}

// What a refusal means for the request refused; groupSize is the next hops
// of the request's group where a position was refused.
std::string refusalMeaning(S32 code, const Request& r, U16 groupSize) {
  std::string meaning = codeMeaning(code);
  if (r.kind == RequestKind::create && code == -2) {
    const U32 entries = (r.wide ? 2u : 1u) * r.size;
    return meaning + ": no block of " + std::to_string(entries) + " free entries in a row";
  }
  if (r.kind == RequestKind::create && code == -1) {
    if (r.size == 0) return meaning + ": a group of no next hops";
    if (r.size > 256) return meaning + ": " + std::to_string(r.size) + " next hops, at most 256";
    if (r.wide && r.size > 128) {
      return meaning + ": a wide group of " + std::to_string(r.size) + " next hops, at most 128";
    }
  }
  if ((r.kind == RequestKind::update || r.kind == RequestKind::read) && r.hasPosition &&
      code == -1 && r.position >= groupSize) {
    return meaning + ": next hop " + std::to_string(r.position) + " of a group of " +
           std::to_string(groupSize);
  }
  return meaning;
}

// The free-space figures straight from the manager's free map, without
// building a picture.
FreeSpace freeSpaceOf(Brevant::NextHopManager& manager) {
  FreeSpace space;
  const U32 swap = manager.getNextHopTableSwapIndex();
  U32 runStart = 0;
  U32 run = 0;
  for (const auto& member : manager.freeEntries()) {
    const U32 index = member.key();
    if (index >= swap) break;
    if (run != 0 && index == runStart + run) {
      ++run;
      continue;
    }
    addFreeRun(space, run);
    runStart = index;
    run = 1;
  }
  addFreeRun(space, run);
  return space;
}

}  // namespace

// Times the handlers that the activity thread runs and keeps the longest:
// the longest time the agent did nothing else. Each handler is timed twice:
// in agent time (the clock's; on the manual clock, the time the simulated
// chip's calls took) and in wall time without the agent's own checks.
class StopWatch {
 public:
  // One handler's time and what it was.
  struct Longest {
    Kiln::Seconds took = 0;
    std::string what;
  };

  StopWatch(std::function<Kiln::Seconds()> agentTime, std::function<U32()> defragRuns)
      : agentTime_(std::move(agentTime)), defragRuns_(std::move(defragRuns)) {}

  // A handler starts; one still open has ended.
  void begin(std::string what = {}) {
    end();
    open_ = true;
    wallStarted_ = wallNow();
    excluded_ = 0;
    agentStarted_ = agentTime_();
    what_ = std::move(what);
    runsAtBegin_ = defragRuns_();
  }
  // Names the open handler.
  void label(std::string what) {
    if (open_) what_ = std::move(what);
  }
  // Leaves out of the open handler's wall time work that is not the
  // agent's own (the checks run at each chip write).
  void exclude(double seconds) {
    if (open_) excluded_ += seconds;
  }
  // The open handler, if any, has ended.
  void end() {
    if (!open_) return;
    open_ = false;
    const Kiln::Seconds agentTook = agentTime_() - agentStarted_;
    const double wallTook = wallNow() - wallStarted_ - excluded_;
    const bool defragRan = defragRuns_() != runsAtBegin_;
    if (agentTook <= agent_.took && wallTook <= wall_.took &&
        (!defragRan || agentTook <= defrag_.took)) {
      return;
    }
    std::string what = what_;
    if (defragRan) {
      what = what.empty() ? "defragmentation run" : what + " and a defragmentation run";
    }
    what = (what.empty() ? "timer" : what) + " at t = " + secondsText(agentStarted_);
    if (agentTook > agent_.took) agent_ = {agentTook, what};
    if (wallTook > wall_.took) wall_ = {wallTook, what};
    if (defragRan && agentTook > defrag_.took) defrag_ = {agentTook, what};
  }

  const Longest& longestInAgentTime() const { return agent_; }
  const Longest& longestInWallTime() const { return wall_; }
  // The longest handler in agent time that made a defragmentation run.
  const Longest& longestDefragRun() const { return defrag_; }

 private:
  std::function<Kiln::Seconds()> agentTime_;
  std::function<U32()> defragRuns_;
  bool open_ = false;
  double wallStarted_ = 0;
  double excluded_ = 0;
  Kiln::Seconds agentStarted_ = 0;
  std::string what_;
  U32 runsAtBegin_ = 0;
  Longest agent_;
  Longest wall_;
  Longest defrag_;
};

namespace {

// A clock that tells its owner when it is about to run a handler.
template <class Base>
class WatchedClock : public Base {
 public:
  template <class... Args>
  explicit WatchedClock(std::function<void(Kiln::Seconds)> handlerStarts, Args... args)
      : Base(args...), handlerStarts_(std::move(handlerStarts)) {}

 protected:
  void expiryReached(Kiln::Seconds time) override {
    Base::expiryReached(time);
    handlerStarts_(time);
  }

 private:
  std::function<void(Kiln::Seconds)> handlerStarts_;
};

}  // namespace

// A routing feature's callback: keeps the feature's own view of where its
// groups live, and tells the agent.
class FeatureCallback : public Brevant::NextHopCallback {
 public:
  FeatureCallback(AgentSimulation& agent, Feature feature)
      : NextHopCallback(featureName(feature), featureType(feature)),
        agent_(&agent),
        feature_(feature) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    view_[groupId] = AgentSimulation::Placement{baseIndex, numNextHops};
    if (agent_) agent_->moved(feature_, groupId, baseIndex, numNextHops);
  }

  std::map<U16, AgentSimulation::Placement> view_;
  // Cleared when the agent goes, before the callback leaves the manager.
  AgentSimulation* agent_;
  Feature feature_;
};

class AgentSimulation::Replayer : public Kiln::Clock::Notifiee {
 public:
  explicit Replayer(AgentSimulation& agent) : agent_(&agent) {}
  void onTime() override {
    if (agent_) agent_->replayStep();
  }
  AgentSimulation* agent_;
};

class AgentSimulation::Retrier : public Kiln::Clock::Notifiee {
 public:
  explicit Retrier(AgentSimulation& agent) : agent_(&agent) {}
  void onTime() override {
    if (agent_) agent_->retryQueued();
  }
  AgentSimulation* agent_;
};

class AgentSimulation::Restarter : public Kiln::Clock::Notifiee {
 public:
  explicit Restarter(AgentSimulation& agent) : agent_(&agent) {}
  void onTime() override {
    if (!agent_) return;
    if (agent_->workloadDone_) {
      timeMinIs(Kiln::Clock::never);
      return;
    }
    agent_->restart("every " + secondsText(agent_->config_.restartEvery));
    timeMinIs(agent_->clock_->now() + agent_->config_.restartEvery);
  }
  AgentSimulation* agent_;
};
U32 swapAreaEntries(std::optional<U16> simBound) { return simBound ? 8 : 256; }

UnfitWorkload::UnfitWorkload(std::vector<WorkloadError> problems)
    : std::runtime_error(problems.empty() ? "workload fits" : problems.front().what()),
      problems_(std::move(problems)) {}

AgentSimulation::AgentSimulation(AgentConfig config) : config_(std::move(config)) {
  std::vector<WorkloadError> unfit =
      unfitRequests(config_.workload, swapAreaEntries(config_.simBound));
  if (!unfit.empty()) throw UnfitWorkload(std::move(unfit));
  // The socket first: if it cannot be served, nothing else has changed.
  if (config_.socketPath) {
    server_ = std::make_unique<DiagnosticServer>(
        *config_.socketPath, [this](const std::string& request, int fd) { answer(request, fd); },
        config_.socketIdleTimeout);
  }
  interrupted = false;
  watch_ = std::make_shared<StopWatch>([this] { return agentTime(); },
                                       [this] {
                                         return manager_ && manager_->defragManager()
                                                    ? manager_->defragManager()->defragCount()
                                                    : 0u;
                                       });
  Kiln::ActivityManager& loop = Kiln::ActivityManager::instance();
  // The clock goes in first: the defragmenter takes the loop's clock when
  // the manager is built.
  previousClock_ = loop.clock();
  // Before every timer's handler (a defragmentation run among them): the
  // free space is measured, and the stop watch starts.
  auto handlerStarts = [this](Kiln::Seconds) {
    noteDefragRuns();
    sample(true);
    watch_->begin();
  };
  if (config_.manualClock) {
    auto* manual = new WatchedClock<Kiln::ManualClock>(handlerStarts, 0.0);
    manualClock_ = manual;
    clock_ = manual;
  } else {
    clock_ = new WatchedClock<Kiln::MonotonicClock>(handlerStarts);
  }
  loop.clockIs(clock_);

  FmSim::reset();
  FmSim::timingIs(config_.chipTiming);
  Kiln::ActivityLockGuard activity;
  state_ = Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  manager_ = state_->nextHopManagerIs();
  if (config_.simBound) manager_->setSimulationMode(true, *config_.simBound);
  watermarksIs();
  manager_->hardenedIs(!config_.referenceBehaviour);
  for (int f = 0; f < featureCount; ++f) {
    Kiln::Ptr<FeatureCallback> callback = new FeatureCallback(*this, static_cast<Feature>(f));
    manager_->featuresIs(callback);
    callbacks_.push_back(callback);
  }
  checker_ = std::make_unique<Brevant::HitlessChecker>(
      *manager_, [](U16 index) { return FmSim::tableWord(index); });
  FmSim::writeObserverIs([this](const FmSim::Call& call, const U64* data) {
    if (call.sw == 0) chipWritten(call.address, call.count, data);
  });
  replayer_ = new Replayer(*this);
  replayer_->notifierIs(clock_);
  retrier_ = new Retrier(*this);
  retrier_->notifierIs(clock_);
  restarter_ = new Restarter(*this);
  restarter_->notifierIs(clock_);
  if (config_.snapshotPath.empty()) {
    config_.snapshotPath = "/tmp/brevant-agent-" + std::to_string(getpid()) + ".snapshot";
  }
  retryBackoff_ = config_.retryDelay;
  report_.workload = config_.workloadName;
  // A generated workload has no lines: its requests are numbered instead.
  const bool generated = std::all_of(config_.workload.begin(), config_.workload.end(),
                                     [](const Request& r) { return r.line == 0; });
  if (generated) {
    report_.lineWord = "request";
    for (size_t i = 0; i < config_.workload.size(); ++i)
      config_.workload[i].line = static_cast<U32>(i + 1);
  }
  for (const Request& r : config_.workload) {
    ++(r.kind == RequestKind::sleep ? report_.workloadPauses : report_.workloadRequests);
  }
  report_.manualClock = config_.manualClock;
  report_.hardened = manager_->hardened();
  report_.tableBound = manager_->getNextHopTableBound();
  report_.swapIndex = manager_->getNextHopTableSwapIndex();
}

AgentSimulation::~AgentSimulation() {
  Kiln::ActivityLockGuard activity;
  server_.reset();
  FmSim::writeObserverIs({});
  FmSim::timingIs({});
  retrier_->agent_ = nullptr;
  replayer_->agent_ = nullptr;
  restarter_->agent_ = nullptr;
  restarter_->notifierIs(nullptr);
  replayer_->notifierIs(nullptr);
  retrier_->notifierIs(nullptr);
  for (const Kiln::Ptr<FeatureCallback>& callback : callbacks_) callback->agent_ = nullptr;
  checker_.reset();
  manager_->featuresDelAll();
  manager_ = nullptr;
  state_ = nullptr;
  Kiln::ActivityManager::instance().clockIs(previousClock_);
}

const std::map<U16, AgentSimulation::Placement>& AgentSimulation::view(Feature feature) const {
  return callbacks_[static_cast<int>(feature)]->view_;
}

void AgentSimulation::interrupt() {
  interrupted = true;
  Kiln::ActivityManager::instance().stop();
}

void AgentSimulation::quit() { quit_ = true; }

// --- The run ---

Kiln::Seconds AgentSimulation::agentTime() const { return clock_->now() - startTime_; }

Report AgentSimulation::run() {
  Kiln::ActivityLockGuard activity;
  const double wallStart = wallNow();
  startTime_ = clock_->now();
  report_.start = snapshot("start");
  report_.worst = report_.start;
  report_.worst.title = "worst fragmentation";
  worstSpace_ = report_.start.freeSpace();
  replayer_->timeMinIs(clock_->now());
  if (config_.restartEvery > 0) restarter_->timeMinIs(clock_->now() + config_.restartEvery);
  drive();

  report_.workloadCompleted = workloadDone_;
  report_.endedBy = interrupted ? "signal"
                    : quit_     ? "quit request"
                    : settled() ? "workload done"
                                : "settle limit";
  report_.abandoned = retryQueue_.size();
  checker_->settle();
  checker_->checkOwnedGroups("at the end");
  checkViews();
  report_.hitlessWritesChecked = hitlessWritesBefore_ + checker_->writesChecked();
  report_.hitlessViolations = hitlessViolationsBefore_ +
                              checker_->violationCount(Brevant::HitlessChecker::Mode::incremental);
  checker_->checkSettled();
  report_.tableCheckedEveryWrite = report_.tableBound <= config_.tableCheckEveryWriteUpTo;
  report_.tableChecks = tableChecksBefore_ + checker_->checks();
  report_.tableViolations =
      tableViolationsBefore_ + checker_->violationCount(Brevant::HitlessChecker::Mode::wholeTable);
  for (const Brevant::HitlessChecker::Violation& v : checker_->violations()) {
    const bool whole = v.mode == Brevant::HitlessChecker::Mode::wholeTable;
    std::vector<std::string>& list = whole ? report_.tableProblems : report_.hitlessProblems;
    if (list.size() < listedProblems)
      list.push_back(whole ? "check " + std::to_string(v.check) + ": " + v.text : v.text);
  }
  report_.end = snapshot("end");
  report_.resources = resourcesText(*manager_->resources());
  report_.timeline.points.push_back({report_.end.time, report_.end.freeSpace()});
  report_.timeline.end = report_.end.time;
  report_.defragRuns = manager_->defragManager()->defragCount();
  report_.longestStop = watch_->longestInAgentTime().took;
  report_.longestStopWhat = watch_->longestInAgentTime().what;
  report_.longestDefragRun = watch_->longestDefragRun().took;
  report_.longestDefragRunWhat = watch_->longestDefragRun().what;
  report_.longestWallStop = watch_->longestInWallTime().took;
  report_.longestWallStopWhat = watch_->longestInWallTime().what;
  report_.agentTime = agentTime();
  report_.defragBudget = manager_->defragManager()->defragTime();
  report_.chipCallTime = FmSim::timing().perCall;
  report_.chipWordTime = FmSim::timing().perWord;
  report_.wallTime = wallNow() - wallStart;
  report_.groupsAtEnd = placedGroups_;
  showProgress(true);
  return report_;
}

void AgentSimulation::drive() {
  Kiln::ActivityManager& loop = Kiln::ActivityManager::instance();
  if (!manualClock_) {
    // The loop waits for sockets and for the next timer; the progress line
    // wants a look every quarter second.
    while (!finished()) {
      loop.runUntil(
          [this] {
            handlerDone();
            return finished();
          },
          0.25);
      handlerDone();
    }
    return;
  }
  for (;;) {
    loop.runOnce(0);  // the sockets, and timers already due
    handlerDone();
    if (finished()) return;
    const Kiln::Seconds next = clock_->nextExpiry();
    if (config_.serve && (next == Kiln::Clock::never || (workloadDone_ && settled()))) {
      // Serving an idle agent: the manual clock follows real time.
      const double before = wallNow();
      loop.runOnce(0.05);
      handlerDone();
      manualClock_->advance(std::max(0.0, wallNow() - before));
      handlerDone();
      continue;
    }
    if (next == Kiln::Clock::never) return;  // nothing left that could happen
    // Expiries that fell due while the chip's calls took time run now.
    manualClock_->timeIs(std::max(next, clock_->now()));
    handlerDone();
  }
}

bool AgentSimulation::settled() const {
  const Brevant::DefragManager* defrag = manager_->defragManager().ptr();
  const bool defragIdle =
      !defrag ||
      (!defrag->scheduleDefragment() &&
       (!defrag->defragScheduler() || defrag->defragScheduler()->timeMin() == Kiln::Clock::never));
  return retryQueue_.empty() && defragIdle;
}

bool AgentSimulation::finished() const {
  if (quit_ || interrupted) return true;
  if (config_.serve || !workloadDone_) return false;
  return settled() || clock_->now() > workloadEnd_ + config_.settleLimit;
}

void AgentSimulation::noteDefragRuns() {
  if (!manager_ || !manager_->defragManager()) return;
  const U32 runs = manager_->defragManager()->defragCount();
  if (runs == defragRunsNoted_) return;
  defragRunsNoted_ = runs;
  report_.timeline.defragRuns.push_back(agentTime());
  // A run that ran out of its budget leaves the next one wanted.
  if (manager_->defragManager()->scheduleDefragment()) ++report_.defragRunsCut;
  const U64 moves = report_.groupsMoved - groupsMovedAtLastRun_;
  groupsMovedAtLastRun_ = report_.groupsMoved;
  if (moves > report_.largestRunMoves) {
    report_.largestRunMoves = moves;
    report_.afterLargestRun = snapshot("after the largest run (" + std::to_string(moves) +
                                       (moves == 1 ? " group moved)" : " groups moved)"));
  }
}

void AgentSimulation::handlerDone() {
  noteDefragRuns();
  watch_->end();
  checker_->settle();
  // Between runs every owner holds the base its group's record holds.
  const U32 runs = manager_->defragManager()->defragCount();
  if (runs != defragRunsChecked_) {
    defragRunsChecked_ = runs;
    checker_->checkSettled();
  }
  showProgress(false);
}

void AgentSimulation::showProgress(bool last) {
  if (!config_.progress) return;
  const double now = wallNow();
  if (!last && now - lastProgress_ < config_.progressEvery) return;
  lastProgress_ = now;
  U64 requested = 0;
  for (const auto& [kind, counts] : report_.requests) requested += counts.requested;
  fprintf(
      stderr,
      "%sbrevant-agent: t = %.0f s, requests %llu of %llu, groups %zu, defragmentation runs %u, "
      "waiting %zu%s",
      config_.progressInPlace ? "\r" : "", agentTime(), static_cast<unsigned long long>(requested),
      static_cast<unsigned long long>(report_.workloadRequests), static_cast<size_t>(placedGroups_),
      manager_->defragManager() ? manager_->defragManager()->defragCount() : 0u, retryQueue_.size(),
      config_.progressInPlace ? (last ? "  \n" : "  ") : "\n");
}

// --- Replaying requests ---

void AgentSimulation::replayStep() {
  watch_->label("workload requests");
  U32 done = 0;
  while (next_ < config_.workload.size()) {
    const Request& request = config_.workload[next_];
    if (request.kind == RequestKind::sleep) {
      ++next_;
      if (request.seconds > 0) {
        replayer_->timeMinIs(clock_->now() + request.seconds);
        sample(true);
        return;
      }
      continue;
    }
    if (done == config_.requestsPerStep) {
      replayer_->timeMinIs(clock_->now() + stepGap);
      sample(true);
      return;
    }
    ++next_;
    ++done;
    execute(request);
  }
  workloadDone_ = true;
  workloadEnd_ = clock_->now();
  sample(true);
}

void AgentSimulation::execute(const Request& request) {
  ++report_.requests[request.kind].requested;
  // Chip writes made while a request runs are the request's; the others are
  // the defragmenter's.
  inRequest_ = true;
  switch (request.kind) {
    case RequestKind::create: create(request, false); break;
    case RequestKind::remove: remove(request); break;
    case RequestKind::update: update(request); break;
    case RequestKind::read: read(request); break;
    case RequestKind::addFeature: addFeature(request); break;
    case RequestKind::sleep: break;
    case RequestKind::restart:
      restart("workload request");
      if (report_.restarts.back().outcome == "warm")
        ++report_.requests[RequestKind::restart].succeeded;
      break;
  }
  inRequest_ = false;
  ++requestsSinceSample_;
  sample();
}

void AgentSimulation::refused(S32 code, const Request& request, bool retry, U16 groupSize) {
  ++report_.refusals[code];
  if (request.kind == RequestKind::create) report_.timeline.refusedCreates.push_back(agentTime());
  if (retry) {
    ++report_.retryRefusals[code];
  } else {
    ++report_.requests[request.kind].refused;
  }
  if (report_.refusalList.size() == listedProblems) return;
  Refusal refusal;
  refusal.line = request.line;
  refusal.label = request.label;
  refusal.kind = request.kind;
  refusal.code = code;
  refusal.meaning = refusalMeaning(code, request, groupSize);
  refusal.retry = retry;
  report_.refusalList.push_back(std::move(refusal));
}

void AgentSimulation::skipped(const Request& request) {
  ++report_.skipped;
  ++report_.requests[request.kind].skipped;
}

U64 AgentSimulation::word(const std::string& label, U32 version, U16 position, bool wide) {
  // FNV-1a over the label, then a splitmix64 finish over the rest: distinct
  // words for distinct groups, versions and positions.
  U64 h = 1469598103934665603ull;
  for (unsigned char c : label) h = (h ^ c) * 1099511628211ull;
  h ^= (U64(version) << 32) ^ (U64(position) << 1) ^ (wide ? 1u : 0u);
  h += 0x9e3779b97f4a7c15ull;
  h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ull;
  h = (h ^ (h >> 27)) * 0x94d049bb133111ebull;
  h ^= h >> 31;
  return h ? h : 1;
}

void AgentSimulation::create(const Request& request, bool retry) {
  Label& label = labels_[request.label];
  if (!retry) {
    label = Label();
    label.create = request;
  }
  Brevant::U64Collection data;
  Brevant::U64Collection wideData;
  for (U16 p = 0; p < request.size; ++p) {
    data.dataIs(p, word(request.label, label.version, p, false));
    if (request.wide) wideData.dataIs(p, word(request.label, label.version, p, true));
  }
  const S32 rc = manager_->createECMPGroup(0, request.wide, request.fixedSize, request.size, data,
                                           wideData, featureType(request.feature), request.mcast);
  if (rc < 0) {
    refused(rc, request, retry);
    if (rc != -2) {
      if (retry) ++report_.retriesDropped;
      label.state = Label::State::refused;
    } else if (!retry) {
      // As a feature would: keep the request and try again after the next
      // defragmentation run, or after a while.
      label.state = Label::State::waiting;
      retryQueue_.push_back(request.label);
      ++report_.queuedForRetry;
      armRetry();
    }
    return;
  }
  const U16 id = static_cast<U16>(rc);
  Brevant::HitlessChecker::OwnedGroup placed;
  placed.label = request.label;
  placed.base = manager_->ecmpGroups(id)->hwStartIndex();
  placed.wide = request.wide;
  for (U16 p = 0; p < request.size; ++p) {
    placed.data.push_back(data.data(p));
    placed.wideData.push_back(wideData.data(p));
  }
  label.state = Label::State::placed;
  label.id = id;
  callbacks_[static_cast<int>(request.feature)]->view_[id] = Placement{placed.base, request.size};
  toldBase_[id] = placed.base;
  checker_->ownedGroupIs(id, std::move(placed));
  ++placedGroups_;
  if (retry) {
    ++report_.retriesSucceeded;
  } else {
    ++report_.requests[RequestKind::create].succeeded;
  }
}

void AgentSimulation::remove(const Request& request) {
  const auto found = labels_.find(request.label);
  if (found == labels_.end()) {
    skipped(request);
    return;
  }
  Label& label = found->second;
  if (label.state == Label::State::waiting) {
    retryQueue_.erase(std::find(retryQueue_.begin(), retryQueue_.end(), request.label));
    ++report_.cancelled;
    ++report_.requests[RequestKind::remove].withdrawn;
    labels_.erase(found);
    return;
  }
  if (label.state == Label::State::refused) {
    skipped(request);
    labels_.erase(found);
    return;
  }
  const S32 rc = manager_->deleteECMPGroup(0, label.id);
  if (rc != 0) {
    refused(rc, request);
    return;
  }
  ++report_.requests[RequestKind::remove].succeeded;
  checker_->ownedGroupDel(label.id);
  toldBase_.erase(label.id);
  for (const Kiln::Ptr<FeatureCallback>& callback : callbacks_) callback->view_.erase(label.id);
  --placedGroups_;
  labels_.erase(found);
}

void AgentSimulation::update(const Request& request) {
  const auto found = labels_.find(request.label);
  if (found == labels_.end() || found->second.state != Label::State::placed) {
    skipped(request);
    return;
  }
  Label& label = found->second;
  const U16 id = label.id;
  const Brevant::HitlessChecker::OwnedGroup before = *checker_->ownedGroup(id);
  ++label.version;
  // The words the group will hold are told to the check before the chip is
  // written, so that the rewrite is expected.
  auto rewrite = [&](U16 p) {
    const U64 data = word(request.label, label.version, p, false);
    const U64 wideData = before.wide ? word(request.label, label.version, p, true) : 0;
    checker_->ownedWordsIs(id, p, data, wideData);
    return Brevant::NextHopEntry(static_cast<U16>(before.base + (before.wide ? 2 : 1) * p),
                                 before.wide, data, wideData);
  };
  S32 rc;
  if (!request.hasPosition) {
    Brevant::U64Collection data;
    Brevant::U64Collection wideData;
    for (U16 p = 0; p < before.size(); ++p) {
      const Brevant::NextHopEntry entry = rewrite(p);
      data.dataIs(p, entry.data());
      if (before.wide) wideData.dataIs(p, entry.wideData());
    }
    rc = manager_->updateECMPGroup(0, id, data, wideData);
  } else {
    rc = manager_->updateNextHop(id, request.position, rewrite(request.position));
  }
  if (rc != 0) {
    refused(rc, request, false, before.size());
    // Nothing was written (the group is placed, so only a bad position is
    // refused): the owners keep their words.
    for (U16 p = 0; p < before.size(); ++p) {
      checker_->ownedWordsIs(id, p, before.data[p], before.wide ? before.wideData[p] : 0);
    }
    return;
  }
  ++report_.requests[RequestKind::update].succeeded;
}

void AgentSimulation::read(const Request& request) {
  const auto found = labels_.find(request.label);
  if (found == labels_.end() || found->second.state != Label::State::placed) {
    skipped(request);
    return;
  }
  const U16 id = found->second.id;
  const Brevant::HitlessChecker::OwnedGroup& g = *checker_->ownedGroup(id);
  const Brevant::NextHopEntry entry = manager_->readNextHop(id, request.position);
  if (request.position >= g.size()) {
    // Refused by the manager with an all-zero entry.
    refused(-1, request, false, g.size());
    return;
  }
  ++report_.requests[RequestKind::read].succeeded;
  ++report_.readsCompared;
  const U32 stride = g.wide ? 2 : 1;
  const Brevant::NextHopEntry expected(static_cast<U16>(g.base + stride * request.position), g.wide,
                                       g.data[request.position],
                                       g.wide ? g.wideData[request.position] : 0);
  if (entry != expected) {
    ++report_.readMismatches;
    if (report_.readProblems.size() < listedProblems) {
      std::ostringstream problem;
      problem << "group " << id << " (" << g.label << ") next hop " << request.position << ": read "
              << entry << ", expected " << expected;
      report_.readProblems.push_back(problem.str());
    }
  }
}

void AgentSimulation::addFeature(const Request& request) {
  const auto found = labels_.find(request.label);
  if (found == labels_.end() || found->second.state != Label::State::placed) {
    skipped(request);
    return;
  }
  const U16 id = found->second.id;
  const S32 rc = manager_->addFeatureToGroup(id, featureType(request.feature));
  if (rc != 0) {
    refused(rc, request);
    return;
  }
  ++report_.requests[RequestKind::addFeature].succeeded;
  const Brevant::HitlessChecker::OwnedGroup& g = *checker_->ownedGroup(id);
  callbacks_[static_cast<int>(request.feature)]->view_[id] = Placement{g.base, g.size()};
}

// --- Retries ---

void AgentSimulation::armRetry() {
  if (retryQueue_.empty() || retrier_->timeMin() != Kiln::Clock::never) return;
  Kiln::Seconds when = clock_->now() + retryBackoff_;
  // With a defragmentation on its way, the retry follows it: armed later
  // for the same time, it runs right after the run.
  const Brevant::DefragManager* defrag = manager_->defragManager().ptr();
  if (defrag && defrag->scheduleDefragment() && defrag->defragScheduler() &&
      defrag->defragScheduler()->timeMin() != Kiln::Clock::never) {
    when = defrag->defragScheduler()->timeMin();
  }
  retrier_->timeMinIs(when);
}

void AgentSimulation::retryQueued() {
  watch_->label("retries");
  const U32 runs = manager_->defragManager()->defragCount();
  bool progress = false;
  // A block search that failed for some length fails for every longer one
  // until the table changes for the better; those are left for the next
  // round instead of being refused again.
  U32 failedLength = UINT32_MAX;
  const size_t queued = retryQueue_.size();
  for (size_t i = 0; i < queued; ++i) {
    const std::string name = retryQueue_.front();
    retryQueue_.pop_front();
    Label& label = labels_.at(name);
    const U32 length = label.create.wide ? 2u * label.create.size : label.create.size;
    if (length >= failedLength) {
      retryQueue_.push_back(name);
      continue;
    }
    ++report_.retryAttempts;
    inRequest_ = true;
    create(label.create, true);
    inRequest_ = false;
    if (label.state == Label::State::waiting) {
      failedLength = length;
      retryQueue_.push_back(name);
    } else if (label.state == Label::State::placed) {
      progress = true;
    }
    ++requestsSinceSample_;
  }
  // Back off while retries find nothing new: no success, no run since.
  retryBackoff_ = (progress || runs != defragRunsAtLastRetry_)
                      ? config_.retryDelay
                      : std::min(2 * retryBackoff_, config_.maxRetryDelay);
  defragRunsAtLastRetry_ = runs;
  armRetry();
  sample();
}

// --- The hitless check ---

void AgentSimulation::moved(Feature, U16 id, U16 base, U16 size) {
  // The checker hears the move through its own owner callbacks; this one
  // counts it, once for all the features that share the group.
  const Brevant::HitlessChecker::OwnedGroup* g = checker_->ownedGroup(id);
  if (g && size != g->size()) {
    report_.viewMismatches.push_back("owners of group " + std::to_string(id) + " told of " +
                                     std::to_string(size) + " next hops, not " +
                                     std::to_string(g->size()));
  }
  const auto told = toldBase_.find(id);
  if (g && told != toldBase_.end() && told->second != base) {
    told->second = base;
    ++report_.groupsMoved;
    report_.entriesMoved += g->entries();
  }
}

void AgentSimulation::chipWritten(U32 address, S32 count, const U64* data) {
  if (address < FmSim::nextHopTableBase || (address - FmSim::nextHopTableBase) % 2 != 0) return;
  const double started = wallNow();
  checker_->written((address - FmSim::nextHopTableBase) / 2, static_cast<U32>(count), data);
  if (!inRequest_) {
    // A write of the defragmenter: a group is moving.
    report_.defragEntriesWritten += static_cast<U64>(count);
    if (report_.tableBound <= config_.tableCheckEveryWriteUpTo) checker_->check();
  }
  watch_->exclude(wallNow() - started);
}

void AgentSimulation::checkViews() {
  std::set<U16> groupsWithFeatures;
  struct CountGroups {
    Report& report;
    std::set<U16>& groups;
    ~CountGroups() { report.viewDistinctGroups = groups.size(); }
  } countGroups{report_, groupsWithFeatures};
  for (int f = 0; f < featureCount; ++f) {
    const Feature feature = static_cast<Feature>(f);
    std::map<U16, Placement> records;
    for (const auto& member : manager_->ecmpGroups()) {
      const Kiln::Ptr<Brevant::ECMPGroup>& group = member.value();
      if (member.key() == noGroup || !group->featuresSupported(featureType(feature))) continue;
      records[member.key()] = Placement{group->hwStartIndex(), group->size()};
    }
    report_.viewGroupsChecked += records.size();
    for (const auto& [id, placement] : records) groupsWithFeatures.insert(id);
    const std::map<U16, Placement>& view = callbacks_[f]->view_;
    auto describe = [](const std::map<U16, Placement>& m, U16 id) {
      const auto at = m.find(id);
      if (at == m.end()) return std::string("absent");
      return "at " + std::to_string(at->second.base) + " with " + std::to_string(at->second.size) +
             " next hops";
    };
    std::set<U16> ids;
    for (const auto& [id, p] : records) ids.insert(id);
    for (const auto& [id, p] : view) ids.insert(id);
    for (U16 id : ids) {
      if (describe(records, id) == describe(view, id)) continue;
      if (report_.viewMismatches.size() < listedProblems) {
        report_.viewMismatches.push_back(std::string(featureName(feature)) + ": group " +
                                         std::to_string(id) + " " + describe(view, id) +
                                         " in the feature's view, " + describe(records, id) +
                                         " in the manager's records");
      } else {
        report_.viewMismatches.push_back("more differences");
        return;
      }
    }
  }
}

// --- Occupancy ---

void AgentSimulation::sample(bool now) {
  if (!manager_ || (!now && requestsSinceSample_ < config_.sampleEvery)) return;
  requestsSinceSample_ = 0;
  const FreeSpace space = freeSpaceOf(*manager_);
  report_.timeline.points.push_back({agentTime(), space});
  if (!moreFragmented(space, worstSpace_)) return;
  worstSpace_ = space;
  report_.worst = snapshot("worst fragmentation");
}

Occupancy AgentSimulation::snapshot(const std::string& title) {
  Occupancy o;
  o.title = title;
  o.time = agentTime();
  o.bound = manager_->getNextHopTableBound();
  o.swapIndex = manager_->getNextHopTableSwapIndex();
  o.cells.assign(o.bound, Cell::other);
  for (U32 i = 0; i < std::min<U32>(3, o.bound); ++i) o.cells[i] = Cell::reserved;
  for (const auto& member : manager_->freeEntries()) {
    const U32 index = member.key();
    if (index < o.bound) o.cells[index] = index < o.swapIndex ? Cell::free : Cell::swap;
  }
  for (const auto& placed : manager_->hwStartToGroupId()) {
    const Kiln::Ptr<Brevant::ECMPGroup> group = manager_->ecmpGroups(placed.value());
    if (!group) continue;
    const U32 length = (group->wide() ? 2u : 1u) * group->size();
    const Cell kind = group->wide() ? Cell::wide : Cell::narrow;
    for (U32 i = placed.key(); i < std::min<U32>(placed.key() + length, o.bound); ++i)
      o.cells[i] = kind;
  }
  return o;
}

// --- Warm restart ---

void AgentSimulation::watermarksIs() {
  Brevant::NextHopResources& resources = *manager_->resources();
  resources.usedHighWatermarkIs(config_.watermarks.usedHigh);
  resources.usedLowWatermarkIs(config_.watermarks.usedLow);
  resources.fragmentationHighWatermarkIs(config_.watermarks.fragmentationHigh);
  resources.fragmentationLowWatermarkIs(config_.watermarks.fragmentationLow);
}

void AgentSimulation::restart(const std::string& cause) {
  Brevant::saveSnapshot(*manager_, config_.snapshotPath);
  // The library checker's figures carry over to the next one.
  tableChecksBefore_ += checker_->checks();
  tableViolationsBefore_ += checker_->violationCount(Brevant::HitlessChecker::Mode::wholeTable);
  hitlessWritesBefore_ += checker_->writesChecked();
  hitlessViolationsBefore_ += checker_->violationCount(Brevant::HitlessChecker::Mode::incremental);
  // The owners' view of their groups outlives the process's state.
  const std::map<U16, Brevant::HitlessChecker::OwnedGroup> owned = checker_->ownedGroups();
  for (const Brevant::HitlessChecker::Violation& v : checker_->violations()) {
    if (report_.tableProblems.size() == listedProblems) break;
    report_.tableProblems.push_back("check " + std::to_string(v.check) + ": " + v.text);
  }
  checker_.reset();
  std::vector<U64> before(report_.tableBound);
  for (U32 i = 0; i < report_.tableBound; ++i) before[i] = FmSim::tableWord(i);
  // The process ends: its state, the manager and the defragmenter's timer go.
  manager_->featuresDelAll();
  manager_ = nullptr;
  state_ = nullptr;

  const double started = wallNow();
  state_ = Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Brevant::RestoreOptions options;
  options.expectedTableBound = report_.tableBound;
  const Brevant::RestoreResult result =
      Brevant::restoreNextHopManager(*state_, config_.snapshotPath, options);
  manager_ = state_->nextHopManager();
  // The watermarks are the agent's settings, not the table's state.
  watermarksIs();
  // The features come back and register their callbacks again.
  for (const Kiln::Ptr<FeatureCallback>& callback : callbacks_) manager_->featuresIs(callback);
  const double took = wallNow() - started;
  checker_ = std::make_unique<Brevant::HitlessChecker>(
      *manager_, [](U16 index) { return FmSim::tableWord(index); });
  // The owners' groups must be on the chip where they left them.
  for (const auto& [id, group] : owned) checker_->ownedGroupIs(id, group);
  checker_->checkSettled();

  Report::Restart r;
  r.agentTime = agentTime();
  r.cause = cause;
  r.outcome = Brevant::outcomeName(result.outcome);
  if (!result.coldReason.empty()) r.outcome += " (" + result.coldReason + ")";
  r.restoreSeconds = took;
  r.wordsRead = result.wordsRead;
  for (U32 i = 0; i < report_.tableBound; ++i) r.wordsChanged += FmSim::tableWord(i) != before[i];
  report_.restarts.push_back(std::move(r));
}

// --- Diagnostic requests ---

namespace {

// "2.5" for a number of seconds that a request takes; throws RequestError.
double secondsArgument(const std::string& text) {
  char* end = nullptr;
  const double value = strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value >= 0) || !(value <= 1)) {
    throw RequestError("'" + text + "' is not a time from 0 to 1 s");
  }
  return value;
}

std::string withNewline(std::string text) {
  if (text.empty() || text.back() != '\n') text += '\n';
  return text;
}

}  // namespace

// One request of the socket: its leading words, and its handler, given the
// rest of the line (empty when there is none).
struct AgentSimulation::RequestHandler {
  const char* words;
  bool takesArguments;
  void (*answer)(AgentSimulation& agent, const std::string& rest, int fd);
};

const std::vector<AgentSimulation::RequestHandler>& AgentSimulation::requestHandlers() {
  static const std::vector<RequestHandler> handlers = {
      {"show free-entries", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         a.manager_->showFreeEntrySummary(static_cast<U32>(fd));
       }},
      {"show group", true,
       [](AgentSimulation& a, const std::string& rest, int fd) {
         char* end = nullptr;
         const unsigned long id = strtoul(rest.c_str(), &end, 10);
         if (*end != '\0' || id > 65535 || rest[0] == '-')
           throw RequestError("'" + rest + "' is not a group id");
         writeAll(fd, groupText(*a.manager_, static_cast<U16>(id)));
       }},
      {"get", true,
       [](AgentSimulation& a, const std::string& rest, int fd) {
         if (rest.find(' ') != std::string::npos) throw RequestError("get takes one path");
         writeAll(fd, withNewline(pathGet(*a.state_, rest)));
       }},
      {"set", true,
       [](AgentSimulation& a, const std::string& rest, int fd) {
         const size_t blank = rest.find(' ');
         if (blank == std::string::npos) throw RequestError("set takes a path and a value");
         const std::string path = rest.substr(0, blank);
         SetChecks checks;
         checks.tableGeometry = [&a](std::optional<U16> simBound) { a.tableGeometryIs(simBound); };
         pathSet(*a.state_, path, rest.substr(rest.find_first_not_of(' ', blank)), checks);
         writeAll(fd, withNewline(pathGet(*a.state_, path)));
       }},
      {"list", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         writeAll(fd, pathList(*a.state_, ""));
       }},
      {"list", true,
       [](AgentSimulation& a, const std::string& rest, int fd) {
         if (rest.find(' ') != std::string::npos) throw RequestError("list takes one path");
         writeAll(fd, pathList(*a.state_, rest));
       }},
      {"show resources", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         writeAll(fd, resourcesText(*a.manager_->resources()));
       }},
      {"show restart", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         writeAll(fd, a.report_.restarts.empty()
                          ? std::string("no restart yet\n")
                          : std::to_string(a.report_.restarts.size()) + " restarts, last at " +
                                restartText(a.report_.restarts.back()) + "\n");
       }},
      {"save", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         Brevant::saveSnapshot(*a.manager_, a.config_.snapshotPath);
         writeAll(fd, "ok: snapshot saved to " + a.config_.snapshotPath + "\n");
       }},
      {"status", false,
       [](AgentSimulation& a, const std::string&, int fd) { writeAll(fd, a.statusText()); }},
      {"chip-timing", false,
       [](AgentSimulation&, const std::string&, int fd) { writeAll(fd, chipTimingText()); }},
      {"chip-timing", true,
       [](AgentSimulation&, const std::string& rest, int fd) {
         const size_t blank = rest.find(' ');
         if (blank == std::string::npos)
           throw RequestError("chip-timing takes two times: per call and per word");
         const double perCall = secondsArgument(rest.substr(0, blank));
         const double perWord = secondsArgument(rest.substr(rest.find_first_not_of(' ', blank)));
         FmSim::timingIs({perCall, perWord});
         writeAll(fd, chipTimingText());
       }},
      {"help", false,
       [](AgentSimulation&, const std::string&, int fd) { writeAll(fd, requestHelp()); }},
      {"quit", false,
       [](AgentSimulation& a, const std::string&, int fd) {
         writeAll(fd, "ok: stopping\n");
         a.quit();
       }},
  };
  return handlers;
}

void AgentSimulation::tableGeometryIs(std::optional<U16> simBound) {
  // The workload was checked against the swap area it started with; a
  // smaller one must still hold every group the workload creates.
  const std::vector<WorkloadError> unfit =
      unfitRequests(config_.workload, swapAreaEntries(simBound));
  if (!unfit.empty()) {
    throw RequestError(std::string("the workload does not fit that table: ") +
                       unfit.front().what());
  }
  config_.simBound = simBound;
}

std::string AgentSimulation::chipTimingText() {
  char text[128];
  snprintf(text, sizeof(text), "chip timing: %g s per call, %g s per word\n",
           FmSim::timing().perCall, FmSim::timing().perWord);
  return text;
}

std::string AgentSimulation::statusText() const {
  U64 requested = 0;
  for (const auto& [kind, counts] : report_.requests) requested += counts.requested;
  const char* replay = !workloadDone_ ? "running" : settled() ? "done" : "settling";
  char text[512];
  snprintf(text, sizeof(text),
           "replay: %s\n"
           "agent time: %.3f s\n"
           "requests: %llu of %llu\n"
           "pending retries: %zu\n"
           "defragmentation runs: %u\n",
           replay, agentTime(), static_cast<unsigned long long>(requested),
           static_cast<unsigned long long>(report_.workloadRequests), retryQueue_.size(),
           manager_->defragManager()->defragCount());
  return text;
}

void AgentSimulation::answer(const std::string& request, int fd) {
  watch_->begin("diagnostic request '" + request + "'");
  struct EndWatch {
    StopWatch& watch;
    ~EndWatch() { watch.end(); }
  } endWatch{*watch_};

  for (const RequestHandler& handler : requestHandlers()) {
    // The request's leading words must be the handler's; the rest of the
    // line, as sent, is its argument text.
    std::istringstream in(request);
    std::istringstream expected(handler.words);
    bool matches = true;
    for (std::string want, got; expected >> want;) matches = matches && in >> got && got == want;
    if (!matches) continue;
    std::string rest;
    std::getline(in >> std::ws, rest);
    while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t')) rest.pop_back();
    if (rest.empty() != !handler.takesArguments) continue;
    return handler.answer(*this, rest, fd);
  }
  throw RequestError("unknown request '" + request + "' (try help)");
}

}  // namespace Agent
