#include "Brevant/Version.h"

namespace Brevant {

const char* version() { return "0.1.0"; }

}  // namespace Brevant
