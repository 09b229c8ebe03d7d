// signdb ls POLICY [DIR] and signdb show POLICY PATH: what the database recorded, without
// touching the disk.

#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/session.h"
#include "cli/text_format.h"
#include "hashdb/hash_db.h"
#include "refhost/text_conversion.h"

namespace {

// A path below the policy's root, given relative to it or in full: its relative form.
std::string RelativeArgument(const CRefPolicySettings& policy, std::string path) {
  auto drop_trailing_slashes = [](std::string& text) {
    while (text.size() > 1 && text.back() == '/') text.pop_back();
  };
  drop_trailing_slashes(path);
  if (!path.empty() && path[0] == '/') {
    std::string root = policy.root;
    drop_trailing_slashes(root);
    if (path == root) return "";
    std::string prefix = root == "/" ? root : root + "/";
    if (path.rfind(prefix, 0) != 0) {
      throw CToolError(path + " is not below the root of policy '" + policy.name + "' (" + policy.root + ")");
    }
    return path.substr(prefix.size());
  }
  while (path.rfind("./", 0) == 0) path = path.substr(2);
  return path == "." ? "" : path;
}

std::string Parent(const std::string& relative) {
  size_t slash = relative.rfind('/');
  return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

}  // namespace

int RunList(const CCommandLine& line) {
  RequireShape(line, {"--recursive", "--json"}, 1, 2);
  CSession session(line);
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string directory = RelativeArgument(policy, line.arguments.size() > 1 ? line.arguments[1] : "");
  std::shared_ptr<CHashDB> database = session.LoadDatabase(policy);
  if (!database->ExistsAs(session.WideFullPath(policy, directory), true)) {
    throw CToolError("no directory " + (directory.empty() ? std::string(".") : directory) +
                     " is recorded in policy '" + policy.name + "'");
  }
  std::shared_ptr<CPathEntryList> entries = database->SubNodes(session.Wide(directory));
  entries->sort([](const CPathEntry& a, const CPathEntry& b) { return a.second < b.second; });
  bool recursive = line.Has("--recursive");
  bool json = line.Has("--json");
  for (const CPathEntry& entry : *entries) {
    std::string relative = WideToUtf8(entry.second);
    if (relative == directory || (!recursive && Parent(relative) != directory)) continue;
    std::wstring full = session.WideFullPath(policy, relative);
    bool target_is_dir = false;
    std::string target = WideToUtf8(database->TargetOfObject(full, target_is_dir));
    std::string hash = entry.first ? std::string() : database->HashOfObject(full);
    uint64_t size = entry.first ? 0 : database->SizeOfObject(full);
    if (json) {
      std::cout << "{\"path\":" << JsonString(relative) << ",\"kind\":"
                << (entry.first ? "\"directory\"" : target.empty() ? "\"file\"" : "\"symbolic link\"")
                << ",\"size\":" << size << ",\"hash\":" << JsonString(hash);
      if (!target.empty()) std::cout << ",\"target\":" << JsonString(target);
      std::cout << "}\n";
      continue;
    }
    char prefix[48];
    std::snprintf(prefix, sizeof prefix, "%c %14s  ", entry.first ? 'd' : target.empty() ? '-' : 'l',
                  entry.first ? "-" : GroupedNumber(size).c_str());
    std::cout << prefix << (hash.empty() ? std::string(session.settings().policy_number / 4, ' ') : hash) << "  "
              << relative << (entry.first ? "/" : "") << (target.empty() ? "" : " -> " + target) << "\n";
  }
  return kExitOk;
}

int RunShow(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 2, 2);
  CSession session(line);
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string relative = RelativeArgument(policy, line.arguments[1]);
  std::shared_ptr<CHashDB> database = session.LoadDatabase(policy);
  std::wstring full = session.WideFullPath(policy, relative);
  bool is_dir = database->IsDirectory(full);
  if (!database->ExistsAs(full, is_dir)) {
    std::cerr << "signdb: " << (relative.empty() ? "." : relative) << " is not recorded in policy '" << policy.name
              << "'\n";
    return kExitDifferences;
  }
  uint32_t attributes = 0;
  uint64_t time_1 = 0;
  uint64_t time_2 = 0;
  std::string security;
  database->AttributesOfObject(full, attributes, time_1, time_2, security);
  bool target_is_dir = false;
  std::string target = WideToUtf8(database->TargetOfObject(full, target_is_dir));
  std::string hash = database->HashOfObject(full);
  uint64_t size = database->SizeOfObject(full);
  bool under_target = database->IsUnderTarget(full);
  bool touched = database->TouchedRecently(full);
  std::string kind = is_dir ? "directory" : target.empty() ? "file" : "symbolic link";
  std::string mode = AttributesText(attributes);
  if (line.Has("--json")) {
    std::cout << "{\"path\":" << JsonString(session.Narrow(full)) << ",\"relative\":" << JsonString(relative)
              << ",\"kind\":" << JsonString(kind) << ",\"size\":" << size << ",\"hash\":" << JsonString(hash)
              << ",\"attributes\":" << attributes << ",\"time_1\":" << time_1 << ",\"time_2\":" << time_2
              << ",\"security\":" << JsonString(security) << ",\"target\":" << JsonString(target)
              << ",\"under_link_target\":" << (under_target ? "true" : "false")
              << ",\"touched_recently\":" << (touched ? "true" : "false") << "}\n";
    return kExitOk;
  }
  auto field = [](const char* label, const std::string& value) {
    char padded[32];
    std::snprintf(padded, sizeof padded, "%-21s", label);
    std::cout << padded << value << "\n";
  };
  field("path:", session.Narrow(full));
  field("kind:", kind);
  if (!is_dir) {
    field("size:", GroupedNumber(size) + " bytes");
    field("hash:", hash.empty() ? "(none)" : hash);
  }
  field("attributes:", mode);
  field("status changed:", TimeText(time_1));
  field("modified:", TimeText(time_2));
  field("security:", security.empty() ? "(none)" : security);
  if (!target.empty()) field("link target:", target);
  field("below a link target:", under_target ? "yes" : "no");
  field("touched recently:", touched ? "yes" : "no");
  return kExitOk;
}
