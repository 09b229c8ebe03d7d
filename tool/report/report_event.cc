#include "tool/report/report_event.h"

#include <Poco/Environment.h>

#include <chrono>
#include <cstdio>
#include <sstream>

#include "refhost/security_text.h"
#include "tool/change/difference.h"
#include "tool/report/change_text.h"
#include "tool/report/report_sink.h"
#include "util/account_names.h"
#include "util/json_line.h"
#include "util/relative_path.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

// A name (a path, a link target) under "key", readable; when it is not valid UTF-8, its exact
// bytes in hexadecimal under "key_hex" as well, so that two names that differ only in such bytes
// stay apart and a reader can get the name back. Every strict JSON parser takes both.
void SetName(CJsonLine& line, const std::string& key, const std::string& name) {
  line.String(key, name);  // bytes that are not valid UTF-8 read as U+FFFD
  if (!IsValidUtf8(name)) {
    line.String(key + "_hex", HexText(reinterpret_cast<const uint8_t*>(name.data()), name.size()));
  }
}

const char* EventType(CChange change) {
  switch (change) {
    case CChange::kNew:
      return "creation";
    case CChange::kGone:
      return "deletion";
    default:
      return "change";
  }
}

}  // namespace

void AddFile(CJsonLine& line, const CObjectState& state, const security_text::CSecurityItems& items,
             const std::string& full_path, const CReportContext& context) {
  auto item = [&items](const char* key) {
    auto found = items.find(key);
    return found == items.end() ? std::string() : found->second;
  };
  line.Open("file");
  SetName(line, "path", full_path);
  line.String("type", KindType(state.kind()));
  if (!item(security_text::kMode).empty()) line.String("mode", item(security_text::kMode));
  std::string uid = item(security_text::kUid);
  std::string gid = item(security_text::kGid);
  if (!uid.empty()) line.String("uid", uid);
  if (!gid.empty()) line.String("gid", gid);
  if (std::string owner = UserNameOf(uid); !owner.empty()) line.String("owner", owner);
  if (std::string group = GroupNameOf(gid); !group.empty()) line.String("group", group);
  if (!state.is_dir) line.Number("size", state.size);
  if (!item(security_text::kInode).empty()) line.String("inode", item(security_text::kInode));
  if (state.time_2 != kUnknownTime) line.String("mtime", IsoTimeText(state.time_2));
  if (state.time_1 != kUnknownTime) line.String("ctime", IsoTimeText(state.time_1));
  if (!state.target.empty()) SetName(line, "target_path", state.target);
  std::string flags = item(security_text::kFlags);
  if (!flags.empty()) {
    line.OpenArray("attributes");
    std::string names = FlagsText(flags);  // "ia (immutable, append-only)"
    size_t open = names.find('(');
    std::istringstream list(names.substr(open + 1, names.size() - open - 2));
    for (std::string name; std::getline(list >> std::ws, name, ',');) line.Item(name);
    line.Close();
  }
  if (!state.hash.empty()) line.Open("hash").String(context.hash_name, state.hash).Close();
  line.Close();
}

namespace {

void Value(CJsonLine& line, const std::string& key, bool present, const std::string& value) {
  if (present) {
    line.String(key, value);
  } else {
    line.Null(key);
  }
}

void OpenEvent(CJsonLine& line, const CReportContext& context) {
  line.Open().String("@timestamp", context.timestamp);
  line.Open("host").String("name", context.host_name).Close();
}

}  // namespace

CReportContext CReportContext::Make(const std::string& policy, const std::string& root,
                                    const std::string& dataset, uint32_t policy_number) {
  CReportContext context;
  context.timestamp = IsoMillisecondsText(
      static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count()));
  // Asked once a run: a long-running service makes a context for every change it logs.
  static const std::string host_name = Poco::Environment::nodeName();
  context.host_name = host_name;
  context.policy = policy;
  context.root = root;
  context.dataset = dataset;
  context.hash_name = "sha" + std::to_string(policy_number == 160 ? 1 : policy_number);
  return context;
}

std::string DifferenceJson(const CDifference& difference, const CReportContext& context,
                           const char* watch_event) {
  CJsonLine line;
  OpenEvent(line, context);
  line.Open("event").String("kind", "event");
  line.OpenArray("category").Item("file").Close();
  line.OpenArray("type").Item(EventType(difference.change)).Close();
  line.String("action", difference.words).String("code", std::to_string(difference.status));
  line.Number("severity", static_cast<uint64_t>(SeverityScore(difference.severity)));
  line.String("module", "signdb").String("dataset", "signdb." + context.dataset).Close();

  const CObjectState& shown = difference.shown();
  security_text::CSecurityItems items = security_text::Parse(shown.security);
  AddFile(line, shown, items, JoinedPath(context.root, difference.path), context);

  line.Open("signdb").String("policy", context.policy);
  SetName(line, "root", context.root);
  SetName(line, "relative_path", difference.path);
  line.String("change", difference.words).String("severity", SeverityWord(difference.severity));
  if (!difference.package.empty()) line.String("package", difference.package);
  line.Number("status", difference.status);
  if (difference.baseline != CBaselineVerdict::kNotSaid)
    line.Bool("pending", difference.baseline == CBaselineVerdict::kPending);
  if (difference.change == CChange::kRenamed) {
    SetName(line, "from", difference.from);
    SetName(line, "from_path", JoinedPath(context.root, difference.from));
  }
  auto copy = [&](const char* key, const char* field) {
    auto found = items.find(key);
    if (found != items.end()) line.String(field, found->second);
  };
  copy(security_text::kCapabilities, "capabilities");
  copy(security_text::kDevice, "device");
  copy(security_text::kLinkCount, "link_count");
  copy(security_text::kSelinux, "selinux");
  copy(security_text::kAccessAcl, "acl");
  line.OpenArray("warnings");
  for (const std::string& warning : difference.warnings) line.Item(warning);
  line.Close();
  if (!difference.content.empty()) {
    line.OpenArray("content");
    for (const std::string& text : difference.content) line.Item(text);
    line.Close();
  }
  line.OpenArray("changes");
  for (const CAttributeChange& change : difference.changes) {
    line.Open().String("attribute", change.attribute);
    Value(line, "old", change.old_present, change.old_value);
    Value(line, "new", change.new_present, change.new_value);
    if (change.aspect == CAspect::kOwner || change.aspect == CAspect::kGroup) {
      std::string (*name_of)(const std::string&) =
          change.aspect == CAspect::kOwner ? UserNameOf : GroupNameOf;
      auto name = [&](const char* key, bool present, const std::string& id) {
        std::string found = present ? name_of(id) : std::string();
        if (found.empty()) {
          line.Null(key);
        } else {
          line.String(key, found);
        }
      };
      name("old_name", change.old_present, change.old_value);
      name("new_name", change.new_present, change.new_value);
    }
    line.Close();
  }
  line.Close().Close();
  if (watch_event != nullptr) line.Open("watch").String("event", watch_event).Close();
  line.Close();
  return line.Take();
}

std::string UnreadableJson(const std::string& relative_path, const std::string& reason,
                           const CReportContext& context) {
  CJsonLine line;
  OpenEvent(line, context);
  line.Open("event")
      .String("kind", "event")
      .String("action", "unreadable")
      .String("outcome", "failure");
  line.String("module", "signdb")
      .String("dataset", "signdb." + context.dataset)
      .String("reason", reason)
      .Close();
  line.Open("file");
  SetName(line, "path", JoinedPath(context.root, relative_path));
  line.Close();
  line.Open("signdb").String("policy", context.policy);
  SetName(line, "relative_path", relative_path);
  line.String("change", "unreadable").Close();
  line.Close();
  return line.Take();
}

std::string SummaryJson(const CReportSummary& summary, const CReportContext& context) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.2f", summary.seconds);
  CJsonLine line;
  OpenEvent(line, context);
  line.Open("summary").String("policy", context.policy).String("root", context.root);
  line.Number("checked", summary.checked).Number("bytes", summary.bytes).Raw("seconds", seconds);
  line.Number("differences", summary.differences).Number("unreadable", summary.unreadable);
  line.Bool("accepted", summary.accepted).Open("severity");
  for (int severity = 3; severity >= 0; --severity) {
    line.Number(SeverityWord(static_cast<CSeverity>(severity)), summary.by_severity[severity]);
  }
  line.Close();
  line.String("source", summary.from_live_record ? "live-record" : "walk").Open("changes");
  for (const auto& [words, count] : summary.changes) line.Number(words, count);
  return line.Close().Close().Close().Take();
}
