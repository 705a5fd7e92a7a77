// Hand-written parts of Brevant::LagIndex.
#include "Brevant/LagIndex.h"

namespace Brevant {

// The index itself, so that invalidLag (-1) hashes to all bits set.
U32 LagIndex::hash() const { return static_cast<U32>(value_); }

}  // namespace Brevant
