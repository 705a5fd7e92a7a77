// The type registry: one record per registered type, naming the type, its
// attributes and operations (with their indexes) and, for an enumeration, its
// value table; and the reflective interface that reads and writes attributes,
// iterates collections, invokes operations and constructs objects by name.
//
// Values cross the reflective interface as their text form (Kiln/Strep.h):
// get returns an attribute's text, set parses one, invoke takes its arguments
// as texts and returns the result's text ("" for an operation returning
// nothing). An entity held by an attribute is written "None" when absent and
// Ref('<Qualified::Type>', '<fullName>') (Ref('<Qualified::Type>') for a
// pointer interface without a name) otherwise.
//
// Index numbering: a value type's attributes start at 2; a pointer interface's
// own attributes at 130; Kiln::Entity's base attributes are name 130, parent
// 138, parentAttrName 139, fullName 141, entity 143; an entity's own start at
// 258, and each further level of derivation adds 128. Within one level,
// attributes and operations share one numbering in declaration order (a queue
// takes two indexes, its metadata first).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

enum class TypeKind { value, enumeration, pointerInterface, entity };

enum class AttributeKind {
  field,    // a value type's field
  derived,  // a value type's read-only attribute computed from its fields
  scalar,
  counter,
  key,                   // fixed at construction; the key in the owner's collection
  constructorParameter,  // fixed at construction
  collection,            // Kiln::HashMap
  orderedCollection,     // Kiln::RbTreeMap or Kiln::DirectOrderedMap
  queue,                 // Kiln::LinkQueue
  queueMetadata,         // the queue's head and next index
  singleton,             // an entity the owner creates and deletes
  reference,             // an entity owned elsewhere
  recordOnly,            // listed in the record, without storage or accessor
  base,                  // one of Kiln::Entity's own attributes
};

// Returns the kind's name as written in schemas ("scalar", "collection", ...).
const char* attributeKindName(AttributeKind kind);

struct AttributeRecord {
  std::string name;
  U32 index = 0;
  AttributeKind kind = AttributeKind::scalar;
  std::string typeName;     // the C++ type of the value (of a member's value)
  std::string keyTypeName;  // the key type of a collection, else empty
  // Declared `settable` in its schema: an operator may change it while the
  // owner runs (through a tool that checks the value first). The reflective
  // set() itself does not look at it.
  bool settable = false;
};

struct OperationRecord {
  std::string name;
  U32 index = 0;
  std::string returnTypeName;
  std::vector<std::string> parameterNames;
  std::vector<std::string> parameterTypeNames;
};

struct EnumValueRecord {
  std::string name;
  S64 value = 0;
};

// A (key text, value text) pair of a collection member.
typedef std::pair<std::string, std::string> MemberText;

class TypeRecord {
 public:
  TypeRecord(std::string name, TypeKind kind, const TypeRecord* base,
             std::vector<AttributeRecord> attributes, std::vector<OperationRecord> operations = {},
             std::vector<EnumValueRecord> enumValues = {});
  TypeRecord(const TypeRecord&) = delete;
  TypeRecord& operator=(const TypeRecord&) = delete;
  virtual ~TypeRecord() = default;

  // The qualified type name, such as "Brevant::SwitchPort".
  const std::string& name() const { return name_; }
  TypeKind kind() const { return kind_; }
  // The record of the base type whose attributes this type inherits, or null.
  const TypeRecord* base() const { return base_; }

  // This type's own attributes and operations, in index order.
  const std::vector<AttributeRecord>& ownAttributes() const { return attributes_; }
  const std::vector<OperationRecord>& ownOperations() const { return operations_; }

  // Every attribute, the base's first, in index order.
  std::vector<const AttributeRecord*> attributes() const;

  // The attribute with that index or name (own or inherited), or null.
  const AttributeRecord* attribute(U32 index) const;
  const AttributeRecord* attribute(std::string_view name) const;

  // The operation with that name (own or inherited), or null.
  const OperationRecord* operation(std::string_view name) const;

  // An enumeration's value table, in declaration order.
  const std::vector<EnumValueRecord>& enumValues() const { return enumValues_; }
  // The enumeration value with that number or name, if the table has it.
  std::optional<EnumValueRecord> enumValue(S64 value) const;
  std::optional<EnumValueRecord> enumValue(std::string_view name) const;

  // --- Reflective interface of entities and pointer interfaces. Each throws
  // OperationNotSupportedException for an attribute or operation the type
  // has not, or one whose kind does not allow the access.

  // The text of attribute `index`/`name` of o (a scalar, counter, key,
  // constructor parameter, queue metadata, singleton, reference or base
  // attribute).
  std::string get(const PtrInterface& o, U32 index) const;
  std::string get(const PtrInterface& o, std::string_view name) const;

  // Parses text and stores it through the attribute's generated mutator
  // (scalars, counters, queue metadata), so the usual notification applies.
  void set(PtrInterface& o, U32 index, std::string_view text) const;
  void set(PtrInterface& o, std::string_view name, std::string_view text) const;

  // The members of a collection or queue attribute, as key and value texts,
  // in the collection's iteration order.
  std::vector<MemberText> members(const PtrInterface& o, U32 index) const;
  std::vector<MemberText> members(const PtrInterface& o, std::string_view name) const;

  // Stores a member of a value-valued collection or queue through its
  // generated xIs(key, value).
  void memberIs(PtrInterface& o, U32 index, std::string_view keyText,
                std::string_view valueText) const;
  void memberIs(PtrInterface& o, std::string_view name, std::string_view keyText,
                std::string_view valueText) const;

  // Deletes a member through the generated xDel(key).
  void memberDel(PtrInterface& o, std::string_view name, std::string_view keyText) const;

  // The entity held by a singleton or reference attribute (keyText ignored),
  // or by an entity collection under keyText; null when absent.
  Ptr<PtrInterface> child(const PtrInterface& o, std::string_view name,
                          std::string_view keyText = {}) const;

  // Invokes the registered operation `name` with arguments given as texts,
  // in the order of its parameter names; returns the result's text.
  std::string invoke(PtrInterface& o, std::string_view name,
                     const std::vector<std::string>& args) const;

  // Constructs a new object of this type from its constructor arguments given
  // as texts (for an entity: its name first).
  Ptr<PtrInterface> construct(const std::vector<std::string>& args) const;

  // --- Reflective interface of value types (values as their text form).

  // The text of the value built from field texts in declaration order;
  // missing trailing fields keep their defaults.
  std::string constructValue(const std::vector<std::string>& args) const;
  // Parses text as this type and returns its text form.
  std::string parseValue(std::string_view text) const;
  // The text of field or derived attribute `name` of the value in text.
  std::string getValue(std::string_view text, std::string_view name) const;
  // The hash of the value in text; UnhashableTypeException for a type that
  // declares itself unhashable.
  U32 hashValue(std::string_view text) const;

 protected:
  // Generated per type. The defaults throw OperationNotSupportedException,
  // except that an entity's hooks default to its base record's.
  virtual std::string kilnGet(const PtrInterface& o, U32 index) const;
  virtual void kilnSet(PtrInterface& o, U32 index, std::string_view text) const;
  virtual std::vector<MemberText> kilnMembers(const PtrInterface& o, U32 index) const;
  virtual void kilnMemberIs(PtrInterface& o, U32 index, std::string_view keyText,
                            std::string_view valueText) const;
  virtual void kilnMemberDel(PtrInterface& o, U32 index, std::string_view keyText) const;
  virtual Ptr<PtrInterface> kilnChild(const PtrInterface& o, U32 index,
                                      std::string_view keyText) const;
  virtual std::string kilnInvoke(PtrInterface& o, const OperationRecord& op,
                                 const std::vector<std::string>& args) const;
  virtual Ptr<PtrInterface> kilnConstruct(const std::vector<std::string>& args) const;
  virtual std::string kilnConstructValue(const std::vector<std::string>& args) const;
  virtual std::string kilnParseValue(std::string_view text) const;
  virtual std::string kilnGetValue(std::string_view text, U32 index) const;
  virtual U32 kilnHashValue(std::string_view text) const;

  // Throws OperationNotSupportedException("<Type> has no <what> <name>").
  [[noreturn]] void notSupported(std::string_view what, std::string_view name) const;
  // Same, naming the attribute with that index.
  [[noreturn]] void notSupported(std::string_view what, U32 index) const;
  // Same, naming o's own type and its attribute with that index: a record
  // reached by forwarding to a base names the object's type, not the base.
  [[noreturn]] void notSupported(const PtrInterface& o, std::string_view what, U32 index) const;
  // Throws unless args has exactly `count` entries.
  void expectArguments(std::string_view operation, const std::vector<std::string>& args,
                       std::size_t count) const;

 private:
  U32 indexOf(std::string_view name) const;

  std::string name_;
  TypeKind kind_;
  const TypeRecord* base_;
  std::vector<AttributeRecord> attributes_;
  std::vector<OperationRecord> operations_;
  std::vector<EnumValueRecord> enumValues_;
};

// Adds a record to the registry (at load time); registering the same record
// again does nothing, another record under a registered name throws
// NameInUseException.
void typeRecordIs(const TypeRecord& record);

// Removes the record registered under that name (when its library unloads).
void typeRecordDel(std::string_view name);

// The record registered under a qualified name, or null.
const TypeRecord* typeRecord(std::string_view name);

// Every registered record, in registration order.
std::vector<const TypeRecord*> typeRecords();

// Registers a record for as long as this object lives: generated
// registration units hold one per type.
class TypeRegistration {
 public:
  explicit TypeRegistration(const TypeRecord& record) : name_(record.name()) {
    typeRecordIs(record);
  }
  ~TypeRegistration() { typeRecordDel(name_); }
  TypeRegistration(const TypeRegistration&) = delete;
  TypeRegistration& operator=(const TypeRegistration&) = delete;

 private:
  std::string name_;
};

// The text of an entity pointer attribute: "None" or Ref(...).
std::string entityRefText(const PtrInterface* o);

}  // namespace Kiln
