// signdb update POLICY: takes the tree as it is now into the policy's database: what changed or is
// new is recorded anew, what is gone is removed, and the database is saved.

#include <iostream>

#include "cli/check_report.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/report_event.h"
#include "cli/session.h"
#include "cli/tree_check.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"

int RunUpdate(const CCommandLine& line) {
  RequireShape(line, {"--json", "--bind", "--sign-later"}, 1, 1);
  CSession session(line);
  CPolicyCheck check = CheckNamedPolicy(session, line, true);
  const CRefPolicySettings& policy = check.policy;
  const std::shared_ptr<CHashDB>& database = check.database;
  const CTreeCheckResult& result = check.result;
  // Removals first: a path that is gone can only have come back as something new in another place.
  for (const CDifference& difference : result.differences) {
    std::shared_ptr<CObjInfo> none;
    if (difference.change == CChange::kGone) {
      database->RemoveObject(none, session.WideFullPath(policy, difference.path));
    } else if (difference.change == CChange::kRenamed) {
      database->RemoveObject(none, session.WideFullPath(policy, difference.from));
    }
  }
  for (const CDifference& difference : result.differences) {
    if (difference.change == CChange::kGone || !difference.info) continue;
    std::shared_ptr<CObjInfo> immediate;
    database->InsertObject(immediate, difference.info);
  }
  std::string saved;
  // --bind saves even an unchanged tree: that is how a database gets its policy binding.
  if (!result.differences.empty() || line.Has("--bind")) saved = session.Save(database, policy);
  CReportContext context = CReportContext::Make(policy.name, policy.root, "update", session.settings().policy_number);
  PrintCheckReport(std::cout, result, policy, context, line.Has("--json"), true);
  if (!line.Has("--json")) {
    std::cout << (saved.empty() ? std::string("nothing to accept; the database stays as it is")
                                : "saved " + saved + " (the one it replaced: " + session.PreviousFileOf(policy) + ")")
              << "\n";
  }
  return result.unreadable.empty() ? kExitOk : kExitError;
}
