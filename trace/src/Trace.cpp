#include "Trace/Trace.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

#include "Kiln/Exception.h"

namespace Trace {
namespace {

// One NAME=LEVELS entry of a settings text.
struct Setting {
  std::string name;
  LevelMask levels;
};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

// Splits text at every separator; empty pieces are kept.
std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const size_t at = text.find(separator);
    pieces.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return pieces;
    text.remove_prefix(at + 1);
  }
}

[[noreturn]] void badLevels(std::string_view text) {
  throw Kiln::RangeException("bad trace levels '" + std::string(text) + "'");
}

int parseLevel(std::string_view number, std::string_view whole) {
  number = trimmed(number);
  if (number.empty() || number.size() > 1 || !std::isdigit(static_cast<unsigned char>(number[0]))) {
    badLevels(whole);
  }
  const int level = number[0] - '0';
  if (level < minLevel || level > maxLevel) badLevels(whole);
  return level;
}

std::vector<Setting> parseSettings(std::string_view text) {
  std::vector<Setting> settings;
  for (std::string_view entry : split(text, ';')) {
    entry = trimmed(entry);
    if (entry.empty()) continue;
    const size_t equals = entry.find('=');
    const std::string_view name = trimmed(entry.substr(0, equals));
    if (equals == std::string_view::npos || name.empty()) {
      throw Kiln::RangeException("bad trace setting '" + std::string(entry) + "'");
    }
    settings.push_back({std::string(name), parseLevels(entry.substr(equals + 1))});
  }
  return settings;
}

// The levels that settings give a handle called name, starting from levels.
LevelMask levelsFor(const std::vector<Setting>& settings, std::string_view name, LevelMask levels) {
  for (const Setting& setting : settings) {
    if (setting.name == "*" || setting.name == name) levels = setting.levels;
  }
  return levels;
}

class Registry {
 public:
  Registry() {
    const char* environment = std::getenv("BREVANT_TRACE");
    if (environment == nullptr) return;
    try {
      settings_ = parseSettings(environment);
    } catch (const Kiln::Exception& e) {
      // A typo in the variable must not stop the agent; say so once.
      std::fprintf(stderr, "BREVANT_TRACE ignored: %s\n", e.what());
    }
  }

  Handle& handle(std::string_view name) {
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = handles_.find(name);
    if (found != handles_.end()) return *found->second;
    auto created =
        std::make_unique<Handle>(std::string(name), levelsFor(settings_, name, noLevels));
    Handle& result = *created;
    handles_.emplace(std::string(name), std::move(created));
    return result;
  }

  Handle* find(std::string_view name) {
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = handles_.find(name);
    return found == handles_.end() ? nullptr : found->second.get();
  }

  std::vector<Handle*> all() {
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<Handle*> result;
    for (auto& [name, handle] : handles_) result.push_back(handle.get());
    return result;
  }

  void configure(std::string_view text) {
    std::vector<Setting> added = parseSettings(text);
    std::lock_guard<std::mutex> hold(mutex_);
    for (auto& [name, handle] : handles_) {
      handle->levelsIs(levelsFor(added, name, handle->levels()));
    }
    settings_.insert(settings_.end(), added.begin(), added.end());
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles_;
  std::vector<Setting> settings_;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

class StderrSink : public Sink {
 public:
  void lineIs(const Handle& handle, int level, std::string_view text) override {
    std::string line = handle.name();
    line += ' ';
    line += std::to_string(level);
    line += ": ";
    line += text;
    line += '\n';
    // One write per line keeps lines of different threads whole.
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

Sink& stderrSink() {
  // Never destroyed, so that lines traced while the process exits still work.
  static StderrSink* instance = new StderrSink;
  return *instance;
}

std::atomic<Sink*> currentSink{nullptr};

}  // namespace

LevelMask parseLevels(std::string_view text) {
  const std::string_view list = trimmed(text);
  if (list.empty() || list == "none") return noLevels;
  if (list == "all") return allLevels;
  LevelMask mask = noLevels;
  for (std::string_view item : split(list, ',')) {
    const size_t dash = item.find('-');
    const int first = parseLevel(item.substr(0, dash), text);
    const int last =
        dash == std::string_view::npos ? first : parseLevel(item.substr(dash + 1), text);
    if (last < first) badLevels(text);
    for (int level = first; level <= last; ++level) mask |= levelBit(level);
  }
  return mask;
}

std::string levelsText(LevelMask levels) {
  levels &= allLevels;
  if (levels == noLevels) return "none";
  if (levels == allLevels) return "all";
  std::string text;
  for (int first = minLevel; first <= maxLevel; ++first) {
    if (!(levels & levelBit(first))) continue;
    int last = first;
    while (last < maxLevel && (levels & levelBit(last + 1))) ++last;
    if (!text.empty()) text += ',';
    text += std::to_string(first);
    if (last > first) text += '-' + std::to_string(last);
    first = last;
  }
  return text;
}

Handle::Handle(std::string name, LevelMask levels)
    : name_(std::move(name)), levels_(levels & allLevels) {}

void Handle::levelIs(int level, bool on) {
  const LevelMask bit = levelBit(level);
  if (bit == 0) {
    throw Kiln::RangeException("trace level " + std::to_string(level) + " is outside 1..9");
  }
  if (on) {
    levels_.fetch_or(bit, std::memory_order_relaxed);
  } else {
    levels_.fetch_and(~bit, std::memory_order_relaxed);
  }
}

Handle& handle(std::string_view name) { return registry().handle(name); }

Handle* existingHandle(std::string_view name) { return registry().find(name); }

std::vector<Handle*> handles() { return registry().all(); }

void configure(std::string_view settings) { registry().configure(settings); }

Sink* sink() {
  Sink* current = currentSink.load(std::memory_order_acquire);
  return current != nullptr ? current : &stderrSink();
}

Sink* sinkIs(Sink* newSink) {
  Sink* previous = sink();
  currentSink.store(newSink, std::memory_order_release);
  return previous;
}

void emit(const Handle& handle, int level, std::string_view text) {
  sink()->lineIs(handle, level, text);
}

Capture::Capture() : previous_(sinkIs(this)) {}

Capture::Capture(Handle& handle, LevelMask levels) : Capture() {
  handle_ = &handle;
  previousLevels_ = handle.levels();
  handle.levelsIs(previousLevels_ | levels);
}

Capture::~Capture() {
  if (handle_ != nullptr) handle_->levelsIs(previousLevels_);
  sinkIs(previous_);
}

void Capture::lineIs(const Handle& handle, int level, std::string_view text) {
  std::lock_guard<std::mutex> hold(mutex_);
  lines_.push_back({handle.name(), level, std::string(text)});
}

std::vector<Line> Capture::lines() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return lines_;
}

std::vector<std::string> Capture::texts(int level) const {
  std::vector<std::string> result;
  for (const Line& line : lines()) {
    if (line.level == level) result.push_back(line.text);
  }
  return result;
}

bool Capture::contains(int level, std::string_view text) const {
  const std::vector<std::string> atLevel = texts(level);
  return std::find(atLevel.begin(), atLevel.end(), text) != atLevel.end();
}

void Capture::clear() {
  std::lock_guard<std::mutex> hold(mutex_);
  lines_.clear();
}

}  // namespace Trace
