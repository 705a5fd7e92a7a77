// Kiln::Entity: the base of every named entity. An entity has a name, a place
// under a parent (the owner whose collection or attribute holds it) and a
// notifiee list.
#pragma once

#include <string>

#include "Kiln/Notifiee.h"
#include "Kiln/Ptr.h"
#include "Kiln/TypeRecord.h"
#include "Kiln/Types.h"

namespace Kiln {

class Entity : public PtrInterface {
 public:
  // Entity's own attributes start at 130 (name); an entity type's at 258.
  static constexpr U32 kilnAttributeStart = PtrInterface::kilnAttributeStart + 128;
  static constexpr U32 kilnNameIndex = 130;
  static constexpr U32 kilnParentIndex = 138;
  static constexpr U32 kilnParentAttrNameIndex = 139;
  static constexpr U32 kilnFullNameIndex = 141;
  static constexpr U32 kilnEntityIndex = 143;

  explicit Entity(const Name& name) : name_(name) {}

  // The entity's name.
  const Name& name() const { return name_; }

  // Restores the name from a backup copy of the state (no notification).
  void nameIsFromBackup(const Name& name) { name_ = name; }

  // The owner that holds this entity, or null. Not a reference: the owner
  // outlives what it holds.
  PtrInterface* parent() const { return parent_; }

  // The name of the owner's attribute that holds this entity, or empty.
  const Name& parentAttrName() const { return parentAttrName_; }

  // The name prefixed with the parent entity's full name and '/', or the name
  // alone when the entity has no parent entity.
  Name fullName() const;

  // This entity.
  const Entity* entity() const { return this; }

  // Records the owner; called by the generated code that creates an entity
  // into an owner's attribute.
  void parentIs(PtrInterface* parent, const Name& attrName) {
    parent_ = parent;
    parentAttrName_ = attrName;
  }

  NotifieeList* notifieeList() const override { return &kilnNotifiees_; }
  void hasNotificationActiveIs(bool active) override { kilnNotifiees_.activeIs(active); }
  void zeroReferencesIs(bool) override;
  const TypeRecord& fwkType() const override { return kilnType(); }

  // The record of Kiln::Entity (its five base attributes).
  static const TypeRecord& kilnType();

 protected:
  // The registered notifiees; mutators test it for emptiness before visiting.
  mutable NotifieeList kilnNotifiees_;

 private:
  Name name_;
  PtrInterface* parent_ = nullptr;
  Name parentAttrName_;
};

// The record of Kiln::PtrInterface (no attributes).
const TypeRecord& ptrInterfaceType();

}  // namespace Kiln
