#include "util/text_conversion.h"

#include <Poco/UTF8Encoding.h>

#include <algorithm>

// Wide strings are UTF-32 on Linux and UTF-16 on Windows, where a character beyond U+FFFF takes
// two units (a surrogate pair).
inline constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;
static_assert(sizeof(wchar_t) == 2 || sizeof(wchar_t) == 4);

namespace {

bool IsHighSurrogate(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// A surrogate on its own, as the three bytes UTF-8 would give it (ED A0 80 to ED BF BF), or 0. A
// Windows name may hold one, unpaired: it is told apart from every other name this way and comes
// back as itself.
uint32_t LoneSurrogateAt(std::string_view text) {
  if (text.size() < 3) return 0;
  auto b0 = static_cast<unsigned char>(text[0]), b1 = static_cast<unsigned char>(text[1]),
       b2 = static_cast<unsigned char>(text[2]);
  if (b0 != 0xED || b1 < 0xA0 || b1 > 0xBF || (b2 & 0xC0) != 0x80) return 0;
  return 0xD000u | ((b1 & 0x3Fu) << 6) | (b2 & 0x3Fu);
}

}  // namespace

// Most names are plain ASCII, which is the same in both encodings: copied directly, without the
// general converter.

std::string WideToUtf8(const std::wstring& wide) {
  std::string narrow;
  narrow.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    auto c = static_cast<uint32_t>(wide[i]);
    if (kWideIsUtf16 && IsHighSurrogate(c) && i + 1 < wide.size() &&
        IsLowSurrogate(static_cast<uint32_t>(wide[i + 1]))) {
      c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<uint32_t>(wide[++i]) - 0xDC00);
    }
    if (c < 0x80) {
      narrow += static_cast<char>(c);
    } else if (IsEscapedByte(c)) {
      narrow += static_cast<char>(c - kEscapedByteBase);
    } else if (c < 0x800) {
      narrow += static_cast<char>(0xC0 | (c >> 6));
      narrow += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      narrow += static_cast<char>(0xE0 | (c >> 12));
      narrow += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      narrow += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      if (c > 0x10FFFF) c = 0xFFFD;
      narrow += static_cast<char>(0xF0 | (c >> 18));
      narrow += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      narrow += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      narrow += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return narrow;
}

std::wstring Utf8ToWide(const std::string& narrow) {
  std::wstring wide;
  wide.reserve(narrow.size());
  std::string_view rest(narrow);
  while (!rest.empty()) {
    auto byte = static_cast<unsigned char>(rest[0]);
    if (byte < 0x80) {  // most names are plain ASCII
      wide += static_cast<wchar_t>(byte);
      rest.remove_prefix(1);
      continue;
    }
    int code_point = 0;
    size_t length = Utf8SequenceAt(rest, &code_point);
    uint32_t lone_surrogate = length == 0 && kWideIsUtf16 ? LoneSurrogateAt(rest) : 0;
    if (lone_surrogate != 0 && !IsEscapedByte(lone_surrogate)) {
      wide += static_cast<wchar_t>(lone_surrogate);
      rest.remove_prefix(3);
    } else if (length == 0 || IsEscapedByte(static_cast<uint32_t>(code_point))) {
      wide += static_cast<wchar_t>(kEscapedByteBase + byte);
      rest.remove_prefix(1);
    } else if (kWideIsUtf16 && code_point >= 0x10000) {
      uint32_t above = static_cast<uint32_t>(code_point) - 0x10000;
      wide += static_cast<wchar_t>(0xD800 + (above >> 10));
      wide += static_cast<wchar_t>(0xDC00 + (above & 0x3FF));
      rest.remove_prefix(length);
    } else {
      wide += static_cast<wchar_t>(code_point);
      rest.remove_prefix(length);
    }
  }
  return wide;
}

std::string HexText(const uint8_t* bytes, uint64_t length) {
  static const char kHex[] = "0123456789abcdef";
  std::string text(length * 2, '0');
  for (uint64_t i = 0; i < length; ++i) {
    text[2 * i] = kHex[bytes[i] >> 4];
    text[2 * i + 1] = kHex[bytes[i] & 15];
  }
  return text;
}

size_t Utf8SequenceAt(std::string_view text, int* code_point) {
  if (text.empty()) return 0;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  if (bytes[0] < 0x80) {
    if (code_point != nullptr) *code_point = bytes[0];
    return 1;
  }
  static const Poco::UTF8Encoding utf8;
  int left = static_cast<int>(std::min<size_t>(text.size(), 8));
  int length = utf8.sequenceLength(bytes, left);
  if (length <= 0 || length > left || !Poco::UTF8Encoding::isLegal(bytes, length)) return 0;
  if (code_point != nullptr) *code_point = utf8.queryConvert(bytes, length);
  return static_cast<size_t>(length);
}
