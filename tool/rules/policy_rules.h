#pragma once

#include <bitset>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tool/change/attribute_changes.h"
#include "tool/change/difference.h"
#include "tool/change/object_state.h"
#include "tool/rules/path_pattern.h"

inline constexpr size_t kAspectCount = static_cast<size_t>(CAspect::kStatusChanged) + 1;

// What a check compares for one object: which aspects are reported when they differ, and how a
// log is let grow.
// Whether the accepted content of a small text file is kept to show what changed inside it:
// "diff" shows the lines taken out and put in, "redact" (secrets) each line by its first field.
enum class CKeptContent { kNone, kDiff, kRedact };

struct CSelection {
  std::bitset<kAspectCount> aspects;
  // "log": content and size may grow; a growth that keeps the old bytes is not reported, a shrink
  // or a change of the old bytes is; times are not reported; a rotation to NAME.1 (or NAME.1.gz,
  // ...) is not reported as a change.
  bool may_grow = false;
  bool directory_times = true;  // false: a directory's times are not reported
  CKeptContent kept = CKeptContent::kNone;
  bool has_severity = false;  // the rule sets the severity of every change at the path
  CSeverity severity = CSeverity::kMedium;
  std::string name;  // the group or list, for explanations

  bool Reports(CAspect aspect) const { return aspects.test(static_cast<size_t>(aspect)); }
};

// The rules of one policy, from its "rules" list in the configuration:
//
//   {"path": "cache/**", "exclude": true}                       not recorded, not walked below
//   {"path": "**/*.swp", "kind": "file", "exclude": true}        kinds: file, directory, symlink,
//                                                                 device, fifo, socket (or a list)
//   {"path": "log/**", "check": "log"}                           a group, or a list of groups and
//   {"path": "etc/**", "check": ["content", "permissions"]}     aspect words
//   {"path": "srv/app/**", "check": "everything", "severity": "high"}
//   {"path": "etc/**", "check": "read-only", "content": "diff"}    kept: "diff" or "redact"
//
// Groups: "everything" (the default), "read-only" (everything but the status-change time),
// "permissions" (kind, owner, group, mode, ACLs, capabilities, SELinux label, xattrs, flags),
// "log" (permissions, link target, and content that may grow), "ignore directory times"
// (everything, and a directory's times are not reported). Aspect words: the labels of a report
// ("hash", "size", "owner", "mode", "link target", "modified", ...; "content" is "hash").
// The last rule that matches an object decides; an excluded directory is not walked at all.
// "cross_mounts": true lets the walk leave the root's file system.
class CPolicyRules {
 public:
  // The rules of "policy_name" in the JSON configuration at "config_path" (none for INI). Throws
  // CToolError "FILE:LINE: rule N of policy 'P': what is wrong".
  static CPolicyRules Load(const std::string& config_path, const std::string& policy_name);

  bool Excluded(std::string_view relative_path, CObjectKind kind) const;
  // Decided before the object is examined: excluded or kept whatever its kind, or up to its kind
  // (Excluded tells once it is known).
  enum class CVerdict { kKept, kExcluded, kByKind };
  CVerdict VerdictBeforeKind(std::string_view relative_path) const;
  // Excluded itself, or below an excluded directory (a record that the walk no longer meets).
  bool ExcludedHereOrAbove(std::string_view relative_path, CObjectKind kind) const;
  // The excluded directory that "relative_path" lies below, nearest the root; empty when none.
  std::string_view ExcludedAncestor(std::string_view relative_path) const;
  bool empty() const { return rules_.empty(); }
  CSelection SelectionFor(std::string_view relative_path, CObjectKind kind) const;
  // Which rule applies to the object and why, for people: "rule 3 (line 14): \"log/**\" ...".
  std::string Explain(std::string_view relative_path, CObjectKind kind) const;
  bool cross_mounts() const { return cross_mounts_; }
  // "dpkg": the system root whose /var/lib/dpkg describes the policy's files ("/" for this
  // system); empty when package awareness is off.
  const std::string& dpkg_root() const { return dpkg_root_; }
  size_t size() const { return rules_.size(); }

 private:
  struct CRule {
    CPathPattern pattern;
    std::vector<CObjectKind> kinds;  // empty: any
    bool exclude = false;
    CSelection selection;
    int line = 0;
  };
  // The last rule that matches, or null.
  const CRule* Deciding(std::string_view relative_path, CObjectKind kind, size_t* index) const;
  // Calls "visit" with the index of every rule that may match "names", the last rule first,
  // until it returns false.
  template <typename CVisit>
  void ForEachCandidate(const std::vector<std::string_view>& names, const CVisit& visit) const;

  std::vector<CRule> rules_;
  // The rules by the literal first name of their pattern, and those that start with a wildcard:
  // a path is matched against those of its first name and the others only. Indexes ascend.
  struct CNameHash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };
  std::unordered_map<std::string, std::vector<size_t>, CNameHash, std::equal_to<>> by_first_name_;
  std::vector<size_t> any_first_name_;
  bool cross_mounts_ = false;
  std::string dpkg_root_;
};

// The selection of "everything".
CSelection EverythingSelection();
