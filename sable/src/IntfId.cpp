// Hand-written parts of Nimbet::IntfId.
#include "Nimbet/IntfId.h"

#include "Kiln/HashMap.h"

namespace Nimbet {

// The text hash of the name, so that equal identifiers share a bucket.
U32 IntfId::hash() const { return Kiln::kilnHash(name_); }

}  // namespace Nimbet
