// generated from owner.kiln by kilngen; do not edit
//
// entity Owner : Kiln::PtrInterface
//   nonotify
//   hook construct
//   forward Helper
//   ctor helper : Helper* plain
//   attr on : bool custom
//   ordered slots : U16 -> Slot(width: U8)
//   coll names : Kiln::Name -> Named by name nulltext "no name\""
//   singleton spare : Slot(id: U16, width: U8)
//   recordonly future
//   op static U16 bound()
#include "Golden/Owner.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Owner";

class OwnerTypeRecord : public Kiln::TypeRecord {
 public:
  OwnerTypeRecord()
      : Kiln::TypeRecord("Golden::Owner",
                         std::is_base_of_v<Kiln::Entity, Owner> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::ptrInterfaceType(),
                         {
                             {"on", Owner::kilnOnIndex, Kiln::AttributeKind::scalar, "bool", ""},
                             {"slots", Owner::kilnSlotsIndex, Kiln::AttributeKind::orderedCollection, "Slot", "U16"},
                             {"names", Owner::kilnNamesIndex, Kiln::AttributeKind::collection, "Named", "Kiln::Name"},
                             {"spare", Owner::kilnSpareIndex, Kiln::AttributeKind::singleton, "Slot", ""},
                             {"future", Owner::kilnFutureIndex, Kiln::AttributeKind::recordOnly, "", ""},
                         },
                         {
                             {"bound", Owner::kilnBoundIndex, "U16", {}, {}},
                         }) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Owner&>(o);
    switch (index) {
      case Owner::kilnOnIndex: return Kiln::reflectText(self.on());
      case Owner::kilnSpareIndex: return Kiln::reflectText(self.spare());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Owner&>(o);
    switch (index) {
      case Owner::kilnOnIndex:
        self.onIs(Kiln::reflectParse<bool>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  std::vector<Kiln::MemberText> kilnMembers(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Owner&>(o);
    switch (index) {
      case Owner::kilnSlotsIndex: return Kiln::reflectMembers(self.slots());
      case Owner::kilnNamesIndex: return Kiln::reflectMembers(self.names());
    }
    return TypeRecord::kilnMembers(o, index);
  }

  void kilnMemberDel(Kiln::PtrInterface& o, U32 index, std::string_view keyText) const override {
    auto& self = dynamic_cast<Owner&>(o);
    switch (index) {
      case Owner::kilnSlotsIndex:
        self.slotsDel(Kiln::reflectParse<U16>(keyText));
        return;
      case Owner::kilnNamesIndex:
        self.namesDel(Kiln::reflectParse<Kiln::Name>(keyText));
        return;
    }
    TypeRecord::kilnMemberDel(o, index, keyText);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnChild(const Kiln::PtrInterface& o, U32 index,
                                           std::string_view keyText) const override {
    const auto& self = dynamic_cast<const Owner&>(o);
    switch (index) {
      case Owner::kilnSlotsIndex: return Kiln::reflectChild(self.slots(Kiln::reflectParse<U16>(keyText)));
      case Owner::kilnNamesIndex: return Kiln::reflectChild(self.names(Kiln::reflectParse<Kiln::Name>(keyText)));
      case Owner::kilnSpareIndex: return Kiln::reflectChild(self.spare());
    }
    return TypeRecord::kilnChild(o, index, keyText);
  }

  std::string kilnInvoke(Kiln::PtrInterface& o, const Kiln::OperationRecord& op,
                         const std::vector<std::string>& args) const override {
    [[maybe_unused]] auto& self = dynamic_cast<Owner&>(o);
    switch (op.index) {
      case Owner::kilnBoundIndex:
        return Kiln::reflectText(Owner::bound());
    }
    return TypeRecord::kilnInvoke(o, op, args);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 1);
    return Kiln::kilnNew<Owner>(Kiln::reflectParse<Helper*>(args[0]));
  }
};

}  // namespace

Owner::Owner(Helper* helper)
    : Kiln::PtrInterface(), helper_(helper) {
  constructHook();
}

Owner::~Owner() {
  Kiln::kilnOrphanAll(slots_, this);
  Kiln::kilnOrphan(spare_, this);
}

const Kiln::TypeRecord& Owner::kilnType() {
  static const OwnerTypeRecord record;
  return record;
}

}  // namespace Golden
