// signdb check POLICY: compares the policy's tree with its signed database and reports every
// difference; the database itself stays as it was saved.

#include <iostream>

#include "cli/check_report.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/report_event.h"
#include "cli/session.h"
#include "cli/tree_check.h"

int RunCheck(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 1);
  CSession session(line);
  CPolicyCheck check = CheckNamedPolicy(session, line);
  const CTreeCheckResult& result = check.result;
  CReportContext context = CReportContext::Make(check.policy.name, check.policy.root, "check",
                                                 session.settings().policy_number);
  PrintCheckReport(std::cout, result, check.policy, context, line.Has("--json"), false);
  if (!result.unreadable.empty()) return kExitError;
  return result.differences.empty() ? kExitOk : kExitDifferences;
}
