// signdb check POLICY: compares the policy's tree with its signed database and reports every
// difference; the database itself stays as it was saved.

#include <iostream>

#include "cli/check_report.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/session.h"
#include "cli/tree_check.h"
#include "hashdb/hash_db.h"

int RunCheck(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 1);
  CSession session(line);
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  session.RequireRoot(policy);
  std::shared_ptr<CHashDB> database = session.LoadDatabase(policy);
  CTreeCheckResult result = CheckTree(session, policy, database, line.Has("--quiet"));
  PrintCheckReport(std::cout, result, policy, line.Has("--json"), false);
  if (!result.unreadable.empty()) return kExitError;
  return result.differences.empty() ? kExitOk : kExitDifferences;
}
