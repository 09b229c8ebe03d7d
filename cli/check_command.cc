// signdb check [POLICY | --all]: compares a policy's tree (or every policy's) with its signed
// database and reports every difference; the databases stay as they were saved.

#include <iostream>

#include "cli/check_report.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/report_event.h"
#include "cli/report_sink.h"
#include "cli/session.h"
#include "cli/tree_check.h"

int RunCheck(const CCommandLine& line) {
  RequireShape(line, {"--json", "--all", "--report"}, 0, 1);
  CSession session(line);
  int status = kExitOk;
  for (const CRefPolicySettings* policy : PoliciesOf(session, line)) {
    int one = kExitOk;
    try {
      CPolicyCheck check = CheckPolicy(session, *policy, line.Has("--quiet"), false);
      const CTreeCheckResult& result = check.result;
      CReportContext context =
          CReportContext::Make(policy->name, policy->root, "check", session.settings().policy_number);
      PrintCheckReport(std::cout, result, *policy, context, line.Has("--json"), false);
      for (const std::string& destination : line.Values("--report")) {
        SendReport(destination, result, *policy, context, false);
      }
      one = !result.unreadable.empty() ? kExitError : result.differences.empty() ? kExitOk : kExitDifferences;
    } catch (const CToolError& e) {
      if (!line.Has("--all") && !line.arguments.empty()) throw;
      ReportPolicyError(*policy, e);  // one policy that cannot be checked does not stop the others
      one = kExitError;
    }
    status = WorstStatus(status, one);
  }
  return status;
}
