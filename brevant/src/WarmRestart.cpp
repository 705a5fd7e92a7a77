// Warm restart: the snapshot of the manager's records, written and read
// through the type records' reflective interface, and the restore that
// compares the chip with it before adopting the table.
#include "Brevant/WarmRestart.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <numeric>
#include <optional>

#include "BlankManagerConstruction.h"
#include "Brevant/DefragManager.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopResources.h"
#include "Brevant/NextHopTrace.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Strep.h"
#include "Kiln/TypeRecord.h"

namespace Brevant {
namespace {

// The header's first line names the format; the second says how long the
// body is and the third carries its checksum.
constexpr std::string_view magic = "brevant-next-hop-snapshot";
constexpr std::string_view lengthTag = "length";
constexpr std::string_view checksumTag = "checksum fnv1a-64w";

// One past the highest entry a block or free pool may use.
constexpr U32 tableEnd = 0xFFFE;
constexpr U16 invalidGroupId = 0xFFFF;
// The reserved entries and the logical ports whose glorts they hold.
struct ReservedEntry {
  U16 groupId;
  U16 index;
  S32 logicalPort;
};
constexpr ReservedEntry reservedEntries[] = {{0, 1, 65532}, {1, 2, 65530}};

typedef SnapshotError::Problem Problem;

constexpr U64 fnvOffset = 0xcbf29ce484222325ull;
constexpr U64 fnvPrime = 0x100000001b3ull;

// FNV-1a over 64-bit words: each step is a bijection of the running hash, so
// a change of any one word always changes the result.
U64 fnv1aWords(const U64* words, size_t count, U64 hash = fnvOffset) {
  for (size_t i = 0; i < count; ++i) hash = (hash ^ words[i]) * fnvPrime;
  return hash;
}

// A time on the activity clock, written so that it reads back exactly.
std::string timeText(double seconds) {
  char text[32];
  const auto [end, ec] = std::to_chars(text, text + sizeof text, seconds);
  return std::string(text, end);
}

std::optional<double> parseTime(std::string_view text) {
  double v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty() || !std::isfinite(v))
    return std::nullopt;
  return v;
}

std::string hex16(U64 v) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(v));
  return text;
}

[[noreturn]] void corrupt(const std::string& what) {
  throw SnapshotError(Problem::corrupt, "corrupt snapshot: " + what);
}

std::optional<U64> parseNumber(std::string_view text, int base = 10) {
  U64 v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return v;
}

// The registered record of the type an attribute holds, looked up beside its
// owner's type (the schema names types without their namespace), or null for
// plain values.
const Kiln::TypeRecord* heldType(const Kiln::TypeRecord& owner, const Kiln::AttributeRecord& attr) {
  if (attr.typeName.find("::") != std::string::npos) return Kiln::typeRecord(attr.typeName);
  const std::string& name = owner.name();
  const size_t colon = name.rfind("::");
  const std::string qualified =
      colon == std::string::npos ? attr.typeName : name.substr(0, colon + 2) + attr.typeName;
  return Kiln::typeRecord(qualified);
}

bool isCollection(Kiln::AttributeKind kind) {
  return kind == Kiln::AttributeKind::collection ||
         kind == Kiln::AttributeKind::orderedCollection || kind == Kiln::AttributeKind::queue;
}

// Whether an attribute holds records that are part of the owner's state: pointer
// interfaces (groups, the defragmenter). Named entities (the features'
// callbacks) belong to whoever registered them, who registers them again.
const Kiln::TypeRecord* ownedRecordType(const Kiln::TypeRecord& owner,
                                        const Kiln::AttributeRecord& attr) {
  const bool holder = isCollection(attr.kind) || attr.kind == Kiln::AttributeKind::singleton ||
                      attr.kind == Kiln::AttributeKind::reference;
  if (!holder) return nullptr;
  const Kiln::TypeRecord* held = heldType(owner, attr);
  return held && held->kind() == Kiln::TypeKind::pointerInterface ? held : nullptr;
}

bool isNamedEntity(const Kiln::TypeRecord& owner, const Kiln::AttributeRecord& attr) {
  const Kiln::TypeRecord* held = heldType(owner, attr);
  return held && held->kind() == Kiln::TypeKind::entity;
}

// ---- Writing: an object is its scalars, then its value collections (runs
// of consecutive integer keys with one value text on one line), then the
// records it owns, each as a nested object.

void writeMembers(std::string& out, const std::string& name,
                  const std::vector<Kiln::MemberText>& members) {
  // With integer keys (all of this table's), members go in ascending key
  // order so that runs show; the restore inserts them in this order (an
  // ordered collection's own order).
  std::vector<std::pair<U64, size_t>> order;
  order.reserve(members.size());
  for (size_t i = 0; i < members.size(); ++i) {
    const std::optional<U64> key = parseNumber(members[i].first);
    if (!key) {
      order.clear();
      break;
    }
    order.emplace_back(*key, i);
  }
  const bool numericKeys = order.size() == members.size();
  if (numericKeys) {
    std::sort(order.begin(), order.end());
  } else {
    for (size_t i = 0; i < members.size(); ++i) order.emplace_back(0, i);
  }
  for (size_t i = 0; i < order.size();) {
    const Kiln::MemberText& first = members[order[i].second];
    size_t last = i;
    while (numericKeys && last + 1 < order.size() &&
           order[last + 1].first == order[last].first + 1 &&
           members[order[last + 1].second].second == first.second) {
      ++last;
    }
    if (last > i) {
      out.append("run\t").append(name).append("\t").append(first.first).append("\t");
      out.append(members[order[last].second].first).append("\t").append(first.second).append("\n");
    } else {
      out.append("member\t").append(name).append("\t").append(first.first).append("\t");
      out.append(first.second).append("\n");
    }
    i = last + 1;
  }
}

// ---- The collections a full table holds by the tens of thousands go
// through their typed accessors: the generic rule would build (and parse
// back) a key text and a value text for every member. The manager's pools
// keep the generic lines (runs of one value text); a group's next hops go on
// one hops line of plain numbers.

void appendNumber(std::string& out, U64 v, int base = 10) {
  char digits[24];
  const auto [end, ec] = std::to_chars(digits, digits + sizeof digits, v, base);
  out.append(digits, end);
}

// A collection of the manager with U16 keys and bool or U16 values.
struct TypedPool {
  std::string_view name;
  // Sets values[key] to the value of every member.
  void (*read)(const NextHopManager& manager, std::vector<S32>& values);
  // Stores one member through the generated mutator.
  void (*store)(NextHopManager& manager, U16 key, U16 value);
  bool boolean;  // bool values, else U16
};

template <class Map>
void valuesByKey(const Map& map, std::vector<S32>& values) {
  for (const auto& m : map) values[m.key()] = S32(m.value());
}

const TypedPool typedPools[] = {
    {"allocatedEntries",
     [](const NextHopManager& m, std::vector<S32>& v) { valuesByKey(m.allocatedEntries(), v); },
     [](NextHopManager& m, U16 key, U16 value) { m.allocatedEntriesIs(key, value != 0); }, true},
    {"freeEntries",
     [](const NextHopManager& m, std::vector<S32>& v) { valuesByKey(m.freeEntries(), v); },
     [](NextHopManager& m, U16 key, U16 value) { m.freeEntriesIs(key, value != 0); }, true},
    {"freeGroupIds",
     [](const NextHopManager& m, std::vector<S32>& v) { valuesByKey(m.freeGroupIds(), v); },
     [](NextHopManager& m, U16 key, U16 value) { m.freeGroupIdsIs(key, value != 0); }, true},
    {"hwStartToGroupId",
     [](const NextHopManager& m, std::vector<S32>& v) { valuesByKey(m.hwStartToGroupId(), v); },
     [](NextHopManager& m, U16 key, U16 value) { m.hwStartToGroupIdIs(key, value); }, false},
};

// The typed pool of o's attribute, or null when o is no manager or the
// attribute is not one of them.
const TypedPool* typedPool(const Kiln::PtrInterface& o, std::string_view attribute) {
  if (&o.fwkType() != &NextHopManager::kilnType()) return nullptr;
  for (const TypedPool& pool : typedPools) {
    if (pool.name == attribute) return &pool;
  }
  return nullptr;
}

std::string poolValueText(const TypedPool& pool, S32 value) {
  return pool.boolean ? Kiln::valueToStrep(value != 0) : Kiln::valueToStrep(U16(value));
}

// The lines writeMembers writes for the pool, in ascending key order.
void writePool(std::string& out, const TypedPool& pool, const NextHopManager& manager) {
  std::vector<S32> values(0x10000, -1);
  pool.read(manager, values);
  for (U32 key = 0; key < values.size();) {
    if (values[key] < 0) {
      ++key;
      continue;
    }
    U32 last = key;
    while (last + 1 < values.size() && values[last + 1] == values[key]) ++last;
    out.append(last > key ? "run\t" : "member\t").append(pool.name).append("\t");
    appendNumber(out, key);
    if (last > key) appendNumber(out.append("\t"), last);
    out.append("\t").append(poolValueText(pool, values[key])).append("\n");
    key = last + 1;
  }
}

// A group's next hops on one line when their positions are 0 .. count - 1:
//   hops <TAB> nextHops <TAB> count <TAB> hwIndex:wide:data:wideData ...
// one item per position in order, wide 0 or 1, the words in hex. Returns
// false (and writes nothing) for other positions.
bool writeHops(std::string& out, const ECMPGroup& group) {
  const U32 count = group.nextHops().members();
  if (count == 0) return false;
  for (const auto& m : group.nextHops()) {
    if (m.key() >= count) return false;  // distinct keys below count: all of 0 .. count - 1
  }
  out.append("hops\tnextHops\t");
  appendNumber(out, count);
  out.append("\t");
  for (U32 p = 0; p < count; ++p) {
    const NextHopEntry entry = group.nextHops(U16(p));
    if (p) out.append(" ");
    appendNumber(out, entry.hwIndex());
    out.append(entry.wide() ? ":1:" : ":0:");
    appendNumber(out, entry.data(), 16);
    out.append(":");
    appendNumber(out, entry.wideData(), 16);
  }
  out.append("\n");
  return true;
}

// What an object of one type contributes, worked out once per snapshot
// (thousands of groups share one type).
struct TypePlan {
  std::vector<const Kiln::AttributeRecord*> scalars;
  std::vector<const Kiln::AttributeRecord*> valueCollections;
  // Attributes holding records the object owns, with their records' type.
  std::vector<std::pair<const Kiln::AttributeRecord*, const Kiln::TypeRecord*>> owned;
};

class SnapshotWriter {
 public:
  explicit SnapshotWriter(std::string& out) : out_(out) {}

  // An object of its own (not held by an attribute of another).
  void writeTopObject(const Kiln::PtrInterface& o, const Kiln::TypeRecord& type) {
    out_.append("object\t").append(type.name()).append("\n");
    writeObject(o, type);
    out_.append("end\n");
  }

 private:
  const TypePlan& plan(const Kiln::TypeRecord& type) {
    auto [it, added] = plans_.try_emplace(&type);
    if (!added) return it->second;
    TypePlan& plan = it->second;
    for (const Kiln::AttributeRecord* a : type.attributes()) {
      if (a->kind == Kiln::AttributeKind::scalar || a->kind == Kiln::AttributeKind::counter ||
          a->kind == Kiln::AttributeKind::queueMetadata) {
        plan.scalars.push_back(a);
      } else if (const Kiln::TypeRecord* held = ownedRecordType(type, *a)) {
        plan.owned.emplace_back(a, held);
      } else if (isCollection(a->kind) && !isNamedEntity(type, *a)) {
        plan.valueCollections.push_back(a);
      }
    }
    return plan;
  }

  void writeObject(const Kiln::PtrInterface& o, const Kiln::TypeRecord& type) {
    const TypePlan& p = plan(type);
    for (const Kiln::AttributeRecord* a : p.scalars) {
      out_.append("attr\t").append(a->name).append("\t").append(type.get(o, a->index));
      out_.append("\n");
    }
    for (const Kiln::AttributeRecord* a : p.valueCollections) {
      if (!writeTyped(o, type, *a)) writeMembers(out_, a->name, type.members(o, a->index));
    }
    for (const auto& [a, held] : p.owned) {
      std::vector<std::string> keys;
      if (isCollection(a->kind)) {
        for (const Kiln::MemberText& m : type.members(o, a->index)) keys.push_back(m.first);
      } else {
        keys.push_back("");
      }
      for (const std::string& key : keys) {
        Kiln::Ptr<Kiln::PtrInterface> child = type.child(o, a->name, key);
        if (!child) continue;
        out_.append("child\t").append(a->name).append("\t").append(key).append("\t");
        out_.append(held->name()).append("\n");
        writeObject(*child, *held);
        out_.append("end\n");
      }
    }
  }

  // Writes the collections that go through their typed accessors; returns
  // false for every other.
  bool writeTyped(const Kiln::PtrInterface& o, const Kiln::TypeRecord& type,
                  const Kiln::AttributeRecord& a) {
    if (const TypedPool* pool = typedPool(o, a.name)) {
      writePool(out_, *pool, static_cast<const NextHopManager&>(o));
      return true;
    }
    return &type == &ECMPGroup::kilnType() && a.name == "nextHops" &&
           writeHops(out_, static_cast<const ECMPGroup&>(o));
  }

  std::string& out_;
  std::map<const Kiln::TypeRecord*, TypePlan> plans_;
};

// The runs of consecutive free entries, ascending: (first index, count).
std::vector<std::pair<U32, U32>> freeRuns(const NextHopManager& manager) {
  std::vector<std::pair<U32, U32>> runs;
  for (const auto& m : manager.freeEntries()) {
    if (!runs.empty() && runs.back().first + runs.back().second == m.key()) {
      ++runs.back().second;
    } else {
      runs.emplace_back(m.key(), 1);
    }
  }
  return runs;
}

// The chip's table from entry 0 to end - 1.
std::vector<U64> readTable(U32 end) {
  std::vector<U64> words(end);
  readNextHopInternal(0, U16(end), words.data());
  return words;
}

// ---- Reading: the body parsed into objects before anything is built, so a
// snapshot that does not parse changes nothing.

struct MemberLine {
  U32 attribute;  // its index in the owner's type record
  std::string_view firstKey;
  std::string_view lastKey;  // empty for a single member
  std::string_view value;
};

// A group's next hops on one line (see writeHops).
struct HopsLine {
  U32 line;  // for the messages
  std::string_view count;
  std::string_view items;
};

struct ObjectText {
  std::string_view attribute;  // the owner's attribute holding it
  std::string_view key;
  const Kiln::TypeRecord* type = nullptr;
  // (the attribute's index, its value text)
  std::vector<std::pair<U32, std::string_view>> attrs;
  std::vector<MemberLine> members;
  std::vector<HopsLine> hops;
  std::vector<ObjectText> children;
};

struct FreeRunText {
  U32 first;
  U32 count;
  U64 digest;
};

// When the snapshot was taken and when the armed timer was due, on the
// activity clock.
struct TimerText {
  double savedAt;
  double due;
};

struct ParsedSnapshot {
  ObjectText manager;
  // The resource counters; absent from a version 1 snapshot.
  std::optional<ObjectText> resources;
  // The defragmentation timer; absent when it was not armed, and from a
  // version 1 snapshot.
  std::optional<TimerText> timer;
  std::vector<FreeRunText> freeRuns;
};

// The tab-separated fields of a line; a line has at most five.
struct Fields {
  std::string_view field[5];
  size_t count = 0;
  size_t size() const { return count; }
  std::string_view operator[](size_t i) const { return field[i]; }
};

Fields fields(std::string_view line) {
  Fields out;
  size_t start = 0;
  for (;;) {
    const size_t tab = line.find('\t', start);
    if (out.count == std::size(out.field)) {
      out.count = 0;  // too many: no line kind matches
      return out;
    }
    out.field[out.count++] = line.substr(start, tab == std::string_view::npos ? tab : tab - start);
    if (tab == std::string_view::npos) return out;
    start = tab + 1;
  }
}

class BodyParser {
 public:
  explicit BodyParser(std::string_view body) : body_(body) {}

  ParsedSnapshot parse() {
    ParsedSnapshot snapshot;
    Fields f = next("the manager");
    if (f.size() != 2 || f[0] != "object") corrupt(where() + "expected the manager's object line");
    snapshot.manager.type = recordNamed(f[1]);
    if (snapshot.manager.type != &NextHopManager::kilnType()) {
      corrupt(where() + "the snapshot holds a " + std::string(f[1]) + ", not a next-hop manager");
    }
    parseObject(snapshot.manager);
    if (body_.substr(pos_).starts_with("object\t")) {
      f = next("the resource counters");
      snapshot.resources.emplace();
      snapshot.resources->type = recordNamed(f.size() == 2 ? f[1] : std::string_view());
      if (snapshot.resources->type != &NextHopResources::kilnType()) {
        corrupt(where() + "the second object is a " + std::string(f[1]) +
                ", not the resource counters");
      }
      parseObject(*snapshot.resources);
    }
    if (body_.substr(pos_).starts_with("timer\t")) {
      f = next("the timer");
      const std::optional<double> savedAt = parseTime(f.size() == 3 ? f[1] : "");
      const std::optional<double> due = parseTime(f.size() == 3 ? f[2] : "");
      if (!savedAt || !due) corrupt(where() + "bad timer");
      snapshot.timer = TimerText{*savedAt, *due};
    }
    while (pos_ < body_.size()) {
      f = next("free runs");
      if (f.size() != 4 || f[0] != "free") corrupt(where() + "expected a free run");
      const auto first = parseNumber(f[1]), count = parseNumber(f[2]),
                 digest = parseNumber(f[3], 16);
      if (!first || !count || !digest || *first + *count > tableEnd)
        corrupt(where() + "bad free run");
      snapshot.freeRuns.push_back({U32(*first), U32(*count), *digest});
    }
    return snapshot;
  }

 private:
  std::string where() const { return "line " + std::to_string(line_) + ": "; }

  Fields next(const char* expecting) {
    if (pos_ >= body_.size()) corrupt(std::string("the body ends before ") + expecting);
    const size_t newline = body_.find('\n', pos_);
    if (newline == std::string_view::npos) corrupt(where() + "the last line is not ended");
    std::string_view line = body_.substr(pos_, newline - pos_);
    pos_ = newline + 1;
    ++line_;
    return fields(line);
  }

  const Kiln::TypeRecord* recordNamed(std::string_view name) {
    const Kiln::TypeRecord* type = Kiln::typeRecord(name);
    if (!type) corrupt(where() + "no type named " + std::string(name));
    return type;
  }

  const Kiln::AttributeRecord& attributeOf(const ObjectText& o, std::string_view name) {
    const Kiln::AttributeRecord* a = o.type->attribute(name);
    if (!a) corrupt(where() + o.type->name() + " has no attribute " + std::string(name));
    return *a;
  }

  void parseObject(ObjectText& o) {
    for (;;) {
      Fields f = next("the end of an object");
      const std::string_view kind = f.size() ? f[0] : std::string_view();
      if (kind == "end" && f.size() == 1) return;
      if (kind == "attr" && f.size() == 3) {
        o.attrs.emplace_back(attributeOf(o, f[1]).index, f[2]);
      } else if (kind == "member" && f.size() == 4) {
        o.members.push_back({attributeOf(o, f[1]).index, f[2], {}, f[3]});
      } else if (kind == "run" && f.size() == 5) {
        const U32 index = attributeOf(o, f[1]).index;
        const auto first = parseNumber(f[2]), last = parseNumber(f[3]);
        if (!first || !last || *last < *first || *last > 0xFFFFFFFFull)
          corrupt(where() + "bad run");
        o.members.push_back({index, f[2], f[3], f[4]});
      } else if (kind == "hops" && f.size() == 4) {
        if (o.type != &ECMPGroup::kilnType() || f[1] != "nextHops")
          corrupt(where() + "a hops line outside a group's next hops");
        o.hops.push_back({line_, f[2], f[3]});
      } else if (kind == "child" && f.size() == 4) {
        attributeOf(o, f[1]);
        ObjectText child;
        child.attribute = f[1];
        child.key = f[2];
        child.type = recordNamed(f[3]);
        parseObject(child);
        o.children.push_back(std::move(child));
      } else {
        corrupt(where() + "unexpected line");
      }
    }
  }

  std::string_view body_;
  size_t pos_ = 0;
  U32 line_ = 3;  // the header's lines come first
};

// Splits the header from the body, checks them and parses the body.
ParsedSnapshot parseSnapshot(std::string_view text) {
  size_t pos = 0;
  auto headerLine = [&](const char* what) {
    const size_t newline = text.find('\n', pos);
    if (newline == std::string_view::npos) {
      throw SnapshotError(Problem::truncated,
                          std::string("truncated snapshot: the header ends before ") + what);
    }
    std::string_view line = text.substr(pos, newline - pos);
    pos = newline + 1;
    return line;
  };
  std::string_view first = headerLine("the format line");
  const size_t blank = first.find(' ');
  if (first.substr(0, blank) != magic || blank == std::string_view::npos) {
    corrupt("not a next-hop snapshot (its first line is not \"" + std::string(magic) +
            " <version>\")");
  }
  const std::optional<U64> version = parseNumber(first.substr(blank + 1));
  if (!version) corrupt("bad format version");
  if (*version < oldestSnapshotFormatVersion || *version > snapshotFormatVersion) {
    throw SnapshotError(Problem::otherVersion, "snapshot of format version " +
                                                   std::to_string(*version) +
                                                   "; this library reads versions " +
                                                   std::to_string(oldestSnapshotFormatVersion) +
                                                   " to " + std::to_string(snapshotFormatVersion));
  }
  std::string_view lengthLine = headerLine("the length line");
  std::string_view checksumLine = headerLine("the checksum line");
  if (lengthLine.substr(0, lengthTag.size()) != lengthTag ||
      checksumLine.substr(0, checksumTag.size()) != checksumTag) {
    corrupt("bad header");
  }
  const std::optional<U64> length =
      parseNumber(lengthLine.substr(std::min(lengthLine.size(), lengthTag.size() + 1)));
  const std::optional<U64> checksum =
      parseNumber(checksumLine.substr(std::min(checksumLine.size(), checksumTag.size() + 1)), 16);
  if (!length || !checksum) corrupt("bad header");
  const std::string_view body = text.substr(pos);
  if (body.size() < *length) {
    throw SnapshotError(Problem::truncated, "truncated snapshot: the body holds " +
                                                std::to_string(body.size()) + " of its " +
                                                std::to_string(*length) + " bytes");
  }
  if (body.size() > *length) corrupt("bytes after the body");
  if (snapshotChecksum(body) != *checksum) corrupt("checksum mismatch");
  return BodyParser(body).parse();
}

std::string readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int e = errno;
    throw SnapshotError(e == ENOENT ? Problem::missing : Problem::unreadable,
                        (e == ENOENT ? "no snapshot at " : "cannot read snapshot ") + path + ": " +
                            Kiln::errorString(e));
  }
  std::string text;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      ::close(fd);
      throw SnapshotError(Problem::unreadable,
                          "cannot read snapshot " + path + ": " + Kiln::errorString(e));
    }
    if (n == 0) break;
    text.append(buffer, size_t(n));
  }
  ::close(fd);
  return text;
}

// ---- Building: every record through the type records' mutators.

// Creates the record an object line names when its owner has none yet:
// a group by its id, the defragmenter bound to its manager.
Kiln::Ptr<Kiln::PtrInterface> createOwned(Kiln::PtrInterface& owner, const ObjectText& child) {
  if (auto* manager = dynamic_cast<NextHopManager*>(&owner)) {
    if (child.attribute == "ecmpGroups") {
      const std::optional<U64> id = parseNumber(child.key);
      if (!id || *id > 0xFFFF) corrupt("bad group id " + std::string(child.key));
      return manager->ecmpGroupsIs(U16(*id));
    }
    if (child.attribute == "defragManager") {
      manager->defragManagerIs(DefragManager::DefragManagerIs(manager));
      return manager->defragManager();
    }
  }
  corrupt("cannot create " + std::string(child.attribute) + " of " + owner.fwkType().name());
}

void applyAttrs(Kiln::PtrInterface& o, const ObjectText& text) {
  for (const auto& [index, value] : text.attrs) text.type->set(o, index, value);
}

// Stores a pool's member line through the typed mutator: the value text is
// parsed once for the whole run.
void applyPoolLine(NextHopManager& manager, const TypedPool& pool, const MemberLine& m) {
  const std::optional<U64> first = parseNumber(m.firstKey);
  const std::optional<U64> last = m.lastKey.empty() ? first : parseNumber(m.lastKey);
  if (!first || !last || *last > 0xFFFF) {
    corrupt("bad key " + std::string(m.firstKey) + " of " + std::string(pool.name));
  }
  const U16 value =
      pool.boolean ? U16(Kiln::strepToValue<bool>(m.value)) : Kiln::strepToValue<U16>(m.value);
  for (U64 k = *first; k <= *last; ++k) pool.store(manager, U16(k), value);
}

// Stores a hops line's next hops at positions 0 .. count - 1.
void applyHopsLine(ECMPGroup& group, const HopsLine& hops) {
  auto bad = [&]() {
    corrupt("line " + std::to_string(hops.line) + ": bad next hops of group " +
            std::to_string(group.groupId()));
  };
  const std::optional<U64> count = parseNumber(hops.count);
  if (!count || *count == 0 || *count > 0x10000) bad();
  const char* p = hops.items.data();
  const char* const end = p + hops.items.size();
  auto number = [&](int base, char after, U64 max) {
    U64 v = 0;
    const auto [next, ec] = std::from_chars(p, end, v, base);
    if (ec != std::errc() || next == p || v > max) bad();
    p = next;
    if (after) {
      if (p == end || *p != after) bad();
      ++p;
    }
    return v;
  };
  for (U64 position = 0; position < *count; ++position) {
    const U16 hwIndex = U16(number(10, ':', 0xFFFF));
    const bool wide = number(10, ':', 1) != 0;
    const U64 data = number(16, ':', ~U64(0));
    const U64 wideData = number(16, position + 1 < *count ? ' ' : 0, ~U64(0));
    group.nextHopsIs(U16(position), NextHopEntry(hwIndex, wide, data, wideData));
  }
  if (p != end) bad();
}

void applyObject(Kiln::PtrInterface& o, const ObjectText& text) {
  const Kiln::TypeRecord& type = *text.type;
  // Scalars first: switching simulation mode trims the free pools, which
  // must happen before they are filled, not after.
  applyAttrs(o, text);
  std::string key;
  for (const MemberLine& m : text.members) {
    if (const TypedPool* pool = typedPool(o, type.attribute(m.attribute)->name)) {
      applyPoolLine(static_cast<NextHopManager&>(o), *pool, m);
      continue;
    }
    if (m.lastKey.empty()) {
      type.memberIs(o, m.attribute, m.firstKey, m.value);
      continue;
    }
    const U64 last = *parseNumber(m.lastKey);
    for (U64 k = *parseNumber(m.firstKey); k <= last; ++k) {
      key = std::to_string(k);
      type.memberIs(o, m.attribute, key, m.value);
    }
  }
  for (const HopsLine& hops : text.hops) applyHopsLine(static_cast<ECMPGroup&>(o), hops);
  for (const ObjectText& childText : text.children) {
    if (&o.fwkType() != &type) corrupt("type mismatch");
    Kiln::Ptr<Kiln::PtrInterface> child = type.child(o, childText.attribute, childText.key);
    if (!child) child = createOwned(o, childText);
    if (&child->fwkType() != childText.type) {
      corrupt(std::string(childText.attribute) + " holds a " + child->fwkType().name());
    }
    applyObject(*child, childText);
  }
  // A setter with side effects (simModeIs sets lastWideIndex) may have
  // changed a scalar stored before it: store the snapshot's values again,
  // and check that they stick.
  for (const auto& [index, value] : text.attrs) {
    if (type.get(o, index) != value) type.set(o, index, value);
  }
  for (const auto& [index, value] : text.attrs) {
    if (type.get(o, index) != value) {
      corrupt(type.name() + "::" + type.attribute(index)->name + " does not keep the value " +
              std::string(value));
    }
  }
}

// The placed groups (members of hwStartToGroupId) in table order.
struct PlacedGroup {
  U16 start;
  const ECMPGroup* group;
  U32 length;  // in entries
};
typedef std::vector<PlacedGroup> PlacedGroups;

// Checks what the records promise each other: every placed group starts
// where the start map says, inside the table, on allocated entries only.
// Returns the placed groups.
PlacedGroups checkConsistent(const NextHopManager& manager) {
  // Looked up in ascending id order, which the ordered map of groups
  // answers from where its last lookup ended.
  std::vector<std::pair<U16, U16>> idAndStart;
  idAndStart.reserve(manager.hwStartToGroupId().members());
  for (const auto& m : manager.hwStartToGroupId()) idAndStart.emplace_back(m.value(), m.key());
  std::sort(idAndStart.begin(), idAndStart.end());
  PlacedGroups placed;
  placed.reserve(idAndStart.size());
  for (const auto& entry : idAndStart) {
    // Named copies: a lambda may not capture a structured binding (clang 14).
    const U16 id = entry.first;
    const U16 start = entry.second;
    const Kiln::Ptr<ECMPGroup> group = manager.ecmpGroups(id);
    auto fail = [&](const char* what) {
      corrupt("group " + std::to_string(id) + " at " + std::to_string(start) + what);
    };
    if (!group) fail(": no such group");
    if (group->hwStartIndex() != start) fail(": its record starts elsewhere");
    const U32 length = U32(group->wide() ? 2 : 1) * group->size();
    if (start + length > tableEnd) fail(": runs past the table");
    placed.push_back({start, group.ptr(), length});
  }
  std::sort(placed.begin(), placed.end(),
            [](const PlacedGroup& a, const PlacedGroup& b) { return a.start < b.start; });
  // Allocated and not free, entry by entry: one walk of each pool.
  std::vector<bool> usable(0x10000, false);
  for (const auto& m : manager.allocatedEntries()) usable[m.key()] = m.value();
  for (const auto& m : manager.freeEntries()) usable[m.key()] = false;
  for (const PlacedGroup& p : placed) {
    for (U32 i = p.start; i < p.start + p.length; ++i) {
      if (!usable[i]) {
        corrupt("group " + std::to_string(p.group->groupId()) + " at " + std::to_string(p.start) +
                ": entry " + std::to_string(i) + " is not allocated");
      }
    }
  }
  return placed;
}

// The words a placed group's block must hold.
std::vector<U64> groupWords(const ECMPGroup& group) {
  const U32 stride = group.wide() ? 2 : 1;
  std::vector<U64> words(stride * group.size());
  for (U16 p = 0; p < group.size(); ++p) {
    const NextHopEntry entry = group.nextHops(p);
    words[stride * p] = entry.data();
    if (group.wide()) words[stride * p + 1] = entry.wideData();
  }
  return words;
}

struct Comparison {
  std::vector<RestoreDifference> differences;
  // What to write for each difference that a rewrite repairs.
  std::vector<std::pair<U16, std::vector<U64>>> repairs;
  U64 wordsRead = 0;
};

// Compares the chip with the restored records: reserved entries, every
// placed group's block, every free run's digest.
Comparison compareWithChip(NextHopManager& manager, const PlacedGroups& placed,
                           const ParsedSnapshot& snapshot) {
  Comparison c;
  // One read from entry 0 to the highest entry the records use.
  U32 end = 3;
  if (!manager.freeEntries().empty())
    end = std::max<U32>(end, manager.freeEntries().last()->key() + 1);
  for (const PlacedGroup& p : placed) end = std::max(end, p.start + p.length);
  for (const FreeRunText& run : snapshot.freeRuns) end = std::max(end, run.first + run.count);
  const std::vector<U64> table = readTable(end);
  c.wordsRead = end;
  for (const ReservedEntry& r : reservedEntries) {
    const Kiln::Ptr<ECMPGroup> group = manager.ecmpGroups(r.groupId);
    if (!group || group->hwStartIndex() != r.index) continue;
    const U64 glort = logicalPortGlort(r.logicalPort, "restoreNextHopManager");
    if (table[r.index] == glort) continue;
    c.differences.push_back({RestoreDifference::Kind::reservedEntry, r.groupId, r.index, 1,
                             "reserved entry " + std::to_string(r.index) + " holds 0x" +
                                 hex16(table[r.index]) + ", not the glort 0x" + hex16(glort)});
    c.repairs.emplace_back(r.index, std::vector<U64>{glort});
  }
  for (const auto& [start, group, length] : placed) {
    const U16 id = group->groupId();
    std::vector<U64> words = groupWords(*group);
    const auto first = std::mismatch(words.begin(), words.end(), table.begin() + start);
    if (first.first == words.end()) continue;
    const U32 differing =
        U32(std::inner_product(words.begin(), words.end(), table.begin() + start, U32(0),
                               std::plus<>(), [](U64 a, U64 b) { return U32(a != b); }));
    const U32 index = start + U32(first.first - words.begin());
    c.differences.push_back({RestoreDifference::Kind::groupWords, id, start, U32(words.size()),
                             "group " + std::to_string(id) + " at " + std::to_string(start) + ": " +
                                 std::to_string(differing) + " of its " +
                                 std::to_string(words.size()) + " words differ, first at " +
                                 std::to_string(index) + " (chip 0x" + hex16(table[index]) +
                                 ", snapshot 0x" + hex16(*first.first) + ")"});
    c.repairs.emplace_back(start, std::move(words));
  }
  for (const FreeRunText& run : snapshot.freeRuns) {
    if (fnv1aWords(table.data() + run.first, run.count) == run.digest) continue;
    c.differences.push_back(
        {RestoreDifference::Kind::freeEntries, invalidGroupId, run.first, run.count,
         "free entries " + std::to_string(run.first) + " to " +
             std::to_string(run.first + run.count - 1) + " were written since the snapshot"});
  }
  std::stable_sort(
      c.differences.begin(), c.differences.end(),
      [](const RestoreDifference& a, const RestoreDifference& b) { return a.index < b.index; });
  return c;
}

// The timer does not survive the process: a run that was wanted is
// scheduled again. On a clock that went on through the restart (it reads
// no earlier than when the snapshot was taken) at the time it was due, or
// at once if that has passed; on a clock that started again, after the time
// that was left when the snapshot was taken. Without the timer's time (not
// armed, or a version 1 snapshot), a full delay from now.
void rearmDefragmentation(DefragManager& defrag, const std::optional<TimerText>& timer) {
  if (!defrag.scheduleDefragment()) return;
  if (!timer || !defrag.initialized() || !defrag.defragScheduler()) {
    defrag.startDefragScheduler();
    return;
  }
  const double now = Kiln::now();
  const double left = std::max(0.0, timer->due - timer->savedAt);
  const double due = now >= timer->savedAt ? timer->due : now + left;
  defrag.defragScheduler()->timeMinIs(std::max(now, due));
  NH_TRACE(3, "Warm restart: the defragmentation is due in " << std::max(0.0, due - now) << " s");
}

// Makes the manager: blank (to be filled from a snapshot) or cold
// (initialised as on a first start).
typedef std::function<Kiln::Ptr<NextHopManager>(bool blank)> ManagerMaker;

Kiln::Ptr<NextHopManager> startCold(const ManagerMaker& make, RestoreResult& result,
                                    std::string reason) {
  NH_TRACE(1, "Warm restart refused, starting cold: " << reason);
  result.outcome = RestoreResult::Outcome::cold;
  result.coldReason = std::move(reason);
  result.groups = 0;
  return make(false);
}

Kiln::Ptr<NextHopManager> restore(const ManagerMaker& make,
                                  const std::function<std::string()>& readText,
                                  const RestoreOptions& options, RestoreResult* resultOut) {
  RestoreResult scratch;
  RestoreResult& result = resultOut ? *resultOut : scratch;
  result = RestoreResult();
  ParsedSnapshot snapshot;
  std::string text;
  try {
    text = readText();
    snapshot = parseSnapshot(text);
  } catch (const SnapshotError& e) {
    NH_TRACE(1, "Warm restart: " << e.what());
    if (!options.coldOnBadSnapshot) throw;
    return startCold(make, result, e.what());
  }
  Kiln::Ptr<NextHopManager> manager = make(true);
  PlacedGroups placed;
  try {
    applyObject(*manager, snapshot.manager);
    placed = checkConsistent(*manager);
    if (!manager->defragManager()) corrupt("no defragmenter");
    // The history (refusals, compaction work, the longest group asked for,
    // the watermarks and their alarms) comes from the snapshot; the figures
    // of the table are counted again from the records just restored.
    if (snapshot.resources) applyObject(*manager->resources(), *snapshot.resources);
    manager->recountResources();
  } catch (const Kiln::Exception& e) {
    // A text the runtime cannot parse, a value a mutator refuses.
    const std::string why = dynamic_cast<const SnapshotError*>(&e)
                                ? std::string(e.what())
                                : "corrupt snapshot: " + std::string(e.what());
    manager = nullptr;
    NH_TRACE(1, "Warm restart: " << why);
    if (!options.coldOnBadSnapshot) {
      throw SnapshotError(Problem::corrupt, why);
    }
    return startCold(make, result, why);
  }
  result.groups = U32(manager->ecmpGroups().members());
  if (options.expectedTableBound != 0 &&
      manager->getNextHopTableBound() != options.expectedTableBound) {
    result.differences.push_back(
        {RestoreDifference::Kind::tableBound, invalidGroupId, manager->getNextHopTableBound(), 0,
         "the snapshot's table bound is " + std::to_string(manager->getNextHopTableBound()) +
             ", not " + std::to_string(options.expectedTableBound)});
    manager = nullptr;
    return startCold(make, result, result.differences.back().text);
  }
  Comparison comparison = compareWithChip(*manager, placed, snapshot);
  result.wordsRead = comparison.wordsRead;
  result.differences = std::move(comparison.differences);
  for (const RestoreDifference& d : result.differences) NH_TRACE(1, "Warm restart: " << d.text);
  if (!result.differences.empty()) {
    if (options.policy == RestorePolicy::refuse) {
      manager = nullptr;
      const U64 read = result.wordsRead;
      Kiln::Ptr<NextHopManager> cold = startCold(
          make, result, std::to_string(result.differences.size()) + " differences with the chip");
      result.wordsRead = read;
      return cold;
    }
    for (auto& [start, words] : comparison.repairs) {
      writeNextHopInternal(start, U16(words.size()), words.data());
      result.wordsWritten += words.size();
    }
    result.outcome = RestoreResult::Outcome::rewritten;
  } else {
    result.outcome = RestoreResult::Outcome::warm;
  }
  rearmDefragmentation(*manager->defragManager(), snapshot.timer);
  NH_TRACE(3, "Warm restart: " << result.groups << " groups restored, " << result.wordsRead
                               << " words read, " << result.wordsWritten << " written");
  return manager;
}

}  // namespace

U64 snapshotChecksum(std::string_view bytes) {
  U64 hash = fnvOffset;
  size_t i = 0;
  for (; i + 8 <= bytes.size(); i += 8) {
    U64 word;
    std::memcpy(&word, bytes.data() + i, 8);
    hash = (hash ^ word) * fnvPrime;
  }
  for (; i < bytes.size(); ++i) hash = (hash ^ static_cast<unsigned char>(bytes[i])) * fnvPrime;
  return (hash ^ bytes.size()) * fnvPrime;
}

const char* problemName(SnapshotError::Problem problem) {
  switch (problem) {
    case Problem::missing: return "missing";
    case Problem::unreadable: return "unreadable";
    case Problem::truncated: return "truncated";
    case Problem::corrupt: return "corrupt";
    case Problem::otherVersion: return "other version";
  }
  return "?";
}

const char* outcomeName(RestoreResult::Outcome outcome) {
  switch (outcome) {
    case RestoreResult::Outcome::warm: return "warm";
    case RestoreResult::Outcome::rewritten: return "rewritten";
    case RestoreResult::Outcome::cold: return "cold";
  }
  return "?";
}

std::string snapshotText(NextHopManager& manager) {
  std::string body;
  // A full table's snapshot is about 48 bytes per entry in use.
  body.reserve(size_t(manager.allocatedEntries().members()) * 48 + 0x10000);
  SnapshotWriter writer(body);
  writer.writeTopObject(manager, NextHopManager::kilnType());
  writer.writeTopObject(*manager.resources(), NextHopResources::kilnType());
  const DefragManager* defrag = manager.defragManager().ptr();
  if (defrag && defrag->scheduleDefragment() && defrag->defragScheduler() &&
      defrag->defragScheduler()->timeMin() != Kiln::Clock::never) {
    body.append("timer\t").append(timeText(Kiln::now())).append("\t");
    body.append(timeText(defrag->defragScheduler()->timeMin())).append("\n");
  }
  const std::vector<std::pair<U32, U32>> runs = freeRuns(manager);
  if (!runs.empty()) {
    // One read from the lowest free entry to the highest.
    const U32 low = runs.front().first;
    const U32 high = runs.back().first + runs.back().second;
    std::vector<U64> words(high - low);
    readNextHopInternal(U16(low), U16(high - low), words.data());
    for (const auto& [first, count] : runs) {
      body += "free\t" + std::to_string(first) + "\t" + std::to_string(count) + "\t" +
              hex16(fnv1aWords(words.data() + (first - low), count)) + "\n";
    }
  }
  std::string text;
  text.reserve(body.size() + 100);
  text.append(magic).append(" ").append(std::to_string(snapshotFormatVersion)).append("\n");
  text.append(lengthTag).append(" ").append(std::to_string(body.size())).append("\n");
  text.append(checksumTag).append(" ").append(hex16(snapshotChecksum(body))).append("\n");
  text.append(body);
  return text;
}

void saveSnapshot(NextHopManager& manager, const std::string& path) {
  const std::string text = snapshotText(manager);
  const std::string temporary = path + ".tmp." + std::to_string(::getpid());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw Kiln::ErrnoException(errno, "cannot create " + temporary);
  auto fail = [&](const std::string& what) {
    const int e = errno;
    ::close(fd);
    ::unlink(temporary.c_str());
    throw Kiln::ErrnoException(e, what);
  };
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail("cannot write " + temporary);
    done += size_t(n);
  }
  if (::fsync(fd) != 0) fail("cannot flush " + temporary);
  if (::close(fd) != 0) {
    const int e = errno;
    ::unlink(temporary.c_str());
    throw Kiln::ErrnoException(e, "cannot close " + temporary);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int e = errno;
    ::unlink(temporary.c_str());
    throw Kiln::ErrnoException(e, "cannot rename " + temporary + " to " + path);
  }
  // The rename itself reaches the disk with the directory.
  const size_t slash = path.rfind('/');
  const std::string directory =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const int dirFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
}

namespace {

ManagerMaker standaloneMaker() {
  return [](bool blank) {
    if (!blank) return Kiln::Ptr<NextHopManager>(new NextHopManager());
    BlankManagerConstruction guard;
    return Kiln::Ptr<NextHopManager>(new NextHopManager());
  };
}

}  // namespace

Kiln::Ptr<NextHopManager> restoreNextHopManager(const std::string& path,
                                                const RestoreOptions& options,
                                                RestoreResult* result) {
  return restore(
      standaloneMaker(), [&] { return readFile(path); }, options, result);
}

Kiln::Ptr<NextHopManager> restoreNextHopManagerFromText(std::string_view text,
                                                        const RestoreOptions& options,
                                                        RestoreResult* result) {
  return restore(
      standaloneMaker(), [&] { return std::string(text); }, options, result);
}

RestoreResult restoreNextHopManager(BrevantCommonSmData& state, const std::string& path,
                                    const RestoreOptions& options) {
  RestoreResult result;
  // Each manager made replaces the one before: a refused restore's blank
  // manager gives way to the cold one.
  ManagerMaker make = [&state](bool blank) {
    state.nextHopManagerDel();
    if (!blank) return state.nextHopManagerIs();
    BlankManagerConstruction guard;
    return state.nextHopManagerIs();
  };
  try {
    restore(
        make, [&] { return readFile(path); }, options, &result);
  } catch (...) {
    // A snapshot that could not be used leaves no half-built manager.
    state.nextHopManagerDel();
    throw;
  }
  return result;
}

}  // namespace Brevant
