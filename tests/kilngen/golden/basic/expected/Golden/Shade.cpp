// generated from widget.kiln by kilngen; do not edit
//
// enum Shade
//   dark = 0
//   light = 3
#include "Golden/Shade.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnShadeTypeName[] = "Golden::Shade";

class ShadeTypeRecord : public Kiln::TypeRecord {
 public:
  ShadeTypeRecord()
      : Kiln::TypeRecord("Golden::Shade", Kiln::TypeKind::enumeration, nullptr, {}, {},
                         {{"dark", 0}, {"light", 3}}) {}

 protected:
  std::string kilnParseValue(std::string_view text) const override {
    return valueToStrep(Kiln::reflectParse<Shade>(text));
  }

  // One argument: the value's name or number.
  std::string kilnConstructValue(const std::vector<std::string>& args) const override {
    expectArguments("constructor", args, 1);
    std::optional<Shade> e = ShadeInstance(args[0]);
    if (!e && !args[0].empty() &&
        args[0].find_first_not_of("0123456789") == std::string::npos) {
      e = ShadeInstance(Kiln::reflectParse<U32>(args[0]));
    }
    if (!e) throw Kiln::DeserializationException("no value " + args[0] + " in " + name());
    return valueToStrep(*e);
  }

  U32 kilnHashValue(std::string_view text) const override {
    return static_cast<U32>(Kiln::reflectParse<Shade>(text));
  }
};

}  // namespace

const Kiln::TypeRecord& ShadeKilnType() {
  static const ShadeTypeRecord record;
  return record;
}

Kiln::String8 stringValue(Shade e) {
  std::optional<Kiln::EnumValueRecord> v = ShadeKilnType().enumValue(static_cast<S64>(e));
  return v ? v->name : std::to_string(static_cast<S64>(e));
}

std::string valueToStrep(Shade e) { return stringValue(e); }

std::ostream& operator<<(std::ostream& out, Shade e) { return out << stringValue(e); }

void sequenceToValue(Kiln::TextReader& in, Shade& e) {
  std::optional<Kiln::EnumValueRecord> v = ShadeKilnType().enumValue(in.identifier());
  if (!v) in.fail("a value name of Golden::Shade");
  e = static_cast<Shade>(v->value);
}

std::optional<Shade> ShadeInstance(U32 value) {
  std::optional<Kiln::EnumValueRecord> v = ShadeKilnType().enumValue(static_cast<S64>(value));
  if (!v) return std::nullopt;
  return static_cast<Shade>(v->value);
}

std::optional<Shade> ShadeInstance(const Kiln::String8& name) {
  std::optional<Kiln::EnumValueRecord> v = ShadeKilnType().enumValue(name);
  if (!v) return std::nullopt;
  return static_cast<Shade>(v->value);
}

}  // namespace Golden
