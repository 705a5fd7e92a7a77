// generated from owner.kiln by kilngen; do not edit
//
// entity Special : Base::Thing(name: Kiln::Name, size: U32)
//   include "Base/Thing.h"
//   attr level : S16 = -3
#include "Golden/Special.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Special";

class SpecialTypeRecord : public Kiln::TypeRecord {
 public:
  SpecialTypeRecord()
      : Kiln::TypeRecord("Golden::Special",
                         std::is_base_of_v<Kiln::Entity, Special> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Base::Thing::kilnType(),
                         {
                             {"level", Special::kilnLevelIndex, Kiln::AttributeKind::scalar, "S16", ""},
                         },
                         {}) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Special&>(o);
    switch (index) {
      case Special::kilnLevelIndex: return Kiln::reflectText(self.level());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Special&>(o);
    switch (index) {
      case Special::kilnLevelIndex:
        self.levelIs(Kiln::reflectParse<S16>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 2);
    return Kiln::kilnNew<Special>(Kiln::reflectParse<Kiln::Name>(args[0]), Kiln::reflectParse<U32>(args[1]));
  }
};

}  // namespace

Special::Special(const Kiln::Name& name, U32 size)
    : Base::Thing(name, size) {
}

Special::~Special() {
}

const Kiln::TypeRecord& Special::kilnType() {
  static const SpecialTypeRecord record;
  return record;
}

Kiln::Ptr<Special> specialFactory(const Kiln::Name& name, U32 size) {
  return Special::SpecialIs(name, size);
}

}  // namespace Golden
