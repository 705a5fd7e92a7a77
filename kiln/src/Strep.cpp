#include "Kiln/Strep.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace Kiln {

bool TextReader::skip(std::string_view piece) {
  if (rest().substr(0, piece.size()) != piece) return false;
  pos_ += static_cast<std::ptrdiff_t>(piece.size());
  return true;
}

void TextReader::expect(std::string_view piece) {
  if (!skip(piece)) fail("\"" + std::string(piece) + "\"");
}

void TextReader::expectEnd() {
  if (!atEnd()) fail("end of text");
}

std::string_view TextReader::take(std::string_view chars) {
  TextIterator start = pos_;
  while (pos_ != end_ && chars.find(*pos_) != std::string_view::npos) ++pos_;
  return std::string_view(start, pos_);
}

std::string_view TextReader::identifier() {
  auto isStart = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  };
  auto isPart = [&](char c) { return isStart(c) || (c >= '0' && c <= '9'); };
  if (pos_ == end_ || !isStart(*pos_)) fail("a name");
  TextIterator start = pos_;
  while (pos_ != end_ && isPart(*pos_)) ++pos_;
  return std::string_view(start, pos_);
}

void TextReader::fail(std::string_view what) const {
  throw DeserializationException("expected " + std::string(what) + " at offset " +
                                 std::to_string(pos_ - begin_) + " of '" +
                                 std::string(begin_, end_) + "'");
}

namespace {

template <class T>
std::string integerText(T v) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
  return std::string(buffer, result.ptr);
}

template <class T>
void parseInteger(TextReader& in, T& v) {
  // The widest type first, then a range check, so that "300" for a U8 is an
  // error rather than a partial read.
  std::string_view digits = in.take("-0123456789");
  if (digits.empty()) in.fail("a decimal number");
  T parsed{};
  auto result = std::from_chars(digits.data(), digits.data() + digits.size(), parsed);
  if (result.ec != std::errc() || result.ptr != digits.data() + digits.size()) {
    in.fail("a decimal number that fits its type");
  }
  v = parsed;
}

}  // namespace

std::string valueToStrep(bool v) { return v ? "True" : "False"; }
std::string valueToStrep(signed char v) { return integerText(static_cast<int>(v)); }
std::string valueToStrep(unsigned char v) { return integerText(static_cast<unsigned>(v)); }
std::string valueToStrep(short v) { return integerText(v); }
std::string valueToStrep(unsigned short v) { return integerText(v); }
std::string valueToStrep(int v) { return integerText(v); }
std::string valueToStrep(unsigned int v) { return integerText(v); }
std::string valueToStrep(long v) { return integerText(v); }
std::string valueToStrep(unsigned long v) { return integerText(v); }
std::string valueToStrep(long long v) { return integerText(v); }
std::string valueToStrep(unsigned long long v) { return integerText(v); }

std::string valueToStrep(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
  std::string text(buffer, result.ptr);
  // Keep a double recognisable as one: 60 is written 60.0.
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::string valueToStrep(const std::string& v) {
  std::string text = "'";
  for (char c : v) {
    unsigned char u = static_cast<unsigned char>(c);
    switch (c) {
      case '\\': text += "\\\\"; break;
      case '\'': text += "\\'"; break;
      case '\n': text += "\\n"; break;
      case '\r': text += "\\r"; break;
      case '\t': text += "\\t"; break;
      default:
        if (u < 0x20 || u >= 0x7f) {
          char hex[5];
          std::snprintf(hex, sizeof hex, "\\x%02x", u);
          text += hex;
        } else {
          text += c;
        }
    }
  }
  text += '\'';
  return text;
}

std::string valueToStrep(const char* v) { return valueToStrep(std::string(v)); }

void sequenceToValue(TextReader& in, bool& v) {
  if (in.skip("True")) {
    v = true;
  } else if (in.skip("False")) {
    v = false;
  } else {
    in.fail("True or False");
  }
}

void sequenceToValue(TextReader& in, signed char& v) {
  int wide = 0;
  parseInteger(in, wide);
  if (wide < std::numeric_limits<signed char>::min() ||
      wide > std::numeric_limits<signed char>::max()) {
    in.fail("a number from -128 to 127");
  }
  v = static_cast<signed char>(wide);
}

void sequenceToValue(TextReader& in, unsigned char& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, short& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, unsigned short& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, int& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, unsigned int& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, long& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, unsigned long& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, long long& v) { parseInteger(in, v); }
void sequenceToValue(TextReader& in, unsigned long long& v) { parseInteger(in, v); }

void sequenceToValue(TextReader& in, double& v) {
  std::string_view text = in.take("+-0123456789.eEnaif");
  double parsed = 0;
  auto result = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    in.fail("a floating-point number");
  }
  v = parsed;
}

void sequenceToValue(TextReader& in, std::string& v) {
  in.expect("'");
  std::string text;
  for (;;) {
    std::string_view rest = in.rest();
    if (rest.empty()) in.fail("a closing quote");
    char c = rest[0];
    if (c == '\'') break;
    if (c != '\\') {
      text += c;
      in.skip(rest.substr(0, 1));
      continue;
    }
    if (rest.size() < 2) in.fail("an escape");
    char e = rest[1];
    in.skip(rest.substr(0, 2));
    switch (e) {
      case '\\': text += '\\'; break;
      case '\'': text += '\''; break;
      case 'n': text += '\n'; break;
      case 'r': text += '\r'; break;
      case 't': text += '\t'; break;
      case 'x': {
        std::string_view hex = in.rest().substr(0, 2);
        unsigned byte = 0;
        auto result = std::from_chars(hex.data(), hex.data() + hex.size(), byte, 16);
        if (hex.size() != 2 || result.ptr != hex.data() + 2) in.fail("two hex digits");
        text += static_cast<char>(byte);
        in.skip(hex);
        break;
      }
      default: in.fail("one of \\\\ \\' \\n \\r \\t \\x");
    }
  }
  in.expect("'");
  v = std::move(text);
}

}  // namespace Kiln
