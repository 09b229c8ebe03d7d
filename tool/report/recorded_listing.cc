#include "tool/report/recorded_listing.h"

#include <cstdio>

#include "hashdb/hash_db.h"
#include "refhost/settings.h"
#include "tool/change/attribute_changes.h"
#include "tool/common/exit_status.h"
#include "tool/report/change_text.h"
#include "util/json_line.h"
#include "util/relative_path.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

std::vector<CListedObject> ListRecorded(const CRefPolicySettings& policy, CHashDB& database,
                                        const std::string& directory, bool recursive) {
  if (!database.ExistsAs(Utf8ToWide(JoinedPath(policy.root, directory)), true)) {
    throw CToolError("no directory " + (directory.empty() ? std::string(".") : directory) +
                     " is recorded in policy '" + policy.name + "'");
  }
  std::shared_ptr<CPathEntryList> entries = database.SubNodes(Utf8ToWide(directory));
  entries->sort([](const CPathEntry& a, const CPathEntry& b) { return a.second < b.second; });
  std::vector<CListedObject> listed;
  for (const CPathEntry& entry : *entries) {
    std::string relative = WideToUtf8(entry.second);
    if (relative == directory || (!recursive && ParentOf(relative) != directory)) continue;
    listed.push_back(
        {relative, RecordedState(database, Utf8ToWide(JoinedPath(policy.root, relative)))});
  }
  return listed;
}

std::string ListedJson(const CListedObject& object) {
  const CObjectState& state = object.state;
  CJsonLine line;
  line.Open().String("path", object.relative).String("kind", KindWords(state.kind()));
  line.Number("size", state.size).String("hash", state.hash);
  if (state.attributes != kUnknownAttributes) line.Number("attributes", state.attributes);
  if (!state.target.empty()) line.String("target", state.target);
  return line.Close().Take();
}

CListedObject ListedFromJson(const Poco::JSON::Object::Ptr& line) {
  CListedObject object;
  object.relative = line->optValue<std::string>("path", "");
  object.state.is_dir = line->optValue<std::string>("kind", "") == "directory";
  object.state.size = line->optValue<uint64_t>("size", 0);
  object.state.hash = line->optValue<std::string>("hash", "");
  object.state.attributes = line->optValue<uint32_t>("attributes", kUnknownAttributes);
  object.state.target = line->optValue<std::string>("target", "");
  return object;
}

std::string ListedText(const CListedObject& object, size_t hash_width) {
  const CObjectState& state = object.state;
  std::string mode = state.attributes == kUnknownAttributes
                         ? std::string(1, KindLetter(state.kind())) + "?????????"
                         : ModeText(state.attributes).substr(0, 10);
  char prefix[48];
  std::snprintf(prefix, sizeof prefix, "%s %14s  ", mode.c_str(),
                state.is_dir ? "-" : GroupedNumber(state.size).c_str());
  return prefix + (state.hash.empty() ? std::string(hash_width, ' ') : state.hash) + "  " +
         SafePath(object.relative) + (state.is_dir ? "/" : "") +
         (state.target.empty() ? "" : " -> " + SafePath(state.target));
}
