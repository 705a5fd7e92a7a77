#pragma once

namespace Brevant {

// The library's version text, "major.minor.patch".
const char* version();

}  // namespace Brevant
