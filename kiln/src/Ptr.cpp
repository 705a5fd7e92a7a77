#include "Kiln/Ptr.h"

namespace Kiln {

std::atomic<bool> enableThreadSafePointers{false};

}  // namespace Kiln
