#include "refhost/security_text.h"

#include <cctype>

namespace security_text {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

std::string Escape(std::string_view text, bool escape_equals) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x21 || byte > 0x7E || c == '%' || (escape_equals && c == '=')) {
      out += '%';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The older form: "owner=0 group=0 mode=0644 acl=u::rw-,..." (unescaped; the ACL text has no
// spaces).
CSecurityItems ParseLegacy(std::string_view text) {
  static const std::map<std::string_view, const char*> kKeys = {
      {"owner", kUid}, {"group", kGid}, {"mode", kMode}, {"acl", kAccessAcl}};
  CSecurityItems items;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view item = text.substr(start, end - start);
    size_t equals = item.find('=');
    if (equals != std::string_view::npos) {
      auto key = kKeys.find(item.substr(0, equals));
      if (key != kKeys.end()) items[key->second] = std::string(item.substr(equals + 1));
    }
    start = end + 1;
  }
  return items;
}

}  // namespace

std::string EscapeKey(std::string_view key) { return Escape(key, true); }
std::string EscapeValue(std::string_view value) { return Escape(value, false); }

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string XattrValueText(std::string_view bytes) {
  std::string_view shown = bytes;
  if (!shown.empty() && shown.back() == '\0') shown.remove_suffix(1);
  bool printable = true;
  for (char c : shown) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7E) printable = false;
  }
  if (printable) return "\"" + std::string(shown) + "\"";
  static const char kLower[] = "0123456789abcdef";
  std::string hex = "0x";
  for (char c : bytes) {
    auto byte = static_cast<unsigned char>(c);
    hex += kLower[byte >> 4];
    hex += kLower[byte & 15];
  }
  return hex;
}

std::string Text(const CSecurityItems& items) {
  std::string text;
  for (const auto& [key, value] : items) {
    if (!text.empty()) text += ' ';
    text += EscapeKey(key);
    text += '=';
    text += EscapeValue(value);
  }
  return text;
}

CSecurityItems Parse(std::string_view text, bool* legacy) {
  // The older form starts "owner=... group=...". The current form is sorted, so when it starts
  // with a key "owner" no key "group" follows, and an escaped value holds no space: no text of
  // the current form reads as the older one.
  bool old_form = text.rfind("owner=", 0) == 0 && text.find(" group=") != std::string_view::npos;
  if (legacy != nullptr) *legacy = old_form;
  if (old_form) return ParseLegacy(text);
  CSecurityItems items;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view item = text.substr(start, end - start);
    size_t equals = item.find('=');
    if (!item.empty()) {
      if (equals == std::string_view::npos) {
        items[Unescape(item)] = std::string();
      } else {
        items[Unescape(item.substr(0, equals))] = Unescape(item.substr(equals + 1));
      }
    }
    start = end + 1;
  }
  return items;
}

}  // namespace security_text
