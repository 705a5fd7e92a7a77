// generated from widget.kiln by kilngen; do not edit
//
// value Point
//   field x : S32
//   field y : S32 = 7
//   ordered
#include "Golden/Point.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Point";

class PointTypeRecord : public Kiln::TypeRecord {
 public:
  PointTypeRecord()
      : Kiln::TypeRecord("Golden::Point", Kiln::TypeKind::value, nullptr,
                         {
                             {"x", Point::kilnXIndex, Kiln::AttributeKind::field, "S32", ""},
                             {"y", Point::kilnYIndex, Kiln::AttributeKind::field, "S32", ""},
                         }) {}

 protected:
  // Arguments: the fields' texts in declaration order; missing ones keep their
  // defaults.
  std::string kilnConstructValue(const std::vector<std::string>& args) const override {
    if (args.size() > 2) expectArguments("constructor", args, 2);
    Point v;
    if (args.size() > 0) v.xIs(Kiln::reflectParse<S32>(args[0]));
    if (args.size() > 1) v.yIs(Kiln::reflectParse<S32>(args[1]));
    return Kiln::reflectText(v);
  }

  std::string kilnParseValue(std::string_view text) const override {
    return Kiln::reflectText(Point::fromStrep(text));
  }

  std::string kilnGetValue(std::string_view text, U32 index) const override {
    const Point v = Point::fromStrep(text);
    switch (index) {
      case Point::kilnXIndex: return Kiln::reflectText(v.x());
      case Point::kilnYIndex: return Kiln::reflectText(v.y());
    }
    return TypeRecord::kilnGetValue(text, index);
  }

  U32 kilnHashValue(std::string_view text) const override {
    static_cast<void>(text);
    throw Kiln::UnhashableTypeException("Golden::Point is not hashable");
  }
};

}  // namespace

const Kiln::TypeRecord& Point::kilnType() {
  static const PointTypeRecord record;
  return record;
}

Point Point::fromStrep(std::string_view text) {
  Kiln::TextReader in(text);
  Point v;
  sequenceToValue(in, v);
  in.expectEnd();
  return v;
}

std::string valueToStrep(const Point& v) {
  return std::string("Value('Golden::Point', ** {")
         + "'x': " + Kiln::strep(v.x())
         + ", 'y': " + Kiln::strep(v.y())
         + "})";
}

std::ostream& operator<<(std::ostream& out, const Point& v) {
  return out << valueToStrep(v);
}

void sequenceToValue(Kiln::TextReader& in, Point& v) {
  in.expect("Value('Golden::Point', ** {");
  S32 x{};
  in.expect("'x': ");
  Kiln::readValue(in, x);
  S32 y{};
  in.expect(", 'y': ");
  Kiln::readValue(in, y);
  in.expect("})");
  v = Point(x, y);
}

}  // namespace Golden
