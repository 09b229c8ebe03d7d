#pragma once

#include <string>
#include <vector>

#include "tool/change/difference.h"

struct CRefPolicySettings;

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
