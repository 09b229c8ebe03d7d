#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tool/change/difference.h"

class CPackageFiles;
struct CRefPolicySettings;

// Tells one difference at a time what the package manager says of it (see ExplainByPackages).
// The lists of "dpkg_root" are read when first needed; a long-running service calls Refresh
// before each batch, and what changed since (a package installed, a save's owners file) is read
// again. Not thread-safe.
class CPackageExplainer {
 public:
  // "policy" must outlive the explainer.
  CPackageExplainer(const CRefPolicySettings& policy, std::string dpkg_root, std::string hdb_path);
  ~CPackageExplainer();

  // Sets the difference's package, verdict and words when a package explains it. Throws
  // CToolError when the lists cannot be read.
  void Explain(CDifference& difference);
  void Refresh();

 private:
  const CPackageFiles& Packages();

  const CRefPolicySettings& policy_;
  std::string dpkg_root_;
  std::string hdb_path_;
  std::string system_root_;  // dpkg_root_ without its trailing slash; empty for "/"
  std::string root_;         // the policy's root; empty for "/"
  std::unique_ptr<CPackageFiles> packages_;
  std::unique_ptr<std::unordered_map<std::string, std::string>> owners_;
  uint64_t lists_read_at_ = 0;   // the package status file's modification time, when read
  uint64_t owners_read_at_ = 0;  // the owners file's
};

// Orders differences: those that differ from their package first, the unexplained ones, the
// edited configuration files, and what the packages changed last, each group in its order.
void RankByPackages(std::vector<CDifference>& differences);

// Asks the package manager about every changed or new regular file whose content differs: one
// whose content is what its package installed is "changed by package" (or "installed by
// package"), a package's configuration file edited since is "conffile edited", and a package's
// file whose content is not its package's is "differs from package", the most serious of all.
// Then orders the differences: those that differ from their package first, the unexplained ones,
// the edited configuration files, and what the packages changed last, each group by path.
// The lists of "dpkg_root" are read once, and only when there is something to ask.
// A gone object that a package owned at the last save, and that package since removed or
// upgraded, is "removed with package" (hdb_path: the database, whose owners file says so).
void ExplainByPackages(std::vector<CDifference>& differences, const CRefPolicySettings& policy,
                       const std::string& dpkg_root, const std::string& hdb_path);
