#include "tool/watch/pending_answer.h"

#include <Poco/JSON/Array.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "tool/change/difference.h"
#include "tool/session/session.h"
#include "tool/watch/query_protocol.h"
#include "util/json_line.h"
#include "util/text_conversion.h"

namespace {

constexpr std::array<std::pair<CAspect, const char*>, 20> kAspectNames = {{
    {CAspect::kContent, "content"},
    {CAspect::kDevice, "device"},
    {CAspect::kKind, "kind"},
    {CAspect::kOwner, "owner"},
    {CAspect::kGroup, "group"},
    {CAspect::kMode, "mode"},
    {CAspect::kCapabilities, "capabilities"},
    {CAspect::kAccessAcl, "access-acl"},
    {CAspect::kDefaultAcl, "default-acl"},
    {CAspect::kSelinux, "selinux"},
    {CAspect::kXattr, "xattr"},
    {CAspect::kFlags, "flags"},
    {CAspect::kTarget, "target"},
    {CAspect::kLinkCount, "link-count"},
    {CAspect::kInode, "inode"},
    {CAspect::kSize, "size"},
    {CAspect::kOtherSecurity, "other-security"},
    {CAspect::kSecurityForm, "security-form"},
    {CAspect::kModified, "modified"},
    {CAspect::kStatusChanged, "status-changed"},
}};

constexpr std::array<std::pair<CChange, const char*>, 4> kChangeNames = {{
    {CChange::kNew, "new"},
    {CChange::kGone, "gone"},
    {CChange::kRenamed, "renamed"},
    {CChange::kChanged, "changed"},
}};

constexpr std::array<std::pair<CPackageVerdict, const char*>, 4> kVerdictNames = {{
    {CPackageVerdict::kNone, "none"},
    {CPackageVerdict::kByPackage, "by-package"},
    {CPackageVerdict::kConffileEdited, "conffile-edited"},
    {CPackageVerdict::kDiffersFromPackage, "differs-from-package"},
}};

template <typename T, size_t N>
const char* NameOf(const std::array<std::pair<T, const char*>, N>& names, T value) {
  for (const auto& [known, name] : names) {
    if (known == value) return name;
  }
  throw std::logic_error("a value without a name in the pending answer");
}

template <typename T, size_t N>
T Named(const std::array<std::pair<T, const char*>, N>& names, const std::string& name) {
  for (const auto& [known, known_name] : names) {
    if (name == known_name) return known;
  }
  throw std::runtime_error("a pending answer names an unknown value '" + name + "'");
}

std::string Hex(const std::string& bytes) {
  return HexText(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Unhex(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::runtime_error("a pending answer holds an odd hex text");
  std::string bytes(hex.size() / 2, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    unsigned value = 0;
    if (std::sscanf(hex.c_str() + 2 * i, "%2x", &value) != 1)
      throw std::runtime_error("a pending answer holds a text that is not hex");
    bytes[i] = static_cast<char>(value);
  }
  return bytes;
}

void WriteState(CJsonLine& line, const char* key, const CObjectState& state) {
  line.Open(key).Bool("is_dir", state.is_dir).String("hash", state.hash);
  line.Number("size", state.size).Number("attributes", state.attributes);
  line.Number("time_1", state.time_1).Number("time_2", state.time_2);
  line.String("security", Hex(state.security)).String("target", Hex(state.target)).Close();
}

// A member that must be there, of the type asked.
template <typename T>
T Member(const Poco::JSON::Object& object, const std::string& key) {
  if (!object.has(key)) throw std::runtime_error("a pending answer lacks \"" + key + "\"");
  return object.getValue<T>(key);
}

std::string Text(const Poco::JSON::Object& object, const std::string& key) {
  return Unhex(Member<std::string>(object, key));
}

CObjectState ReadState(const Poco::JSON::Object& object) {
  CObjectState state;
  state.is_dir = Member<bool>(object, "is_dir");
  state.hash = Member<std::string>(object, "hash");
  state.size = Member<uint64_t>(object, "size");
  state.attributes = static_cast<uint32_t>(Member<uint64_t>(object, "attributes"));
  state.time_1 = Member<uint64_t>(object, "time_1");
  state.time_2 = Member<uint64_t>(object, "time_2");
  state.security = Text(object, "security");
  state.target = Text(object, "target");
  return state;
}

Poco::JSON::Object::Ptr ObjectMember(const Poco::JSON::Object& object, const std::string& key) {
  Poco::JSON::Object::Ptr member = object.getObject(key);
  if (member.isNull()) throw std::runtime_error("a pending answer lacks \"" + key + "\"");
  return member;
}

Poco::JSON::Array::Ptr ArrayMember(const Poco::JSON::Object& object, const std::string& key) {
  Poco::JSON::Array::Ptr member = object.getArray(key);
  if (member.isNull()) throw std::runtime_error("a pending answer lacks \"" + key + "\"");
  return member;
}

}  // namespace

std::string PendingAnswer(const CTreeCheckResult& result) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", result.seconds);
  CJsonLine line;
  line.Open().Bool("ok", true).Number("checked", result.checked).Raw("seconds", seconds);
  line.OpenArray("differences");
  for (const CDifference& difference : result.differences) {
    line.Open().String("change", NameOf(kChangeNames, difference.change));
    line.String("words", difference.words).Number("status", difference.status);
    line.String("severity", SeverityWord(difference.severity));
    line.String("path", Hex(difference.path)).String("from", Hex(difference.from));
    WriteState(line, "recorded", difference.recorded);
    WriteState(line, "current", difference.current);
    line.OpenArray("changes");
    for (const CAttributeChange& change : difference.changes) {
      line.Open().String("aspect", NameOf(kAspectNames, change.aspect));
      line.String("attribute", Hex(change.attribute));
      line.String("old", Hex(change.old_value)).String("new", Hex(change.new_value));
      line.Bool("old_present", change.old_present).Bool("new_present", change.new_present);
      line.Close();
    }
    line.Close().OpenArray("warnings");
    for (const std::string& warning : difference.warnings) line.Item(warning);
    line.Close().OpenArray("content");
    for (const std::string& text : difference.content) line.Item(Hex(text));
    line.Close().String("package_verdict", NameOf(kVerdictNames, difference.package_verdict));
    line.String("package", Hex(difference.package)).Close();
  }
  line.Close().OpenArray("unreadable");
  for (const auto& [path, reason] : result.unreadable) {
    line.OpenArray().Item(Hex(path)).Item(Hex(reason)).Close();
  }
  return line.Close().Close().Take();
}

std::optional<CTreeCheckResult> AskPending(CSession& session, const CRefPolicySettings& policy) {
  std::optional<CQueryAnswer> answer =
      AskRunningWatchService(session.DataFolder(), CQueryRequest::Pending(policy.name));
  if (!answer || answer->code == CQueryCode::kNotWatched) return std::nullopt;
  if (!answer->ok()) throw std::runtime_error(answer->error);
  CTreeCheckResult result = ReadPendingAnswer(*answer->body, session, policy);
  result.from_live_record = true;
  return result;
}

CTreeCheckResult ReadPendingAnswer(const Poco::JSON::Object& answer, CSession& session,
                                   const CRefPolicySettings& policy) {
  CTreeCheckResult result;
  try {
    result.checked = Member<uint64_t>(answer, "checked");
    result.seconds = Member<double>(answer, "seconds");
    CRefHost& host = session.host();
    std::wstring root = session.WideFullPath(policy, "");
    Poco::JSON::Array::Ptr differences = ArrayMember(answer, "differences");
    for (size_t i = 0; i < differences->size(); ++i) {
      Poco::JSON::Object::Ptr object = differences->getObject(static_cast<unsigned>(i));
      if (object.isNull()) throw std::runtime_error("a pending difference is not an object");
      CDifference difference;
      difference.change = Named(kChangeNames, Member<std::string>(*object, "change"));
      difference.words = Member<std::string>(*object, "words");
      difference.status = static_cast<uint32_t>(Member<uint64_t>(*object, "status"));
      if (!SeverityOfWord(Member<std::string>(*object, "severity"), difference.severity))
        throw std::runtime_error("a pending answer names an unknown severity");
      difference.path = Text(*object, "path");
      difference.from = Text(*object, "from");
      difference.recorded = ReadState(*ObjectMember(*object, "recorded"));
      difference.current = ReadState(*ObjectMember(*object, "current"));
      Poco::JSON::Array::Ptr changes = ArrayMember(*object, "changes");
      for (size_t j = 0; j < changes->size(); ++j) {
        Poco::JSON::Object::Ptr item = changes->getObject(static_cast<unsigned>(j));
        if (item.isNull()) throw std::runtime_error("a pending change is not an object");
        CAttributeChange change;
        change.aspect = Named(kAspectNames, Member<std::string>(*item, "aspect"));
        change.attribute = Text(*item, "attribute");
        change.old_value = Text(*item, "old");
        change.new_value = Text(*item, "new");
        change.old_present = Member<bool>(*item, "old_present");
        change.new_present = Member<bool>(*item, "new_present");
        difference.changes.push_back(std::move(change));
      }
      Poco::JSON::Array::Ptr warnings = ArrayMember(*object, "warnings");
      for (size_t j = 0; j < warnings->size(); ++j)
        difference.warnings.push_back(warnings->getElement<std::string>(static_cast<unsigned>(j)));
      Poco::JSON::Array::Ptr content = ArrayMember(*object, "content");
      for (size_t j = 0; j < content->size(); ++j)
        difference.content.push_back(
            Unhex(content->getElement<std::string>(static_cast<unsigned>(j))));
      difference.package_verdict =
          Named(kVerdictNames, Member<std::string>(*object, "package_verdict"));
      difference.package = Text(*object, "package");
      if (difference.change != CChange::kGone) {
        difference.info = CRefFileObjInfo::FromRecord(*host.Utility(), *host.Cfg(), root,
                                                      session.WideFullPath(policy, difference.path),
                                                      difference.current);
      }
      result.differences.push_back(std::move(difference));
    }
    Poco::JSON::Array::Ptr unreadable = ArrayMember(answer, "unreadable");
    for (size_t i = 0; i < unreadable->size(); ++i) {
      Poco::JSON::Array::Ptr pair = unreadable->getArray(static_cast<unsigned>(i));
      if (pair.isNull() || pair->size() != 2)
        throw std::runtime_error("a pending unreadable object is not a pair");
      result.unreadable.emplace_back(Unhex(pair->getElement<std::string>(0)),
                                     Unhex(pair->getElement<std::string>(1)));
    }
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("a pending answer that cannot be read: " + e.displayText());
  }
  return result;
}
