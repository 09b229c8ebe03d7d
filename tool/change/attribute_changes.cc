#include "tool/change/attribute_changes.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cstdio>
#include <iterator>
#include <set>

#include "refhost/security_text.h"
#include "util/text_format.h"

namespace {

using security_text::CSecurityItems;

// Adds a change with its machine values; "present" flags say whether each side has the attribute
// at all.
void Add(std::vector<CAttributeChange>& changes, CAspect aspect, std::string attribute,
         std::string old_value, std::string new_value, bool old_present = true,
         bool new_present = true) {
  CAttributeChange change;
  change.aspect = aspect;
  change.attribute = std::move(attribute);
  change.old_value = std::move(old_value);
  change.new_value = std::move(new_value);
  change.old_present = old_present;
  change.new_present = new_present;
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

const char* AspectLabel(CAspect aspect) { return WordsOf(aspect).label; }

namespace {

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
        old_legacy ? "current" : "legacy");
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
    Add(changes, kind.aspect, kind.attribute, old_value, new_value, old_present, new_present);
  }
}

}  // namespace

const char* HeadlineWords(CAspect aspect) { return WordsOf(aspect).headline; }

std::vector<CAttributeChange> CompareStates(const CObjectState& recorded,
                                            const CObjectState& current) {
  std::vector<CAttributeChange> changes;
  CObjectKind old_kind = recorded.kind();
  CObjectKind new_kind = current.kind();
  if (!recorded.hash.empty() && !current.hash.empty() &&
      !boost::algorithm::iequals(recorded.hash, current.hash)) {
    Add(changes, CAspect::kContent, "hash", recorded.hash, current.hash);
  }
  if (old_kind != new_kind) {
    Add(changes, CAspect::kKind, "kind", KindType(old_kind), KindType(new_kind));
  }
  bool modes_compared =
      recorded.attributes != kUnknownAttributes && current.attributes != kUnknownAttributes;
  if (modes_compared && (recorded.attributes & 07777) != (current.attributes & 07777)) {
    char old_mode[8];
    char new_mode[8];
    std::snprintf(old_mode, sizeof old_mode, "%04o", recorded.attributes & 07777u);
    std::snprintf(new_mode, sizeof new_mode, "%04o", current.attributes & 07777u);
    Add(changes, CAspect::kMode, "mode", old_mode, new_mode);
  }
  if (recorded.target != current.target) {
    Add(changes, CAspect::kTarget, "target_path", recorded.target, current.target,
        !recorded.target.empty(), !current.target.empty());
  }
  if (!recorded.is_dir && !current.is_dir && recorded.size != current.size) {
    Add(changes, CAspect::kSize, "size", std::to_string(recorded.size),
        std::to_string(current.size));
  }
  CompareSecurity(recorded, current, modes_compared, changes);
  // A directory's modification time follows its entries, which are reported themselves.
  if (!recorded.is_dir && recorded.time_2 != kUnknownTime && current.time_2 != kUnknownTime &&
      recorded.time_2 != current.time_2) {
    Add(changes, CAspect::kModified, "mtime", IsoTimeText(recorded.time_2),
        IsoTimeText(current.time_2));
  }
  if (recorded.time_1 != kUnknownTime && current.time_1 != kUnknownTime &&
      recorded.time_1 != current.time_1) {
    Add(changes, CAspect::kStatusChanged, "ctime", IsoTimeText(recorded.time_1),
        IsoTimeText(current.time_1));
  }
  std::stable_sort(
      changes.begin(), changes.end(),
      [](const CAttributeChange& a, const CAttributeChange& b) { return a.aspect < b.aspect; });
  return changes;
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
