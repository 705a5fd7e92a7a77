// The next-hop table's model: geometry, initialisation, simulation mode and
// teardown.
#include "Brevant/NextHopManager.h"

#include "BlankManagerConstruction.h"
#include "Brevant/DefragManager.h"
#include "Brevant/ECMPGroup.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopTrace.h"

namespace Brevant {
namespace {

// Outside simulation: one past the highest usable index, and the first index
// of the 256-entry swap area kept for relocating groups.
constexpr U16 tableBound = 0xFFFE;
constexpr U16 tableSwapIndex = 0xFEFE;
// In simulation mode the swap area is only this many entries.
constexpr U16 simSwapEntries = 8;
// The highest index a free pool ever holds.
constexpr U16 lastPoolIndex = tableBound - 1;

// The logical ports whose glorts the two reserved entries hold.
constexpr S32 reservedPort0 = 65532;
constexpr S32 reservedPort1 = 65530;

// Blank constructions alive on this thread.
thread_local U32 blankConstructions = 0;

}  // namespace

BlankManagerConstruction::BlankManagerConstruction() { ++blankConstructions; }
BlankManagerConstruction::~BlankManagerConstruction() { --blankConstructions; }
bool BlankManagerConstruction::active() { return blankConstructions > 0; }

void NextHopManager::constructHook() {
  if (!BlankManagerConstruction::active()) initHandler();
}

void NextHopManager::destructHook() {
  // Groups go first, then the defragmenter; the collections then follow in
  // reverse declaration order as members.
  ecmpGroupsDelAll();
  defragManagerIs(nullptr);
}

U16 NextHopManager::getNextHopTableBound() { return simMode_ ? simNextHopTableBound_ : tableBound; }

U16 NextHopManager::getNextHopTableSwapIndex() {
  // A simulated bound below 8 wraps round in 16 bits, on purpose.
  return simMode_ ? U16(simNextHopTableBound_ - simSwapEntries) : tableSwapIndex;
}

void NextHopManager::initHandler() {
  NH_TRACE(8, "initHandler");
  if (!initialized_) {
    // The reserved groups 0 and 1 each hold one entry: the glort of a
    // logical port. They are in neither the free pools nor the allocator's
    // records.
    struct Reserved {
      U16 groupId;
      bool mcast;
      S32 logicalPort;
    };
    for (const Reserved& r :
         {Reserved{0, false, reservedPort0}, Reserved{1, true, reservedPort1}}) {
      const U16 index = r.groupId + 1;
      Kiln::Ptr<ECMPGroup> group = ecmpGroupsIs(r.groupId);
      group->wideIs(false);
      group->mcastIs(r.mcast);
      group->fixedSizeIs(true);
      group->sizeIs(1);
      group->hwStartIndexIs(index);
      U64 word = logicalPortGlort(r.logicalPort, "initHandler");
      writeNextHopInternal(index, 1, &word);
    }
    for (U32 i = 3; i < getNextHopTableBound(); ++i) {
      freeEntriesIs(U16(i), true);
      freeGroupIdsIs(U16(i), true);
    }
  }
  lastNarrowIndexIs(2);
  lastWideIndexIs(getNextHopTableSwapIndex());
  defragManagerIs(DefragManager::DefragManagerIs(this));
  initializedIs(true);
  refreshResources();
}

void NextHopManager::simModeIs(bool simMode) {
  if (simMode == simMode_) return;
  simMode_ = simMode;
  handleSimulationMode();
}

void NextHopManager::handleSimulationMode() {
  // Entering trims the pools to the simulated bound; leaving gives back what
  // lies from the bound just given up to the top. Entries in use above the
  // bound are not reclaimed.
  for (U32 i = simNextHopTableBound_; i <= lastPoolIndex; ++i) {
    if (simMode_) {
      freeEntriesDel(U16(i));
      freeGroupIdsDel(U16(i));
    } else {
      freeEntriesIs(U16(i), true);
      freeGroupIdsIs(U16(i), true);
    }
  }
  lastWideIndexIs(getNextHopTableSwapIndex());
  refreshResources();
}

namespace {

// The smallest simulated bound taken when hardened: the reserved entries,
// a narrow region and the swap area.
constexpr U16 minHardenedSimBound = 16;

// Hardened: why a simulated bound would leave the pools, the regions or
// the wide blocks' even starts inconsistent, or null when it would not.
const char* simulationBoundRefusal(NextHopManager& m, bool mode, U16 size) {
  if (m.simMode()) {
    // Entering trimmed the pools at the current bound, and leaving gives
    // back what lies from the given bound up.
    if (size != m.simNextHopTableBound()) return "the pools were trimmed at the current bound";
    return nullptr;
  }
  if (!mode) return nullptr;
  if (size % 2 != 0) return "an odd bound puts the swap index at an odd index";
  if (size < minHardenedSimBound || size > tableBound) return "the bound is out of range";
  const U32 swapIndex = size - simSwapEntries;
  for (const auto& member : m.ecmpGroups()) {
    const ECMPGroup& g = *member.value();
    const U32 entries = g.wide() ? 2u * g.size() : g.size();
    if (entries > 0 && g.hwStartIndex() + entries > swapIndex) {
      return "a group lies at or above its swap index";
    }
  }
  return nullptr;
}

}  // namespace

void NextHopManager::setSimulationMode(bool mode, U16 size) {
  NH_TRACE(8, "Setting simMode to " << mode);
  if (hardened_) {
    if (const char* why = simulationBoundRefusal(*this, mode, size)) {
      NH_TRACE(1,
               "Simulation mode " << mode << " with table bound " << size << " refused: " << why);
      return;
    }
  }
  simNextHopTableBoundIs(size);
  simModeIs(mode);
}

}  // namespace Brevant
