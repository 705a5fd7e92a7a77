#include "Kiln/TypeRecord.h"

#include <algorithm>
#include <map>

#include "Kiln/Entity.h"
#include "Kiln/Strep.h"

namespace Kiln {

const char* attributeKindName(AttributeKind kind) {
  switch (kind) {
    case AttributeKind::field: return "field";
    case AttributeKind::derived: return "derived";
    case AttributeKind::scalar: return "scalar";
    case AttributeKind::counter: return "counter";
    case AttributeKind::key: return "key";
    case AttributeKind::constructorParameter: return "ctor";
    case AttributeKind::collection: return "collection";
    case AttributeKind::orderedCollection: return "ordered";
    case AttributeKind::queue: return "queue";
    case AttributeKind::queueMetadata: return "queueMetadata";
    case AttributeKind::singleton: return "singleton";
    case AttributeKind::reference: return "reference";
    case AttributeKind::recordOnly: return "recordOnly";
    case AttributeKind::base: return "base";
  }
  return "?";
}

TypeRecord::TypeRecord(std::string name, TypeKind kind, const TypeRecord* base,
                       std::vector<AttributeRecord> attributes,
                       std::vector<OperationRecord> operations,
                       std::vector<EnumValueRecord> enumValues)
    : name_(std::move(name)),
      kind_(kind),
      base_(base),
      attributes_(std::move(attributes)),
      operations_(std::move(operations)),
      enumValues_(std::move(enumValues)) {}

std::vector<const AttributeRecord*> TypeRecord::attributes() const {
  std::vector<const AttributeRecord*> all;
  if (base_) all = base_->attributes();
  for (const auto& a : attributes_) all.push_back(&a);
  return all;
}

const AttributeRecord* TypeRecord::attribute(U32 index) const {
  for (const auto& a : attributes_) {
    if (a.index == index) return &a;
  }
  return base_ ? base_->attribute(index) : nullptr;
}

const AttributeRecord* TypeRecord::attribute(std::string_view name) const {
  for (const auto& a : attributes_) {
    if (a.name == name) return &a;
  }
  return base_ ? base_->attribute(name) : nullptr;
}

const OperationRecord* TypeRecord::operation(std::string_view name) const {
  for (const auto& op : operations_) {
    if (op.name == name) return &op;
  }
  return base_ ? base_->operation(name) : nullptr;
}

std::optional<EnumValueRecord> TypeRecord::enumValue(S64 value) const {
  for (const auto& v : enumValues_) {
    if (v.value == value) return v;
  }
  return std::nullopt;
}

std::optional<EnumValueRecord> TypeRecord::enumValue(std::string_view name) const {
  for (const auto& v : enumValues_) {
    if (v.name == name) return v;
  }
  return std::nullopt;
}

U32 TypeRecord::indexOf(std::string_view name) const {
  const AttributeRecord* a = attribute(name);
  if (!a) notSupported("attribute", name);
  return a->index;
}

std::string TypeRecord::get(const PtrInterface& o, U32 index) const { return kilnGet(o, index); }
std::string TypeRecord::get(const PtrInterface& o, std::string_view name) const {
  return kilnGet(o, indexOf(name));
}

void TypeRecord::set(PtrInterface& o, U32 index, std::string_view text) const {
  kilnSet(o, index, text);
}
void TypeRecord::set(PtrInterface& o, std::string_view name, std::string_view text) const {
  kilnSet(o, indexOf(name), text);
}

std::vector<MemberText> TypeRecord::members(const PtrInterface& o, U32 index) const {
  return kilnMembers(o, index);
}
std::vector<MemberText> TypeRecord::members(const PtrInterface& o, std::string_view name) const {
  return kilnMembers(o, indexOf(name));
}

void TypeRecord::memberIs(PtrInterface& o, U32 index, std::string_view keyText,
                          std::string_view valueText) const {
  kilnMemberIs(o, index, keyText, valueText);
}
void TypeRecord::memberIs(PtrInterface& o, std::string_view name, std::string_view keyText,
                          std::string_view valueText) const {
  kilnMemberIs(o, indexOf(name), keyText, valueText);
}

void TypeRecord::memberDel(PtrInterface& o, std::string_view name, std::string_view keyText) const {
  kilnMemberDel(o, indexOf(name), keyText);
}

Ptr<PtrInterface> TypeRecord::child(const PtrInterface& o, std::string_view name,
                                    std::string_view keyText) const {
  return kilnChild(o, indexOf(name), keyText);
}

std::string TypeRecord::invoke(PtrInterface& o, std::string_view name,
                               const std::vector<std::string>& args) const {
  const OperationRecord* op = operation(name);
  if (!op) notSupported("operation", name);
  expectArguments(name, args, op->parameterNames.size());
  return kilnInvoke(o, *op, args);
}

Ptr<PtrInterface> TypeRecord::construct(const std::vector<std::string>& args) const {
  return kilnConstruct(args);
}

std::string TypeRecord::constructValue(const std::vector<std::string>& args) const {
  return kilnConstructValue(args);
}

std::string TypeRecord::parseValue(std::string_view text) const { return kilnParseValue(text); }

std::string TypeRecord::getValue(std::string_view text, std::string_view name) const {
  return kilnGetValue(text, indexOf(name));
}

U32 TypeRecord::hashValue(std::string_view text) const { return kilnHashValue(text); }

// An entity's record forwards what it does not handle itself to its base's.

std::string TypeRecord::kilnGet(const PtrInterface& o, U32 index) const {
  if (base_) return base_->kilnGet(o, index);
  notSupported(o, "readable attribute", index);
}

void TypeRecord::kilnSet(PtrInterface& o, U32 index, std::string_view text) const {
  if (base_) return base_->kilnSet(o, index, text);
  notSupported(o, "writable attribute", index);
}

std::vector<MemberText> TypeRecord::kilnMembers(const PtrInterface& o, U32 index) const {
  if (base_) return base_->kilnMembers(o, index);
  notSupported(o, "collection attribute", index);
}

void TypeRecord::kilnMemberIs(PtrInterface& o, U32 index, std::string_view keyText,
                              std::string_view valueText) const {
  if (base_) return base_->kilnMemberIs(o, index, keyText, valueText);
  notSupported(o, "value collection attribute", index);
}

void TypeRecord::kilnMemberDel(PtrInterface& o, U32 index, std::string_view keyText) const {
  if (base_) return base_->kilnMemberDel(o, index, keyText);
  notSupported(o, "collection attribute", index);
}

Ptr<PtrInterface> TypeRecord::kilnChild(const PtrInterface& o, U32 index,
                                        std::string_view keyText) const {
  if (base_) return base_->kilnChild(o, index, keyText);
  notSupported(o, "entity attribute", index);
}

std::string TypeRecord::kilnInvoke(PtrInterface& o, const OperationRecord& op,
                                   const std::vector<std::string>& args) const {
  if (base_) return base_->kilnInvoke(o, op, args);
  o.fwkType().notSupported("invocable operation", op.name);
}

Ptr<PtrInterface> TypeRecord::kilnConstruct(const std::vector<std::string>&) const {
  notSupported("constructor", "by name");
}

std::string TypeRecord::kilnConstructValue(const std::vector<std::string>&) const {
  notSupported("value constructor", "from arguments");
}

std::string TypeRecord::kilnParseValue(std::string_view) const {
  notSupported("value constructor", "from text");
}

std::string TypeRecord::kilnGetValue(std::string_view, U32 index) const {
  notSupported("value attribute", index);
}

U32 TypeRecord::kilnHashValue(std::string_view) const { notSupported("operation", "hash"); }

void TypeRecord::notSupported(std::string_view what, std::string_view name) const {
  throw OperationNotSupportedException(name_ + " has no " + std::string(what) + " " +
                                       std::string(name));
}

void TypeRecord::notSupported(std::string_view what, U32 index) const {
  const AttributeRecord* a = attribute(index);
  notSupported(what, a ? a->name : std::to_string(index));
}

void TypeRecord::notSupported(const PtrInterface& o, std::string_view what, U32 index) const {
  o.fwkType().notSupported(what, index);
}

void TypeRecord::expectArguments(std::string_view operation, const std::vector<std::string>& args,
                                 std::size_t count) const {
  if (args.size() != count) {
    throw OperationNotSupportedException(name_ + "::" + std::string(operation) + " takes " +
                                         std::to_string(count) + " arguments, not " +
                                         std::to_string(args.size()));
  }
}

namespace {

struct Registry {
  std::vector<const TypeRecord*> records;  // registration order

  auto find(std::string_view name) {
    return std::find_if(records.begin(), records.end(),
                        [&](const TypeRecord* r) { return r->name() == name; });
  }
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: unloading libraries deregister late
  return *r;
}

}  // namespace

void typeRecordIs(const TypeRecord& record) {
  Registry& r = registry();
  auto it = r.find(record.name());
  if (it != r.records.end()) {
    if (*it == &record) return;
    throw NameInUseException("type " + record.name() + " is already registered");
  }
  r.records.push_back(&record);
}

void typeRecordDel(std::string_view name) {
  Registry& r = registry();
  auto it = r.find(name);
  if (it != r.records.end()) r.records.erase(it);
}

const TypeRecord* typeRecord(std::string_view name) {
  Registry& r = registry();
  auto it = r.find(name);
  return it == r.records.end() ? nullptr : *it;
}

std::vector<const TypeRecord*> typeRecords() { return registry().records; }

std::string entityRefText(const PtrInterface* o) {
  if (!o) return "None";
  std::string text = "Ref('" + o->fwkType().name() + "'";
  if (const auto* e = dynamic_cast<const Entity*>(o)) text += ", " + valueToStrep(e->fullName());
  return text + ")";
}

}  // namespace Kiln
