#include "util/text_format.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "util/json_line.h"
#include "util/text_conversion.h"

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

// "seconds" since the epoch as UTC civil time: "YYYY-MM-DD" + "separator" + "hh:mm:ss". Written
// digit by digit: a report line carries two times, and the watch service writes one per change.
std::string UtcText(int64_t seconds, char separator) {
  using namespace std::chrono;
  sys_seconds time{std::chrono::seconds(seconds)};
  sys_days day = floor<days>(time);
  year_month_day date{day};
  hh_mm_ss<std::chrono::seconds> clock{time - day};
  int year = static_cast<int>(date.year());
  if (year < 0 || year > 9999) return "unknown";
  char text[20];
  auto two = [&text](int at, unsigned value) {
    text[at] = static_cast<char>('0' + value / 10);
    text[at + 1] = static_cast<char>('0' + value % 10);
  };
  two(0, static_cast<unsigned>(year / 100));
  two(2, static_cast<unsigned>(year % 100));
  text[4] = '-';
  two(5, static_cast<unsigned>(date.month()));
  text[7] = '-';
  two(8, static_cast<unsigned>(date.day()));
  text[10] = separator;
  two(11, static_cast<unsigned>(clock.hours().count()));
  text[13] = ':';
  two(14, static_cast<unsigned>(clock.minutes().count()));
  text[16] = ':';
  two(17, static_cast<unsigned>(clock.seconds().count()));
  return std::string(text, 19);
}

// ".NNNNNNNNN" (nine digits) or ".NNN" (three) of the fraction of a second in "nanoseconds".
std::string Fraction(uint64_t nanoseconds, int digits) {
  uint64_t part = nanoseconds % 1000000000ull;
  for (int i = digits; i < 9; ++i) part /= 10;
  std::string text(static_cast<size_t>(digits) + 1, '0');
  text[0] = '.';
  for (int i = digits; i >= 1; --i, part /= 10)
    text[static_cast<size_t>(i)] = static_cast<char>('0' + part % 10);
  return text;
}

}  // namespace

std::string TimeText(uint64_t nanoseconds) {
  if (nanoseconds == ~0ull) return "unknown";
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), ' ') +
         Fraction(nanoseconds, 9) + " UTC";
}

std::string IsoTimeText(uint64_t nanoseconds) {
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), 'T') +
         Fraction(nanoseconds, 9) + "Z";
}

std::string IsoSecondsText(int64_t seconds) { return UtcText(seconds, 'T') + "Z"; }

std::string IsoMillisecondsText(uint64_t nanoseconds) {
  return UtcText(static_cast<int64_t>(nanoseconds / 1000000000ull), 'T') +
         Fraction(nanoseconds, 3) + "Z";
}

std::string CountText(uint64_t count, std::string_view one, std::string_view many) {
  return GroupedNumber(count) + " " + std::string(count == 1 ? one : many);
}

bool SecondsOfTimeText(std::string_view text, int64_t now, int64_t& seconds) {
  if (text.size() >= 2 && text.size() <= 10 &&
      text.find_first_not_of("0123456789", 0) == text.size() - 1) {
    int64_t count = std::stoll(std::string(text.substr(0, text.size() - 1)));
    const std::string_view units = "smhd";
    const int64_t unit_seconds[] = {1, 60, 3600, 86400};
    size_t unit = units.find(text.back());
    if (unit == std::string_view::npos) return false;
    seconds = now - count * unit_seconds[unit];
    return true;
  }
  std::string date(text);
  if (!date.empty() && date.back() == 'Z') date.pop_back();
  std::tm parts{};
  for (const char* form :
       {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
    parts = std::tm{};
    const char* end = ::strptime(date.c_str(), form, &parts);
    if (end != nullptr && *end == '\0') {
      seconds = static_cast<int64_t>(::timegm(&parts));
      return true;
    }
  }
  return false;
}

std::string AsciiLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

bool IsHexDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
}

bool IsValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    size_t length = Utf8SequenceAt(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
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
