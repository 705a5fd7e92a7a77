// generated from tuning.kiln by kilngen; do not edit
//
// Registers the records of these types when the library loads, in declaration
// order, and removes them when it unloads.
#include "Kiln/TypeRecord.h"

#include "Golden/Tuning.h"

namespace {

const Kiln::TypeRegistration kilnRegistration0(Golden::Tuning::kilnType());

}  // namespace
