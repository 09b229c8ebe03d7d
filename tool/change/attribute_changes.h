#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool/change/object_state.h"

// One aspect of an object that can change, in the order of importance that reports follow: what
// the object holds first, then what it is, who may do what with it, where it points, how many
// names it has, and its times last.
enum class CAspect {
  kContent,
  kDevice,
  kKind,
  kOwner,
  kGroup,
  kMode,
  kCapabilities,
  kAccessAcl,
  kDefaultAcl,
  kSelinux,
  kXattr,
  kFlags,
  kTarget,
  kLinkCount,
  kInode,
  kSize,
  kOtherSecurity,
  kSecurityForm,
  kModified,
  kStatusChanged,
};

// One difference between what was recorded and what is there now.
struct CAttributeChange {
  CAspect aspect = CAspect::kContent;
  std::string attribute;  // its name in JSON: "hash", "uid", "mode", "xattr.user.note", ...
  std::string old_value;  // in machine form ("0", "4755", "cap_net_raw=ep"); "" when absent
  std::string new_value;
  bool old_present = true;
  bool new_present = true;
  std::string old_display;  // for people: "root (0)", "-rwsr-xr-x (4755)", "none"
  std::string new_display;

  // "owner root (0) -> nobody (65534)"; safe to print.
  std::string Text() const;
};

// "hash changed", "owner changed", "times changed", ...: a report line's words for a difference
// headed by this aspect.
const char* HeadlineWords(CAspect aspect);
// The aspect whose label in a report is "label" ("hash", "owner", "link target", "modified", ...).
bool AspectOfLabel(const std::string& label, CAspect& aspect);

// Every difference between two states of one object, most important first. A record in the
// older security form is compared on what that form held (owner, group, mode, ACL) and gives
// one more difference that says so.
std::vector<CAttributeChange> CompareStates(const CObjectState& recorded,
                                            const CObjectState& current);

// Texts for people.
std::string ModeText(uint32_t st_mode);  // "-rwsr-xr-x (4755)"
std::string PermissionText(const std::string& octal_mode,
                           CObjectKind kind);   // the same from "4755"
std::string OwnerText(const std::string& uid);  // "root (0)", or "1234" without a name
std::string GroupText(const std::string& gid);
std::string FlagsText(const std::string& letters);  // "ia (immutable, append-only)"

// What stands out about a new object: "setuid", "setgid", "world-writable", "capabilities".
std::vector<std::string> Warnings(const CObjectState& state);
// The main properties of an object for a "new" or "gone" line: kind, mode, owner, group,
// capabilities, ACLs, device, flags, link target, hash. Safe to print.
std::string Summary(const CObjectState& state);
