// What the fuzz targets share: turning the fuzzer's bytes into text and
// lines, and the check that stops a run when a property does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace Fuzz {

// The fuzzer's input as text (any bytes, NULs included).
inline std::string_view inputText(const uint8_t* data, size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

// The lines of text, without their newlines; a last line without a newline
// counts, an empty text has none.
inline std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> result;
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    result.push_back(text.substr(0, newline));
    if (newline == std::string_view::npos) break;
    text.remove_prefix(newline + 1);
  }
  return result;
}

// The fields of a line separated by sep (empty fields kept).
inline std::vector<std::string_view> fields(std::string_view line, char sep) {
  std::vector<std::string_view> result;
  for (;;) {
    const size_t at = line.find(sep);
    result.push_back(line.substr(0, at));
    if (at == std::string_view::npos) return result;
    line.remove_prefix(at + 1);
  }
}

// Stops the run, so that the fuzzer keeps the input, when a property that
// must hold for every input does not.
[[noreturn]] inline void propertyFailed(const std::string& what) {
  std::fprintf(stderr, "fuzz property failed: %s\n", what.c_str());
  std::abort();
}

inline void check(bool holds, const std::string& what) {
  if (!holds) propertyFailed(what);
}

}  // namespace Fuzz
