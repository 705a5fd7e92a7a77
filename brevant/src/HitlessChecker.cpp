// The hitless checker: the manager's records, the owners' view and the chip
// compared at one moment.
#include "Brevant/HitlessChecker.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <utility>

#include "Brevant/FeatureType.h"
#include "Brevant/NextHopManager.h"

namespace Brevant {
namespace {

// No owned group at an index.
constexpr U16 noOwner = 65535;
constexpr U32 tableEntries = 65536;

std::string hex(U64 word) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%" PRIx64, word);
  return text;
}

std::string named(U16 id, const HitlessChecker::OwnedGroup& g) {
  return "group " + std::to_string(id) + (g.label.empty() ? "" : " (" + g.label + ")") + " at " +
         std::to_string(g.base);
}

}  // namespace

// The owner of every group of one feature, as the checker models owners:
// it keeps the base it is told.
class HitlessChecker::Owner : public NextHopCallback {
 public:
  Owner(HitlessChecker& checker, FeatureType feature)
      : NextHopCallback(ownerNamePrefix + std::string(stringValue(feature)), feature),
        checker_(checker) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16) override {
    checker_.ownerToldIs(groupId, baseIndex);
  }

 private:
  HitlessChecker& checker_;
};

HitlessChecker::HitlessChecker(NextHopManager& manager, TableReader reader)
    : manager_(manager), reader_(std::move(reader)) {
  for (U32 value = 0;; ++value) {
    const std::optional<FeatureType> feature = FeatureTypeInstance(value);
    if (!feature) break;
    Kiln::Ptr<NextHopCallback> owner = new Owner(*this, *feature);
    manager_.featuresIs(owner);
    owners_.push_back(owner);
  }
}

HitlessChecker::~HitlessChecker() {
  for (const Kiln::Ptr<NextHopCallback>& owner : owners_) {
    if (manager_.features(owner->name()) == owner) manager_.featuresDel(owner->name());
  }
}

void HitlessChecker::ownerToldIs(U16 groupId, U16 baseIndex) {
  ownerViews_[groupId] = OwnerView{manager_.ecmpGroups(groupId), baseIndex};
  // The incremental mode is in use once a group has been handed to it.
  if (!ownerOfIndex_.empty()) ownedMovedTo(groupId, baseIndex);
}

U16 HitlessChecker::ownerBaseOf(const Kiln::Ptr<ECMPGroup>& group) {
  OwnerView& view = ownerViews_[group->groupId()];
  if (view.group != group) view = OwnerView{group, group->hwStartIndex()};
  return view.base;
}

S32 HitlessChecker::ownerBase(U16 groupId) const {
  const auto found = ownerViews_.find(groupId);
  if (found == ownerViews_.end() || found->second.group != manager_.ecmpGroups(groupId)) {
    return -1;
  }
  return found->second.base;
}

U32 HitlessChecker::check() {
  ++checks_;
  violationsOfThisCheck_ = 0;
  std::map<U16, U16> claims;
  for (const auto& member : manager_.ecmpGroups()) {
    const Kiln::Ptr<ECMPGroup>& group = member.value();
    if (group->hwStartIndex() == 0 || group->nextHops().members() == 0) continue;
    const U16 recordBase = group->hwStartIndex();
    const U16 ownerBase = ownerBaseOf(group);
    checkBlock(*group, recordBase, "record", claims);
    if (ownerBase != recordBase) checkBlock(*group, ownerBase, "owners", claims);
    const U16 mapped = manager_.hwStartToGroupId(recordBase);
    if (mapped != group->groupId()) {
      violationIs(group->groupId(), "the table maps its start " + std::to_string(recordBase) +
                                        " to group " + std::to_string(mapped));
    }
  }
  // Owners forget groups that are gone.
  for (auto it = ownerViews_.begin(); it != ownerViews_.end();) {
    it = manager_.ecmpGroups(it->first) == it->second.group ? std::next(it) : ownerViews_.erase(it);
  }
  return violationsOfThisCheck_;
}

U32 HitlessChecker::checkSettled() {
  check();
  for (const auto& [groupId, view] : ownerViews_) {
    if (view.base != view.group->hwStartIndex()) {
      violationIs(groupId, "owners hold base " + std::to_string(view.base) + ", the record " +
                               std::to_string(view.group->hwStartIndex()));
    }
  }
  return violationsOfThisCheck_;
}

void HitlessChecker::checkBlock(const ECMPGroup& group, U16 base, const char* view,
                                std::map<U16, U16>& claims) {
  const U32 step = group.wide() ? 2 : 1;
  const std::string where = std::string("block at ") + std::to_string(base) + " (" + view + ")";
  auto entryProblem = [&](U32 index, const std::string& what) {
    violationIs(group.groupId(),
                "entry " + std::to_string(index) + " of its " + where + " " + what);
  };
  auto expectWord = [&](U32 index, U64 expected) {
    const U64 found = reader_(U16(index));
    if (found == expected) return;
    char text[64];
    std::snprintf(text, sizeof(text), "holds 0x%" PRIx64 ", not 0x%" PRIx64, found, expected);
    entryProblem(index, text);
  };
  for (U32 p = 0; p < group.size(); ++p) {
    const NextHopEntry entry = group.nextHops(U16(p));
    const U32 index = base + step * p;
    expectWord(index, entry.data());
    if (group.wide()) expectWord(index + 1, entry.wideData());
  }
  for (U32 index = base; index < base + step * group.size(); ++index) {
    const U16 i = U16(index);
    if (!manager_.allocatedEntries(i) || manager_.freeEntries(i)) {
      entryProblem(index, "is not allocated");
    }
    const auto [claim, fresh] = claims.emplace(i, group.groupId());
    if (!fresh && claim->second != group.groupId()) {
      entryProblem(index, "is also used by group " + std::to_string(claim->second));
    }
  }
}

void HitlessChecker::violationIs(U16 groupId, std::string text, Mode mode) {
  ++violationCount_;
  if (mode == Mode::incremental) {
    ++incrementalViolationCount_;
  } else {
    ++violationsOfThisCheck_;
  }
  if (violations_.size() < violationsKept) {
    // Whole-table texts name their group first; incremental ones say it.
    violations_.push_back(Violation{
        mode == Mode::wholeTable ? checks_ : writesChecked_, groupId,
        mode == Mode::wholeTable ? "group " + std::to_string(groupId) + ": " + std::move(text)
                                 : std::move(text),
        mode});
  }
}

// --- Incremental mode ---

U64 HitlessChecker::OwnedGroup::word(U32 index) const {
  const U32 offset = index - base;
  if (!wide) return data[offset];
  return offset % 2 ? wideData[offset / 2] : data[offset / 2];
}

void HitlessChecker::ownedGroupIs(U16 groupId, OwnedGroup group) {
  if (ownerOfIndex_.empty()) ownerOfIndex_.assign(tableEntries, noOwner);
  if (group.wide) group.wideData.resize(group.data.size());
  ownedGroupDel(groupId);
  const OwnedGroup& g = owned_.emplace(groupId, std::move(group)).first->second;
  own(groupId, g, true);
  checkProgrammed(groupId, g, "after its create");
}

void HitlessChecker::ownedGroupDel(U16 groupId) {
  const auto found = owned_.find(groupId);
  if (found == owned_.end()) return;
  own(groupId, found->second, false);
  movedSinceWrite_.erase(std::remove(movedSinceWrite_.begin(), movedSinceWrite_.end(), groupId),
                         movedSinceWrite_.end());
  owned_.erase(found);
}

const HitlessChecker::OwnedGroup* HitlessChecker::ownedGroup(U16 groupId) const {
  const auto found = owned_.find(groupId);
  return found == owned_.end() ? nullptr : &found->second;
}

void HitlessChecker::ownedWordsIs(U16 groupId, U16 position, U64 data, U64 wideData) {
  const auto found = owned_.find(groupId);
  if (found == owned_.end() || position >= found->second.size()) return;
  found->second.data[position] = data;
  if (found->second.wide) found->second.wideData[position] = wideData;
}

void HitlessChecker::ownedMovedTo(U16 groupId, U16 base) {
  if (ownerOfIndex_.empty()) ownerOfIndex_.assign(tableEntries, noOwner);
  const auto found = owned_.find(groupId);
  if (found == owned_.end()) {
    violationIs(groupId,
                "owners told that group " + std::to_string(groupId) +
                    ", which nobody created, moved to " + std::to_string(base),
                Mode::incremental);
    return;
  }
  OwnedGroup& g = found->second;
  if (g.base == base) return;
  own(groupId, g, false);
  g.base = base;
  own(groupId, g, true);
  // An owner may be told the final base before the last leg of a move
  // through the swap area has written it: the check waits for the next write.
  if (std::find(movedSinceWrite_.begin(), movedSinceWrite_.end(), groupId) ==
      movedSinceWrite_.end()) {
    movedSinceWrite_.push_back(groupId);
  }
}

U32 HitlessChecker::written(U32 first, U32 count, const U64* data) {
  const U64 before = incrementalViolationCount_;
  ++writesChecked_;
  for (U32 k = 0; k < count && !ownerOfIndex_.empty(); ++k) {
    const U32 index = first + k;
    if (index >= tableEntries || ownerOfIndex_[index] == noOwner) continue;
    const U16 id = ownerOfIndex_[index];
    const OwnedGroup& g = owned_.at(id);
    const U64 expected = g.word(index);
    if (data[k] != expected) {
      violationIs(id,
                  "write of " + hex(data[k]) + " at " + std::to_string(index) + " inside " +
                      named(id, g) + ", whose owners expect " + hex(expected),
                  Mode::incremental);
    }
  }
  settle();
  return static_cast<U32>(incrementalViolationCount_ - before);
}

void HitlessChecker::settle() {
  for (U16 id : movedSinceWrite_)
    checkProgrammed(id, owned_.at(id), "when its owners were told it moved");
  movedSinceWrite_.clear();
}

void HitlessChecker::checkOwnedGroups(const char* when) {
  for (const auto& [id, g] : owned_) checkProgrammed(id, g, when);
}

void HitlessChecker::own(U16 groupId, const OwnedGroup& group, bool owned) {
  const U32 end = std::min<U32>(U32(group.base) + group.entries(), tableEntries);
  for (U32 i = group.base; i < end; ++i) {
    if (owned && ownerOfIndex_[i] != noOwner && ownerOfIndex_[i] != groupId) {
      violationIs(groupId,
                  "group " + std::to_string(groupId) + " placed at " + std::to_string(group.base) +
                      " over entry " + std::to_string(i) + " of group " +
                      std::to_string(ownerOfIndex_[i]),
                  Mode::incremental);
    }
    if (owned || ownerOfIndex_[i] == groupId) ownerOfIndex_[i] = owned ? groupId : noOwner;
  }
}

void HitlessChecker::checkProgrammed(U16 groupId, const OwnedGroup& g, const std::string& when) {
  for (U32 i = g.base; i < g.base + g.entries(); ++i) {
    const U64 chip = reader_(static_cast<U16>(i));
    if (chip != g.word(i)) {
      violationIs(groupId,
                  named(groupId, g) + ": entry " + std::to_string(i) + " holds " + hex(chip) +
                      ", not " + hex(g.word(i)) + ", " + when,
                  Mode::incremental);
      return;
    }
  }
}

void HitlessChecker::violationsDelAll() {
  violations_.clear();
  violationCount_ = 0;
  incrementalViolationCount_ = 0;
}

std::string HitlessChecker::report() const {
  std::ostringstream out;
  out << violationCount_ << " violations in " << checks_ << " checks\n";
  for (const Violation& v : violations_) out << "check " << v.check << ": " << v.text << "\n";
  return out.str();
}

}  // namespace Brevant
