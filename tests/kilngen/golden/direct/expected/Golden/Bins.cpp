// generated from ledger.kiln by kilngen; do not edit
//
// value Bins
//   coll bin : S16 -> U64 direct
#include "Golden/Bins.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Bins";

class BinsTypeRecord : public Kiln::TypeRecord {
 public:
  BinsTypeRecord()
      : Kiln::TypeRecord("Golden::Bins", Kiln::TypeKind::value, nullptr,
                         {
                             {"bin", Bins::kilnBinIndex, Kiln::AttributeKind::collection, "U64", "S16"},
                         }) {}

 protected:
  // Arguments: the fields' texts in declaration order; missing ones keep their
  // defaults.
  std::string kilnConstructValue(const std::vector<std::string>& args) const override {
    if (args.size() > 1) expectArguments("constructor", args, 1);
    Bins v;
    if (args.size() > 0) v = Kiln::reflectParse<Bins>(args[0]);
    return Kiln::reflectText(v);
  }

  std::string kilnParseValue(std::string_view text) const override {
    return Kiln::reflectText(Bins::fromStrep(text));
  }

  std::string kilnGetValue(std::string_view text, U32 index) const override {
    const Bins v = Bins::fromStrep(text);
    switch (index) {
      case Bins::kilnBinIndex: return Kiln::collectionToStrep(v.bin());
    }
    return TypeRecord::kilnGetValue(text, index);
  }

  U32 kilnHashValue(std::string_view text) const override {
    static_cast<void>(text);
    throw Kiln::UnhashableTypeException("Golden::Bins is not hashable");
  }
};

}  // namespace

const Kiln::TypeRecord& Bins::kilnType() {
  static const BinsTypeRecord record;
  return record;
}

Bins Bins::fromStrep(std::string_view text) {
  Kiln::TextReader in(text);
  Bins v;
  sequenceToValue(in, v);
  in.expectEnd();
  return v;
}

std::string valueToStrep(const Bins& v) {
  static_cast<void>(v);
  // A value holding a collection has no text form.
  return "None";
}

std::ostream& operator<<(std::ostream& out, const Bins& v) {
  return out << valueToStrep(v);
}

void sequenceToValue(Kiln::TextReader& in, Bins& v) {
  // The collection's text form: {key: value, ...}.
  Bins parsed;
  Kiln::readCollection<S16, U64>(in, [&](S16 key, U64 value) {
    parsed.binIs(key, value);
  });
  v = parsed;
}

}  // namespace Golden
