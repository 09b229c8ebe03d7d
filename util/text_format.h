#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

// Texts for people: "1,234,567", "1.2 GiB", "100644", "2026-11-22 10:00:00.123456789".
std::string GroupedNumber(uint64_t value);
std::string ByteSize(uint64_t bytes);
// A count with its noun agreeing: "1 object", "2,081 objects".
std::string CountText(uint64_t count, std::string_view one, std::string_view many);
std::string AttributesText(uint32_t attributes);  // the whole st_mode, six octal digits
// A time in nanoseconds since the epoch, in UTC; "unknown" for all bits set.
std::string TimeText(uint64_t nanoseconds);
// The same in ISO 8601 with nanoseconds, as event logs take it: "2026-11-23T02:10:44.527702313Z".
std::string IsoTimeText(uint64_t nanoseconds);
// The same with milliseconds, as a report's own time: "2026-11-23T02:10:44.527Z".
std::string IsoMillisecondsText(uint64_t nanoseconds);
// A time in whole seconds since the epoch, in ISO 8601 UTC: "2026-11-23T02:10:44Z".
std::string IsoSecondsText(int64_t seconds);
// A time a person gives, in seconds since the epoch: a date and time in UTC ("2026-11-23",
// "2026-11-23T02:10", "2026-11-23 02:10:44", a trailing "Z" allowed) or a span back from "now"
// ("90s", "30m", "24h", "7d"). False for anything else.
bool SecondsOfTimeText(std::string_view text, int64_t now, int64_t& seconds);
// The text with ASCII letters in lower case (hashes are compared in lower-case hexadecimal).
std::string AsciiLower(std::string_view text);
// Whether the text is not empty and every byte of it a hexadecimal digit.
bool IsHexDigits(std::string_view text);
// Whether every byte of "text" is part of a valid UTF-8 sequence.
bool IsValidUtf8(std::string_view text);
// The text with every byte that is not part of a valid UTF-8 sequence replaced by U+FFFD.
std::string ValidUtf8(const std::string& text);
// A JSON string literal (quotes included) of UTF-8 text, in plain ASCII (see AppendJsonString);
// bytes that are not valid UTF-8 become U+FFFD.
std::string JsonString(const std::string& text);
