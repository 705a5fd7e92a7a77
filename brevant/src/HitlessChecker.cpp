// The hitless checker: the manager's records, the owners' view and the chip
// compared at one moment.
#include "Brevant/HitlessChecker.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <utility>

#include "Brevant/FeatureType.h"
#include "Brevant/NextHopManager.h"

namespace Brevant {

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
    it = manager_.ecmpGroups(it->first) == it->second.group ? std::next(it)
                                                            : ownerViews_.erase(it);
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

void HitlessChecker::violationIs(U16 groupId, std::string text) {
  ++violationCount_;
  ++violationsOfThisCheck_;
  if (violations_.size() < violationsKept) {
    violations_.push_back(
        Violation{checks_, groupId, "group " + std::to_string(groupId) + ": " + std::move(text)});
  }
}

void HitlessChecker::violationsDelAll() {
  violations_.clear();
  violationCount_ = 0;
}

std::string HitlessChecker::report() const {
  std::ostringstream out;
  out << violationCount_ << " violations in " << checks_ << " checks\n";
  for (const Violation& v : violations_) out << "check " << v.check << ": " << v.text << "\n";
  return out.str();
}

}  // namespace Brevant
