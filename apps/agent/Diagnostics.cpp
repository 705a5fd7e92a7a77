#include "Diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <vector>

#include "Brevant/DefragManager.h"
#include "Brevant/ECMPGroup.h"
#include "Kiln/Exception.h"
#include "Kiln/Strep.h"
#include "Kiln/TypeRecord.h"
#include "Trace/Trace.h"

namespace Agent {
namespace {

struct Segment {
  std::string name;
  bool hasKey = false;
  std::string key;
};

std::vector<Segment> parsePath(const std::string& path) {
  std::vector<Segment> segments;
  size_t i = 0;
  while (i <= path.size()) {
    Segment s;
    const size_t start = i;
    while (i < path.size() && path[i] != '.' && path[i] != '[') ++i;
    s.name = path.substr(start, i - start);
    if (s.name.empty()) throw RequestError("path '" + path + "' has an empty name");
    if (i < path.size() && path[i] == '[') {
      const size_t close = path.find(']', i);
      if (close == std::string::npos) throw RequestError("path '" + path + "' has an unclosed '['");
      s.hasKey = true;
      s.key = path.substr(i + 1, close - i - 1);
      i = close + 1;
    }
    segments.push_back(std::move(s));
    if (i == path.size()) break;
    if (path[i] != '.') throw RequestError("path '" + path + "' expects '.' after ']'");
    ++i;
  }
  return segments;
}

// The object holding the last segment, and that segment.
struct Target {
  Kiln::Ptr<Kiln::PtrInterface> object;
  Segment last;
};

// The entity reached through segments [0, end).
Kiln::Ptr<Kiln::PtrInterface> walk(Kiln::PtrInterface& root, const std::vector<Segment>& segments,
                                   size_t end, const std::string& path) {
  Kiln::Ptr<Kiln::PtrInterface> object = &root;
  for (size_t i = 0; i < end; ++i) {
    const Segment& s = segments[i];
    Kiln::Ptr<Kiln::PtrInterface> child;
    try {
      child = object->fwkType().child(*object, s.name, s.key);
    } catch (const Kiln::OperationNotSupportedException& e) {
      throw RequestError(std::string(e.what()) + " (in path '" + path + "')");
    }
    if (!child) {
      throw RequestError("nothing at '" + s.name + (s.hasKey ? "[" + s.key + "]" : "") +
                         "' in path '" + path + "'");
    }
    object = child;
  }
  return object;
}

Target resolve(Kiln::PtrInterface& root, const std::string& path) {
  const std::vector<Segment> segments = parsePath(path);
  return Target{walk(root, segments, segments.size() - 1, path), segments.back()};
}

// --- Trace handles, reached as trace.NAME.

constexpr const char* tracePrefix = "trace";

bool isTracePath(const Kiln::PtrInterface& root, const std::string& path) {
  return (path == tracePrefix || path.rfind(std::string(tracePrefix) + ".", 0) == 0) &&
         !root.fwkType().attribute(tracePrefix);
}

Trace::Handle& traceHandle(const std::string& path) {
  const std::string name = path.substr(std::string(tracePrefix).size() + 1);
  Trace::Handle* handle = Trace::existingHandle(name);
  // Only existing handles: a request must not create one per name it sends.
  if (!handle) throw RequestError("no trace handle '" + name + "' (list trace shows them)");
  return *handle;
}

std::string qualifiedName(const Kiln::TypeRecord& type, const std::string& attribute) {
  return type.name() + "::" + attribute;
}

bool isCollection(Kiln::AttributeKind kind) {
  return kind == Kiln::AttributeKind::collection ||
         kind == Kiln::AttributeKind::orderedCollection || kind == Kiln::AttributeKind::queue;
}

std::string hex(U64 word) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%016llx", static_cast<unsigned long long>(word));
  return text;
}

}  // namespace

std::string pathGet(Kiln::PtrInterface& root, const std::string& path) {
  if (isTracePath(root, path)) {
    if (path == tracePrefix) throw RequestError("get takes trace.NAME (list trace shows them)");
    return Trace::levelsText(traceHandle(path).levels());
  }
  const Target t = resolve(root, path);
  const Kiln::TypeRecord& type = t.object->fwkType();
  const Kiln::AttributeRecord* attribute = type.attribute(t.last.name);
  if (t.last.hasKey || (attribute && isCollection(attribute->kind))) {
    std::string text;
    for (const Kiln::MemberText& member : type.members(*t.object, t.last.name)) {
      if (!t.last.hasKey) {
        text += member.first + ": " + member.second + "\n";
      } else if (member.first == t.last.key) {
        return member.second;
      }
    }
    if (t.last.hasKey) throw RequestError("no member " + t.last.key + " in " + t.last.name);
    return text;
  }
  return type.get(*t.object, t.last.name);
}

void pathSet(Kiln::PtrInterface& root, const std::string& path, const std::string& value,
             const SetChecks& checks) {
  if (isTracePath(root, path)) {
    if (path == tracePrefix) throw RequestError("set takes trace.NAME LEVELS");
    Trace::Handle& handle = traceHandle(path);
    try {
      handle.levelsIs(Trace::parseLevels(value));
    } catch (const Kiln::RangeException& e) {
      throw RequestError(path + " takes levels such as 1-4,8, all or none: " + e.what());
    }
    return;
  }
  const Target t = resolve(root, path);
  const Kiln::TypeRecord& type = t.object->fwkType();
  const Kiln::AttributeRecord* attribute = type.attribute(t.last.name);
  if (!attribute) throw RequestError(type.name() + " has no attribute " + t.last.name);
  const std::string name = qualifiedName(type, attribute->name);
  if (!attribute->settable || t.last.hasKey) {
    throw RequestError(name + " is not settable (list shows what is)");
  }
  for (const Setting& setting : settings()) {
    if (type.name() == setting.typeName && attribute->name == setting.attribute) {
      return setting.write(*t.object, setting, value, checks);
    }
  }
  // A schema attribute made settable without a range check here.
  throw RequestError(name + " has no range check in this agent and is not set");
}

std::string pathList(Kiln::PtrInterface& root, const std::string& path) {
  std::vector<std::vector<std::string>> rows = {{"attribute", "kind", "type", "settable"}};
  std::string title;
  if (isTracePath(root, path)) {
    if (path != tracePrefix) throw RequestError("list takes trace, not " + path);
    title = "trace handles";
    rows.front() = {"handle", "kind", "levels", "settable"};
    for (const Trace::Handle* h : Trace::handles()) {
      rows.push_back({h->name(), "levels", Trace::levelsText(h->levels()), "yes"});
    }
  } else {
    const std::vector<Segment> segments = path.empty() ? std::vector<Segment>() : parsePath(path);
    const Kiln::Ptr<Kiln::PtrInterface> object = walk(root, segments, segments.size(), path);
    const Kiln::TypeRecord& type = object->fwkType();
    title = type.name();
    for (const Kiln::AttributeRecord* a : type.attributes()) {
      std::string value = a->typeName;
      if (!a->keyTypeName.empty()) value = a->keyTypeName + " -> " + value;
      rows.push_back(
          {a->name, Kiln::attributeKindName(a->kind), value, a->settable ? "yes" : "no"});
    }
  }
  std::vector<size_t> widths(rows.front().size(), 0);
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  std::string text = title + "\n";
  for (const auto& row : rows) {
    std::string line = " ";
    for (size_t c = 0; c < row.size(); ++c) {
      line += " " + row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size(), ' ');
    }
    text += line + "\n";
  }
  return text;
}

namespace {

[[noreturn]] void outOfRange(const Kiln::PtrInterface& owner, const Setting& setting,
                             const std::string& value, const std::string& why = {}) {
  throw RequestError(qualifiedName(owner.fwkType(), setting.attribute) + " takes " + setting.range +
                     ", not '" + value + "'" + (why.empty() ? "" : ": " + why));
}

template <class T>
T parsed(const Kiln::PtrInterface& owner, const Setting& setting, const std::string& value) {
  try {
    return Kiln::strepToValue<T>(value);
  } catch (const Kiln::Exception&) {
    outOfRange(owner, setting, value);
  }
}

// Longest time accepted for a delay or budget: longer than any run.
constexpr double longestTime = 1e7;

// A delay or time budget: finite, from 0 to longestTime seconds. (The
// library arms the timer at once for a delay that is not; an operator's
// typo is refused here instead.)
void writeTime(Kiln::PtrInterface& owner, const Setting& setting, const std::string& value,
               const SetChecks&) {
  const double seconds = parsed<double>(owner, setting, value);
  if (!std::isfinite(seconds) || seconds < 0 || seconds > longestTime) {
    outOfRange(owner, setting, value);
  }
  owner.fwkType().set(owner, setting.attribute, value);
}

// Simulation mode and its bound change the table's geometry: only while the
// table holds no group, and through setSimulationMode, which trims or gives
// back the free pools; a plain store would leave them as they were.
// Groups 0 and 1 hold the table's reserved entries 1 and 2 from the start,
// below any simulated bound; the ids from 2 on are the features' groups.
constexpr U16 reservedGroups = 2;

bool holdsFeatureGroups(const Brevant::NextHopManager& manager) {
  for (const auto& placed : manager.hwStartToGroupId()) {
    if (placed.value() >= reservedGroups) return true;
  }
  return false;
}

void changeGeometry(Brevant::NextHopManager& manager, const Setting& setting,
                    const std::string& value, bool mode, U16 bound, const SetChecks& checks) {
  if (holdsFeatureGroups(manager)) {
    outOfRange(manager, setting, value, "only while the table holds no group");
  }
  if (mode && (bound < 16 || bound % 2 != 0)) {
    outOfRange(manager, setting, value,
               "simulation mode needs an even simNextHopTableBound from 16 to 65534 first");
  }
  if (checks.tableGeometry) checks.tableGeometry(mode ? std::optional<U16>(bound) : std::nullopt);
  // Leaving first gives back the old bound's pools, so that a new bound in
  // simulation mode trims from a whole table.
  if (manager.simMode()) manager.setSimulationMode(false, manager.simNextHopTableBound());
  manager.setSimulationMode(mode, bound);
}

Brevant::NextHopManager& managerOf(Kiln::PtrInterface& owner) {
  return dynamic_cast<Brevant::NextHopManager&>(owner);
}

void writeSimMode(Kiln::PtrInterface& owner, const Setting& setting, const std::string& value,
                  const SetChecks& checks) {
  Brevant::NextHopManager& manager = managerOf(owner);
  const bool mode = parsed<bool>(owner, setting, value);
  if (mode == manager.simMode()) return;
  changeGeometry(manager, setting, value, mode, manager.simNextHopTableBound(), checks);
}

void writeSimBound(Kiln::PtrInterface& owner, const Setting& setting, const std::string& value,
                   const SetChecks& checks) {
  Brevant::NextHopManager& manager = managerOf(owner);
  const U16 bound = parsed<U16>(owner, setting, value);
  if (bound < 16 || bound > 65534 || bound % 2 != 0) outOfRange(owner, setting, value);
  if (bound == manager.simNextHopTableBound()) return;
  if (!manager.simMode()) {
    // Only recorded until simulation mode is entered.
    manager.setSimulationMode(false, bound);
    return;
  }
  changeGeometry(manager, setting, value, true, bound, checks);
}

}  // namespace

const std::vector<Setting>& settings() {
  static const std::vector<Setting> all = {
      {"Brevant::DefragManager", "defragDelay", "a finite time from 0 to 1e7 s", writeTime},
      {"Brevant::DefragManager", "defragTime", "a finite time from 0 to 1e7 s", writeTime},
      {"Brevant::NextHopManager", "simMode", "True or False", writeSimMode},
      {"Brevant::NextHopManager", "simNextHopTableBound", "an even bound from 16 to 65534",
       writeSimBound},
  };
  return all;
}

std::string groupText(Brevant::NextHopManager& manager, U16 groupId) {
  Kiln::Ptr<Brevant::ECMPGroup> group = manager.ecmpGroups(groupId);
  if (!group) throw RequestError("no group " + std::to_string(groupId));
  const U32 stride = group->wide() ? 2 : 1;
  const U32 start = group->hwStartIndex();
  std::ostringstream out;
  out << "group " << groupId << ": " << (group->wide() ? "wide" : "narrow") << ", "
      << (group->fixedSize() ? "fixed" : "variable") << " size, " << group->size()
      << (group->size() == 1 ? " next hop" : " next hops");
  if (group->size() > 0) {
    out << " at " << start << " (entries " << start << "-" << start + stride * group->size() - 1
        << ")";
  }
  if (group->mcast()) out << ", multicast";
  out << ", features";
  std::vector<std::string> features;
  for (const auto& member : group->featuresSupported()) {
    if (member.value()) features.push_back(Brevant::stringValue(member.key()));
  }
  std::sort(features.begin(), features.end());
  if (features.empty()) out << " none";
  for (const std::string& f : features) out << ' ' << f;
  out << '\n';
  for (U16 p = 0; p < group->size(); ++p) {
    const Brevant::NextHopEntry chip = manager.readNextHop(groupId, p);
    const Brevant::NextHopEntry record = group->nextHops(p);
    out << "  " << p << ": index " << chip.hwIndex() << " data " << hex(chip.data());
    if (group->wide()) out << " wide data " << hex(chip.wideData());
    if (chip.data() != record.data() || (group->wide() && chip.wideData() != record.wideData())) {
      out << "  (record: data " << hex(record.data());
      if (group->wide()) out << " wide data " << hex(record.wideData());
      out << ")";
    }
    out << '\n';
  }
  return out.str();
}

std::string resourcesText(Brevant::NextHopResources& resources) {
  // Every attribute in declaration order, the name padded to one column;
  // createsRefused gives one line per code.
  const Kiln::TypeRecord& type = resources.fwkType();
  std::string text;
  auto line = [&text](const std::string& name, const std::string& value) {
    char padded[64];
    std::snprintf(padded, sizeof(padded), "%-30s", name.c_str());
    text += padded + value + "\n";
  };
  for (const Kiln::AttributeRecord* a : type.attributes()) {
    if (isCollection(a->kind)) {
      for (const Kiln::MemberText& m : type.members(resources, a->name)) {
        line(a->name + "[" + m.first + "]", m.second);
      }
    } else {
      line(a->name, type.get(resources, a->name));
    }
  }
  return text;
}

std::string requestHelp() {
  return "show free-entries        the next-hop table's free-entry summary\n"
         "show resources           the next-hop table's resource counters and watermarks\n"
         "show group ID            a group and its next hops read back from the chip\n"
         "get PATH                 an attribute by path, e.g. nextHopManager.simMode\n"
         "set PATH VALUE           store a settable attribute, e.g. "
         "nextHopManager.defragManager.defragDelay 2.5\n"
         "list [PATH]              an entity's attributes: kind, type, settable; list trace: the "
         "trace handles\n"
         "show restart             the last warm restart: outcome, restore time, words read and "
         "changed\n"
         "save                     write the next-hop table's snapshot\n"
         "status                   replay running, settling or done; agent time, requests, pending "
         "retries\n"
         "chip-timing [CALL WORD]  the simulated chip's time per call and per 64-bit word, in "
         "seconds\n"
         "help                     this list\n"
         "quit                     stop the agent\n";
}

}  // namespace Agent
