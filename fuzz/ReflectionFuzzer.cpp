// Fuzzes the reflective by-name interface (Kiln::TypeRecord) on a live
// next-hop manager: the agent's shared state with its manager on the
// simulated chip (a table of 64 entries), the manager in its hardened
// setting so that no valid request sequence may stop the process.
//
// Each input starts from the same manager: a fresh one is saved as a
// snapshot once, and every input restores it on a reset chip (the warm
// restart), which is two orders of magnitude faster than building the table
// of 65536 entries and trimming it to 64 again.
//
// Input: one request a line, fields separated by '|':
//   get|NAME   get#|INDEX          an attribute of the current object
//   set|NAME|TEXT   set#|INDEX|TEXT
//   members|NAME                   a collection's members
//   member|NAME|KEY|VALUE          a member stored through xIs(key, value)
//   del|NAME|KEY                   a member deleted through xDel(key)
//   child|NAME|KEY                 go to an entity (KEY for a collection's)
//   root                           back to the agent's state
//   op|NAME|ARG|...                invoke an operation of the current object
//   value|TYPE|FIELD|...           construct a value type from field texts
// Every request must answer or throw one of the runtime's exceptions
// (Kiln::Exception); anything else, and any sanitizer finding, is a defect.
// After a set, writing back the text read must change nothing.
//
// What the harness does not ask, because the library stops the process on
// it on purpose (a broken invariant is an assertion):
// - Operations once a record has been written in this input: a written
//   record (lastNarrowIndex, an ECMPGroup's size, hwStartToGroupId, the
//   hardened switch itself) can break the table's invariants, which the
//   manager's operations then assert on. Until then, operations run and the
//   table is checked with the library's HitlessChecker after each one.
//   The defragmenter's delay and budget are settings, not records.
// - The table's internal steps (the block finders findAvailableBlock,
//   findAvailableNarrowBlock and findAvailableWideBlock, which expect an
//   even length for a wide block and stop on a block at an odd index
//   otherwise; allocateBlock, freeBlock, updateNextHopHWIndex,
//   genECMPGroupId, addECMPGroupToTable, removeECMPGroupFromTable,
//   moveECMPGroup, handleSimulationMode and the single compaction passes):
//   they trust the checks of the operations that call them.
// - showFreeEntrySummary, whose argument is a file descriptor number.
// - Constructing entities: a DefragManager without a manager is the
//   "nhm != __null" assertion.
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/HitlessChecker.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/WarmRestart.h"
#include "FmSim/FmSim.h"
#include "FuzzSupport.h"
#include "Kiln/Exception.h"
#include "Kiln/Lock.h"
#include "Kiln/TypeRecord.h"

namespace {

constexpr size_t maxRequestsPerInput = 64;

// The operations a feature or the defragmenter's timer makes, and queries.
const std::set<std::string, std::less<>> allowedOperations = {
    "createECMPGroup",      "deleteECMPGroup",
    "getECMPGroup",         "addFeatureToGroup",
    "updateECMPGroup",      "updateNextHop",
    "readNextHop",          "setSimulationMode",
    "getNextHopTableBound", "getNextHopTableSwapIndex",
    "initHandler",          "handleDefragInitialized",
    "startDefragScheduler", "handleDefragSchedulerTimeOut",
    "defragment",           "groupPlacement",
};

// Attributes that are settings: writing them keeps the table's invariants.
const std::set<std::string, std::less<>> settings = {"defragDelay", "defragTime"};

// The snapshot of a fresh manager on a table of 64, saved at the first
// input and removed when the process ends.
class FreshSnapshot {
 public:
  FreshSnapshot() : path_("/tmp/brevant-fuzz-reflection-" + std::to_string(getpid())) {
    FmSim::reset();
    Kiln::Ptr<Brevant::BrevantCommonSmData> state =
        Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
    Kiln::Ptr<Brevant::NextHopManager> manager = state->nextHopManagerIs();
    manager->setSimulationMode(true, 64);
    manager->hardenedIs(true);
    Brevant::saveSnapshot(*manager, path_);
  }
  ~FreshSnapshot() { unlink(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class Session {
 public:
  Session() {
    static const FreshSnapshot fresh;
    FmSim::reset();
    state_ = Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
    Brevant::RestoreOptions options;
    // The reset chip lacks the reserved entries: they are written again.
    options.policy = Brevant::RestorePolicy::rewrite;
    const Brevant::RestoreResult restored =
        Brevant::restoreNextHopManager(*state_, fresh.path(), options);
    Fuzz::check(restored.outcome != Brevant::RestoreResult::Outcome::cold,
                "the fresh manager's snapshot restores cold: " + restored.coldReason);
    manager_ = state_->nextHopManager();
    manager_->hardenedIs(true);
    checker_ = std::make_unique<Brevant::HitlessChecker>(
        *manager_, [](U16 index) { return FmSim::tableWord(index); });
    current_ = state_;
  }

  ~Session() {
    checker_.reset();
    manager_ = nullptr;
    state_ = nullptr;
  }

  void request(std::string_view line) {
    const std::vector<std::string_view> f = Fuzz::fields(line, '|');
    const std::string_view verb = f[0];
    const Kiln::TypeRecord& type = current_->fwkType();
    auto arg = [&](size_t i) { return i < f.size() ? std::string(f[i]) : std::string(); };
    if (verb == "root") {
      current_ = state_;
    } else if (verb == "get") {
      type.get(*current_, f.size() > 1 ? f[1] : std::string_view());
    } else if (verb == "get#") {
      type.get(*current_, index(arg(1)));
    } else if (verb == "set") {
      setAndReadBack(type, arg(1), arg(2));
    } else if (verb == "set#") {
      const Kiln::AttributeRecord* attribute = type.attribute(index(arg(1)));
      if (!attribute) return;
      setAndReadBack(type, attribute->name, arg(2));
    } else if (verb == "members") {
      type.members(*current_, arg(1));
    } else if (verb == "member") {
      written_ = true;
      type.memberIs(*current_, arg(1), arg(2), arg(3));
    } else if (verb == "del") {
      written_ = true;
      type.memberDel(*current_, arg(1), arg(2));
    } else if (verb == "child") {
      Kiln::Ptr<Kiln::PtrInterface> child = type.child(*current_, arg(1), arg(2));
      if (child) current_ = child;
    } else if (verb == "op") {
      invoke(type, arg(1),
             std::vector<std::string>(f.begin() + std::min<size_t>(2, f.size()), f.end()));
    } else if (verb == "value") {
      const Kiln::TypeRecord* valueType = Kiln::typeRecord(arg(1));
      if (!valueType || valueType->kind() != Kiln::TypeKind::value) return;
      valueType->constructValue(std::vector<std::string>(f.begin() + 2, f.end()));
    }
  }

 private:
  static U32 index(const std::string& text) {
    U32 value = 0;
    for (char c : text.substr(0, 9)) value = value * 10 + static_cast<U32>(c & 0x0f) % 10;
    return value;
  }

  void setAndReadBack(const Kiln::TypeRecord& type, const std::string& name,
                      const std::string& text) {
    if (!settings.contains(name)) written_ = true;
    type.set(*current_, name, text);
    std::string read;
    try {
      read = type.get(*current_, name);
    } catch (const Kiln::OperationNotSupportedException&) {
      return;
    }
    type.set(*current_, name, read);
    const std::string again = type.get(*current_, name);
    Fuzz::check(again == read, type.name() + "::" + name + " reads '" + read +
                                   "', written back it reads '" + again + "'");
  }

  void invoke(const Kiln::TypeRecord& type, const std::string& name,
              const std::vector<std::string>& args) {
    if (written_ || !allowedOperations.contains(name)) return;
    try {
      type.invoke(*current_, name, args);
    } catch (...) {
      checkTable(name);
      throw;
    }
    checkTable(name);
  }

  void checkTable(const std::string& after) {
    const U32 violations = checker_->check();
    if (violations == 0) return;
    std::string text;
    for (const auto& v : checker_->violations()) text += "\n  " + v.text;
    Fuzz::propertyFailed("table check after " + after + ":" + text);
  }

  Kiln::Ptr<Brevant::BrevantCommonSmData> state_;
  Kiln::Ptr<Brevant::NextHopManager> manager_;
  std::unique_ptr<Brevant::HitlessChecker> checker_;
  Kiln::Ptr<Kiln::PtrInterface> current_;
  bool written_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Kiln::ActivityLockGuard activity;
  Session session;
  size_t made = 0;
  for (std::string_view line : Fuzz::lines(Fuzz::inputText(data, size))) {
    if (++made > maxRequestsPerInput) break;
    try {
      session.request(line);
    } catch (const Kiln::Exception&) {
      // A clean refusal.
    }
  }
  return 0;
}
