#include "Brevant/NextHopAccess.h"

#include <cstdint>
#include <cstdio>

#include "Brevant/NextHopTrace.h"
#include "Flashlog/Flashlog.h"
#include "Kiln/Assert.h"
#include "Kiln/Lock.h"

namespace Brevant {
namespace {

// Makes one chip API call (api, a function of no arguments returning the
// status) with the activity lock released: traced first when chip-call
// tracing is on, and a failure thrown as FmApi::FmError whose text is the
// trace format filled with the same arguments. The lock is taken back
// before this returns or the error leaves.
template <class Api, class... FormatArgs>
void chipCall(const char* caller, const char* function, const char* format, Api api,
              FormatArgs... formatArgs) {
  if (nextHopTrace().enabled(Trace::chipCallLevel)) {
    FmApi::trace1(caller, format, formatArgs...);
  }
  Kiln::UnlockAnchor guard(Kiln::ActivityUnlockAnchor::lock());
  const S32 status = api();
  if (status != FmApi::statusOk) throw chipCallError(status, function, format, formatArgs...);
}

// What tells a table write from a table read.
struct TableAccess {
  const char* caller;
  const char* verb;
  const char* function;
  const char* format;
  S32 (*api)(S32 sw, U32 address, S32 count, U64* data);
};

constexpr TableAccess tableWrite{"writeNextHopInternal", " Writing ", "fmWriteUINT64Mult",
                                 "fmWriteUINT64Mult( %d, %p, %d, %p )", fmWriteUINT64Mult};
constexpr TableAccess tableRead{"readNextHopInternal", " Reading ", "fmReadUINT64Mult",
                                "fmReadUINT64Mult( %d, %p, %d, %p )", fmReadUINT64Mult};

// Traces and records a failed table access; the caller then stops the
// process. Each message is its own Flashlog call site.
void reportTableFailure(const TableAccess& access, S32 status) {
  if (status == FmApi::statusInvalidArgument) {
    NH_TRACE(1, "Error:Invalid Argument");
    FLASHLOG(1, "Error:Invalid Argument");
  } else if (&access == &tableWrite) {
    NH_TRACE(1, "NextHop writing to register failed with status " << status);
    FLASHLOG(1, "NextHop writing to register failed with status %d", status);
  } else {
    NH_TRACE(1, "NextHop reading from register failed with status " << status);
    FLASHLOG(1, "NextHop reading from register failed with status %d", status);
  }
}

void accessTable(const TableAccess& access, U16 index, U16 count, U64* data) {
  NH_TRACE(8, access.caller << access.verb << count << " next hop entries, starting at " << index);
  const U32 address = nextHopRegister(index);
  // The chip API's own trace and error texts print the address as a pointer.
  void* const addressText = reinterpret_cast<void*>(static_cast<uintptr_t>(address));
  try {
    chipCall(
        access.caller, access.function, access.format,
        [&] { return access.api(0, address, count, data); }, 0, addressText, int(count),
        static_cast<void*>(data));
  } catch (const FmApi::FmError& error) {
    reportTableFailure(access, error.status);
    // A failed table access is never reported to the caller: the chip and the
    // manager's records would disagree, so the agent stops and restarts.
    KILN_ASSERT(0);
  }
}

}  // namespace

void writeNextHopInternal(U16 index, U16 count, U64* data) {
  accessTable(tableWrite, index, count, data);
}

void readNextHopInternal(U16 index, U16 count, U64* data) {
  accessTable(tableRead, index, count, data);
}

U32 logicalPortGlort(S32 logicalPort, const char* caller) {
  U32 glort = 0;
  chipCall(
      caller, "fmGetLogicalPortGlort", "fmGetLogicalPortGlort( %d, %d, %p )",
      [&] { return fmGetLogicalPortGlort(0, logicalPort, &glort); }, 0, logicalPort,
      static_cast<void*>(&glort));
  return glort;
}

FmApi::FmError chipCallError(S32 status, const char* function, const char* format, ...) {
  char text[chipErrorBufferSize];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  const int strSize = int(sizeof(text)) - 1 - length;
  KILN_ASSERT(strSize > 0);
  std::snprintf(text + length, size_t(strSize) + 1, ": status %d (%s)", status, fmErrorMsg(status));
  return FmApi::FmError(status, function, text);
}

}  // namespace Brevant
