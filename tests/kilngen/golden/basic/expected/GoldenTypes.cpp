// generated from widget.kiln by kilngen; do not edit
//
// Registers the records of these types when the library loads, in declaration
// order, and removes them when it unloads.
#include "Kiln/TypeRecord.h"

#include "Golden/Shade.h"
#include "Golden/Point.h"
#include "Golden/Widget.h"

namespace {

const Kiln::TypeRegistration kilnRegistration0(Golden::ShadeKilnType());
const Kiln::TypeRegistration kilnRegistration1(Golden::Point::kilnType());
const Kiln::TypeRegistration kilnRegistration2(Golden::Widget::kilnType());

}  // namespace
