#include "util/json_line.h"

#include <charconv>

#include "util/text_conversion.h"

namespace {

void AppendUnit(std::string& out, unsigned code) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  char unit[6] = {'\\',
                  'u',
                  kHex[(code >> 12) & 0xF],
                  kHex[(code >> 8) & 0xF],
                  kHex[(code >> 4) & 0xF],
                  kHex[code & 0xF]};
  out.append(unit, sizeof unit);
}

}  // namespace

void AppendJsonString(std::string& out, std::string_view text) {
  out += '"';
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    // A run of characters that stand as they are goes in at once.
    size_t plain = i;
    while (plain < text.size() && bytes[plain] >= 0x20 && bytes[plain] < 0x7F &&
           bytes[plain] != '"' && bytes[plain] != '\\') {
      ++plain;
    }
    out.append(text.data() + i, plain - i);
    i = plain;
    if (i == text.size()) break;
    unsigned char byte = bytes[i];
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += static_cast<char>(byte);
      ++i;
      continue;
    }
    if (byte < 0x20) {
      switch (byte) {
        case '\b':
          out += "\\b";
          break;
        case '\t':
          out += "\\t";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\f':
          out += "\\f";
          break;
        case '\r':
          out += "\\r";
          break;
        default:
          AppendUnit(out, byte);
      }
      ++i;
      continue;
    }
    int code = 0xFFFD;
    size_t length = byte == 0x7F ? 1 : Utf8SequenceAt(text.substr(i), &code);
    if (byte == 0x7F) code = 0x7F;
    if (length == 0) {  // not valid UTF-8: one byte becomes U+FFFD
      code = 0xFFFD;
      length = 1;
    }
    if (code >= 0x10000) {
      unsigned rest = static_cast<unsigned>(code) - 0x10000;
      AppendUnit(out, 0xD800 + (rest >> 10));
      AppendUnit(out, 0xDC00 + (rest & 0x3FF));
    } else {
      AppendUnit(out, static_cast<unsigned>(code));
    }
    i += length;
  }
  out += '"';
}

void CJsonLine::Begin(std::string_view key) {
  if (!first_) text_ += ',';
  first_ = false;
  if (!key.empty()) {
    AppendJsonString(text_, key);
    text_ += ':';
  }
}

CJsonLine& CJsonLine::Open(std::string_view key) { return OpenWith(key, '{', '}'); }

CJsonLine& CJsonLine::OpenArray(std::string_view key) { return OpenWith(key, '[', ']'); }

CJsonLine& CJsonLine::OpenWith(std::string_view key, char opener, char closer) {
  Begin(key);
  text_ += opener;
  closers_.push_back(closer);
  first_ = true;
  return *this;
}

CJsonLine& CJsonLine::Close() {
  if (!closers_.empty()) {
    text_ += closers_.back();
    closers_.pop_back();
  }
  first_ = false;
  return *this;
}

CJsonLine& CJsonLine::String(std::string_view key, std::string_view value) {
  Begin(key);
  AppendJsonString(text_, value);
  return *this;
}

CJsonLine& CJsonLine::Number(std::string_view key, uint64_t value) {
  Begin(key);
  char digits[24];
  auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  text_.append(digits, end);
  return *this;
}

CJsonLine& CJsonLine::Null(std::string_view key) { return Raw(key, "null"); }

CJsonLine& CJsonLine::Bool(std::string_view key, bool value) {
  return Raw(key, value ? "true" : "false");
}

CJsonLine& CJsonLine::Raw(std::string_view key, std::string_view json) {
  Begin(key);
  text_ += json;
  return *this;
}

CJsonLine& CJsonLine::Item(std::string_view value) { return String({}, value); }
