#pragma once

#include <cstdint>
#include <string>

// Texts for people: "1,234,567", "1.2 GiB", "100644", "2026-11-22 10:00:00.123456789".
std::string GroupedNumber(uint64_t value);
std::string ByteSize(uint64_t bytes);
std::string AttributesText(uint32_t attributes);  // the whole st_mode, six octal digits
// A time in nanoseconds since the epoch, in UTC; "unknown" for all bits set.
std::string TimeText(uint64_t nanoseconds);
// The text with every byte that is not part of a valid UTF-8 sequence replaced by U+FFFD.
std::string ValidUtf8(const std::string& text);
// A JSON string literal (quotes included) of UTF-8 text; invalid bytes become U+FFFD.
std::string JsonString(const std::string& text);
