#include "Workload.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <random>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

namespace Agent {
namespace {

constexpr const char* featureNames[featureCount] = {"unicast", "multicast", "nat", "vxlan",
                                                    "vxlan-tunnel"};

// Longest sleep a workload line may ask for (about 11 days).
constexpr Kiln::Seconds maxSleep = 1e6;

bool labelCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.' || c == ':' || c == '/';
}

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> result;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    size_t end = i;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    if (end > i) result.push_back(line.substr(i, end - i));
    i = end;
  }
  return result;
}

// Parses one line's words into a request; the liveness of labels is checked
// by the caller, which sees the whole sequence.
class LineParser {
 public:
  LineParser(U32 line, std::vector<std::string_view> words)
      : line_(line), words_(std::move(words)) {}

  Request request() {
    Request r;
    r.line = line_;
    const std::string_view keyword = words_[0];
    if (keyword == "create") {
      r.kind = RequestKind::create;
      expectBetween(5, 7, "create LABEL narrow|wide SIZE FEATURE [fixed|variable] [mcast]");
      r.label = label(1);
      r.wide = width(2);
      r.size = number16(3, "size");
      r.feature = feature(4);
      bool sizingSeen = false;
      bool mcastSeen = false;
      for (size_t i = 5; i < words_.size(); ++i) {
        const std::string_view option = words_[i];
        if ((option == "fixed" || option == "variable") && !sizingSeen) {
          sizingSeen = true;
          r.fixedSize = option == "fixed";
        } else if (option == "mcast" && !mcastSeen) {
          mcastSeen = true;
          r.mcast = true;
        } else {
          fail("unexpected '" + std::string(option) +
               "' (options: fixed, variable, mcast, once each)");
        }
      }
    } else if (keyword == "delete") {
      r.kind = RequestKind::remove;
      expectBetween(2, 2, "delete LABEL");
      r.label = label(1);
    } else if (keyword == "update") {
      r.kind = RequestKind::update;
      expectBetween(2, 3, "update LABEL [POSITION]");
      r.label = label(1);
      if (words_.size() == 3) {
        r.hasPosition = true;
        r.position = number16(2, "position");
      }
    } else if (keyword == "read") {
      r.kind = RequestKind::read;
      expectBetween(3, 3, "read LABEL POSITION");
      r.label = label(1);
      r.hasPosition = true;
      r.position = number16(2, "position");
    } else if (keyword == "add-feature") {
      r.kind = RequestKind::addFeature;
      expectBetween(3, 3, "add-feature LABEL FEATURE");
      r.label = label(1);
      r.feature = feature(2);
    } else if (keyword == "sleep") {
      r.kind = RequestKind::sleep;
      expectBetween(2, 2, "sleep SECONDS");
      r.seconds = seconds(1);
    } else if (keyword == "restart") {
      r.kind = RequestKind::restart;
      expectBetween(1, 1, "restart");
    } else {
      fail("unknown request '" + std::string(keyword) +
           "' (requests: create, delete, update, read, add-feature, sleep, restart)");
    }
    return r;
  }

  [[noreturn]] void fail(const std::string& message) const { throw WorkloadError(line_, message); }

 private:
  void expectBetween(size_t least, size_t most, const char* usage) const {
    if (words_.size() < least || words_.size() > most) fail(std::string("expected: ") + usage);
  }

  std::string label(size_t i) const {
    const std::string_view text = words_[i];
    if (text.size() > maxLabelLength) {
      fail("label longer than " + std::to_string(maxLabelLength) + " characters");
    }
    if (!std::all_of(text.begin(), text.end(), labelCharacter)) {
      fail("label '" + std::string(text) +
           "' has a character other than letters, digits and _-.:/");
    }
    return std::string(text);
  }

  bool width(size_t i) const {
    if (words_[i] == "narrow") return false;
    if (words_[i] == "wide") return true;
    fail("expected narrow or wide, not '" + std::string(words_[i]) + "'");
  }

  U16 number16(size_t i, const char* what) const {
    const std::string_view text = words_[i];
    U32 value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > 65535) {
      fail(std::string(what) + " '" + std::string(text) + "' is not a number from 0 to 65535");
    }
    return static_cast<U16>(value);
  }

  Feature feature(size_t i) const {
    const std::optional<Feature> f = featureNamed(words_[i]);
    if (!f) {
      fail("unknown feature '" + std::string(words_[i]) +
           "' (features: unicast, multicast, nat, vxlan, vxlan-tunnel)");
    }
    return *f;
  }

  Kiln::Seconds seconds(size_t i) const {
    const std::string text(words_[i]);
    Kiln::Seconds value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
        value < 0 || value > maxSleep) {
      fail("seconds '" + text + "' is not a number from 0 to 1e6");
    }
    return value;
  }

  U32 line_;
  std::vector<std::string_view> words_;
};

}  // namespace

const char* featureName(Feature feature) { return featureNames[static_cast<int>(feature)]; }

std::optional<Feature> featureNamed(std::string_view name) {
  for (int i = 0; i < featureCount; ++i) {
    if (name == featureNames[i]) return static_cast<Feature>(i);
  }
  return std::nullopt;
}

const char* requestKindName(RequestKind kind) {
  switch (kind) {
    case RequestKind::create: return "create";
    case RequestKind::remove: return "delete";
    case RequestKind::update: return "update";
    case RequestKind::read: return "read";
    case RequestKind::addFeature: return "add-feature";
    case RequestKind::sleep: return "sleep";
    case RequestKind::restart: return "restart";
  }
  return "?";
}

std::string requestText(const Request& r) {
  std::ostringstream out;
  out << requestKindName(r.kind);
  switch (r.kind) {
    case RequestKind::create:
      out << ' ' << r.label << (r.wide ? " wide " : " narrow ") << r.size << ' '
          << featureName(r.feature) << (r.fixedSize ? " fixed" : " variable")
          << (r.mcast ? " mcast" : "");
      break;
    case RequestKind::remove: out << ' ' << r.label; break;
    case RequestKind::update:
      out << ' ' << r.label;
      if (r.hasPosition) out << ' ' << r.position;
      break;
    case RequestKind::read: out << ' ' << r.label << ' ' << r.position; break;
    case RequestKind::addFeature: out << ' ' << r.label << ' ' << featureName(r.feature); break;
    case RequestKind::sleep: {
      // The shortest text that reads back to the same number.
      char buffer[32];
      const auto result = std::to_chars(buffer, buffer + sizeof(buffer), r.seconds);
      out << ' ' << std::string_view(buffer, result.ptr - buffer);
      break;
    }
    case RequestKind::restart: break;
  }
  return out.str();
}

WorkloadError::WorkloadError(U32 line, const std::string& message)
    : std::runtime_error("line " + std::to_string(line) + ": " + message),
      line_(line),
      message_(message) {}

namespace {

// Reads one line into text, as std::getline does, but stops with an error
// at a line longer than maxWorkloadLineLength (a file without newlines must
// not grow memory without bound).
bool readLine(std::istream& in, std::string& text, U32 line) {
  text.clear();
  for (int c = in.get(); c != std::char_traits<char>::eof(); c = in.get()) {
    if (c == '\n') return true;
    if (text.size() == maxWorkloadLineLength) {
      throw WorkloadError(
          line, "line longer than " + std::to_string(maxWorkloadLineLength) + " characters");
    }
    text.push_back(static_cast<char>(c));
  }
  return !text.empty();
}

}  // namespace

Workload parseWorkload(std::istream& in) {
  Workload workload;
  // Labels live at this point of the sequence, with the line that created them.
  std::unordered_map<std::string, U32> live;
  std::string text;
  U32 line = 0;
  while (readLine(in, text, line + 1)) {
    ++line;
    std::string_view content(text);
    const size_t comment = content.find('#');
    if (comment != std::string_view::npos) content = content.substr(0, comment);
    if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
    std::vector<std::string_view> found = words(content);
    if (found.empty()) continue;
    LineParser parser(line, std::move(found));
    Request r = parser.request();
    if (r.kind == RequestKind::create) {
      const auto [at, inserted] = live.emplace(r.label, line);
      if (!inserted) {
        parser.fail("label '" + r.label + "' is already in use (created on line " +
                    std::to_string(at->second) + ")");
      }
    } else if (r.kind != RequestKind::sleep && r.kind != RequestKind::restart) {
      if (live.find(r.label) == live.end()) {
        parser.fail("label '" + r.label + "' names no group (not created, or deleted)");
      }
      if (r.kind == RequestKind::remove) live.erase(r.label);
    }
    workload.push_back(std::move(r));
  }
  return workload;
}

Workload parseWorkload(std::string_view text) {
  std::istringstream in{std::string(text)};
  return parseWorkload(in);
}

namespace {

// The built-in workload's generator: it plans the table's occupancy as a
// routing stack would see it (the sum of the live groups' entries), without
// knowing where the manager puts them.
class ChurnGenerator {
 public:
  explicit ChurnGenerator(const BuiltInOptions& options)
      : options_(options), random_(options.seed) {
    // Unicast sizes: weight 1/s^1.3 for 1..64, so that most groups are small
    // (about a third have one next hop) and a few are large.
    double total = 0;
    for (U32 s = 1; s <= sizeLimit(64); ++s) {
      total += 1.0 / std::pow(s, 1.3);
      unicastSizes_.push_back(total);
    }
  }

  Workload generate() {
    converge();
    const Kiln::Seconds end = time_ + options_.duration;
    while (time_ < end) {
      churnEvent();
      sleep(uniform(0.5, 3.5));
    }
    return std::move(workload_);
  }

 private:
  struct Group {
    std::string label;
    bool wide;
    U16 size;
    Feature feature;
    U32 peer;
    U32 entries() const { return wide ? 2u * size : size; }
  };

  static constexpr U32 peers = 32;

  double uniform(double low, double high) {
    return low + (high - low) * std::uniform_real_distribution<double>(0, 1)(random_);
  }
  U32 below(U32 n) { return static_cast<U32>(random_() % n); }
  bool chance(double p) { return uniform(0, 1) < p; }

  U32 planned() const { return planned_; }
  U32 target(double fraction) const { return static_cast<U32>(options_.capacity * fraction); }

  // The largest size up to `wanted` next hops that fits maxEntries.
  U32 sizeLimit(U32 wanted, bool wide = false) const {
    return std::max<U32>(1, std::min(wanted, options_.maxEntries / (wide ? 2 : 1)));
  }
  // A size of 1 to `most` next hops (within the limit), uniformly.
  U16 sizeUpTo(U32 most, bool wide = false) {
    return static_cast<U16>(1 + below(sizeLimit(most, wide)));
  }

  U16 unicastSize() {
    const double pick = uniform(0, unicastSizes_.back());
    const auto at = std::lower_bound(unicastSizes_.begin(), unicastSizes_.end(), pick);
    const ptrdiff_t last = static_cast<ptrdiff_t>(unicastSizes_.size()) - 1;
    return static_cast<U16>(std::min(at - unicastSizes_.begin(), last) + 1);
  }

  // A new group of a feature drawn with the mix of a routed network: mostly
  // unicast routes, then VXLAN tunnels (wide), VXLAN and NAT.
  Group newGroup(U32 peer) {
    Group g;
    g.label = "g" + std::to_string(++labels_);
    g.peer = peer;
    const double kind = uniform(0, 1);
    if (kind < 0.72) {
      g.feature = Feature::unicast;
      g.wide = false;
      g.size = unicastSize();
    } else if (kind < 0.87) {
      g.feature = Feature::vxlanTunnel;
      g.wide = true;
      g.size = sizeUpTo(8, true);
    } else if (kind < 0.94) {
      g.feature = Feature::vxlan;
      g.wide = false;
      g.size = sizeUpTo(8);
    } else {
      g.feature = Feature::nat;
      g.wide = false;
      g.size = sizeUpTo(4);
    }
    return g;
  }

  void create(Group g, bool mcast = false) {
    Request r;
    r.kind = RequestKind::create;
    r.label = g.label;
    r.wide = g.wide;
    r.size = g.size;
    r.feature = g.feature;
    r.mcast = mcast;
    r.fixedSize = !mcast;
    workload_.push_back(r);
    planned_ += g.entries();
    live_.push_back(std::move(g));
  }

  void remove(size_t at) {
    Request r;
    r.kind = RequestKind::remove;
    r.label = live_[at].label;
    workload_.push_back(r);
    planned_ -= live_[at].entries();
    live_[at] = std::move(live_.back());
    live_.pop_back();
  }

  void sleep(Kiln::Seconds seconds) {
    Request r;
    r.kind = RequestKind::sleep;
    r.seconds = std::round(seconds * 1000) / 1000;
    time_ += r.seconds;
    workload_.push_back(r);
  }

  void positioned(RequestKind kind, const Group& g, U16 position) {
    Request r;
    r.kind = kind;
    r.label = g.label;
    r.hasPosition = true;
    r.position = position;
    workload_.push_back(r);
  }

  // Routes are learnt quickly after start: groups arrive in bursts of a
  // hundred until the table is about 85% planned; a few multicast groups
  // come first.
  void converge() {
    for (int i = 0; i < 6; ++i) {
      Group g{"m" + std::to_string(i), false, sizeUpTo(16), Feature::multicast, below(peers)};
      create(g, true);
    }
    U32 created = 0;
    while (planned() < target(0.93)) {
      create(newGroup(below(peers)));
      if (++created % 100 == 0) sleep(0.05);
    }
    sleep(1.0);
  }

  void churnEvent() {
    const double kind = uniform(0, 1);
    if (kind < 0.12) {
      peerFlap();
    } else if (kind < 0.42) {
      const U32 count = 1 + below(3);
      for (U32 i = 0; i < count; ++i) {
        if (planned() < target(0.985)) {
          create(newGroup(below(peers)));
        } else if (!live_.empty()) {
          remove(below(static_cast<U32>(live_.size())));
        }
      }
    } else if (kind < 0.67) {
      const U32 count = 1 + below(3);
      for (U32 i = 0; i < count && live_.size() > 1; ++i) {
        remove(below(static_cast<U32>(live_.size())));
      }
    } else if (kind < 0.92) {
      rewrite();
    } else if (kind < 0.96) {
      share();
    } else if (!live_.empty()) {
      const Group& g = live_[below(static_cast<U32>(live_.size()))];
      positioned(RequestKind::read, g, static_cast<U16>(below(g.size)));
    }
  }

  // A peer goes down: its groups are withdrawn at once; it comes back after
  // a pause and its routes return with other next-hop sets (other sizes).
  void peerFlap() {
    const U32 peer = below(peers);
    U32 withdrawn = 0;
    for (size_t i = live_.size(); i-- > 0;) {
      if (live_[i].peer == peer && live_[i].feature != Feature::multicast) {
        remove(i);
        ++withdrawn;
      }
    }
    sleep(uniform(1.0, 30.0));
    for (U32 i = 0; i < withdrawn; ++i) create(newGroup(peer));
  }

  // A next-hop change: one next hop rewritten and read back, or the whole
  // group.
  void rewrite() {
    if (live_.empty()) return;
    const Group& g = live_[below(static_cast<U32>(live_.size()))];
    if (chance(0.6)) {
      const U16 position = static_cast<U16>(below(g.size));
      positioned(RequestKind::update, g, position);
      positioned(RequestKind::read, g, position);
    } else {
      Request r;
      r.kind = RequestKind::update;
      r.label = g.label;
      workload_.push_back(r);
    }
  }

  // A unicast group starts serving NAT or VXLAN as well.
  void share() {
    if (live_.empty()) return;
    const Group& g = live_[below(static_cast<U32>(live_.size()))];
    if (g.feature != Feature::unicast) return;
    Request r;
    r.kind = RequestKind::addFeature;
    r.label = g.label;
    r.feature = chance(0.5) ? Feature::nat : Feature::vxlan;
    workload_.push_back(r);
  }

  BuiltInOptions options_;
  std::mt19937_64 random_;
  std::vector<double> unicastSizes_;
  std::vector<Group> live_;
  Workload workload_;
  U32 planned_ = 0;
  U64 labels_ = 0;
  Kiln::Seconds time_ = 0;
};

}  // namespace

Workload builtInWorkload(const BuiltInOptions& options) {
  return ChurnGenerator(options).generate();
}

std::vector<WorkloadError> unfitRequests(const Workload& workload, U32 swapAreaEntries) {
  std::vector<WorkloadError> problems;
  for (const Request& r : workload) {
    if (r.kind != RequestKind::create || r.size == 0 || r.size > 256) continue;
    const U32 entries = (r.wide ? 2u : 1u) * r.size;
    if (r.wide && r.size > 128) {
      problems.emplace_back(r.line, "wide group '" + r.label + "' of " + std::to_string(r.size) +
                                        " next hops: a wide group holds at most 128");
    } else if (entries > swapAreaEntries) {
      problems.emplace_back(r.line,
                            "group '" + r.label + "' takes " + std::to_string(entries) +
                                " entries, more than the " + std::to_string(swapAreaEntries) +
                                "-entry swap area through which the defragmenter moves groups");
    }
  }
  return problems;
}

}  // namespace Agent
