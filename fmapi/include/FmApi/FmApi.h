// The chip API that the library calls: multi-word 64-bit register access and
// the logical-port glort lookup of the switch chip's SDK, declared as plain C
// functions. The library includes only this header; which library implements
// the functions (the simulator Brevant::FmSim, or the vendor SDK) is chosen
// when the program is linked (the BREVANT_CHIP_LIBRARY cache variable).
#pragma once

#include <cstdarg>

#include "Kiln/Exception.h"
#include "Kiln/Types.h"

extern "C" {

// Writes count 64-bit words from data[0..count-1] to switch sw, word k at
// register address + 2k (addresses count 32-bit registers). Returns a status.
S32 fmWriteUINT64Mult(S32 sw, U32 address, S32 count, U64* data);

// Reads count 64-bit words of switch sw, word k from register address + 2k,
// into data[0..count-1]. Returns a status.
S32 fmReadUINT64Mult(S32 sw, U32 address, S32 count, U64* data);

// Stores the global resource tag of logicalPort on switch sw in *glort.
// Returns a status.
S32 fmGetLogicalPortGlort(S32 sw, S32 logicalPort, U32* glort);

// Returns a static text describing status.
const char* fmErrorMsg(S32 status);

}  // extern "C"

namespace FmApi {

// The statuses the library tells apart; any other non-zero status is a
// failure too.
constexpr S32 statusOk = 0;
constexpr S32 statusInvalidArgument = 2;

// A failed chip API call. what() is the message given at construction.
class FmError : public Kiln::Exception {
 public:
  FmError(S32 status, const char* function, Kiln::String8 message);

  // The chip API status of the failed call.
  S32 status;
  // The name of the API function that failed: a static text, not owned.
  const char* function;
};

// Traces one chip API call, printf-style, as "<caller>: <text>" under the
// handle "FmApi" at Trace::chipCallLevel. The caller decides whether to
// trace (it tests the chip-call level of its own handle), so the line is
// always written.
void trace1(const char* caller, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace FmApi
