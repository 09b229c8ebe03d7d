#include "tool/packages/package_changes.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <unordered_map>

#include "refhost/file_status.h"
#include "refhost/settings.h"
#include "tool/common/exit_status.h"
#include "tool/common/policy_files.h"
#include "tool/packages/package_files.h"
#include "tool/packages/package_owners.h"

namespace {

int Rank(CPackageVerdict verdict) {
  switch (verdict) {
    case CPackageVerdict::kDiffersFromPackage:
      return 0;
    case CPackageVerdict::kNone:
      return 1;
    case CPackageVerdict::kConffileEdited:
      return 2;
    case CPackageVerdict::kByPackage:
      return 3;
  }
  return 1;
}

bool ContentDiffers(const CDifference& difference) {
  if (difference.change == CChange::kNew && difference.current.kind() == CObjectKind::kDirectory)
    return true;
  if (difference.current.kind() != CObjectKind::kFile) return false;
  if (difference.change == CChange::kNew) return true;
  if (difference.change != CChange::kChanged) return false;
  return std::any_of(
      difference.changes.begin(), difference.changes.end(),
      [](const CAttributeChange& change) { return change.aspect == CAspect::kContent; });
}

}  // namespace

CPackageExplainer::CPackageExplainer(const CRefPolicySettings& policy, std::string dpkg_root,
                                     std::string hdb_path)
    : policy_(policy), dpkg_root_(std::move(dpkg_root)), hdb_path_(std::move(hdb_path)) {
  system_root_ = dpkg_root_ == "/" ? std::string() : dpkg_root_;
  while (!system_root_.empty() && system_root_.back() == '/') system_root_.pop_back();
  root_ = policy.root == "/" ? std::string() : policy.root;
}

CPackageExplainer::~CPackageExplainer() = default;

namespace {

// The modification time of "path" in nanoseconds, or 0 when it cannot be read.
uint64_t ModifiedAt(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? StatTimeNs(status.st_mtim) : 0;
}

}  // namespace

void CPackageExplainer::Refresh() {
  if (dpkg_root_.empty()) return;
  uint64_t lists = ModifiedAt(system_root_ + "/var/lib/dpkg/status");
  uint64_t owners = ModifiedAt(PackageOwnersFileOf(hdb_path_));
  if (lists != lists_read_at_) packages_.reset();
  if (owners != owners_read_at_) owners_.reset();
  lists_read_at_ = lists;
  owners_read_at_ = owners;
}

const CPackageFiles& CPackageExplainer::Packages() {
  if (!packages_) {
    try {
      packages_ = CPackageFiles::Load(dpkg_root_);
    } catch (const std::exception& e) {
      throw CToolError(std::string("the package lists cannot be read: ") + e.what(),
                       {"set \"dpkg\" of policy '" + policy_.name +
                        "' to the root the packages are installed in, or remove it"});
    }
  }
  return *packages_;
}

void CPackageExplainer::Explain(CDifference& difference) {
  if (dpkg_root_.empty()) return;
  if (difference.change == CChange::kGone) {
    if (!owners_)
      owners_ = std::make_unique<std::unordered_map<std::string, std::string>>(
          ReadPackageOwners(hdb_path_));
    auto owner = owners_->find(difference.path);
    if (owner == owners_->end()) return;
    const std::string* now = Packages().Installed(owner->second.substr(0, owner->second.find(' ')));
    if (now != nullptr && *now == owner->second)
      return;  // still installed as it was: not its doing
    difference.package = owner->second;
    difference.package_verdict = CPackageVerdict::kByPackage;
    difference.words = "removed with package";
    difference.warnings.push_back("package " + difference.package);
    return;
  }
  if (!ContentDiffers(difference)) return;
  std::string full = root_ + "/" + difference.path;
  if (full.compare(0, system_root_.size(), system_root_) != 0)
    return;  // outside the packages' system
  const CPackageFiles::CEntry* entry =
      Packages().Find(std::string_view(full).substr(system_root_.size()));
  if (entry == nullptr) return;
  bool is_new = difference.change == CChange::kNew;
  if (difference.current.kind() == CObjectKind::kDirectory) {  // a directory the package lists
    difference.package = *entry->package;
    difference.package_verdict = CPackageVerdict::kByPackage;
    difference.words = "installed by package";
    difference.warnings.push_back("package " + difference.package);
    return;
  }
  if (entry->md5.empty()) return;  // listed, but no checksum to judge it by
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

void RankByPackages(std::vector<CDifference>& differences) {
  std::stable_sort(differences.begin(), differences.end(),
                   [](const CDifference& a, const CDifference& b) {
                     return Rank(a.package_verdict) < Rank(b.package_verdict);
                   });
}

void ExplainByPackages(std::vector<CDifference>& differences, const CRefPolicySettings& policy,
                       const std::string& dpkg_root, const std::string& hdb_path) {
  if (dpkg_root.empty()) return;
  CPackageExplainer explainer(policy, dpkg_root, hdb_path);
  for (CDifference& difference : differences) explainer.Explain(difference);
  RankByPackages(differences);
}
