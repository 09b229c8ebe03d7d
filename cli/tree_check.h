#pragma once

#include "cli/exit_status.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli/difference.h"

class CHashDB;
class CSession;
struct CCommandLine;
struct CRefPolicySettings;

// Everything a check of a policy's tree found.
struct CTreeCheckResult {
  std::vector<CDifference> differences;  // renames paired, sorted by path
  std::vector<std::pair<std::string, std::string>> unreadable;  // relative path, reason; sorted
  uint64_t checked = 0;
  uint64_t bytes = 0;
  double seconds = 0;
};

// Checks every object below the policy's root against the loaded database, on several threads,
// then asks the database about each recorded object that the walk did not meet: those are gone,
// unless they lie in or below something that could not be read. The database keeps what it
// recorded; only its per-node check stamps change.
CTreeCheckResult CheckTree(CSession& session, const CRefPolicySettings& policy,
                           const std::shared_ptr<CHashDB>& database, bool quiet);

// The check of the policy that the command line names: its root, its database, what differs.
struct CPolicyCheck {
  const CRefPolicySettings& policy;
  std::shared_ptr<CHashDB> database;
  CTreeCheckResult result;
};

// Finds the policy named by the command line's first argument, requires its root, loads its
// database (refused unless the signature is good) and checks its tree. Throws CToolError.
CPolicyCheck CheckNamedPolicy(CSession& session, const CCommandLine& line, bool will_write = false);
// The same for one policy.
CPolicyCheck CheckPolicy(CSession& session, const CRefPolicySettings& policy, bool quiet, bool will_write);

// The policies a command works on: the one named by its first argument, or every policy with
// --all or without a name.
std::vector<const CRefPolicySettings*> PoliciesOf(CSession& session, const CCommandLine& line);

// A path as the user gave it, relative to the policy's root (a full path below it is taken too;
// the root itself is "").
std::string RelativeToRoot(const CRefPolicySettings& policy, std::string path);

// Says on the standard error that one policy of several could not be worked on, and why.
void ReportPolicyError(const CRefPolicySettings& policy, const CToolError& error);

// The exit status of several policies: an error over differences over nothing to report.
int WorstStatus(int a, int b);
