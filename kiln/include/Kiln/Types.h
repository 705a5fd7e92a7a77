// Scalar types shared by every component. They live at global scope so that
// function signatures (and the compiler's pretty function names used in
// assertion texts) read "U16", not a namespace-qualified spelling.
#pragma once

#include <cstdint>
#include <string>

typedef uint8_t U8;
typedef uint16_t U16;
typedef uint32_t U32;
typedef uint64_t U64;
typedef int8_t S8;
typedef int16_t S16;
typedef int32_t S32;
typedef int64_t S64;

namespace Kiln {

// Time in seconds, as read from a clock.
typedef double Seconds;

// Shared text and entity names: plain value-semantics strings.
typedef std::string String8;
typedef std::string Name;

}  // namespace Kiln
