#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "host/language.h"
#include "host/log_service.h"

// Event codes that the module hands to the log service with each message.
inline constexpr uint32_t kEventHashDb = 0x10013;          // 65555: load, save, enumeration
inline constexpr uint32_t kEventRestoreTimeout = 0x10030;  // 65584: a restore task out of time
inline constexpr uint32_t kEventShrink = 0x10012;          // 65554: shrink lines

// Codes of the utility service's message output, and the value that always ends its arguments.
inline constexpr uint32_t kMessageInstanceCount = 82;
inline constexpr uint32_t kMessageLoading = kEventHashDb;
inline constexpr uint32_t kMessageTrailer = 7;

// A message key in the middle of a message: it is looked up like the leading key. Plain strings
// among the values are streamed as they are.
struct LKey {
  const char* key;
};

namespace message_detail {
template <typename T>
void Put(CLanguage&, std::ostringstream& out, const T& value) {
  out << value;
}
inline void Put(CLanguage& language, std::ostringstream& out, const LKey& key) {
  std::string text;
  out << language.Text(text, key.key);
}
}  // namespace message_detail

// Assembles a message: the localised text of "key", then each part in turn (values streamed,
// LKey parts localised), into one narrow string.
template <typename... Parts>
std::string Compose(CLanguage& language, const char* key, const Parts&... parts) {
  std::ostringstream out;
  message_detail::Put(language, out, LKey{key});
  (message_detail::Put(language, out, parts), ...);
  return out.str();
}

// Per-severity log helpers; the event code defaults to the hash database's.
inline void LogCritical(CLogService& log, const std::string& text, uint32_t event = kEventHashDb) {
  log.Critical(event, text);
}
inline void LogError(CLogService& log, const std::string& text, uint32_t event = kEventHashDb) {
  log.Error(event, text);
}
inline void LogWarning(CLogService& log, const std::string& text, uint32_t event = kEventHashDb) {
  log.Warning(event, text);
}
inline void LogNotice(CLogService& log, const std::string& text, uint32_t event = kEventHashDb) {
  log.Notice(event, text);
}
inline void LogInformation(CLogService& log, const std::string& text,
                           uint32_t event = kEventHashDb) {
  log.Information(event, text);
}
inline void LogDebug(CLogService& log, const std::string& text, uint32_t event = kEventHashDb) {
  log.Debug(event, text);
}
