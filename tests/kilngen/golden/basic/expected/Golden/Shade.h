// generated from widget.kiln by kilngen; do not edit
//
// enum Shade
//   dark = 0
//   light = 3
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "Kiln/Support.h"

namespace Golden {

// Shade: values of the registered table Golden::Shade.
enum Shade {
  dark = 0,
  light = 3,
};

// The name of e in Shade's registered value table (e's number in decimal
// when the table has none); valueToStrep and operator<< write the same.
Kiln::String8 stringValue(Shade e);
std::string valueToStrep(Shade e);
std::ostream& operator<<(std::ostream& out, Shade e);
// Reads a value's name; throws Kiln::DeserializationException for a name the
// table has not.
void sequenceToValue(Kiln::TextReader& in, Shade& e);
// The value with that number or name in the registered table, if any.
std::optional<Shade> ShadeInstance(U32 value);
std::optional<Shade> ShadeInstance(const Kiln::String8& name);
// The registered record of Golden::Shade.
const Kiln::TypeRecord& ShadeKilnType();

}  // namespace Golden
