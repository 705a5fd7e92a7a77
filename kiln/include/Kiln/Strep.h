// The value text form ("strep"): how every value is written as text and read
// back. Scalars are written as
//   integers   decimal, with a leading '-' when negative      17, -1
//   bool       True or False
//   double     shortest text that reads back to the same number, always with
//              a '.', an exponent, or nan/inf:                  60.0, 0.1, 1e+300
//   strings    in single quotes; backslash escapes \\ \' \n \r \t and \xHH
//              for every other byte below 0x20 or from 0x7f:   'Ethernet1', 'it\'s'
// Value types use the tuple form
//   Value('<Qualified::Name>', ** {'field': <text>, 'field2': <text>})
// enumerations their value's name, a value type holding a collection "None".
// Parsing accepts exactly what is written and throws DeserializationException
// on anything else; "None" is written but never read back (a value type
// holding a collection has no text to rebuild it from, so parsing it throws).
#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiln/Exception.h"
#include "Kiln/Types.h"

namespace Kiln {

// A position in a text being parsed.
typedef std::string_view::const_iterator TextIterator;

// Reads a text from left to right; every failure throws
// DeserializationException naming what was expected and where.
class TextReader {
 public:
  TextReader(TextIterator begin, TextIterator end) : pos_(begin), begin_(begin), end_(end) {}
  explicit TextReader(std::string_view text) : TextReader(text.begin(), text.end()) {}

  // True when the whole text has been read.
  bool atEnd() const { return pos_ == end_; }

  // The text not read yet.
  std::string_view rest() const { return std::string_view(pos_, end_); }

  // Consumes `piece` if the text continues with it; returns whether it did.
  bool skip(std::string_view piece);

  // Consumes `piece` or throws.
  void expect(std::string_view piece);

  // Throws unless the whole text has been read.
  void expectEnd();

  // Consumes and returns the longest run of characters from `chars`.
  std::string_view take(std::string_view chars);

  // Consumes and returns an identifier ([A-Za-z_][A-Za-z0-9_]*), or throws.
  std::string_view identifier();

  // Throws DeserializationException("expected <what> at offset <n> of
  // '<text>'").
  [[noreturn]] void fail(std::string_view what) const;

 private:
  TextIterator pos_;
  TextIterator begin_;
  TextIterator end_;
};

// Text forms of the scalar kinds.
std::string valueToStrep(bool v);
std::string valueToStrep(signed char v);
std::string valueToStrep(unsigned char v);
std::string valueToStrep(short v);
std::string valueToStrep(unsigned short v);
std::string valueToStrep(int v);
std::string valueToStrep(unsigned int v);
std::string valueToStrep(long v);
std::string valueToStrep(unsigned long v);
std::string valueToStrep(long long v);
std::string valueToStrep(unsigned long long v);
std::string valueToStrep(double v);
std::string valueToStrep(const std::string& v);
std::string valueToStrep(const char* v);

// Parsers of the scalar kinds: each reads one value's text form at the
// reader's position into v, or throws (also when the number does not fit).
void sequenceToValue(TextReader& in, bool& v);
void sequenceToValue(TextReader& in, signed char& v);
void sequenceToValue(TextReader& in, unsigned char& v);
void sequenceToValue(TextReader& in, short& v);
void sequenceToValue(TextReader& in, unsigned short& v);
void sequenceToValue(TextReader& in, int& v);
void sequenceToValue(TextReader& in, unsigned int& v);
void sequenceToValue(TextReader& in, long& v);
void sequenceToValue(TextReader& in, unsigned long& v);
void sequenceToValue(TextReader& in, long long& v);
void sequenceToValue(TextReader& in, unsigned long long& v);
void sequenceToValue(TextReader& in, double& v);
void sequenceToValue(TextReader& in, std::string& v);

// Types that have a text form (a valueToStrep found here or by argument
// dependent lookup).
template <class T>
concept HasStrep = requires(const T& v) {
  { valueToStrep(v) } -> std::convertible_to<std::string>;
};

// Types that can be parsed from their text form.
template <class T>
concept Parsable = std::default_initializable<T> && requires(TextReader& in, T& v) {
  sequenceToValue(in, v);
};

// The text form of v.
template <HasStrep T>
std::string strep(const T& v) {
  return valueToStrep(v);
}

// Parses the whole of `text` as a T; throws DeserializationException on any
// other text, including trailing characters.
template <Parsable T>
T strepToValue(std::string_view text) {
  TextReader in(text);
  T v{};
  sequenceToValue(in, v);
  in.expectEnd();
  return v;
}

}  // namespace Kiln
