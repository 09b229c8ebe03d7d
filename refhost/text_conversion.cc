#include "refhost/text_conversion.h"

#include <Poco/UnicodeConverter.h>
#include <Poco/UTFString.h>

static_assert(sizeof(wchar_t) == sizeof(Poco::UTF32Char), "wide strings are UTF-32 here");

std::string WideToUtf8(const std::wstring& wide) {
  std::string narrow;
  Poco::UnicodeConverter::convert(reinterpret_cast<const Poco::UTF32Char*>(wide.data()),
                                  wide.size(), narrow);
  return narrow;
}

std::wstring Utf8ToWide(const std::string& narrow) {
  Poco::UTF32String utf32;
  Poco::UnicodeConverter::convert(narrow, utf32);
  return std::wstring(reinterpret_cast<const wchar_t*>(utf32.data()), utf32.size());
}
