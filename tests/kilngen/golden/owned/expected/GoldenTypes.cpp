// generated from owner.kiln by kilngen; do not edit
//
// Registers the records of these types when the library loads, in declaration
// order, and removes them when it unloads.
#include "Kiln/TypeRecord.h"

#include "Golden/Slot.h"
#include "Golden/Owner.h"
#include "Golden/Named.h"
#include "Golden/Derived.h"

namespace {

const Kiln::TypeRegistration kilnRegistration0(Golden::Slot::kilnType());
const Kiln::TypeRegistration kilnRegistration1(Golden::Owner::kilnType());
const Kiln::TypeRegistration kilnRegistration2(Golden::Named::kilnType());
const Kiln::TypeRegistration kilnRegistration3(Golden::ModeKilnType());
const Kiln::TypeRegistration kilnRegistration4(Golden::Derived::kilnType());

}  // namespace
