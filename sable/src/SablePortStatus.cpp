// Hand-written parts of Sable::SablePortStatus.
#include "Sable/SablePortStatus.h"

namespace Sable {

SablePortStatus::SablePortStatus(const Nimbet::IntfId& intfName)
    : SablePortStatus(intfName.name(), intfName) {}

}  // namespace Sable
