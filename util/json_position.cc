#include "util/json_position.h"

namespace {

// A validating reader that stops at the first byte that breaks the grammar.
class CJsonChecker {
 public:
  explicit CJsonChecker(std::string_view text) : text_(text) {}

  // The offset of the first error, or text.size() + 1 when there is none.
  size_t FirstError() {
    Space();
    if (!Value()) return at_;
    Space();
    return at_ == text_.size() ? text_.size() + 1 : at_;
  }

 private:
  bool More() const { return at_ < text_.size(); }
  char Peek() const { return More() ? text_[at_] : '\0'; }
  void Space() {
    while (More() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r')) ++at_;
  }
  bool Literal(std::string_view word) {
    for (char c : word) {
      if (Peek() != c) return false;
      ++at_;
    }
    return true;
  }
  bool Digits() {
    size_t start = at_;
    while (Peek() >= '0' && Peek() <= '9') ++at_;
    return at_ > start;
  }
  bool Number() {
    if (Peek() == '-') ++at_;
    if (Peek() == '0') {
      ++at_;
    } else if (!Digits()) {
      return false;
    }
    if (Peek() == '.') {
      ++at_;
      if (!Digits()) return false;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++at_;
      if (Peek() == '+' || Peek() == '-') ++at_;
      if (!Digits()) return false;
    }
    return true;
  }
  bool String() {
    ++at_;  // the opening quote
    while (More()) {
      char c = Peek();
      if (c == '"') {
        ++at_;
        return true;
      }
      if (static_cast<unsigned char>(c) < 0x20) return false;
      ++at_;
      if (c != '\\') continue;
      char escaped = Peek();
      if (escaped == 'u') {
        ++at_;
        for (int i = 0; i < 4; ++i) {
          char h = Peek();
          bool hex = (h >= '0' && h <= '9') || (h >= 'a' && h <= 'f') || (h >= 'A' && h <= 'F');
          if (!hex) return false;
          ++at_;
        }
      } else if (std::string_view("\"\\/bfnrt").find(escaped) != std::string_view::npos &&
                 escaped != '\0') {
        ++at_;
      } else {
        return false;
      }
    }
    return false;
  }
  bool Items(char close, bool members) {
    ++at_;  // the opening bracket
    Space();
    if (Peek() == close) {
      ++at_;
      return true;
    }
    for (;;) {
      Space();
      if (members) {
        if (Peek() != '"' || !String()) return false;
        Space();
        if (Peek() != ':') return false;
        ++at_;
        Space();
      }
      if (!Value()) return false;
      Space();
      if (Peek() == ',') {
        ++at_;
        continue;
      }
      if (Peek() != close) return false;
      ++at_;
      return true;
    }
  }
  bool Value() {
    if (++depth_ > 512) return false;  // deeper than any configuration: refused, not recursed
    bool whole = false;
    switch (Peek()) {
      case '{':
        whole = Items('}', true);
        break;
      case '[':
        whole = Items(']', false);
        break;
      case '"':
        whole = String();
        break;
      case 't':
        whole = Literal("true");
        break;
      case 'f':
        whole = Literal("false");
        break;
      case 'n':
        whole = Literal("null");
        break;
      default:
        whole = Number();
    }
    --depth_;
    return whole;
  }

  std::string_view text_;
  size_t at_ = 0;
  int depth_ = 0;
};

}  // namespace

std::optional<CJsonPosition> JsonErrorPosition(std::string_view text) {
  size_t error = CJsonChecker(text).FirstError();
  if (error > text.size()) return std::nullopt;
  CJsonPosition position;
  for (size_t i = 0; i < error; ++i) {
    if (text[i] == '\n') {
      ++position.line;
      position.column = 1;
    } else {
      ++position.column;
    }
  }
  return position;
}
