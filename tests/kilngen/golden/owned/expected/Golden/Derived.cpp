// generated from owner.kiln by kilngen; do not edit
//
// entity Derived : Base::Thing(name: Kiln::Name, size: U32)
//   include "Base/Thing.h"
//   attr level : S16 = -3
#include "Golden/Derived.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Derived";

class DerivedTypeRecord : public Kiln::TypeRecord {
 public:
  DerivedTypeRecord()
      : Kiln::TypeRecord("Golden::Derived",
                         std::is_base_of_v<Kiln::Entity, Derived> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Base::Thing::kilnType(),
                         {
                             {"level", Derived::kilnLevelIndex, Kiln::AttributeKind::scalar, "S16", ""},
                         },
                         {}) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Derived&>(o);
    switch (index) {
      case Derived::kilnLevelIndex: return Kiln::reflectText(self.level());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Derived&>(o);
    switch (index) {
      case Derived::kilnLevelIndex:
        self.levelIs(Kiln::reflectParse<S16>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 2);
    return Kiln::kilnNew<Derived>(Kiln::reflectParse<Kiln::Name>(args[0]), Kiln::reflectParse<U32>(args[1]));
  }
};

}  // namespace

Derived::Derived(const Kiln::Name& name, U32 size)
    : Base::Thing(name, size) {
}

Derived::~Derived() {
}

const Kiln::TypeRecord& Derived::kilnType() {
  static const DerivedTypeRecord record;
  return record;
}

Kiln::Ptr<Derived> derivedFactory(const Kiln::Name& name, U32 size) {
  return Derived::DerivedIs(name, size);
}

}  // namespace Golden
