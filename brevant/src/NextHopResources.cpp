// Resource accounting of the next-hop table: the watermarks and their
// alarms, the published figures (refreshResources) and the placement query.
#include "Brevant/NextHopResources.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "Brevant/DefragManager.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Kiln/Exception.h"

namespace Brevant {
namespace {

// The largest block, in entries, that a search hands out.
constexpr U32 maxBlockEntries = 256;
constexpr U32 maxGroupSize = 256;

// A watermark is a percentage; anything else is refused before it is stored.
double checkedPercent(const char* attribute, double value) {
  if (!(value >= 0.0 && value <= 100.0)) {
    throw Kiln::RangeException(std::string(attribute) + " must be a percentage from 0 to 100");
  }
  return value;
}

// The alarm's next state for figure: raised when it reaches high (a high
// watermark of 0 is off), cleared when it falls to low. Clearing also needs
// the figure below high, so a low watermark at or above the high one cannot
// make the alarm flap.
bool nextAlarm(bool alarm, double figure, double high, double low) {
  if (high == 0.0) return false;
  if (!alarm) return figure >= high;
  return !(figure <= low && figure < high);
}

// Whether genECMPGroupId would issue an id: a member whose value is true.
bool hasFreeGroupIdIn(const NextHopManager& manager) {
  for (const auto& member : manager.freeGroupIds()) {
    if (member.value()) return true;
  }
  return false;
}

// The entries first .. last - 1 of the table (none when last is not above first).
U32 entriesIn(U32 first, U32 last) {
  last = std::min(last, FreeRunTree::entries);
  return last > first ? last - first : 0;
}

double percentOf(U32 part, U32 whole) { return whole == 0 ? 0.0 : 100.0 * part / whole; }

}  // namespace

void NextHopResources::usedHighWatermarkIs(double percent) {
  if (usedHighWatermark_ == checkedPercent("usedHighWatermark", percent)) return;
  usedHighWatermark_ = percent;
  if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onUsedHighWatermark);
  checkWatermarks();
}

void NextHopResources::usedLowWatermarkIs(double percent) {
  if (usedLowWatermark_ == checkedPercent("usedLowWatermark", percent)) return;
  usedLowWatermark_ = percent;
  if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onUsedLowWatermark);
  checkWatermarks();
}

void NextHopResources::fragmentationHighWatermarkIs(double percent) {
  if (fragmentationHighWatermark_ == checkedPercent("fragmentationHighWatermark", percent)) return;
  fragmentationHighWatermark_ = percent;
  if (!kilnNotifiees_.empty()) {
    Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onFragmentationHighWatermark);
  }
  checkWatermarks();
}

void NextHopResources::fragmentationLowWatermarkIs(double percent) {
  if (fragmentationLowWatermark_ == checkedPercent("fragmentationLowWatermark", percent)) return;
  fragmentationLowWatermark_ = percent;
  if (!kilnNotifiees_.empty()) {
    Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onFragmentationLowWatermark);
  }
  checkWatermarks();
}

void NextHopResources::compactionRunIs(double seconds, bool cut) {
  compactionRunsInc(1);
  if (cut) compactionRunsCutInc(1);
  compactionTimeIs(compactionTime_ + seconds);
  if (seconds > longestCompactionRun_) longestCompactionRunIs(seconds);
}

void NextHopResources::checkWatermarks() {
  const bool used = nextAlarm(usedAlarm_, usedPercent_, usedHighWatermark_, usedLowWatermark_);
  if (used != usedAlarm_) {
    if (used) {
      NH_TRACE(3, "Next-hop table use " << usedPercent_ << "% reached the high watermark "
                                        << usedHighWatermark_ << "%");
    } else {
      NH_TRACE(3, "Next-hop table use " << usedPercent_ << "% is back at the low watermark "
                                        << usedLowWatermark_ << "%");
    }
    usedAlarmIs(used);
  }
  const bool fragmented = nextAlarm(fragmentationAlarm_, fragmentationPercent_,
                                    fragmentationHighWatermark_, fragmentationLowWatermark_);
  if (fragmented != fragmentationAlarm_) {
    if (fragmented) {
      NH_TRACE(3, "Next-hop table fragmentation " << fragmentationPercent_
                                                  << "% reached the high watermark "
                                                  << fragmentationHighWatermark_ << "%");
    } else {
      NH_TRACE(3, "Next-hop table fragmentation " << fragmentationPercent_
                                                  << "% is back at the low watermark "
                                                  << fragmentationLowWatermark_ << "%");
    }
    fragmentationAlarmIs(fragmented);
  }
}

void NextHopManager::refreshResources() {
  if (resourcesHeld > 0) return;
  // The searches refresh the tree too, so what tells a change is its count
  // of refreshes, not what this refresh did. The table's bound and swap
  // index follow from the simulation settings, which are compared instead:
  // a call that finds nothing changed asks for neither.
  freeRuns.refresh();
  const std::array<U64, 5> inputs{lastNarrowIndex_, lastWideIndex_, simMode_, simNextHopTableBound_,
                                  freeRuns.refreshes()};
  if (inputs == resourcesPublishedFor) return;
  resourcesPublishedFor = inputs;
  NextHopResources& r = *resources_;
  const U32 bound = getNextHopTableBound();
  const U32 swapIndex = getNextHopTableSwapIndex();
  // The regions as the boundaries stand; a swap index that wrapped round
  // (a simulated bound below 8) leaves no swap area.
  const U32 swapFirst = std::min(swapIndex, bound);
  const U32 narrowLast = std::min<U32>(lastNarrowIndex_ + 1, swapFirst);
  const U32 wideFirst = std::max<U32>(lastWideIndex_, narrowLast);
  // The free entries below each boundary, kept by the tree as the table
  // changes; a region that ends at or below its start holds none.
  enum : U32 { narrowStart, narrowEnd, wideStart, swapStart, tableEnd };
  const FreeRunTree::Cuts& below = freeRuns.freeBelow({3, narrowLast, wideFirst, swapFirst, bound});
  const auto freeIn = [&](U32 first, U32 last) {
    return below[last] > below[first] ? below[last] - below[first] : 0;
  };
  const U32 narrowFree = freeIn(narrowStart, narrowEnd);
  const U32 wideFree = freeIn(wideStart, swapStart);
  const U32 swapFree = freeIn(swapStart, tableEnd);
  r.narrowUsedIs(entriesIn(3, narrowLast) - narrowFree);
  r.narrowFreeIs(narrowFree);
  r.wideUsedIs(entriesIn(wideFirst, swapFirst) - wideFree);
  r.wideFreeIs(wideFree);
  r.swapUsedIs(entriesIn(swapFirst, bound) - swapFree);
  r.swapFreeIs(swapFree);
  const U32 free = freeRuns.freeEntries();
  r.totalFreeIs(free);
  r.usedPercentIs(percentOf(bound > free ? bound - free : 0, bound));
  // What the searches would find: a narrow one from the lowest free entry up
  // to lastWideIndex, a wide one from below the swap index down to just
  // above lastNarrowIndex. Capped at the largest block a search hands out,
  // which the tree answers from any run that long it knows to be free.
  const U32 narrowLongest = freeRuns.longestRunIn(0, lastWideIndex_, maxBlockEntries);
  const U32 wideLongest =
      swapIndex > U32(lastNarrowIndex_) + 1
          ? freeRuns.longestRunIn(lastNarrowIndex_ + 1, swapIndex, maxBlockEntries)
          : 0;
  r.largestNarrowBlockIs(U16(narrowLongest));
  r.largestWideBlockIs(U16(wideLongest));
  r.freeRunsIs(freeRuns.runCount());
  r.largestGroupSeenIs(U16(freeRuns.shortLength()));
  r.fragmentationPercentIs(percentOf(freeRuns.shortFreeEntries(), free));
  if (!r.alarmsIdle()) r.checkWatermarks();
}

void NextHopManager::recountResources() {
  // The free-run tree heard the restored pools through their observer; the
  // restore places no group through the table's operations, so the groups
  // are counted here.
  freeRuns.shortLengthIs(resources_->largestGroupSeen());
  U32 narrowGroups = 0, wideGroups = 0;
  for (const auto& placed : hwStartToGroupId_) {
    const Kiln::Ptr<ECMPGroup> group = ecmpGroups(placed.value());
    if (group) ++(group->wide() ? wideGroups : narrowGroups);
  }
  resources_->narrowGroupsIs(narrowGroups);
  resources_->wideGroupsIs(wideGroups);
  resourcesPublishedFor = {};
  refreshResources();
}

S32 NextHopManager::createRefused(S32 code) {
  resources_->createsRefusedIs(code, resources_->createsRefused(code) + 1);
  return code;
}

Kiln::Ptr<NextHopResources> NextHopResources::NextHopResourcesIs(NextHopManager* nhm) {
  Kiln::Ptr<NextHopResources> resources = Kiln::validPtr(Kiln::kilnNew<NextHopResources>(nhm));
  resources->hasNotificationActiveIs(true);
  return resources;
}

GroupPlacement NextHopResources::groupPlacement(U16 size, bool wide) {
  // The tests of createECMPGroup and findAvailableBlock, on the figures as
  // published after the manager's last operation.
  const NextHopManager& m = *nhm_;
  if (!m.initialized() || size == 0 || size > maxGroupSize || !hasFreeGroupIdIn(m)) {
    return GroupPlacement::cannotFit;
  }
  const U32 length = U32(size) * (wide ? 2 : 1);
  if (length > maxBlockEntries) return GroupPlacement::cannotFit;
  if ((wide ? largestWideBlock_ : largestNarrowBlock_) >= length) return GroupPlacement::placeNow;
  if (m.freeEntries().members() >= length) return GroupPlacement::needsCompaction;
  return GroupPlacement::cannotFit;
}

}  // namespace Brevant
