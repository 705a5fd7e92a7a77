#include "FmSim/FmSim.h"

#include <cmath>
#include <map>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "Kiln/ActivityManager.h"
#include "Kiln/Assert.h"
#include "Kiln/Lock.h"

namespace FmSim {
namespace {

struct Fault {
  Function function;
  S32 status;
  U32 after;
};

// The whole simulated chip, behind one mutex.
struct Chip {
  std::mutex mutex;
  std::unordered_map<U32, U64> registers[switchCount];
  std::map<std::pair<S32, S32>, U32> glorts;
  std::vector<Fault> faults;
  std::vector<Call> calls;
  WriteObserver writeObserver;
  U64 lockViolations = 0;
  bool strict = false;
  Timing timing;
  Kiln::Seconds timeCharged = 0;
};

Chip& chip() {
  static Chip instance;
  return instance;
}

bool validSwitch(S32 sw) { return sw >= 0 && sw < switchCount; }

// Whether count words from address stay below 2^32.
bool fits(U32 address, S32 count) {
  return count == 0 || U64(address) + 2 * (U64(count) - 1) <= 0xFFFFFFFFull;
}

// Takes the status of a call that passed its argument checks from the first
// due fault, and counts the call towards the other matching ones.
S32 faultStatus(Chip& state, Function function) {
  S32 status = FmApi::statusOk;
  bool consumed = false;
  for (auto fault = state.faults.begin(); fault != state.faults.end();) {
    if (fault->function != Function::any && fault->function != function) {
      ++fault;
    } else if (fault->after == 0 && !consumed) {
      status = fault->status;
      consumed = true;
      fault = state.faults.erase(fault);
    } else {
      if (fault->after > 0) --fault->after;
      ++fault;
    }
  }
  return status;
}

// Checks the activity lock, applies argument checks and faults, and logs the
// call. Returns the logged call; the caller performs it when its status is 0.
Call admitted(Chip& state, Call call, bool argumentsValid) {
  call.activityLockHeld = Kiln::ActivityUnlockAnchor::lock()->heldByCurrentThread();
  if (call.activityLockHeld) {
    ++state.lockViolations;
    if (state.strict) KILN_ASSERT(!call.activityLockHeld);
  }
  call.status = argumentsValid ? faultStatus(state, call.function) : FmApi::statusInvalidArgument;
  call.order = state.calls.size();
  state.calls.push_back(call);
  return call;
}

// Charges a call's time to the activity manager's manual clock when the
// call returns, after the simulator's lock is released (declare it before
// the lock is taken).
class TimeCharge {
 public:
  TimeCharge() = default;
  TimeCharge(const TimeCharge&) = delete;
  TimeCharge& operator=(const TimeCharge&) = delete;
  ~TimeCharge() {
    if (seconds_ <= 0) return;
    const Kiln::Ptr<Kiln::Clock>& clock = Kiln::ActivityManager::instance().clock();
    if (auto* manual = dynamic_cast<Kiln::ManualClock*>(clock.ptr())) manual->elapse(seconds_);
  }
  // The call, as logged, took the time of `words` words (with the chip's
  // lock held).
  void callIs(Chip& state, S32 words) {
    seconds_ = state.timing.callTime(words);
    state.timeCharged += seconds_;
  }

 private:
  Kiln::Seconds seconds_ = 0;
};

Call registerCall(Function function, S32 sw, U32 address, S32 count) {
  return {0, function, sw, address, count, 0, FmApi::statusOk, false};
}

bool validAccess(S32 sw, U32 address, S32 count, const U64* data) {
  return validSwitch(sw) && count >= 0 && data != nullptr && fits(address, count);
}

}  // namespace

const char* functionName(Function function) {
  switch (function) {
    case Function::any: return "any";
    case Function::writeUINT64Mult: return "fmWriteUINT64Mult";
    case Function::readUINT64Mult: return "fmReadUINT64Mult";
    case Function::getLogicalPortGlort: return "fmGetLogicalPortGlort";
  }
  return "unknown";
}

void reset() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  for (auto& registers : state.registers) registers.clear();
  state.glorts.clear();
  state.faults.clear();
  state.calls.clear();
  state.writeObserver = nullptr;
  state.lockViolations = 0;
  state.strict = false;
  state.timing = Timing{};
  state.timeCharged = 0;
}

void timingIs(Timing timing) {
  auto valid = [](Kiln::Seconds t) { return std::isfinite(t) && t >= 0; };
  if (!valid(timing.perCall) || !valid(timing.perWord)) {
    throw std::invalid_argument("chip timing must be finite and not negative");
  }
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.timing = timing;
}

Timing timing() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return state.timing;
}

Kiln::Seconds timeCharged() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return state.timeCharged;
}

U64 registerWord(S32 sw, U32 address) {
  KILN_ASSERT(validSwitch(sw));
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  auto found = state.registers[sw].find(address);
  return found != state.registers[sw].end() ? found->second : 0;
}

void registerWordIs(S32 sw, U32 address, U64 value) {
  KILN_ASSERT(validSwitch(sw));
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.registers[sw][address] = value;
}

U64 tableWord(U32 index) { return registerWord(0, nextHopTableBase + 2 * index); }

void tableWordIs(U32 index, U64 value) { registerWordIs(0, nextHopTableBase + 2 * index, value); }

U32 registerCount(S32 sw) {
  KILN_ASSERT(validSwitch(sw));
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return static_cast<U32>(state.registers[sw].size());
}

void faultIs(Function function, S32 status, U32 after) {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.faults.push_back({function, status, after});
}

U32 pendingFaults() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return static_cast<U32>(state.faults.size());
}

void glortIs(S32 sw, S32 logicalPort, U32 glort) {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.glorts[{sw, logicalPort}] = glort;
}

U32 defaultGlort(S32 logicalPort) { return 0x10000 + (static_cast<U32>(logicalPort) & 0xFFFF); }

std::vector<Call> calls() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return state.calls;
}

void callsDelAll() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.calls.clear();
}

void writeObserverIs(WriteObserver observer) {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.writeObserver = std::move(observer);
}

U64 lockViolations() {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  return state.lockViolations;
}

void strictLockCheckIs(bool strict) {
  Chip& state = chip();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.strict = strict;
}

}  // namespace FmSim

using FmSim::Call;
using FmSim::Function;

extern "C" {

S32 fmWriteUINT64Mult(S32 sw, U32 address, S32 count, U64* data) {
  FmSim::Chip& state = FmSim::chip();
  FmSim::TimeCharge charge;
  Call call{};
  FmSim::WriteObserver observer;
  {
    std::lock_guard<std::mutex> hold(state.mutex);
    call =
        FmSim::admitted(state, FmSim::registerCall(Function::writeUINT64Mult, sw, address, count),
                        FmSim::validAccess(sw, address, count, data));
    charge.callIs(state, call.status == FmApi::statusOk ? count : 0);
    if (call.status != FmApi::statusOk) return call.status;
    for (S32 k = 0; k < count; ++k) state.registers[sw][address + 2 * U32(k)] = data[k];
    observer = state.writeObserver;
  }
  // Outside the lock, so that the observer can read the registers.
  if (observer) observer(call, data);
  return FmApi::statusOk;
}

S32 fmReadUINT64Mult(S32 sw, U32 address, S32 count, U64* data) {
  FmSim::Chip& state = FmSim::chip();
  FmSim::TimeCharge charge;
  std::lock_guard<std::mutex> hold(state.mutex);
  const Call call =
      FmSim::admitted(state, FmSim::registerCall(Function::readUINT64Mult, sw, address, count),
                      FmSim::validAccess(sw, address, count, data));
  charge.callIs(state, call.status == FmApi::statusOk ? count : 0);
  if (call.status != FmApi::statusOk) return call.status;
  for (S32 k = 0; k < count; ++k) {
    auto found = state.registers[sw].find(address + 2 * U32(k));
    data[k] = found != state.registers[sw].end() ? found->second : 0;
  }
  return FmApi::statusOk;
}

S32 fmGetLogicalPortGlort(S32 sw, S32 logicalPort, U32* glort) {
  FmSim::Chip& state = FmSim::chip();
  FmSim::TimeCharge charge;
  std::lock_guard<std::mutex> hold(state.mutex);
  Call request{0, Function::getLogicalPortGlort, sw, 0, 0, logicalPort, FmApi::statusOk, false};
  const Call call = FmSim::admitted(state, request,
                                    FmSim::validSwitch(sw) && logicalPort >= 0 && glort != nullptr);
  charge.callIs(state, 0);
  if (call.status != FmApi::statusOk) return call.status;
  auto found = state.glorts.find({sw, logicalPort});
  *glort = found != state.glorts.end() ? found->second : FmSim::defaultGlort(logicalPort);
  return FmApi::statusOk;
}

const char* fmErrorMsg(S32 status) {
  switch (status) {
    case FmApi::statusOk: return "Success";
    case FmSim::statusFailed: return "Operation failed";
    case FmApi::statusInvalidArgument: return "Invalid argument";
    default: return "Unknown status";
  }
}

}  // extern "C"
