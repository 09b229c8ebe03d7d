#include "util/text_conversion.h"

#include <Poco/UTF8Encoding.h>

#include <algorithm>

static_assert(sizeof(wchar_t) == 4, "wide strings are UTF-32 here");

// Most names are plain ASCII, which is the same in both encodings: copied directly, without the
// general converter.

std::string WideToUtf8(const std::wstring& wide) {
  std::string narrow;
  narrow.reserve(wide.size());
  for (wchar_t wide_character : wide) {
    auto c = static_cast<uint32_t>(wide_character);
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
    if (length == 0 || IsEscapedByte(static_cast<uint32_t>(code_point))) {
      wide += static_cast<wchar_t>(kEscapedByteBase + byte);
      rest.remove_prefix(1);
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
