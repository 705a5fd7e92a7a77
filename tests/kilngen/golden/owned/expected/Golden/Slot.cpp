// generated from owner.kiln by kilngen; do not edit
//
// entity Slot : Kiln::PtrInterface
//   key id : U16
//   ctor width : U8
#include "Golden/Slot.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Slot";

class SlotTypeRecord : public Kiln::TypeRecord {
 public:
  SlotTypeRecord()
      : Kiln::TypeRecord("Golden::Slot",
                         std::is_base_of_v<Kiln::Entity, Slot> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::ptrInterfaceType(),
                         {
                             {"id", Slot::kilnIdIndex, Kiln::AttributeKind::key, "U16", ""},
                             {"width", Slot::kilnWidthIndex, Kiln::AttributeKind::constructorParameter, "U8", ""},
                         },
                         {}) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Slot&>(o);
    switch (index) {
      case Slot::kilnIdIndex: return Kiln::reflectText(self.id());
      case Slot::kilnWidthIndex: return Kiln::reflectText(self.width());
    }
    return TypeRecord::kilnGet(o, index);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 2);
    return Kiln::kilnNew<Slot>(Kiln::reflectParse<U16>(args[0]), Kiln::reflectParse<U8>(args[1]));
  }
};

}  // namespace

Slot::Slot(U16 id, U8 width)
    : Kiln::PtrInterface(), id_(id), width_(width) {
}

Slot::~Slot() {
}

const Kiln::TypeRecord& Slot::kilnType() {
  static const SlotTypeRecord record;
  return record;
}

}  // namespace Golden
