#include "Kiln/HashMap.h"

namespace Kiln {

U32 kilnHash(const std::string& key) {
  // FNV-1a: cheap, and spreads short texts that differ in one character.
  U32 hash = 2166136261u;
  for (unsigned char c : key) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash;
}

}  // namespace Kiln
