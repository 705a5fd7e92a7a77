#include "Kiln/Entity.h"

#include "Kiln/Strep.h"

namespace Kiln {

namespace {

class PtrInterfaceType : public TypeRecord {
 public:
  PtrInterfaceType() : TypeRecord("Kiln::PtrInterface", TypeKind::pointerInterface, nullptr, {}) {}
};

class EntityType : public TypeRecord {
 public:
  EntityType()
      : TypeRecord(
            "Kiln::Entity", TypeKind::entity, &ptrInterfaceType(),
            {{"name", Entity::kilnNameIndex, AttributeKind::base, "Kiln::Name", ""},
             {"parent", Entity::kilnParentIndex, AttributeKind::base, "Kiln::PtrInterface*", ""},
             {"parentAttrName", Entity::kilnParentAttrNameIndex, AttributeKind::base, "Kiln::Name",
              ""},
             {"fullName", Entity::kilnFullNameIndex, AttributeKind::base, "Kiln::Name", ""},
             {"entity", Entity::kilnEntityIndex, AttributeKind::base, "Kiln::Entity*", ""}}) {}

 protected:
  std::string kilnGet(const PtrInterface& o, U32 index) const override {
    const auto& e = dynamic_cast<const Entity&>(o);
    switch (index) {
      case Entity::kilnNameIndex: return valueToStrep(e.name());
      case Entity::kilnParentIndex: return entityRefText(e.parent());
      case Entity::kilnParentAttrNameIndex: return valueToStrep(e.parentAttrName());
      case Entity::kilnFullNameIndex: return valueToStrep(e.fullName());
      case Entity::kilnEntityIndex: return entityRefText(e.entity());
    }
    return TypeRecord::kilnGet(o, index);
  }

  Ptr<PtrInterface> kilnChild(const PtrInterface& o, U32 index,
                              std::string_view keyText) const override {
    const auto& e = dynamic_cast<const Entity&>(o);
    if (index == Entity::kilnParentIndex) return e.parent();
    if (index == Entity::kilnEntityIndex) return const_cast<Entity*>(&e);
    return TypeRecord::kilnChild(o, index, keyText);
  }
};

// The runtime's own records are registered with the library.
const TypeRegistration ptrInterfaceRegistration(ptrInterfaceType());
const TypeRegistration entityRegistration(Entity::kilnType());

}  // namespace

const TypeRecord& ptrInterfaceType() {
  static const PtrInterfaceType record;
  return record;
}

const TypeRecord& Entity::kilnType() {
  static const EntityType record;
  return record;
}

const TypeRecord& PtrInterface::fwkType() const { return ptrInterfaceType(); }

Name Entity::fullName() const {
  if (const auto* p = dynamic_cast<const Entity*>(parent_)) return p->fullName() + "/" + name_;
  return name_;
}

void Entity::zeroReferencesIs(bool) {
  if (!kilnNotifiees_.empty()) doVisit(kilnNotifiees_, &NotifieeConst::onZeroReferences);
}

}  // namespace Kiln
