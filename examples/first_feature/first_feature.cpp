// A first routing feature on the library: the agent's shared state and its
// next-hop manager, the feature's callback, an ECMP group created, updated,
// read and deleted, and the free-entry summary. Runs on the simulated chip.
#include <unistd.h>

#include <cstdio>
#include <initializer_list>

#include "Brevant/Brevant.h"

namespace {

// What a feature that owns ECMP groups implements: the manager calls it when
// the defragmenter moves one of the feature's groups to another block, so
// that the feature repoints its routes at the new base index.
class UnicastRoutes : public Brevant::NextHopCallback {
 public:
  UnicastRoutes() : NextHopCallback("unicast", Brevant::RoutingUnicastFeature) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    std::printf("group %u moved: %u next hops now at index %u\n", groupId, numNextHops, baseIndex);
  }
};

// A group's next-hop data words by position.
Brevant::U64Collection nextHops(std::initializer_list<U64> words) {
  Brevant::U64Collection collection;
  U16 position = 0;
  for (U64 word : words) collection.dataIs(position++, word);
  return collection;
}

int failed(const char* what, S32 result) {
  std::fprintf(stderr, "first-feature: %s failed with %d\n", what, result);
  return 1;
}

}  // namespace

int main() {
  // The library runs on the agent's activity thread, which holds the
  // activity lock; the library gives it up around each chip call. A program
  // that calls the library directly takes it first.
  Kiln::ActivityLockGuard activity;

  // The agent's shared state owns the next-hop manager, which initialises
  // the chip's table as it is created. A small simulated table keeps the
  // summary short.
  Kiln::Ptr<Brevant::BrevantCommonSmData> state =
      Brevant::BrevantCommonSmData::BrevantCommonSmDataIs("agent");
  Kiln::Ptr<Brevant::NextHopManager> manager = state->nextHopManagerIs();
  manager->setSimulationMode(true, 64);

  // The feature registers its callback under its name.
  Kiln::Ptr<UnicastRoutes> routes = new UnicastRoutes();
  manager->featuresIs(routes);

  // A narrow group (one entry per next hop) of three next hops, resizable.
  // The result is the new group id, or a negative status.
  const S32 group = manager->createECMPGroup(0, /*wide=*/false, /*fixedSize=*/false, 3,
                                             nextHops({0x1001, 0x1002, 0x1003}), {},
                                             Brevant::RoutingUnicastFeature, /*mcast=*/false);
  if (group < 0) return failed("createECMPGroup", group);
  Kiln::Ptr<Brevant::ECMPGroup> record = manager->getECMPGroup(static_cast<U16>(group));
  std::printf("created group %d: %u next hops at index %u\n", group, record->size(),
              record->hwStartIndex());

  // New data words for the same next hops, written into the chip.
  S32 result = manager->updateECMPGroup(0, group, nextHops({0x2001, 0x2002, 0x2003}), {});
  if (result != 0) return failed("updateECMPGroup", result);
  const Brevant::NextHopEntry second = manager->readNextHop(static_cast<U16>(group), 1);
  std::printf("next hop 1 at index %u holds 0x%llx\n", second.hwIndex(),
              static_cast<unsigned long long>(second.data()));
  if (second.data() != 0x2002) return failed("readNextHop", -1);

  result = manager->deleteECMPGroup(0, static_cast<U16>(group));
  if (result != 0) return failed("deleteECMPGroup", result);
  std::printf("deleted group %d\n", group);

  // The summary goes to a file descriptor; flush what stdio holds first.
  std::fflush(stdout);
  manager->showFreeEntrySummary(STDOUT_FILENO);
  return 0;
}
