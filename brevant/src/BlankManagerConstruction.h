// While a BlankManagerConstruction lives on a thread, a NextHopManager
// constructed on that thread skips its initialisation: every attribute keeps
// its default, nothing is written to the chip and no DefragManager is made.
// The warm restart builds its manager this way and then fills every record
// from the snapshot through the manager's own mutators.
#pragma once

#include "Kiln/Types.h"

namespace Brevant {

class BlankManagerConstruction {
 public:
  BlankManagerConstruction();
  ~BlankManagerConstruction();
  BlankManagerConstruction(const BlankManagerConstruction&) = delete;
  BlankManagerConstruction& operator=(const BlankManagerConstruction&) = delete;

  // Whether one lives on the calling thread.
  static bool active();
};

}  // namespace Brevant
