#include "XmlCheck.h"

#include <cctype>
#include <set>
#include <vector>

namespace AgentTest {
namespace {

class Checker {
 public:
  explicit Checker(const std::string& text) : text_(text) {}

  std::string problem() {
    skipBlanks();
    if (startsWith("<?xml")) {
      const size_t end = text_.find("?>", at_);
      if (end == std::string::npos) return fail("unterminated declaration");
      at_ = end + 2;
    }
    skipMisc();
    if (at_ >= text_.size() || text_[at_] != '<') return fail("no root element");
    if (!element()) return problem_;
    skipMisc();
    if (!problem_.empty()) return problem_;
    if (at_ != text_.size()) return fail("content after the root element");
    return "";
  }

 private:
  bool startsWith(const char* s) const {
    return text_.compare(at_, std::char_traits<char>::length(s), s) == 0;
  }

  std::string fail(const std::string& what) {
    if (problem_.empty()) problem_ = what + " at offset " + std::to_string(at_);
    return problem_;
  }

  // Records the problem and returns false, for the parsing steps.
  bool failed(const std::string& what) {
    fail(what);
    return false;
  }

  void skipBlanks() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) ++at_;
  }

  // Blanks and comments between elements.
  void skipMisc() {
    for (;;) {
      skipBlanks();
      if (!startsWith("<!--")) return;
      const size_t end = text_.find("-->", at_ + 4);
      if (end == std::string::npos) {
        fail("unterminated comment");
        at_ = text_.size();
        return;
      }
      at_ = end + 3;
    }
  }

  static bool nameStart(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == ':';
  }
  static bool nameChar(char c) {
    return nameStart(c) || std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '.';
  }

  bool name(std::string& out) {
    if (at_ >= text_.size() || !nameStart(text_[at_])) return failed("expected a name");
    const size_t start = at_;
    while (at_ < text_.size() && nameChar(text_[at_])) ++at_;
    out = text_.substr(start, at_ - start);
    return true;
  }

  // An entity or character reference, starting at '&'.
  bool reference() {
    const size_t end = text_.find(';', at_);
    if (end == std::string::npos) return failed("unterminated reference");
    const std::string ref = text_.substr(at_ + 1, end - at_ - 1);
    static const std::set<std::string> known = {"amp", "lt", "gt", "quot", "apos"};
    bool ok = known.count(ref) > 0;
    if (!ok && ref.size() > 1 && ref[0] == '#') {
      ok = true;
      const bool hex = ref[1] == 'x';
      for (size_t i = hex ? 2 : 1; i < ref.size(); ++i) {
        ok = ok && (hex ? std::isxdigit(static_cast<unsigned char>(ref[i]))
                        : std::isdigit(static_cast<unsigned char>(ref[i])));
      }
      ok = ok && ref.size() > (hex ? 2u : 1u);
    }
    if (!ok) return failed("unknown reference &" + ref + ";");
    at_ = end + 1;
    return true;
  }

  bool attributeValue() {
    if (at_ >= text_.size() || (text_[at_] != '"' && text_[at_] != '\'')) {
      return failed("unquoted attribute value");
    }
    const char quote = text_[at_++];
    while (at_ < text_.size() && text_[at_] != quote) {
      if (text_[at_] == '<') return failed("'<' in an attribute value");
      if (text_[at_] == '&') {
        if (!reference()) return false;
      } else {
        ++at_;
      }
    }
    if (at_ >= text_.size()) return failed("unterminated attribute value");
    ++at_;
    return true;
  }

  // An element starting at '<', with its content and end tag.
  bool element() {
    ++at_;
    std::string tag;
    if (!name(tag)) return false;
    std::set<std::string> attributes;
    for (;;) {
      const size_t before = at_;
      skipBlanks();
      if (at_ >= text_.size()) return failed("unterminated start tag");
      if (startsWith("/>")) {
        at_ += 2;
        return true;
      }
      if (text_[at_] == '>') {
        ++at_;
        break;
      }
      if (at_ == before) return failed("expected a blank before an attribute");
      std::string attribute;
      if (!name(attribute)) return false;
      if (!attributes.insert(attribute).second) {
        return failed("duplicate attribute " + attribute);
      }
      skipBlanks();
      if (at_ >= text_.size() || text_[at_] != '=') return failed("expected '='");
      ++at_;
      skipBlanks();
      if (!attributeValue()) return false;
    }
    // Content: text, references, comments and child elements, then the end tag.
    for (;;) {
      if (at_ >= text_.size()) return failed("element <" + tag + "> is not closed");
      if (startsWith("</")) {
        at_ += 2;
        std::string closing;
        if (!name(closing)) return false;
        skipBlanks();
        if (closing != tag) return failed("</" + closing + "> closes <" + tag + ">");
        if (at_ >= text_.size() || text_[at_] != '>') return failed("unterminated end tag");
        ++at_;
        return true;
      }
      if (startsWith("<!--")) {
        skipMisc();
        if (!problem_.empty()) return false;
        continue;
      }
      if (text_[at_] == '<') {
        if (!element()) return false;
        continue;
      }
      if (text_[at_] == '&') {
        if (!reference()) return false;
        continue;
      }
      ++at_;
    }
  }

  const std::string& text_;
  size_t at_ = 0;
  std::string problem_;
};

}  // namespace

std::string xmlProblem(const std::string& text) { return Checker(text).problem(); }

}  // namespace AgentTest
