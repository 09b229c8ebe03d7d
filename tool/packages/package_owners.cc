#include "tool/packages/package_owners.h"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <vector>

#include "refhost/file_io.h"
#include "tool/common/policy_files.h"
#include "tool/packages/package_files.h"

void WritePackageOwners(const std::string& hdb_path, const std::string& policy_root,
                        const std::string& dpkg_root) {
  std::unique_ptr<CPackageFiles> packages = CPackageFiles::Load(dpkg_root);
  std::string system_root = dpkg_root == "/" ? std::string() : dpkg_root;
  while (!system_root.empty() && system_root.back() == '/') system_root.pop_back();
  // The system path of the policy's root, with the slash that starts the paths below it.
  std::string root = policy_root == "/" ? std::string() : policy_root;
  if (root.compare(0, system_root.size(), system_root) != 0)
    return;  // the packages' system holds none of it
  std::string prefix = root.substr(system_root.size()) + "/";
  std::string text;
  packages->ForEach([&](const std::string& path, const CPackageFiles::CEntry& entry) {
    if (path.size() <= prefix.size() || path.compare(0, prefix.size(), prefix) != 0) return;
    text.append(path, prefix.size(), std::string::npos);
    text += '\0';
    text += *entry.package;
    text += '\0';
  });
  WriteWholeFile(PackageOwnersFileOf(hdb_path), text.data(), text.size());
}

std::unordered_map<std::string, std::string> ReadPackageOwners(const std::string& hdb_path) {
  std::unordered_map<std::string, std::string> owners;
  std::string path = PackageOwnersFileOf(hdb_path);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) return owners;
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  return ParsePackageOwners(std::string(bytes.begin(), bytes.end()));
}

std::unordered_map<std::string, std::string> ParsePackageOwners(const std::string& text) {
  std::unordered_map<std::string, std::string> owners;
  size_t at = 0;
  while (at < text.size()) {
    size_t end_of_path = text.find('\0', at);
    if (end_of_path == std::string::npos) break;
    size_t end_of_owner = text.find('\0', end_of_path + 1);
    if (end_of_owner == std::string::npos) break;
    owners.emplace(text.substr(at, end_of_path - at),
                   text.substr(end_of_path + 1, end_of_owner - end_of_path - 1));
    at = end_of_owner + 1;
  }
  return owners;
}
