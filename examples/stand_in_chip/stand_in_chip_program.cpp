// The library linked with a stand-in chip library instead of the simulator:
// the manager's writes land in the stand-in's table, read back here through
// the chip API itself.
#include <cstdio>

#include "Brevant/Brevant.h"
#include "FmApi/FmApi.h"

int main() {
  Kiln::ActivityLockGuard activity;
  Kiln::Ptr<Brevant::NextHopManager> manager = new Brevant::NextHopManager();

  Brevant::U64Collection words;
  for (U16 position = 0; position < 4; ++position) words.dataIs(position, 0xA000 + position);
  const S32 group = manager->createECMPGroup(0, false, false, 4, words, {},
                                             Brevant::RoutingUnicastFeature, false);
  if (group < 0) {
    std::fprintf(stderr, "stand-in-chip: createECMPGroup failed with %d\n", group);
    return 1;
  }
  const U16 start = manager->getECMPGroup(static_cast<U16>(group))->hwStartIndex();

  // Entry i of the table is the chip register 0x160000 + 2i.
  U64 chip[4] = {};
  const S32 status = fmReadUINT64Mult(0, 0x160000 + 2 * start, 4, chip);
  for (U16 position = 0; position < 4; ++position) {
    std::printf("index %u: 0x%llx\n", start + position,
                static_cast<unsigned long long>(chip[position]));
    if (status != 0 || chip[position] != 0xA000u + position) return 1;
  }
  std::printf("group %d written through the stand-in chip library\n", group);
  return 0;
}
