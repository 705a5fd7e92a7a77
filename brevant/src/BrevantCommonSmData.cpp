// Hand-written parts of Brevant::BrevantCommonSmData.
#include "Brevant/BrevantCommonSmData.h"

namespace Brevant {

// Runs before the members are torn down: the per-chip switch information and
// the next-hop manager go first, so that a notifiee still registered hears
// onSwitchInfo(n) per chip and onNextHopManager().
void BrevantCommonSmData::destructHook() {
  switchInfoDelAll();
  nextHopManagerDel();
}

}  // namespace Brevant
