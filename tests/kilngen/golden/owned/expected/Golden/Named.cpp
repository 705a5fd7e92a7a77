// generated from owner.kiln by kilngen; do not edit
//
// entity Named : Kiln::Entity
//   include <vector>
//   ctor mode : Mode
//   enum Mode
//     idle = 0
//     busy = 2
//   counter visits : U8
//   op virtual void visited(U16 times)
//   member std::vector<int> extra;
#include "Golden/Named.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Named";
[[gnu::used, gnu::section(".kiln.type")]] const char kilnModeTypeName[] = "Golden::Named::Mode";

class NamedTypeRecord : public Kiln::TypeRecord {
 public:
  NamedTypeRecord()
      : Kiln::TypeRecord("Golden::Named",
                         std::is_base_of_v<Kiln::Entity, Named> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::Entity::kilnType(),
                         {
                             {"mode", Named::kilnModeIndex, Kiln::AttributeKind::constructorParameter, "Mode", ""},
                             {"visits", Named::kilnVisitsIndex, Kiln::AttributeKind::counter, "U8", ""},
                         },
                         {
                             {"visited", Named::kilnVisitedIndex, "void", {"times"}, {"U16"}},
                         }) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Named&>(o);
    switch (index) {
      case Named::kilnModeIndex: return Kiln::reflectText(self.mode());
      case Named::kilnVisitsIndex: return Kiln::reflectText(self.visits());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Named&>(o);
    switch (index) {
      case Named::kilnVisitsIndex:
        self.visitsIs(Kiln::reflectParse<U8>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  std::string kilnInvoke(Kiln::PtrInterface& o, const Kiln::OperationRecord& op,
                         const std::vector<std::string>& args) const override {
    [[maybe_unused]] auto& self = dynamic_cast<Named&>(o);
    switch (op.index) {
      case Named::kilnVisitedIndex:
        self.visited(Kiln::reflectParse<U16>(args[0]));
        return "";
    }
    return TypeRecord::kilnInvoke(o, op, args);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 2);
    return Kiln::kilnNew<Named>(Kiln::reflectParse<Kiln::Name>(args[0]), Kiln::reflectParse<Named::Mode>(args[1]));
  }
};

class ModeTypeRecord : public Kiln::TypeRecord {
 public:
  ModeTypeRecord()
      : Kiln::TypeRecord("Golden::Named::Mode", Kiln::TypeKind::enumeration, nullptr, {}, {},
                         {{"idle", 0}, {"busy", 2}}) {}

 protected:
  std::string kilnParseValue(std::string_view text) const override {
    return valueToStrep(Kiln::reflectParse<Named::Mode>(text));
  }

  // One argument: the value's name or number.
  std::string kilnConstructValue(const std::vector<std::string>& args) const override {
    expectArguments("constructor", args, 1);
    std::optional<Named::Mode> e = ModeInstance(args[0]);
    if (!e && !args[0].empty() &&
        args[0].find_first_not_of("0123456789") == std::string::npos) {
      e = ModeInstance(Kiln::reflectParse<U32>(args[0]));
    }
    if (!e) throw Kiln::DeserializationException("no value " + args[0] + " in " + name());
    return valueToStrep(*e);
  }

  U32 kilnHashValue(std::string_view text) const override {
    return static_cast<U32>(Kiln::reflectParse<Named::Mode>(text));
  }
};

}  // namespace

Named::Named(const Kiln::Name& name, Mode mode)
    : Kiln::Entity(name), mode_(mode) {
}

Named::~Named() {
}

const Kiln::TypeRecord& Named::kilnType() {
  static const NamedTypeRecord record;
  return record;
}

Kiln::Ptr<Named> namedFactory(const Kiln::Name& name, Mode mode) {
  return Named::NamedIs(name, mode);
}

const Kiln::TypeRecord& ModeKilnType() {
  static const ModeTypeRecord record;
  return record;
}

Kiln::String8 stringValue(Named::Mode e) {
  std::optional<Kiln::EnumValueRecord> v = ModeKilnType().enumValue(static_cast<S64>(e));
  return v ? v->name : std::to_string(static_cast<S64>(e));
}

std::string valueToStrep(Named::Mode e) { return stringValue(e); }

std::ostream& operator<<(std::ostream& out, Named::Mode e) { return out << stringValue(e); }

void sequenceToValue(Kiln::TextReader& in, Named::Mode& e) {
  std::optional<Kiln::EnumValueRecord> v = ModeKilnType().enumValue(in.identifier());
  if (!v) in.fail("a value name of Golden::Named::Mode");
  e = static_cast<Named::Mode>(v->value);
}

std::optional<Named::Mode> ModeInstance(U32 value) {
  std::optional<Kiln::EnumValueRecord> v = ModeKilnType().enumValue(static_cast<S64>(value));
  if (!v) return std::nullopt;
  return static_cast<Named::Mode>(v->value);
}

std::optional<Named::Mode> ModeInstance(const Kiln::String8& name) {
  std::optional<Kiln::EnumValueRecord> v = ModeKilnType().enumValue(name);
  if (!v) return std::nullopt;
  return static_cast<Named::Mode>(v->value);
}

}  // namespace Golden
