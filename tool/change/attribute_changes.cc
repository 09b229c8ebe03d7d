#include "tool/change/attribute_changes.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cstdio>
#include <iterator>
#include <set>

#include "refhost/security_text.h"
#include "util/account_names.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

using security_text::CSecurityItems;

constexpr const char* kNone = "none";

// Adds a change with machine values and display texts; "present" flags say whether each side has
// the attribute at all.
void Add(std::vector<CAttributeChange>& changes, CAspect aspect, std::string attribute,
         std::string old_value, std::string new_value, std::string old_display,
         std::string new_display, bool old_present = true, bool new_present = true) {
  CAttributeChange change;
  change.aspect = aspect;
  change.attribute = std::move(attribute);
  change.old_value = std::move(old_value);
  change.new_value = std::move(new_value);
  change.old_present = old_present;
  change.new_present = new_present;
  change.old_display = old_present ? std::move(old_display) : kNone;
  change.new_display = new_present ? std::move(new_display) : kNone;
  changes.push_back(std::move(change));
}

// How a security item is named, shown and ranked.
struct CItemKind {
  CAspect aspect;
  std::string attribute;
};

CItemKind ItemKind(const std::string& key) {
  namespace st = security_text;
  if (key == st::kUid) return {CAspect::kOwner, "uid"};
  if (key == st::kGid) return {CAspect::kGroup, "gid"};
  if (key == st::kMode) return {CAspect::kMode, "mode"};
  if (key == st::kLinkCount) return {CAspect::kLinkCount, "link_count"};
  if (key == st::kInode) return {CAspect::kInode, "inode"};
  if (key == st::kDevice) return {CAspect::kDevice, "device"};
  if (key == st::kAccessAcl) return {CAspect::kAccessAcl, "acl.access"};
  if (key == st::kDefaultAcl) return {CAspect::kDefaultAcl, "acl.default"};
  if (key == st::kCapabilities) return {CAspect::kCapabilities, "capabilities"};
  if (key == st::kSelinux) return {CAspect::kSelinux, "selinux"};
  if (key == st::kFlags) return {CAspect::kFlags, "flags"};
  if (key.rfind(st::kXattrPrefix, 0) == 0) return {CAspect::kXattr, key};
  return {CAspect::kOtherSecurity, key};
}

std::string ItemDisplay(const std::string& key, const std::string& value, CObjectKind kind) {
  namespace st = security_text;
  if (key == st::kUid) return OwnerText(value);
  if (key == st::kGid) return GroupText(value);
  if (key == st::kMode) return PermissionText(value, kind);
  if (key == st::kFlags) return FlagsText(value);
  return EscapedText(value);
}

// How people read an aspect: the words that head a line, and the label of one difference.
struct CAspectWords {
  const char* headline;
  const char* label;
};

const CAspectWords& WordsOf(CAspect aspect) {
  // In the order of CAspect.
  static const CAspectWords kWords[] = {
      {"hash changed", "hash"},
      {"device changed", "device"},
      {"kind changed", "kind"},
      {"owner changed", "owner"},
      {"group changed", "group"},
      {"mode changed", "mode"},
      {"capabilities changed", "capabilities"},
      {"acl changed", "acl"},
      {"acl changed", "default acl"},
      {"selinux label changed", "selinux label"},
      {"xattrs changed", "xattr"},
      {"flags changed", "flags"},
      {"link target changed", "link target"},
      {"link count changed", "link count"},
      {"inode changed", "inode"},
      {"size changed", "size"},
      {"security attributes changed", nullptr},  // labelled by its key
      {"security attributes changed", "security attributes"},
      {"times changed", "modified"},
      {"times changed", "status changed"},
  };
  static_assert(std::size(kWords) == static_cast<size_t>(CAspect::kStatusChanged) + 1);
  return kWords[static_cast<size_t>(aspect)];
}

}  // namespace

bool AspectOfLabel(const std::string& label, CAspect& aspect) {
  for (size_t i = 0; i <= static_cast<size_t>(CAspect::kStatusChanged); ++i) {
    const char* known = WordsOf(static_cast<CAspect>(i)).label;
    if (known != nullptr && label == known) {
      aspect = static_cast<CAspect>(i);
      return true;
    }
  }
  if (label == "xattrs") {
    aspect = CAspect::kXattr;
    return true;
  }
  return false;
}

namespace {

// The label of an attribute in a line for people.
std::string Label(const CAttributeChange& change) {
  if (change.aspect == CAspect::kXattr)
    return "xattr " + EscapedText(change.attribute.substr(
                          std::string_view(security_text::kXattrPrefix).size()));
  if (change.aspect == CAspect::kOtherSecurity) return EscapedText(change.attribute);
  return WordsOf(change.aspect).label;
}

void CompareSecurity(const CObjectState& recorded, const CObjectState& current, bool modes_compared,
                     std::vector<CAttributeChange>& changes) {
  if (recorded.security.empty() || current.security.empty() ||
      recorded.security == current.security)
    return;
  bool old_legacy = false;
  bool new_legacy = false;
  CSecurityItems before = security_text::Parse(recorded.security, &old_legacy);
  CSecurityItems after = security_text::Parse(current.security, &new_legacy);
  if (old_legacy != new_legacy) {
    // The older form held owner, group, mode and ACL only: compare those, and say why the rest
    // shows up as a change once.
    static const std::set<std::string> kLegacyKeys = {
        security_text::kUid, security_text::kGid, security_text::kMode, security_text::kAccessAcl};
    CSecurityItems& newer = old_legacy ? after : before;
    std::erase_if(newer, [](const auto& item) { return !kLegacyKeys.count(item.first); });
    Add(changes, CAspect::kSecurityForm, "security_form", old_legacy ? "legacy" : "current",
        old_legacy ? "current" : "legacy",
        old_legacy ? "recorded in an older form" : "current form",
        old_legacy ? "current form ('signdb update' records it)" : "older form");
  }
  std::set<std::string> keys;
  for (const auto& item : before) keys.insert(item.first);
  for (const auto& item : after) keys.insert(item.first);
  for (const std::string& key : keys) {
    if (key == security_text::kMode && modes_compared)
      continue;  // shown from the attributes already
    auto old_item = before.find(key);
    auto new_item = after.find(key);
    bool old_present = old_item != before.end();
    bool new_present = new_item != after.end();
    std::string old_value = old_present ? old_item->second : std::string();
    std::string new_value = new_present ? new_item->second : std::string();
    if (old_present == new_present && old_value == new_value) continue;
    CItemKind kind = ItemKind(key);
    Add(changes, kind.aspect, kind.attribute, old_value, new_value,
        ItemDisplay(key, old_value, recorded.kind()), ItemDisplay(key, new_value, current.kind()),
        old_present, new_present);
  }
}

}  // namespace

std::string CAttributeChange::Text() const {
  return Label(*this) + " " + old_display + " -> " + new_display;
}

const char* HeadlineWords(CAspect aspect) { return WordsOf(aspect).headline; }

std::vector<CAttributeChange> CompareStates(const CObjectState& recorded,
                                            const CObjectState& current) {
  std::vector<CAttributeChange> changes;
  CObjectKind old_kind = recorded.kind();
  CObjectKind new_kind = current.kind();
  if (!recorded.hash.empty() && !current.hash.empty() &&
      !boost::algorithm::iequals(recorded.hash, current.hash)) {
    Add(changes, CAspect::kContent, "hash", recorded.hash, current.hash, recorded.hash,
        current.hash);
  }
  if (old_kind != new_kind) {
    Add(changes, CAspect::kKind, "kind", KindType(old_kind), KindType(new_kind),
        KindWords(old_kind), KindWords(new_kind));
  }
  bool modes_compared =
      recorded.attributes != kUnknownAttributes && current.attributes != kUnknownAttributes;
  if (modes_compared && (recorded.attributes & 07777) != (current.attributes & 07777)) {
    char old_mode[8];
    char new_mode[8];
    std::snprintf(old_mode, sizeof old_mode, "%04o", recorded.attributes & 07777u);
    std::snprintf(new_mode, sizeof new_mode, "%04o", current.attributes & 07777u);
    Add(changes, CAspect::kMode, "mode", old_mode, new_mode, ModeText(recorded.attributes),
        ModeText(current.attributes));
  }
  if (recorded.target != current.target) {
    Add(changes, CAspect::kTarget, "target_path", recorded.target, current.target,
        "'" + EscapedText(recorded.target) + "'", "'" + EscapedText(current.target) + "'",
        !recorded.target.empty(), !current.target.empty());
  }
  if (!recorded.is_dir && !current.is_dir && recorded.size != current.size) {
    Add(changes, CAspect::kSize, "size", std::to_string(recorded.size),
        std::to_string(current.size), GroupedNumber(recorded.size), GroupedNumber(current.size));
  }
  CompareSecurity(recorded, current, modes_compared, changes);
  // A directory's modification time follows its entries, which are reported themselves.
  if (!recorded.is_dir && recorded.time_2 != kUnknownTime && current.time_2 != kUnknownTime &&
      recorded.time_2 != current.time_2) {
    Add(changes, CAspect::kModified, "mtime", IsoTimeText(recorded.time_2),
        IsoTimeText(current.time_2), TimeText(recorded.time_2), TimeText(current.time_2));
  }
  if (recorded.time_1 != kUnknownTime && current.time_1 != kUnknownTime &&
      recorded.time_1 != current.time_1) {
    Add(changes, CAspect::kStatusChanged, "ctime", IsoTimeText(recorded.time_1),
        IsoTimeText(current.time_1), TimeText(recorded.time_1), TimeText(current.time_1));
  }
  std::stable_sort(
      changes.begin(), changes.end(),
      [](const CAttributeChange& a, const CAttributeChange& b) { return a.aspect < b.aspect; });
  return changes;
}

std::string ModeText(uint32_t st_mode) {
  char octal[8];
  std::snprintf(octal, sizeof octal, "%04o", st_mode & 07777u);
  return PermissionText(octal, KindOf(false, st_mode, false));
}

std::string PermissionText(const std::string& octal_mode, CObjectKind kind) {
  unsigned mode = 0;
  for (char c : octal_mode) {
    if (c < '0' || c > '7') return EscapedText(octal_mode);
    mode = mode * 8 + static_cast<unsigned>(c - '0');
  }
  std::string text(10, '-');
  text[0] = KindLetter(kind);
  const char* letters = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i) {
    if (mode & (0400u >> i)) text[static_cast<size_t>(i) + 1] = letters[i];
  }
  auto special = [&](unsigned bit, size_t position, char with_x, char without_x) {
    if (mode & bit) text[position] = text[position] == 'x' ? with_x : without_x;
  };
  special(S_ISUID, 3, 's', 'S');
  special(S_ISGID, 6, 's', 'S');
  special(S_ISVTX, 9, 't', 'T');
  return text + " (" + EscapedText(octal_mode) + ")";
}

namespace {

std::string AccountText(const std::string& id, const std::string& name) {
  return name.empty() ? EscapedText(id) : EscapedText(name) + " (" + id + ")";
}

}  // namespace

std::string OwnerText(const std::string& uid) { return AccountText(uid, UserNameOf(uid)); }
std::string GroupText(const std::string& gid) { return AccountText(gid, GroupNameOf(gid)); }

std::string FlagsText(const std::string& letters) {
  std::string names;
  for (char letter : letters)
    names += (names.empty() ? "" : ", ") + std::string(security_text::InodeFlagName(letter));
  return EscapedText(letters) + " (" + names + ")";
}

std::vector<std::string> Warnings(const CObjectState& state) {
  std::vector<std::string> warnings;
  CObjectKind kind = state.kind();
  CSecurityItems items = security_text::Parse(state.security);
  if (state.attributes != kUnknownAttributes && kind != CObjectKind::kSymlink) {
    if (kind != CObjectKind::kDirectory && (state.attributes & S_ISUID))
      warnings.push_back("setuid");
    if (kind != CObjectKind::kDirectory && (state.attributes & S_ISGID))
      warnings.push_back("setgid");
    if (state.attributes & S_IWOTH) warnings.push_back("world-writable");
  }
  if (items.count(security_text::kCapabilities)) warnings.push_back("capabilities");
  return warnings;
}

std::string Summary(const CObjectState& state) {
  CObjectKind kind = state.kind();
  CSecurityItems items = security_text::Parse(state.security);
  std::string text = std::string("kind ") + KindWords(kind);
  if (state.attributes != kUnknownAttributes) text += "; mode " + ModeText(state.attributes);
  auto item = [&](const char* key) {
    auto found = items.find(key);
    return found == items.end() ? std::string() : found->second;
  };
  if (!item(security_text::kUid).empty()) text += "; owner " + OwnerText(item(security_text::kUid));
  if (!item(security_text::kGid).empty()) text += "; group " + GroupText(item(security_text::kGid));
  if (!item(security_text::kCapabilities).empty()) {
    text += "; capabilities " + EscapedText(item(security_text::kCapabilities));
  }
  if (!item(security_text::kAccessAcl).empty()) {
    text += "; acl " + EscapedText(item(security_text::kAccessAcl));
  }
  if (!item(security_text::kDefaultAcl).empty()) {
    text += "; default acl " + EscapedText(item(security_text::kDefaultAcl));
  }
  if (!item(security_text::kDevice).empty())
    text += "; device " + EscapedText(item(security_text::kDevice));
  if (!item(security_text::kFlags).empty())
    text += "; flags " + FlagsText(item(security_text::kFlags));
  if (!state.target.empty()) text += "; link target '" + EscapedText(state.target) + "'";
  if (!state.hash.empty()) text += "; hash " + state.hash;
  return text;
}
