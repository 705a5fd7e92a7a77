// generated from ledger.kiln by kilngen; do not edit
//
// Registers the records of these types when the library loads, in declaration
// order, and removes them when it unloads.
#include "Kiln/TypeRecord.h"

#include "Golden/Ledger.h"
#include "Golden/Bins.h"

namespace {

const Kiln::TypeRegistration kilnRegistration0(Golden::Ledger::kilnType());
const Kiln::TypeRegistration kilnRegistration1(Golden::Bins::kilnType());

}  // namespace
