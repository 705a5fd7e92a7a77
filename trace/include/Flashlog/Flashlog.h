// In-memory trace files: fixed-size rings of binary records, cheap enough to
// keep on in production and dumped when the process stops on a fatal error,
// so that an operator sees what led to it.
//
// Each call site of FLASHLOG registers one message descriptor the first time
// it runs (file, line, level, printf-style format text, argument format).
// A record holds only the descriptor id and the raw arguments; the text is
// rendered when the records are read.
//
//   FLASHLOG(1, "NextHop writing to register failed with status %d", status);
//   FLASHLOG(1, "%s: Index is out of range", __func__);
//
// Arguments are integers of 8 to 64 bits and static texts (string literals,
// __func__: only the pointer is stored, so the text must outlive the
// record). The argument format has one letter per argument: 'h' for a
// 16-bit (or narrower) integer, 'i' for a 32-bit one, 'l' for a 64-bit one,
// 's' for a static text; "" when there are none. A function name can be
// folded into the format text or passed as an 's' argument; the library
// passes it as an argument where one code path serves several functions.
//
// Records go to the process's default handle: to its one file, or, when the
// handle is multi-threaded, to the calling thread's own file. Without a
// default handle, recording stops the process on the assertion "0".
#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "Kiln/Types.h"

namespace Flashlog {

constexpr int maxArgs = 4;
constexpr int maxLevel = 9;

// The message descriptor of one call site.
struct Site {
  U32 id;
  const char* file;
  U32 line;
  int level;
  const char* format;
  const char* argFormat;
};

// Registers a call site and returns its id (ids count from 0). The format's
// conversions must match argFormat one for one (the process stops on
// "conversions == argCount" otherwise), and there may be at most maxArgs
// arguments.
U32 siteIs(const char* file, U32 line, int level, const char* format, const char* argFormat);

// Returns the descriptor registered under id.
const Site& site(U32 id);

// Returns how many call sites have registered.
U32 siteCount();

// One record read back from a file.
struct Record {
  const Site* site;
  // Process-wide order of recording: sorting by it interleaves files.
  U64 sequence;
  // Index of the file within its handle (0 unless multi-threaded).
  U32 file;
  U32 argCount;
  std::array<U64, maxArgs> args;

  // The integer value of argument i, sign-extended if it was signed.
  S64 intArg(U32 i) const { return static_cast<S64>(args[i]); }
  // The text of argument i (an 's' argument).
  const char* textArg(U32 i) const { return reinterpret_cast<const char*>(args[i]); }
  // The descriptor's format text.
  std::string format() const { return site->format; }
  // The message rendered with its arguments.
  std::string text() const;
};

class File;

// A trace file set: one ring of recordsPerFile records, or one such ring per
// recording thread when multi-threaded.
class Handle {
 public:
  Handle(std::string name, U32 recordsPerFile = 1024, bool multiThreaded = false);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const std::string& name() const { return name_; }
  U32 recordsPerFile() const { return recordsPerFile_; }
  bool multiThreaded() const { return multiThreaded_; }

  // Records of a level above this one are dropped (9, the default, keeps
  // everything; 0 drops everything).
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }

  // Appends a record of site with args[0..count-1] to the calling thread's
  // file, overwriting the oldest record of a full ring.
  void recordIs(U32 siteId, const U64* args, U32 count);

  // Returns the kept records of every file, oldest first.
  std::vector<Record> records() const;

  // Returns the number of files (threads that recorded, if multi-threaded).
  U32 fileCount() const;

  // Empties every file.
  void clear();

  // Writes the kept records, oldest first, one per line, to out.
  void dump(FILE* out) const;

 private:
  File& fileOfThisThread();

  const std::string name_;
  const U32 recordsPerFile_;
  const bool multiThreaded_;
  const U64 serial_;
  int level_ = maxLevel;
  mutable std::mutex filesMutex_;
  std::vector<std::unique_ptr<File>> files_;
};

// Returns the process's default handle, or nullptr when it has none. Unless
// changed, it is a single-threaded handle named "process" created on first
// use.
Handle* defaultHandle();

// Makes handle the default (nullptr: none). The caller keeps handle alive
// while it is the default.
void defaultHandleIs(Handle* handle);

// Returns the built-in handle that is the default unless changed.
Handle& processHandle();

// Returns the records of the default handle, oldest first (none without one).
std::vector<Record> records();

// Returns the rendered texts of the default handle's records, oldest first.
std::vector<std::string> texts();

// Records site with args in the default handle; stops the process on the
// assertion "0" when there is none.
void defaultRecordIs(U32 siteId, const U64* args, U32 count);

// Writes the default handle's records to stderr. Registered as a fatal hook,
// so it runs when the process stops on an assertion.
void dumpDefault();

// Argument format letters, worked out from the argument types.
template <class T>
constexpr char argLetter() {
  if constexpr (std::is_pointer_v<T>) {
    static_assert(std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char>,
                  "Flashlog arguments are integers or static texts");
    return 's';
  } else {
    static_assert(std::is_integral_v<T> || std::is_enum_v<T>,
                  "Flashlog arguments are integers or static texts");
    return sizeof(T) <= 2 ? 'h' : sizeof(T) <= 4 ? 'i' : 'l';
  }
}

template <class... A>
struct ArgFormat {
  static_assert(sizeof...(A) <= maxArgs, "too many Flashlog arguments");
  static constexpr char text[] = {argLetter<A>()..., '\0'};
};

// Declared only: FLASHLOG takes the argument types from it without
// evaluating the arguments.
template <class... A>
ArgFormat<std::decay_t<A>...> argFormatOf(A&&...);

// Returns the stored form of one argument: integers sign- or zero-extended
// to 64 bits, texts as their address.
template <class T>
U64 rawArg(T value) {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<U64>(value);
  } else if constexpr (std::is_enum_v<T>) {
    return rawArg(static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::is_signed_v<T>) {
    return static_cast<U64>(static_cast<S64>(value));
  } else {
    return static_cast<U64>(value);
  }
}

template <class... A>
void record(U32 siteId, A... args) {
  const U64 raw[sizeof...(A) + 1] = {rawArg(args)..., 0};
  defaultRecordIs(siteId, raw, sizeof...(A));
}

}  // namespace Flashlog

// Records a message in the default handle. The call site registers its
// descriptor once, on its first execution.
#define FLASHLOG(level, format, ...)                                              \
  do {                                                                            \
    static const U32 flashlogSite_ =                                              \
        ::Flashlog::siteIs(__FILE__, __LINE__, (level), (format),                 \
                           decltype(::Flashlog::argFormatOf(__VA_ARGS__))::text); \
    ::Flashlog::record(flashlogSite_ __VA_OPT__(, ) __VA_ARGS__);                 \
  } while (0)
