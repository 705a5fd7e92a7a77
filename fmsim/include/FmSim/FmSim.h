// The simulated switch chip: implements the C functions of FmApi/FmApi.h
// over an in-memory register file, and offers tests a way to look inside and
// to make calls fail.
//
// Register file: sparse, per switch (switches 0 to switchCount - 1); every
// register reads 0 until written. Word k of a multi-word access is at
// address + 2k, addresses counting 32-bit registers; entry i of the next-hop
// table is at nextHopTableBase + 2i.
//
// Argument checks, in this order, each failing with statusInvalidArgument: a
// switch outside 0..switchCount-1, a negative count, a null data or glort
// pointer, a negative logical port, an access running past address
// 0xFFFFFFFF. A call that passes them may then fail through an injected
// fault. A failed call changes nothing.
//
// Glorts: the glort of a logical port is what glortIs() set for it, else
// defaultGlort(port).
//
// Timing: the simulator answers at once, but it can charge each call the
// time a real chip's bus would take (timingIs). The time is charged to the
// activity manager's clock when that is a ManualClock (ManualClock::elapse,
// on the calling thread, once the call is done), so that work made of chip
// calls takes agent time; a clock that advances by itself is left alone.
//
// Every call, failed or not, is appended to the call log, and checks that
// the calling thread does not hold the activity lock (the library must give
// it up around chip calls): a call made while holding it counts as a lock
// violation, and stops the process in strict mode.
#pragma once

#include <functional>
#include <vector>

#include "FmApi/FmApi.h"
#include "Kiln/Types.h"

namespace FmSim {

constexpr S32 switchCount = 4;
constexpr U32 nextHopTableBase = 0x160000;

// A status the simulator answers only through fault injection; fmErrorMsg
// calls it "Operation failed". Statuses other than 0, 1 and 2 read
// "Unknown status".
constexpr S32 statusFailed = 1;

enum class Function { any, writeUINT64Mult, readUINT64Mult, getLogicalPortGlort };

// Returns the C name of function ("fmWriteUINT64Mult", ...; "any").
const char* functionName(Function function);

// One chip API call as the simulator saw it.
struct Call {
  // Position in the log since the last reset (0, 1, 2, ...).
  U64 order;
  Function function;
  S32 sw;
  // The register address of a register access; 0 for a glort lookup.
  U32 address;
  // The word count of a register access; 0 for a glort lookup.
  S32 count;
  // The logical port of a glort lookup; 0 for a register access.
  S32 logicalPort;
  S32 status;
  // Whether the calling thread held the activity lock.
  bool activityLockHeld;
};

// How long a chip call takes: perCall for every call (the API's entry, its
// locking and checks, the bus transaction's set-up) plus perWord for each
// 64-bit word a register access moves.
struct Timing {
  Kiln::Seconds perCall = 0;
  Kiln::Seconds perWord = 0;

  // The time of a call that moves `words` 64-bit words.
  Kiln::Seconds callTime(S32 words) const { return perCall + perWord * words; }

  // An estimate of register access from the control processor over the
  // chip's bus: 5 us per call and 1 us per 64-bit word (two 32-bit
  // accesses of about 0.5 us each). docs/agent.md gives the reasoning.
  static constexpr Timing busEstimate() { return Timing{5e-6, 1e-6}; }

  friend bool operator==(const Timing&, const Timing&) = default;
};

// Sets the time charged per call and per word. Throws std::invalid_argument
// (and changes nothing) when a figure is negative or not finite.
void timingIs(Timing timing);
// Returns the timing in force (zero, the instant chip, after reset()).
Timing timing();
// Returns the seconds charged to calls since the last reset.
Kiln::Seconds timeCharged();

// Empties every register file, the call log, the pending faults and the
// glort answers; removes the write observer; zeroes the lock violation count,
// the timing and the time charged, and leaves strict mode.
void reset();

// Returns the register at address of switch sw (0 if never written).
U64 registerWord(S32 sw, U32 address);
// Sets the register at address of switch sw, bypassing the API (not logged).
void registerWordIs(S32 sw, U32 address, U64 value);

// Returns entry index of switch 0's next-hop table.
U64 tableWord(U32 index);
// Sets entry index of switch 0's next-hop table, bypassing the API.
void tableWordIs(U32 index, U64 value);

// Returns the number of registers of switch sw that hold a value.
U32 registerCount(S32 sw);

// Makes a call of function (any: of any function) fail with status: the
// first such call after `after` further such calls (0: the very next one).
// Several faults may be pending; a call consumes at most one of them, the
// earliest injected that is due, and counts towards every other matching
// one. A faulted call is logged with its status and changes nothing.
void faultIs(Function function, S32 status, U32 after = 0);

// Returns the number of faults injected but not yet consumed.
U32 pendingFaults();

// Makes fmGetLogicalPortGlort answer glort for logicalPort on switch sw.
void glortIs(S32 sw, S32 logicalPort, U32 glort);

// Returns the glort of a logical port nobody set one for: 0x10000 plus the
// port number's low 16 bits, so that it never equals the port number.
U32 defaultGlort(S32 logicalPort);

// Returns the calls made since the last reset or callsDelAll, oldest first.
std::vector<Call> calls();
// Empties the call log.
void callsDelAll();

// Called after each successful fmWriteUINT64Mult with the call and the words
// written, once they are in the register file. It runs on the caller's
// thread with no simulator lock held, so it may read the registers (and make
// further calls).
typedef std::function<void(const Call& call, const U64* data)> WriteObserver;

// Sets the write observer (an empty function removes it).
void writeObserverIs(WriteObserver observer);

// Returns the number of calls made while the caller held the activity lock.
U64 lockViolations();

// In strict mode a call made while holding the activity lock stops the
// process on the assertion "!call.activityLockHeld".
void strictLockCheckIs(bool strict);

}  // namespace FmSim
