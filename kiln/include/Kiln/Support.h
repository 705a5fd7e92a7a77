// What generated types use from the runtime beyond the containers: entity
// creation, the reinstantiation error, the collection text form, and the
// text-based reflective helpers.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiln/Allocator.h"
#include "Kiln/Entity.h"
#include "Kiln/Exception.h"
#include "Kiln/LinkQueue.h"
#include "Kiln/Notifiee.h"
#include "Kiln/Ptr.h"
#include "Kiln/Strep.h"
#include "Kiln/TypeRecord.h"

namespace Kiln {

// The queue metadata's text form:
// Value('Kiln::LinkQueueMetadata', ** {'headIndex': 0, 'nextIndex': 0}).
std::string valueToStrep(const LinkQueueMetadata& m);
void sequenceToValue(TextReader& in, LinkQueueMetadata& m);

// Reads one value's text form at the reader's position (a T found by
// argument-dependent lookup as well as the scalars).
template <class T>
void readValue(TextReader& in, T& v) {
  sequenceToValue(in, v);
}

// Creates a T: through a static T::kilnCreate(args...) when the type declares
// one (which may yield null), otherwise with new T(args...).
template <class T, class... Args>
Ptr<T> kilnNew(Args&&... args) {
  if constexpr (requires { T::kilnCreate(std::forward<Args>(args)...); }) {
    return T::kilnCreate(std::forward<Args>(args)...);
  } else {
    return Ptr<T>(new T(std::forward<Args>(args)...));
  }
}

// Records owner and attribute as the parent of an entity created into an
// owner's attribute; other objects have no parent.
template <class T>
void kilnAdopt(const Ptr<T>& child, PtrInterface* owner, const char* attrName) {
  if constexpr (std::is_base_of_v<Entity, T>) child->parentIs(owner, attrName);
}

// Forgets owner as the parent of an entity it no longer holds (deleted, or
// the owner going), so that no entity keeps a parent that may be gone.
template <class T>
void kilnOrphan(const Ptr<T>& child, const PtrInterface* owner) {
  if constexpr (std::is_base_of_v<Entity, T>) {
    if (child && child->parent() == owner) child->parentIs(nullptr, "");
  }
}

// kilnOrphan for every entity of a collection.
template <class Map>
void kilnOrphanAll(const Map& map, const PtrInterface* owner) {
  for (const auto& m : map) kilnOrphan(m.value(), owner);
}

// Throws NameInUseException("Reinstantiating the pointer interface where
// constructor parameter attribute _<param> has a different value of <new>
// than the current value of <current> not allowed").
[[noreturn]] void reinstantiationError(const char* param, const std::string& newText,
                                       const std::string& currentText);

// The text of a collection: {key: value, key: value} in iteration order,
// with keys and values in their own text forms ({} when empty).
template <class Map>
std::string collectionToStrep(const Map& map);

// Reads a collection's text form, calling insert(key, value) per member.
template <class K, class V, class Insert>
void readCollection(TextReader& in, Insert&& insert) {
  in.expect("{");
  if (in.skip("}")) return;
  do {
    K key{};
    V value{};
    readValue(in, key);
    in.expect(": ");
    readValue(in, value);
    insert(key, value);
  } while (in.skip(", "));
  in.expect("}");
}

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};

// The text of a value crossing the reflective interface: its strep, or for
// an entity pointer "None" / Ref(...).
template <class T>
std::string reflectText(const T& v) {
  if constexpr (IsPtr<T>::value) {
    return entityRefText(v.ptr());
  } else if constexpr (std::is_pointer_v<T> && std::is_convertible_v<T, const PtrInterface*>) {
    return entityRefText(v);
  } else if constexpr (HasStrep<T>) {
    return valueToStrep(v);
  } else {
    throw OperationNotSupportedException("a value of this type has no text form");
  }
}

// Parses the whole text as a T for the reflective interface; a type without
// a text form is not supported.
template <class T>
T reflectParse(std::string_view text) {
  if constexpr (Parsable<T>) {
    TextReader in(text);
    T v{};
    readValue(in, v);
    in.expectEnd();
    return v;
  } else {
    throw OperationNotSupportedException("a value of this type cannot be parsed from text");
  }
}

// The (key, value) texts of every member of a container, in its order.
template <class Map>
std::vector<MemberText> reflectMembers(const Map& map) {
  std::vector<MemberText> texts;
  for (const auto& m : map) texts.emplace_back(reflectText(m.key()), reflectText(m.value()));
  return texts;
}

// An entity pointer as the reflective interface hands it out.
template <class T>
Ptr<PtrInterface> reflectChild(const Ptr<T>& p) {
  return Ptr<PtrInterface>(const_cast<std::remove_const_t<T>*>(p.ptr()));
}

template <class Map>
std::string collectionToStrep(const Map& map) {
  std::string text = "{";
  bool first = true;
  for (const auto& m : map) {
    if (!first) text += ", ";
    first = false;
    text += reflectText(m.key()) + ": " + reflectText(m.value());
  }
  return text + "}";
}

}  // namespace Kiln
