// The trace handle of the next-hop table manager and its defragmenter.
//
// Levels: 1 errors and refusals, 2 and 9 results and data words, 3 table
// changes and defragmentation progress, 4 search and move details, 7 chip
// calls (each chip API call is traced through FmApi::trace1 before it is
// made), 8 entry into an operation with its arguments.
#pragma once

#include "Trace/Trace.h"

namespace Brevant {

// Returns the handle "BrevantNextHop", created on first use (thread-safe)
// and destroyed at process exit.
inline Trace::Handle& nextHopTrace() {
  static Trace::Handle& handle = Trace::handle("BrevantNextHop");
  return handle;
}

}  // namespace Brevant

// Traces the stream expression expr at level on "BrevantNextHop" when that
// level is enabled; otherwise expr is not evaluated. Numbers print in
// decimal and booleans as 1 or 0 unless expr switches the stream (std::hex,
// then std::dec).
#define NH_TRACE(level, expr) TRACE_LINE(::Brevant::nextHopTrace(), level, expr)
