// Moving a group that the caller holds already: the compaction passes have
// just looked the group up by the start they stopped at, and hand it over
// instead of having the move look it up again.
#pragma once

#include "Brevant/NextHopManager.h"

namespace Brevant {

// Moves group as manager.moveECMPGroup(groupId, newBaseIndex, overlap) does,
// with the same traces, checks, chip calls, records, owner calls and result.
// group is what manager.ecmpGroups(groupId) yields now (null when there is
// none).
S32 moveGroup(NextHopManager& manager, U16 groupId, const Kiln::Ptr<ECMPGroup>& group,
              U16 newBaseIndex, bool overlap);

}  // namespace Brevant
