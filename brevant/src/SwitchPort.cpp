// Hand-written parts of Brevant::SwitchPort.
#include "Brevant/SwitchPort.h"

#include <cstdio>

namespace Brevant {

// The OR of the two bytes, not a mix: 1.2, 2.1 and 3.0 share a hash (and a
// bucket) and are told apart by ==. Other agents hash ports the same way.
U32 SwitchPort::hash() const { return U32(sw_ | portId_); }

Kiln::String8 SwitchPort::stringValue() const {
  char text[sizeof "255.255"];
  std::snprintf(text, sizeof text, "%d.%d", sw_, portId_);
  return text;
}

}  // namespace Brevant
