#include "Brevant/Version.h"

namespace Brevant {

// BREVANT_VERSION_TEXT comes from the project version in the top-level
// CMakeLists.txt, the one place the version is written.
const char* version() { return BREVANT_VERSION_TEXT; }

}  // namespace Brevant
