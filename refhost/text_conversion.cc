#include "refhost/text_conversion.h"

#include <Poco/UTF8Encoding.h>
#include <Poco/UnicodeConverter.h>
#include <Poco/UTFString.h>

#include <algorithm>

static_assert(sizeof(wchar_t) == sizeof(Poco::UTF32Char), "wide strings are UTF-32 here");

// Most names are plain ASCII, which is the same in both encodings: copied directly, without the
// general converter.

std::string WideToUtf8(const std::wstring& wide) {
  std::string narrow(wide.size(), '\0');
  for (size_t i = 0; i < wide.size(); ++i) {
    if (static_cast<uint32_t>(wide[i]) >= 0x80) {
      narrow.clear();
      Poco::UnicodeConverter::convert(reinterpret_cast<const Poco::UTF32Char*>(wide.data()),
                                      wide.size(), narrow);
      return narrow;
    }
    narrow[i] = static_cast<char>(wide[i]);
  }
  return narrow;
}

std::wstring Utf8ToWide(const std::string& narrow) {
  std::wstring wide(narrow.size(), L'\0');
  for (size_t i = 0; i < narrow.size(); ++i) {
    if (static_cast<unsigned char>(narrow[i]) >= 0x80) {
      Poco::UTF32String utf32;
      Poco::UnicodeConverter::convert(narrow, utf32);
      return std::wstring(reinterpret_cast<const wchar_t*>(utf32.data()), utf32.size());
    }
    wide[i] = static_cast<wchar_t>(narrow[i]);
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
