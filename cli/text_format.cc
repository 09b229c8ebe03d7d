#include "cli/text_format.h"

#include <cstdio>
#include <ctime>


#include "cli/json_line.h"
#include "refhost/text_conversion.h"

std::string GroupedNumber(uint64_t value) {
  std::string digits = std::to_string(value);
  std::string grouped;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

std::string ByteSize(uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string AttributesText(uint32_t attributes) {
  char text[16];
  std::snprintf(text, sizeof text, "%06o", static_cast<unsigned>(attributes));
  return text;
}

namespace {

// "seconds" since the epoch as UTC civil time in strftime's "format".
std::string UtcText(int64_t seconds, const char* format) {
  std::time_t time = static_cast<std::time_t>(seconds);
  std::tm civil{};
  if (::gmtime_r(&time, &civil) == nullptr) return "unknown";
  char text[64];
  size_t length = std::strftime(text, sizeof text, format, &civil);
  return std::string(text, length);
}

std::string Nanoseconds(uint64_t nanoseconds, const char* suffix) {
  char fraction[24];
  std::snprintf(fraction, sizeof fraction, ".%09llu%s", static_cast<unsigned long long>(nanoseconds % 1000000000ull),
                suffix);
  return fraction;
}

}  // namespace

std::string TimeText(uint64_t nanoseconds) {
  if (nanoseconds == ~0ull) return "unknown";
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), "%Y-%m-%d %H:%M:%S") +
         Nanoseconds(nanoseconds, " UTC");
}

std::string IsoTimeText(uint64_t nanoseconds) {
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), "%Y-%m-%dT%H:%M:%S") + Nanoseconds(nanoseconds, "Z");
}

std::string IsoSecondsText(int64_t seconds) { return UtcText(seconds, "%Y-%m-%dT%H:%M:%SZ"); }

std::string IsoMillisecondsText(uint64_t nanoseconds) {
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03lluZ", static_cast<unsigned long long>(nanoseconds / 1000000ull % 1000ull));
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), "%Y-%m-%dT%H:%M:%S") + fraction;
}

std::string ValidUtf8(const std::string& text) {
  std::string valid;
  valid.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    if (size_t length = Utf8SequenceAt(std::string_view(text).substr(i)); length > 0) {
      valid.append(text, i, length);
      i += length;
    } else {
      valid += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
      ++i;
    }
  }
  return valid;
}

std::string JsonString(const std::string& text) {
  std::string literal;
  literal.reserve(text.size() + 2);
  AppendJsonString(literal, text);
  return literal;
}

std::string AsciiJson(const std::string& json) {
  std::string ascii;
  ascii.reserve(json.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(json.data());
  auto escape = [&ascii](unsigned code) {
    char unit[16];
    std::snprintf(unit, sizeof unit, "\\u%04X", code);
    ascii += unit;
  };
  for (size_t i = 0; i < json.size();) {
    if (bytes[i] < 0x7F) {
      ascii += json[i++];
      continue;
    }
    int code = 0xFFFD;  // for a byte that is not valid UTF-8, which ValidUtf8 never gives
    size_t length = Utf8SequenceAt(std::string_view(json).substr(i), &code);
    if (length == 0) length = 1;
    if (code >= 0x10000) {  // a surrogate pair
      code -= 0x10000;
      escape(0xD800 + (static_cast<unsigned>(code) >> 10));
      escape(0xDC00 + (static_cast<unsigned>(code) & 0x3FF));
    } else {
      escape(static_cast<unsigned>(code));
    }
    i += length;
  }
  return ascii;
}
