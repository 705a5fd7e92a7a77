// While a ResourcesHold lives, the manager's refreshResources() waits; the
// last hold to go publishes the counters once. A move or a compaction run
// changes the table entry by entry, and its steps in between are nobody's
// business: a move through the swap area would otherwise raise and clear a
// usage alarm that its end state never crosses.
#pragma once

#include "Brevant/NextHopManager.h"

namespace Brevant {

class ResourcesHold {
 public:
  explicit ResourcesHold(NextHopManager& manager) : manager_(manager) { ++manager_.resourcesHeld; }
  ~ResourcesHold() {
    if (--manager_.resourcesHeld == 0) manager_.refreshResources();
  }
  ResourcesHold(const ResourcesHold&) = delete;
  ResourcesHold& operator=(const ResourcesHold&) = delete;

 private:
  NextHopManager& manager_;
};

}  // namespace Brevant
