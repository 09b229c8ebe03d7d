#include "util/safe_text.h"

#include <cstdio>

#include "util/text_conversion.h"

namespace {

void AppendByteEscape(std::string& out, unsigned char byte) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02x", byte);
  out += text;
}

// Code points that change how a terminal or a bidirectional renderer shows the rest of a line.
bool IsInvisibleControl(int code_point) {
  return (code_point >= 0x80 && code_point <= 0x9F) || code_point == 0x200E ||
         code_point == 0x200F || (code_point >= 0x202A && code_point <= 0x202E) ||
         (code_point >= 0x2066 && code_point <= 0x2069) || code_point == 0x2028 ||
         code_point == 0x2029 || code_point == 0x061C;
}

}  // namespace

std::string EscapedText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    unsigned char byte = bytes[i];
    if (byte < 0x80) {
      switch (byte) {
        case '\\':
          out += "\\\\";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\r':
          out += "\\r";
          break;
        case '\t':
          out += "\\t";
          break;
        case 0x1B:
          out += "\\e";
          break;
        default:
          if (byte < 0x20 || byte == 0x7F) {
            AppendByteEscape(out, byte);
          } else {
            out += static_cast<char>(byte);
          }
      }
      ++i;
      continue;
    }
    int code_point = 0;
    size_t length = Utf8SequenceAt(text.substr(i), &code_point);
    if (length == 0) {
      AppendByteEscape(out, byte);
      ++i;
      continue;
    }
    if (IsInvisibleControl(code_point)) {
      char escape[12];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code_point));
      out += escape;
    } else {
      out.append(text.substr(i, length));
    }
    i += length;
  }
  return out;
}

std::string QuotedText(std::string_view text) {
  std::string quoted = "\"";
  for (char c : EscapedText(text)) {
    if (c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string SafePath(std::string_view path) {
  std::string escaped = EscapedText(path);
  if (!escaped.empty() && escaped.find_first_of(" \"") == std::string::npos) return escaped;
  return QuotedText(path);
}
