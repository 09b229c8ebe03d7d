#include "tool/judge/hard_links.h"

#include <map>
#include <string_view>

#include "refhost/security_text.h"
#include "tool/change/difference.h"
#include "tool/rules/path_pattern.h"
#include "util/relative_path.h"

namespace {

uint64_t Number(const std::string& text) {
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return 0;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value;
}

}  // namespace

bool IsSecretFile(const std::string& full_path) {
  static const std::vector<CPathPattern> kSecrets = [] {
    std::vector<CPathPattern> secrets;
    for (const char* text :
         {"etc/shadow", "etc/gshadow", "etc/shadow-", "etc/gshadow-", "etc/ssh/ssh_host_*_key",
          "etc/ssl/private/**", "**/*.key", "root/.ssh/id_*", "home/*/.ssh/id_*", "etc/sudoers"}) {
      secrets.emplace_back(text);
    }
    return secrets;
  }();
  std::string_view path = full_path;
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  std::vector<std::string_view> names = SplitPath(path);
  if (!names.empty() && names.back().size() > 4 &&
      names.back().substr(names.back().size() - 4) == ".pub") {
    return false;  // a public key is none
  }
  for (const CPathPattern& secret : kSecrets) {
    if (secret.Matches(names)) return true;
  }
  return false;
}

void NameHardLinks(std::vector<CDifference>& differences, const std::string& root,
                   const std::function<bool(const std::string&)>& secret) {
  // The recorded files whose link count rose, by inode.
  std::map<std::string, const CDifference*> linked;
  for (const CDifference& difference : differences) {
    if (difference.change != CChange::kChanged || difference.current.kind() != CObjectKind::kFile)
      continue;
    if (Number(SecurityItem(difference.current, security_text::kLinkCount)) <=
        Number(SecurityItem(difference.recorded, security_text::kLinkCount)))
      continue;
    std::string inode = SecurityItem(difference.current, security_text::kInode);
    if (!inode.empty()) linked.emplace(inode, &difference);
  }
  if (linked.empty()) return;
  for (CDifference& difference : differences) {
    if (difference.change != CChange::kNew || difference.current.kind() != CObjectKind::kFile)
      continue;
    auto found = linked.find(SecurityItem(difference.current, security_text::kInode));
    if (found == linked.end()) continue;
    const std::string& target = found->second->path;
    difference.words = "new hard link";
    difference.warnings.insert(difference.warnings.begin(), "hard link to " + target);
    bool holds_secret = IsSecretFile(JoinedPath(root, target)) || secret(target);
    CSeverity severity = holds_secret ? CSeverity::kCritical : CSeverity::kHigh;
    if (difference.severity < severity) difference.severity = severity;
  }
}
