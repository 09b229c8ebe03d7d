// signdb ls POLICY [DIR] and signdb show POLICY PATH: what the database recorded, without
// touching the disk.

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <iostream>
#include <optional>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "refhost/security_text.h"
#include "tool/change/attribute_changes.h"
#include "tool/change/object_state.h"
#include "tool/common/exit_status.h"
#include "tool/report/change_text.h"
#include "tool/report/recorded_listing.h"
#include "tool/report/recorded_object_json.h"
#include "tool/session/session.h"
#include "tool/store/service_lock.h"
#include "tool/watch/query_protocol.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

// What the running watch service answers to "request" about a policy it watches; nothing when no
// service runs or it does not watch the policy (the saved files tell then).
std::optional<CQueryAnswer> AskAboutWatchedPolicy(CSession& session, const CQueryRequest& request,
                                                  int timeout_ms) {
  std::optional<CQueryAnswer> answer;
  try {
    answer = AskRunningWatchService(session.DataFolder(), request, timeout_ms);
  } catch (const std::exception& e) {
    throw CToolError(std::string("the watch service did not answer: ") + e.what());
  }
  if (answer && answer->code == CQueryCode::kNotWatched) return std::nullopt;
  return answer;
}

// The running watch service's listing for a policy it watches; nullopt when it does not watch it.
std::optional<std::vector<CListedObject>> ListThroughService(CSession& session,
                                                             const CRefPolicySettings& policy,
                                                             const std::string& directory,
                                                             bool recursive) {
  std::optional<CQueryAnswer> answer =
      AskAboutWatchedPolicy(session, CQueryRequest::List(policy.name, directory, recursive), 60000);
  if (!answer) return std::nullopt;
  if (!answer->ok()) throw CToolError(answer->error);
  std::vector<CListedObject> listed;
  Poco::JSON::Array::Ptr entries = answer->body->getArray("entries");
  for (size_t i = 0; entries && i < entries->size(); ++i) {
    listed.push_back(ListedFromJson(entries->getObject(static_cast<unsigned>(i))));
  }
  return listed;
}

}  // namespace

int RunList(const CCommandLine& line) {
  RequireShape(line, {"--recursive", "--json"}, 1, 2);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string directory =
      RelativeToRoot(policy, line.arguments.size() > 1 ? line.arguments[1] : "");
  bool recursive = line.Has("--recursive");
  // A watched policy is listed as the service records it now; the saved file may be older.
  std::optional<std::vector<CListedObject>> listed =
      ListThroughService(session, policy, directory, recursive);
  if (!listed) listed = ListRecorded(policy, *session.Store(policy).Load(), directory, recursive);
  for (const CListedObject& object : *listed) {
    std::cout << (line.Has("--json") ? ListedJson(object)
                                     : ListedText(object, session.settings().policy_number / 4))
              << "\n";
  }
  return kExitOk;
}

namespace {

// Everything recorded for one object, a field a line, owners and modes in words.
void PrintRecordedObject(const std::string& full_text, const CObjectState& state, bool under_target,
                         bool touched) {
  security_text::CSecurityItems items = security_text::Parse(state.security);
  auto field = [](const std::string& label, const std::string& value) {
    char padded[64];
    std::snprintf(padded, sizeof padded, "%-21s", (label + ":").c_str());
    std::cout << padded << value << "\n";
  };
  field("path", SafePath(full_text));
  field("kind", KindWords(state.kind()));
  if (!state.is_dir) {
    field("size", GroupedNumber(state.size) + " bytes");
    field("hash", state.hash.empty() ? "(none)" : state.hash);
  }
  field("mode", state.attributes == kUnknownAttributes ? "unknown" : ModeText(state.attributes));
  field("status changed", TimeText(state.time_1));
  field("modified", TimeText(state.time_2));
  for (const auto& [key, value] : items) {
    if (key == security_text::kMode && state.attributes != kUnknownAttributes) continue;
    std::string shown = key == security_text::kUid     ? OwnerText(value)
                        : key == security_text::kGid   ? GroupText(value)
                        : key == security_text::kFlags ? FlagsText(value)
                        : key == security_text::kMode  ? PermissionText(value, state.kind())
                                                       : EscapedText(value);
    field(EscapedText(key), shown);
  }
  if (items.empty())
    field("security", state.security.empty() ? "(none)" : EscapedText(state.security));
  if (!state.target.empty()) field("link target", SafePath(state.target));
  field("below a link target", under_target ? "yes" : "no");
  field("touched recently", touched ? "yes" : "no");
}

int NotRecorded(const CRefPolicySettings& policy, const std::string& relative) {
  std::cerr << "signdb: " << (relative.empty() ? std::string(".") : SafePath(relative))
            << " is not recorded in policy '" << policy.name << "'\n";
  return kExitDifferences;
}

// The running watch service's answer for a policy it watches; nullopt when it does not watch it.
std::optional<int> ShowThroughService(CSession& session, const CRefPolicySettings& policy,
                                      const std::string& relative, bool json) {
  std::optional<CQueryAnswer> asked =
      AskAboutWatchedPolicy(session, CQueryRequest::Show(policy.name, relative), 5000);
  if (!asked) return std::nullopt;
  if (asked->code == CQueryCode::kNotRecorded) return NotRecorded(policy, relative);
  if (!asked->ok()) throw CToolError(asked->error);
  if (json) {
    std::cout << asked->RawObject() << "\n";
    return kExitOk;
  }
  Poco::JSON::Object::Ptr object = asked->body->getObject("object");
  CObjectState state;
  state.is_dir = object->optValue<std::string>("kind", "") == "directory";
  state.hash = object->optValue<std::string>("hash", "");
  state.size = object->optValue<uint64_t>("size", 0);
  state.attributes = object->optValue<uint32_t>("attributes", kUnknownAttributes);
  state.time_1 = object->optValue<uint64_t>("time_1", kUnknownTime);
  state.time_2 = object->optValue<uint64_t>("time_2", kUnknownTime);
  state.security = object->optValue<std::string>("security", "");
  state.target = object->optValue<std::string>("target", "");
  PrintRecordedObject(object->optValue<std::string>("path", ""), state,
                      object->optValue<bool>("under_link_target", false),
                      object->optValue<bool>("touched_recently", false));
  return kExitOk;
}

}  // namespace

int RunShow(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 2, 2);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string relative = RelativeToRoot(policy, line.arguments[1]);
  if (std::optional<int> status = ShowThroughService(session, policy, relative, line.Has("--json")))
    return *status;
  std::shared_ptr<CHashDB> database = session.Store(policy).Load();
  std::wstring full = session.WideFullPath(policy, relative);
  if (!database->ExistsAs(full, database->IsDirectory(full))) return NotRecorded(policy, relative);
  if (line.Has("--json")) {
    std::cout << RecordedObjectJson(*database, full, session.Narrow(full), relative) << "\n";
    return kExitOk;
  }
  PrintRecordedObject(session.Narrow(full), RecordedState(*database, full),
                      database->IsUnderTarget(full), database->TouchedRecently(full));
  return kExitOk;
}
