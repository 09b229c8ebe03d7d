#include "cli/report_event.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Timestamp.h>

#include <sstream>

#include "cli/account_names.h"
#include "cli/difference.h"
#include "cli/text_format.h"
#include "refhost/security_text.h"
#include "refhost/text_conversion.h"

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

Object::Ptr NewObject() { return new Object(Poco::JSON_PRESERVE_KEY_ORDER); }
Array::Ptr NewArray() { return new Array; }

// JSON strings must be Unicode: bytes that are not valid UTF-8 become U+FFFD.
std::string Text(const std::string& text) { return ValidUtf8(text); }

// A name (a path, a link target) under "key", readable; when it is not valid UTF-8, its exact
// bytes in hexadecimal under "key_hex" as well, so that two names that differ only in such bytes
// stay apart and a reader can get the name back. Every strict JSON parser takes both.
void SetName(Object::Ptr object, const std::string& key, const std::string& name) {
  std::string text = ValidUtf8(name);
  object->set(key, text);
  if (text != name) object->set(key + "_hex", HexText(reinterpret_cast<const uint8_t*>(name.data()), name.size()));
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

Object::Ptr FileObject(const CObjectState& state, const std::string& full_path,
                       const CReportContext& context) {
  security_text::CSecurityItems items = security_text::Parse(state.security);
  auto item = [&items](const char* key) {
    auto found = items.find(key);
    return found == items.end() ? std::string() : found->second;
  };
  Object::Ptr file = NewObject();
  SetName(file, "path", full_path);
  file->set("type", KindType(state.kind()));
  if (!item(security_text::kMode).empty()) file->set("mode", item(security_text::kMode));
  std::string uid = item(security_text::kUid);
  std::string gid = item(security_text::kGid);
  if (!uid.empty()) file->set("uid", uid);
  if (!gid.empty()) file->set("gid", gid);
  if (!UserNameOf(uid).empty()) file->set("owner", Text(UserNameOf(uid)));
  if (!GroupNameOf(gid).empty()) file->set("group", Text(GroupNameOf(gid)));
  if (!state.is_dir) file->set("size", state.size);
  if (!item(security_text::kInode).empty()) file->set("inode", item(security_text::kInode));
  if (state.time_2 != kUnknownTime) file->set("mtime", IsoTimeText(state.time_2));
  if (state.time_1 != kUnknownTime) file->set("ctime", IsoTimeText(state.time_1));
  if (!state.target.empty()) SetName(file, "target_path", state.target);
  std::string flags = item(security_text::kFlags);
  if (!flags.empty()) {
    Array::Ptr attributes = NewArray();
    std::string names = FlagsText(flags);  // "ia (immutable, append-only)"
    size_t open = names.find('(');
    std::istringstream list(names.substr(open + 1, names.size() - open - 2));
    for (std::string name; std::getline(list >> std::ws, name, ',');) attributes->add(name);
    file->set("attributes", attributes);
  }
  if (!state.hash.empty()) {
    Object::Ptr hash = NewObject();
    hash->set(context.hash_name, state.hash);
    file->set("hash", hash);
  }
  return file;
}

Poco::Dynamic::Var Value(bool present, const std::string& value) {
  if (!present) return Poco::Dynamic::Var();
  return Text(value);
}

std::string Stringify(const Object::Ptr& object) {
  std::ostringstream out;
  object->stringify(out, 0);
  return AsciiJson(out.str());
}

Object::Ptr EventHead(const CReportContext& context) {
  Object::Ptr head = NewObject();
  head->set("@timestamp", context.timestamp);
  Object::Ptr host = NewObject();
  host->set("name", Text(context.host_name));
  head->set("host", host);
  return head;
}

}  // namespace

CReportContext CReportContext::Make(const std::string& policy, const std::string& root,
                                    const std::string& dataset, uint32_t policy_number) {
  CReportContext context;
  context.timestamp = Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%iZ");
  // Asked once a run: a long-running service makes a context for every change it logs.
  static const std::string host_name = Poco::Environment::nodeName();
  context.host_name = host_name;
  context.policy = policy;
  context.root = root;
  context.dataset = dataset;
  context.hash_name = "sha" + std::to_string(policy_number == 160 ? 1 : policy_number);
  return context;
}

std::string JoinedPath(const std::string& root, const std::string& relative) {
  if (relative.empty()) return root;
  return root.empty() || root.back() == '/' ? root + relative : root + "/" + relative;
}

std::string DifferenceJson(const CDifference& difference, const CReportContext& context) {
  Object::Ptr line = EventHead(context);
  Object::Ptr event = NewObject();
  event->set("kind", "event");
  Array::Ptr category = NewArray();
  category->add("file");
  event->set("category", category);
  Array::Ptr type = NewArray();
  type->add(EventType(difference.change));
  event->set("type", type);
  event->set("action", difference.words);
  event->set("code", std::to_string(difference.status));
  event->set("module", "signdb");
  event->set("dataset", "signdb." + context.dataset);
  line->set("event", event);

  const CObjectState& shown = difference.shown();
  line->set("file", FileObject(shown, JoinedPath(context.root, difference.path), context));

  Object::Ptr signdb = NewObject();
  signdb->set("policy", Text(context.policy));
  SetName(signdb, "root", context.root);
  SetName(signdb, "relative_path", difference.path);
  signdb->set("change", difference.words);
  if (!difference.package.empty()) signdb->set("package", Text(difference.package));
  signdb->set("status", difference.status);
  if (difference.change == CChange::kRenamed) {
    SetName(signdb, "from", difference.from);
    SetName(signdb, "from_path", JoinedPath(context.root, difference.from));
  }
  security_text::CSecurityItems items = security_text::Parse(shown.security);
  auto copy = [&](const char* key, const char* field) {
    auto found = items.find(key);
    if (found != items.end()) signdb->set(field, Text(found->second));
  };
  copy(security_text::kCapabilities, "capabilities");
  copy(security_text::kDevice, "device");
  copy(security_text::kLinkCount, "link_count");
  copy(security_text::kSelinux, "selinux");
  copy(security_text::kAccessAcl, "acl");
  Array::Ptr warnings = NewArray();
  for (const std::string& warning : difference.warnings) warnings->add(warning);
  signdb->set("warnings", warnings);
  Array::Ptr changes = NewArray();
  for (const CAttributeChange& change : difference.changes) {
    Object::Ptr entry = NewObject();
    entry->set("attribute", Text(change.attribute));
    entry->set("old", Value(change.old_present, change.old_value));
    entry->set("new", Value(change.new_present, change.new_value));
    if (change.aspect == CAspect::kOwner || change.aspect == CAspect::kGroup) {
      std::string (*name_of)(const std::string&) =
          change.aspect == CAspect::kOwner ? UserNameOf : GroupNameOf;
      auto name = [&](bool present, const std::string& id) -> Poco::Dynamic::Var {
        std::string found = present ? name_of(id) : std::string();
        if (found.empty()) return Poco::Dynamic::Var();
        return Text(found);
      };
      entry->set("old_name", name(change.old_present, change.old_value));
      entry->set("new_name", name(change.new_present, change.new_value));
    }
    changes->add(entry);
  }
  signdb->set("changes", changes);
  line->set("signdb", signdb);
  return Stringify(line);
}

std::string UnreadableJson(const std::string& relative_path, const std::string& reason,
                           const CReportContext& context) {
  Object::Ptr line = EventHead(context);
  Object::Ptr event = NewObject();
  event->set("kind", "event");
  event->set("action", "unreadable");
  event->set("outcome", "failure");
  event->set("module", "signdb");
  event->set("dataset", "signdb." + context.dataset);
  event->set("reason", Text(reason));
  line->set("event", event);
  Object::Ptr file = NewObject();
  SetName(file, "path", JoinedPath(context.root, relative_path));
  line->set("file", file);
  Object::Ptr signdb = NewObject();
  signdb->set("policy", Text(context.policy));
  SetName(signdb, "relative_path", relative_path);
  signdb->set("change", "unreadable");
  line->set("signdb", signdb);
  return Stringify(line);
}
