// generated from widget.kiln by kilngen; do not edit
//
// value Point
//   field x : S32
//   field y : S32 = 7
//   ordered
#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiln/Support.h"

namespace Golden {

class Point {
 public:
  // Indexes of the type record's attributes.
  static constexpr U32 kilnAttributeStart = 2;
  static constexpr U32 kilnXIndex = kilnAttributeStart + 0;  // 2
  static constexpr U32 kilnYIndex = kilnAttributeStart + 1;  // 3

  Point() = default;
  Point(S32 x, S32 y = 7) : x_(x), y_(y) {}
  // Parses the text form (see valueToStrep); throws Kiln::DeserializationException
  // on any other text.
  template <std::same_as<Kiln::TextIterator> I>
  Point(I begin, I end) : Point(fromStrep(std::string_view(begin, end))) {}
  static Point fromStrep(std::string_view text);

  S32 x() const { return x_; }
  void xIs(S32 x) { x_ = x; }

  S32 y() const { return y_; }
  void yIs(S32 y) { y_ = y; }

  // Equal when every field is equal.
  friend bool operator==(const Point& a, const Point& b) { return a.x_ == b.x_ && a.y_ == b.y_; }
  friend bool operator!=(const Point& a, const Point& b) { return !(a == b); }
  // Lexicographic order on the fields in declaration order.
  friend bool operator<(const Point& a, const Point& b) {
    if (a.x_ < b.x_) return true;
    if (b.x_ < a.x_) return false;
    return a.y_ < b.y_;
  }
  friend bool operator<=(const Point& a, const Point& b) { return !(b < a); }
  friend bool operator>(const Point& a, const Point& b) { return !(a <= b); }
  friend bool operator>=(const Point& a, const Point& b) { return !(a < b); }

  // The registered record of Golden::Point.
  static const Kiln::TypeRecord& kilnType();

 private:
  S32 x_{};
  S32 y_ = 7;
};

// The text form: Value('Golden::Point', ** {...}).
std::string valueToStrep(const Point& v);
std::ostream& operator<<(std::ostream& out, const Point& v);
void sequenceToValue(Kiln::TextReader& in, Point& v);

}  // namespace Golden
