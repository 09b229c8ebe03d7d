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
};

// "hash changed", "owner changed", "times changed", ...: a report line's words for a difference
// headed by this aspect.
const char* HeadlineWords(CAspect aspect);
// How a report labels one difference of the aspect ("hash", "owner", "link target", "modified");
// nullptr for security attributes of no known aspect, which are labelled by their key.
const char* AspectLabel(CAspect aspect);
// The aspect whose label in a report is "label" ("hash", "owner", "link target", "modified", ...).
bool AspectOfLabel(const std::string& label, CAspect& aspect);

// Every difference between two states of one object, most important first. A record in the
// older security form is compared on what that form held (owner, group, mode, ACL) and gives
// one more difference that says so.
std::vector<CAttributeChange> CompareStates(const CObjectState& recorded,
                                            const CObjectState& current);

// What stands out about a new object: "setuid", "setgid", "world-writable", "capabilities".
std::vector<std::string> Warnings(const CObjectState& state);
