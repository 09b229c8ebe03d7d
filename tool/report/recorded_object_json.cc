#include "tool/report/recorded_object_json.h"

#include <sstream>

#include "hashdb/hash_db.h"
#include "refhost/security_text.h"
#include "tool/change/object_state.h"
#include "util/text_format.h"

std::string RecordedObjectJson(CHashDB& database, const std::wstring& full_path,
                               const std::string& full_text, const std::string& relative) {
  CObjectState state = RecordedState(database, full_path);
  bool under_target = database.IsUnderTarget(full_path);
  bool touched = database.TouchedRecently(full_path);
  security_text::CSecurityItems items = security_text::Parse(state.security);
  std::ostringstream out;
  out << "{\"path\":" << JsonString(full_text) << ",\"relative\":" << JsonString(relative)
      << ",\"kind\":" << JsonString(KindWords(state.kind())) << ",\"size\":" << state.size
      << ",\"hash\":" << JsonString(state.hash) << ",\"attributes\":" << state.attributes
      << ",\"time_1\":" << state.time_1 << ",\"time_2\":" << state.time_2
      << ",\"security\":" << JsonString(state.security) << ",\"security_items\":{";
  bool first = true;
  for (const auto& [key, value] : items) {
    out << (first ? "" : ",") << JsonString(key) << ":" << JsonString(value);
    first = false;
  }
  out << "},\"target\":" << JsonString(state.target)
      << ",\"under_link_target\":" << (under_target ? "true" : "false")
      << ",\"touched_recently\":" << (touched ? "true" : "false") << "}";
  return out.str();
}
