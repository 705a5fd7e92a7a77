// Defragmentation on the manual clock: groups fill the table, every other
// one is deleted, and a group that needs a longer block than any free run is
// refused (-2) while the defragmenter is scheduled. Five seconds later on the
// manual clock it compacts the table, telling the owner of every group it
// moves; the group then fits. The free-entry summary is printed before and
// after.
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "Brevant/Brevant.h"

namespace {

class Routes : public Brevant::NextHopCallback {
 public:
  Routes() : NextHopCallback("unicast", Brevant::RoutingUnicastFeature) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    std::printf("  owner told: group %u (%u next hops) now at index %u\n", groupId, numNextHops,
                baseIndex);
    ++moves;
  }

  int moves = 0;
};

Brevant::U64Collection nextHops(U16 size, U64 first) {
  Brevant::U64Collection collection;
  for (U16 position = 0; position < size; ++position) collection.dataIs(position, first + position);
  return collection;
}

S32 createGroup(Brevant::NextHopManager& manager, U16 size, U64 first) {
  return manager.createECMPGroup(0, false, false, size, nextHops(size, first), {},
                                 Brevant::RoutingUnicastFeature, false);
}

void printSummary(const char* title, Brevant::NextHopManager& manager) {
  std::printf("%s\n", title);
  std::fflush(stdout);
  manager.showFreeEntrySummary(STDOUT_FILENO);
}

}  // namespace

int main() {
  // The manual clock goes in before the manager exists: the defragmenter's
  // timer joins the event loop's clock when the manager is built.
  Kiln::Ptr<Kiln::ManualClock> clock = new Kiln::ManualClock(0);
  Kiln::ActivityManager::instance().clockIs(clock);

  Kiln::ActivityLockGuard activity;
  Kiln::Ptr<Brevant::BrevantCommonSmData> state =
      Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<Brevant::NextHopManager> manager = state->nextHopManagerIs();
  manager->setSimulationMode(true, 64);
  Kiln::Ptr<Routes> routes = new Routes();
  manager->featuresIs(routes);

  // Fill the narrow region with groups of four, then free every other one:
  // plenty of free entries, but in runs of four. (The fill ends with a
  // refused request, which already schedules the defragmenter.)
  std::vector<S32> groups;
  for (S32 id; (id = createGroup(*manager, 4, 0x100 * (groups.size() + 1))) >= 0;)
    groups.push_back(id);
  for (size_t i = 0; i < groups.size(); i += 2)
    manager->deleteECMPGroup(0, static_cast<U16>(groups[i]));
  printSummary("Fragmented:", *manager);

  // Eight next hops need a run of eight: refused for now (-2), with the
  // defragmenter scheduled.
  const S32 refused = createGroup(*manager, 8, 0x9000);
  std::printf("group of 8: %d (defragmentation scheduled: %s)\n", refused,
              manager->defragManager()->scheduleDefragment() ? "yes" : "no");
  if (refused != -2) return 1;

  std::printf("5 s later:\n");
  clock->advance(5.0);
  std::printf("defragmentation runs: %u, groups moved: %d\n",
              manager->defragManager()->defragCount(), routes->moves);

  const S32 placed = createGroup(*manager, 8, 0x9000);
  std::printf("group of 8 after defragmentation: %d\n", placed);
  printSummary("Compacted:", *manager);
  return placed >= 0 && routes->moves > 0 ? 0 : 1;
}
