#include "tool/packages/package_changes.h"

#include <algorithm>
#include <memory>
#include <unordered_map>

#include "tool/common/exit_status.h"
#include "tool/packages/package_files.h"
#include "tool/packages/package_owners.h"
#include "refhost/settings.h"

namespace {

int Rank(CPackageVerdict verdict) {
  switch (verdict) {
    case CPackageVerdict::kDiffersFromPackage: return 0;
    case CPackageVerdict::kNone: return 1;
    case CPackageVerdict::kConffileEdited: return 2;
    case CPackageVerdict::kByPackage: return 3;
  }
  return 1;
}

bool ContentDiffers(const CDifference& difference) {
  if (difference.change == CChange::kNew && difference.current.kind() == CObjectKind::kDirectory) return true;
  if (difference.current.kind() != CObjectKind::kFile) return false;
  if (difference.change == CChange::kNew) return true;
  if (difference.change != CChange::kChanged) return false;
  return std::any_of(difference.changes.begin(), difference.changes.end(),
                     [](const CAttributeChange& change) { return change.aspect == CAspect::kContent; });
}

}  // namespace

void ExplainByPackages(std::vector<CDifference>& differences, const CRefPolicySettings& policy,
                       const std::string& dpkg_root, const std::string& hdb_path) {
  if (dpkg_root.empty()) return;
  std::unique_ptr<CPackageFiles> packages;
  std::unique_ptr<std::unordered_map<std::string, std::string>> owners;
  std::string system_root = dpkg_root == "/" ? std::string() : dpkg_root;
  while (!system_root.empty() && system_root.back() == '/') system_root.pop_back();
  std::string root = policy.root == "/" ? std::string() : policy.root;
  auto load = [&] {
    if (packages) return;
    try {
      packages = CPackageFiles::Load(dpkg_root);
    } catch (const std::exception& e) {
      throw CToolError(std::string("the package lists cannot be read: ") + e.what(),
                       {"set \"dpkg\" of policy '" + policy.name + "' to the root the packages are installed in, or remove it"});
    }
  };
  for (CDifference& difference : differences) {
    if (difference.change == CChange::kGone) {
      if (!owners) owners = std::make_unique<std::unordered_map<std::string, std::string>>(ReadPackageOwners(hdb_path));
      auto owner = owners->find(difference.path);
      if (owner == owners->end()) continue;
      load();
      const std::string* now = packages->Installed(owner->second.substr(0, owner->second.find(' ')));
      if (now != nullptr && *now == owner->second) continue;  // still installed as it was: not its doing
      difference.package = owner->second;
      difference.package_verdict = CPackageVerdict::kByPackage;
      difference.words = "removed with package";
      difference.warnings.push_back("package " + difference.package);
      continue;
    }
    if (!ContentDiffers(difference)) continue;
    std::string full = root + "/" + difference.path;
    if (full.compare(0, system_root.size(), system_root) != 0) continue;  // outside the packages' system
    load();
    const CPackageFiles::CEntry* entry = packages->Find(std::string_view(full).substr(system_root.size()));
    if (entry == nullptr) continue;
    bool is_new = difference.change == CChange::kNew;
    if (difference.current.kind() == CObjectKind::kDirectory) {  // a directory the package lists
      difference.package = *entry->package;
      difference.package_verdict = CPackageVerdict::kByPackage;
      difference.words = "installed by package";
      difference.warnings.push_back("package " + difference.package);
      continue;
    }
    if (entry->md5.empty()) continue;  // listed, but no checksum to judge it by
    difference.package = *entry->package;
    std::string md5 = Md5OfFile(full);
    if (!md5.empty() && md5 == entry->md5) {
      difference.package_verdict = CPackageVerdict::kByPackage;
      difference.words = is_new ? "installed by package" : "changed by package";
    } else if (entry->conffile) {
      difference.package_verdict = CPackageVerdict::kConffileEdited;
      difference.words = "conffile edited";
    } else {
      difference.package_verdict = CPackageVerdict::kDiffersFromPackage;
      difference.words = "differs from package";
    }
    difference.warnings.push_back("package " + difference.package);
  }
  std::stable_sort(differences.begin(), differences.end(), [](const CDifference& a, const CDifference& b) {
    return Rank(a.package_verdict) < Rank(b.package_verdict);
  });
}
