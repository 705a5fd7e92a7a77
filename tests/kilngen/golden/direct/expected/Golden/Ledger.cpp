// generated from ledger.kiln by kilngen; do not edit
//
// entity Ledger : Kiln::PtrInterface
//   coll slots : U16 -> bool observed direct
//   coll owners : U8 -> U32 direct
//   coll names : U16 -> Kiln::Name inline
//   ordered spare : U16 -> bool observed direct
//   ordered marks : S8 -> U32 direct
#include "Golden/Ledger.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Ledger";

class LedgerTypeRecord : public Kiln::TypeRecord {
 public:
  LedgerTypeRecord()
      : Kiln::TypeRecord("Golden::Ledger",
                         std::is_base_of_v<Kiln::Entity, Ledger> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::ptrInterfaceType(),
                         {
                             {"slots", Ledger::kilnSlotsIndex, Kiln::AttributeKind::collection, "bool", "U16"},
                             {"owners", Ledger::kilnOwnersIndex, Kiln::AttributeKind::collection, "U32", "U8"},
                             {"names", Ledger::kilnNamesIndex, Kiln::AttributeKind::collection, "Kiln::Name", "U16"},
                             {"spare", Ledger::kilnSpareIndex, Kiln::AttributeKind::orderedCollection, "bool", "U16"},
                             {"marks", Ledger::kilnMarksIndex, Kiln::AttributeKind::orderedCollection, "U32", "S8"},
                         },
                         {}) {}

 protected:
  std::vector<Kiln::MemberText> kilnMembers(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Ledger&>(o);
    switch (index) {
      case Ledger::kilnSlotsIndex: return Kiln::reflectMembers(self.slots());
      case Ledger::kilnOwnersIndex: return Kiln::reflectMembers(self.owners());
      case Ledger::kilnNamesIndex: return Kiln::reflectMembers(self.names());
      case Ledger::kilnSpareIndex: return Kiln::reflectMembers(self.spare());
      case Ledger::kilnMarksIndex: return Kiln::reflectMembers(self.marks());
    }
    return TypeRecord::kilnMembers(o, index);
  }

  void kilnMemberIs(Kiln::PtrInterface& o, U32 index, std::string_view keyText,
                    std::string_view valueText) const override {
    auto& self = dynamic_cast<Ledger&>(o);
    switch (index) {
      case Ledger::kilnSlotsIndex:
        self.slotsIs(Kiln::reflectParse<U16>(keyText), Kiln::reflectParse<bool>(valueText));
        return;
      case Ledger::kilnOwnersIndex:
        self.ownersIs(Kiln::reflectParse<U8>(keyText), Kiln::reflectParse<U32>(valueText));
        return;
      case Ledger::kilnNamesIndex:
        self.namesIs(Kiln::reflectParse<U16>(keyText), Kiln::reflectParse<Kiln::Name>(valueText));
        return;
      case Ledger::kilnSpareIndex:
        self.spareIs(Kiln::reflectParse<U16>(keyText), Kiln::reflectParse<bool>(valueText));
        return;
      case Ledger::kilnMarksIndex:
        self.marksIs(Kiln::reflectParse<S8>(keyText), Kiln::reflectParse<U32>(valueText));
        return;
    }
    TypeRecord::kilnMemberIs(o, index, keyText, valueText);
  }

  void kilnMemberDel(Kiln::PtrInterface& o, U32 index, std::string_view keyText) const override {
    auto& self = dynamic_cast<Ledger&>(o);
    switch (index) {
      case Ledger::kilnSlotsIndex:
        self.slotsDel(Kiln::reflectParse<U16>(keyText));
        return;
      case Ledger::kilnOwnersIndex:
        self.ownersDel(Kiln::reflectParse<U8>(keyText));
        return;
      case Ledger::kilnNamesIndex:
        self.namesDel(Kiln::reflectParse<U16>(keyText));
        return;
      case Ledger::kilnSpareIndex:
        self.spareDel(Kiln::reflectParse<U16>(keyText));
        return;
      case Ledger::kilnMarksIndex:
        self.marksDel(Kiln::reflectParse<S8>(keyText));
        return;
    }
    TypeRecord::kilnMemberDel(o, index, keyText);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 0);
    return Kiln::kilnNew<Ledger>();
  }
};

}  // namespace

Ledger::Ledger()
    : Kiln::PtrInterface() {
}

Ledger::~Ledger() {
}

const Kiln::TypeRecord& Ledger::kilnType() {
  static const LedgerTypeRecord record;
  return record;
}

}  // namespace Golden
