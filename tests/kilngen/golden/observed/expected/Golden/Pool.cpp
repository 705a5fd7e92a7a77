// generated from pool.kiln by kilngen; do not edit
//
// entity Pool : Kiln::PtrInterface
//   nonotify
//   ordered free : U16 -> bool observed
//   coll used : U16 -> bool observed
#include "Golden/Pool.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Pool";

class PoolTypeRecord : public Kiln::TypeRecord {
 public:
  PoolTypeRecord()
      : Kiln::TypeRecord("Golden::Pool",
                         std::is_base_of_v<Kiln::Entity, Pool> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::ptrInterfaceType(),
                         {
                             {"free", Pool::kilnFreeIndex, Kiln::AttributeKind::orderedCollection, "bool", "U16"},
                             {"used", Pool::kilnUsedIndex, Kiln::AttributeKind::collection, "bool", "U16"},
                         },
                         {}) {}

 protected:
  std::vector<Kiln::MemberText> kilnMembers(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Pool&>(o);
    switch (index) {
      case Pool::kilnFreeIndex: return Kiln::reflectMembers(self.free());
      case Pool::kilnUsedIndex: return Kiln::reflectMembers(self.used());
    }
    return TypeRecord::kilnMembers(o, index);
  }

  void kilnMemberIs(Kiln::PtrInterface& o, U32 index, std::string_view keyText,
                    std::string_view valueText) const override {
    auto& self = dynamic_cast<Pool&>(o);
    switch (index) {
      case Pool::kilnFreeIndex:
        self.freeIs(Kiln::reflectParse<U16>(keyText), Kiln::reflectParse<bool>(valueText));
        return;
      case Pool::kilnUsedIndex:
        self.usedIs(Kiln::reflectParse<U16>(keyText), Kiln::reflectParse<bool>(valueText));
        return;
    }
    TypeRecord::kilnMemberIs(o, index, keyText, valueText);
  }

  void kilnMemberDel(Kiln::PtrInterface& o, U32 index, std::string_view keyText) const override {
    auto& self = dynamic_cast<Pool&>(o);
    switch (index) {
      case Pool::kilnFreeIndex:
        self.freeDel(Kiln::reflectParse<U16>(keyText));
        return;
      case Pool::kilnUsedIndex:
        self.usedDel(Kiln::reflectParse<U16>(keyText));
        return;
    }
    TypeRecord::kilnMemberDel(o, index, keyText);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 0);
    return Kiln::kilnNew<Pool>();
  }
};

}  // namespace

Pool::Pool()
    : Kiln::PtrInterface() {
}

Pool::~Pool() {
}

const Kiln::TypeRecord& Pool::kilnType() {
  static const PoolTypeRecord record;
  return record;
}

}  // namespace Golden
