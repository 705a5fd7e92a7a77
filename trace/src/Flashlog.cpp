#include "Flashlog/Flashlog.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <deque>
#include <thread>

#include "Kiln/Assert.h"

namespace Flashlog {
namespace {

std::mutex sitesMutex;
// A deque keeps the addresses of registered sites stable.
std::deque<Site> sites;

std::atomic<U64> nextSequence{0};
std::atomic<U64> nextSerial{1};

// Number of printf conversions in format ("%%" is not one).
U32 conversionCount(const char* format) {
  U32 count = 0;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') continue;
    if (p[1] == '%') {
      ++p;
    } else {
      ++count;
    }
  }
  return count;
}

std::string formatted(const std::string& directive, auto value) {
  char buffer[128];
  const int length = std::snprintf(buffer, sizeof(buffer), directive.c_str(), value);
  return std::string(buffer, std::clamp(length, 0, int(sizeof(buffer)) - 1));
}

// Renders one argument stored as raw with the argument letter, for the
// conversion directive (flags, width and precision, without length modifier).
std::string renderedArg(std::string directive, char conversion, char letter, U64 raw) {
  switch (conversion) {
    case 's':
      if (letter == 's') return formatted(directive + 's', reinterpret_cast<const char*>(raw));
      return formatted(directive + "lld", static_cast<long long>(raw));
    case 'd':
    case 'i': return formatted(directive + "lld", static_cast<long long>(raw));
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      // Narrow integers print as printf prints them after promotion to int.
      const U64 value = letter == 'l' ? raw : raw & 0xFFFFFFFFull;
      return formatted(directive + "ll" + conversion, static_cast<unsigned long long>(value));
    }
    case 'c': return formatted(directive + 'c', static_cast<int>(raw));
    case 'p': return formatted(directive + 'p', reinterpret_cast<void*>(raw));
    default: return directive + conversion;
  }
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

// One ring of records. Its mutex is uncontended in the common case (one
// recording thread) and lets readers and the fatal dump see whole records.
class File {
 public:
  File(U32 index, U32 capacity, std::thread::id owner)
      : index_(index), owner_(owner), slots_(capacity) {}

  std::thread::id owner() const { return owner_; }

  void recordIs(U32 siteId, const U64* args, U32 count) {
    const U64 sequence = nextSequence.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> hold(mutex_);
    Slot& slot = slots_[written_ % slots_.size()];
    slot.siteId = siteId;
    slot.sequence = sequence;
    slot.argCount = count;
    std::copy(args, args + count, slot.args.begin());
    ++written_;
  }

  void appendTo(std::vector<Record>& out) const {
    std::lock_guard<std::mutex> hold(mutex_);
    const U64 kept = std::min<U64>(written_, slots_.size());
    for (U64 n = written_ - kept; n < written_; ++n) {
      const Slot& slot = slots_[n % slots_.size()];
      out.push_back({&site(slot.siteId), slot.sequence, index_, slot.argCount, slot.args});
    }
  }

  void clear() {
    std::lock_guard<std::mutex> hold(mutex_);
    written_ = 0;
  }

 private:
  struct Slot {
    U32 siteId = 0;
    U32 argCount = 0;
    U64 sequence = 0;
    std::array<U64, maxArgs> args{};
  };

  const U32 index_;
  const std::thread::id owner_;
  mutable std::mutex mutex_;
  std::vector<Slot> slots_;
  U64 written_ = 0;
};

U32 siteIs(const char* file, U32 line, int level, const char* format, const char* argFormat) {
  const U32 conversions = conversionCount(format);
  const U32 argCount = static_cast<U32>(std::strlen(argFormat));
  KILN_ASSERT(conversions == argCount);
  KILN_ASSERT(argCount <= maxArgs);
  std::lock_guard<std::mutex> hold(sitesMutex);
  const U32 id = static_cast<U32>(sites.size());
  sites.push_back({id, file, line, level, format, argFormat});
  return id;
}

const Site& site(U32 id) {
  const Site* found = nullptr;
  {
    std::lock_guard<std::mutex> hold(sitesMutex);
    if (id < sites.size()) found = &sites[id];
  }
  // Asserted outside the lock: the fatal dump reads the sites too.
  KILN_ASSERT(found != nullptr);
  return *found;
}

U32 siteCount() {
  std::lock_guard<std::mutex> hold(sitesMutex);
  return static_cast<U32>(sites.size());
}

std::string Record::text() const {
  std::string out;
  U32 next = 0;
  const char* p = site->format;
  while (*p != '\0') {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    const char* start = p++;
    if (*p == '%') {
      out += '%';
      ++p;
      continue;
    }
    std::string directive = "%";
    while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) directive += *p++;
    while (std::isdigit(static_cast<unsigned char>(*p)) || *p == '.') directive += *p++;
    // The stored width of the argument decides, not the length modifier.
    while (*p != '\0' && std::strchr("hlLqjzt", *p) != nullptr) ++p;
    if (*p == '\0' || next >= argCount) {
      out.append(start, p);
      continue;
    }
    const char conversion = *p++;
    out += renderedArg(directive, conversion, site->argFormat[next], args[next]);
    ++next;
  }
  return out;
}

Handle::Handle(std::string name, U32 recordsPerFile, bool multiThreaded)
    : name_(std::move(name)),
      recordsPerFile_(recordsPerFile),
      multiThreaded_(multiThreaded),
      serial_(nextSerial.fetch_add(1)) {
  KILN_ASSERT(recordsPerFile > 0);
  if (!multiThreaded_) {
    files_.push_back(std::make_unique<File>(0, recordsPerFile_, std::thread::id()));
  }
}

Handle::~Handle() {
  // A handle that goes away stops being the default rather than dangling.
  if (defaultHandle() == this) defaultHandleIs(nullptr);
}

File& Handle::fileOfThisThread() {
  if (!multiThreaded_) return *files_.front();
  // Remembers the last multi-threaded handle this thread recorded in; the
  // serial number (never reused) tells whether that is still this handle.
  struct Cache {
    U64 serial = 0;
    File* file = nullptr;
  };
  thread_local Cache cache;
  if (cache.serial == serial_) return *cache.file;
  const std::thread::id self = std::this_thread::get_id();
  std::lock_guard<std::mutex> hold(filesMutex_);
  auto found = std::find_if(files_.begin(), files_.end(),
                            [self](const auto& file) { return file->owner() == self; });
  if (found == files_.end()) {
    files_.push_back(
        std::make_unique<File>(static_cast<U32>(files_.size()), recordsPerFile_, self));
    found = files_.end() - 1;
  }
  cache = {serial_, found->get()};
  return **found;
}

void Handle::recordIs(U32 siteId, const U64* args, U32 count) {
  if (site(siteId).level > level_) return;
  fileOfThisThread().recordIs(siteId, args, count);
}

std::vector<Record> Handle::records() const {
  std::vector<Record> result;
  {
    std::lock_guard<std::mutex> hold(filesMutex_);
    for (const auto& file : files_) file->appendTo(result);
  }
  std::sort(result.begin(), result.end(),
            [](const Record& a, const Record& b) { return a.sequence < b.sequence; });
  return result;
}

U32 Handle::fileCount() const {
  std::lock_guard<std::mutex> hold(filesMutex_);
  return static_cast<U32>(files_.size());
}

void Handle::clear() {
  std::lock_guard<std::mutex> hold(filesMutex_);
  for (const auto& file : files_) file->clear();
}

void Handle::dump(FILE* out) const {
  const std::vector<Record> kept = records();
  std::fprintf(out, "Flashlog %s: %zu records, oldest first\n", name_.c_str(), kept.size());
  for (const Record& record : kept) {
    std::fprintf(out, "  #%llu file %u %s:%u level %d: %s\n",
                 static_cast<unsigned long long>(record.sequence), record.file,
                 baseName(record.site->file), record.site->line, record.site->level,
                 record.text().c_str());
  }
  std::fflush(out);
}

Handle& processHandle() {
  // Never destroyed, so that records made while the process exits are safe.
  static Handle* instance = new Handle("process");
  return *instance;
}

namespace {

std::atomic<Handle*>& defaultSlot() {
  static std::atomic<Handle*> slot{&processHandle()};
  return slot;
}

// The ring dump runs whenever the process stops on an assertion.
struct DumpOnFatal {
  DumpOnFatal() { Kiln::fatalHookIs(&dumpDefault); }
} dumpOnFatal;

}  // namespace

Handle* defaultHandle() { return defaultSlot().load(std::memory_order_acquire); }

void defaultHandleIs(Handle* handle) { defaultSlot().store(handle, std::memory_order_release); }

std::vector<Record> records() {
  Handle* handle = defaultHandle();
  return handle != nullptr ? handle->records() : std::vector<Record>();
}

std::vector<std::string> texts() {
  std::vector<std::string> result;
  for (const Record& record : records()) result.push_back(record.text());
  return result;
}

void defaultRecordIs(U32 siteId, const U64* args, U32 count) {
  Handle* handle = defaultHandle();
  if (handle == nullptr) {
    // Nowhere to keep the record of a fatal error: stop right here.
    KILN_ASSERT(0);
  }
  handle->recordIs(siteId, args, count);
}

void dumpDefault() {
  Handle* handle = defaultHandle();
  if (handle == nullptr) {
    std::fprintf(stderr, "Flashlog: no default handle\n");
    return;
  }
  handle->dump(stderr);
}

}  // namespace Flashlog
