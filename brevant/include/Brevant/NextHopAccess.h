// The library's access to the chip's next-hop table and the glort lookup:
// every chip API call of the library goes through here, with the activity
// lock released for the duration of the call.
#pragma once

#include <cstddef>

#include "FmApi/FmApi.h"
#include "Kiln/Types.h"

namespace Brevant {

// Register address of entry 0 of the next-hop table on switch 0.
constexpr U32 nextHopTableBase = 0x160000;

// Returns the register address of table entry index: each entry is one
// 64-bit register, and addresses count 32-bit registers.
constexpr U32 nextHopRegister(U16 index) { return nextHopTableBase + 2 * U32(index); }

// Writes count consecutive entries starting at index from data[0..count-1].
// Returns only on success: a failed write stops the process (the chip and
// the manager's records would disagree), after tracing and recording it.
// Throws Kiln::InternalException, without touching the chip, when the
// activity lock is not releasable, and Kiln::ErrnoException when the
// calling thread does not hold it.
void writeNextHopInternal(U16 index, U16 count, U64* data);

// Reads count consecutive entries starting at index into data[0..count-1].
// Failures as for writeNextHopInternal.
void readNextHopInternal(U16 index, U16 count, U64* data);

// Returns the glort of logicalPort on switch 0. Throws FmApi::FmError
// (function "fmGetLogicalPortGlort") when the chip API fails. caller names
// the calling operation in the chip-call trace.
U32 logicalPortGlort(S32 logicalPort, const char* caller = __builtin_FUNCTION());

// Size of the buffer in which chipCallError builds its message.
constexpr size_t chipErrorBufferSize = 512;

// Returns the error for a failed chip call: format (the call's trace format)
// with its arguments, then ": status <status> (<fmErrorMsg(status)>)", at
// most chipErrorBufferSize - 1 characters in all. Stops the process on the
// assertion "strSize > 0" when the formatted call leaves no room for more.
FmApi::FmError chipCallError(S32 status, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace Brevant
