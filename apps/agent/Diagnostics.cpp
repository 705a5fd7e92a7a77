#include "Diagnostics.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <vector>

#include "Brevant/ECMPGroup.h"
#include "Kiln/TypeRecord.h"

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

Target resolve(Kiln::PtrInterface& root, const std::string& path) {
  std::vector<Segment> segments = parsePath(path);
  Target t;
  t.object = &root;
  for (size_t i = 0; i + 1 < segments.size(); ++i) {
    const Segment& s = segments[i];
    Kiln::Ptr<Kiln::PtrInterface> child = t.object->fwkType().child(*t.object, s.name, s.key);
    if (!child) {
      throw RequestError("nothing at '" + s.name + (s.hasKey ? "[" + s.key + "]" : "") +
                         "' in path '" + path + "'");
    }
    t.object = child;
  }
  t.last = segments.back();
  return t;
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

void pathSet(Kiln::PtrInterface& root, const std::string& path, const std::string& value) {
  const Target t = resolve(root, path);
  const Kiln::TypeRecord& type = t.object->fwkType();
  if (t.last.hasKey) {
    type.memberIs(*t.object, t.last.name, t.last.key, value);
  } else {
    type.set(*t.object, t.last.name, value);
  }
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
         "set PATH VALUE           store an attribute, e.g. "
         "nextHopManager.defragManager.defragDelay 2.5\n"
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
