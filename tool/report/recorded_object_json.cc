#include "tool/report/recorded_object_json.h"

#include "hashdb/hash_db.h"
#include "refhost/security_text.h"
#include "tool/change/object_state.h"
#include "tool/report/report_event.h"
#include "util/json_line.h"
#include "util/text_format.h"

std::string RecordedObjectJson(CHashDB& database, const std::wstring& full_path,
                               const std::string& full_text, const std::string& relative) {
  CObjectState state = RecordedState(database, full_path);
  bool under_target = database.IsUnderTarget(full_path);
  bool touched = database.TouchedRecently(full_path);
  security_text::CSecurityItems items = security_text::Parse(state.security);
  // The digest's name, as a report names it, from the hash's length.
  CReportContext context;
  switch (state.hash.size()) {
    case 40:
      context.hash_name = "sha1";
      break;
    default:
      context.hash_name = "sha" + std::to_string(state.hash.size() * 4);
  }
  CJsonLine out;
  out.Open().String("path", full_text).String("relative", relative);
  out.String("kind", KindWords(state.kind())).Number("size", state.size);
  out.String("hash", state.hash);
  AddFile(out, state, items, full_text, context);  // what check --json says of a file
  out.String("security", state.security).Open("security_items");
  for (const auto& [key, value] : items) out.String(key, value);
  out.Close().String("target", state.target);
  out.Bool("under_link_target", under_target).Bool("touched_recently", touched);
  return out.Close().Take();
}
