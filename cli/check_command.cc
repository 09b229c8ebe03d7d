// signdb check [POLICY | --all] [--walk]: reports every difference between a policy's tree (or
// every policy's) and its signed baseline; the databases stay as they were saved. While the watch
// service keeps the policy, its live record is what the tree is (the answer comes at once);
// otherwise, or with --walk, the tree is walked.

#include <iostream>
#include <optional>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "tool/common/exit_status.h"
#include "tool/report/report_event.h"
#include "tool/report/report_sink.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "tool/watch/pending_answer.h"

int RunCheck(const CCommandLine& line) {
  RequireShape(line, {"--json", "--all", "--report", "--walk", "--long"}, 0, 1);
  CSession session(SessionOptionsOf(line));
  std::unique_ptr<CReportSinks> report = ReportSinksOf(line, session);
  int status = kExitOk;
  for (const CRefPolicySettings* policy : PoliciesOf(session, line)) {
    int one = kExitOk;
    try {
      std::optional<CTreeCheckResult> pending;
      if (!line.Has("--walk")) pending = PendingFromService(session, *policy);
      CTreeCheckResult result =
          pending ? std::move(*pending)
                  : CheckPolicy(session, *policy, line.Has("--quiet"), false).result;
      CReportContext context = CReportContext::Make(policy->name, policy->root, "check",
                                                    session.settings().policy_number);
      SendCheckResult(*report, result, context, false);
      report->Flush();
      one = !result.unreadable.empty()   ? kExitError
            : result.differences.empty() ? kExitOk
                                         : kExitDifferences;
    } catch (const CToolError& e) {
      if (!line.Has("--all") && !line.arguments.empty()) throw;
      ReportPolicyError(*policy, e);  // one policy that cannot be checked does not stop the others
      one = kExitError;
    }
    status = WorstStatus(status, one);
  }
  return status;
}
