// signdb scan POLICY: records every object below the policy's root into a new signed database.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "tool/common/exit_status.h"
#include "tool/scan/progress_line.h"
#include "tool/scan/tree_check.h"
#include "tool/scan/tree_scanner.h"
#include "tool/session/session.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

int ScanPolicy(CSession& session, const CRefPolicySettings& policy, const CCommandLine& line) {
  session.RequireRoot(policy);
  session.Store(policy).Lock(CPolicyLock::CMode::kExclusive);
  bool quiet = line.Has("--quiet");
  auto start = std::chrono::steady_clock::now();
  std::shared_ptr<CHashDB> database = session.NewDatabase(policy);
  CTreeScanner scanner(session.host(), policy.root, session.settings().threads);
  std::vector<std::pair<std::string, std::string>> unreadable;  // path, reason
  scanner.Exclude(session.DataFolder());
  scanner.SetRules(&session.Rules(policy));
  {
    CProgressLine progress("scanning " + policy.name, scanner.counters(), quiet);
    scanner.Run(
        [&](const std::shared_ptr<CRefFileObjInfo>& info) {
          std::shared_ptr<CObjInfo> immediate;
          database->InsertObject(immediate, info);
        },
        [&](const std::string& relative, const std::string& reason) {
          unreadable.emplace_back(relative.empty() ? "." : relative,
                                  reason);  // under the scanner's lock
        });
  }
  // Named once the progress line is gone, in order.
  std::sort(unreadable.begin(), unreadable.end());
  for (const auto& [path, reason] : unreadable)
    std::cerr << "signdb: cannot read " << SafePath(path.empty() ? "." : path) << " ("
              << EscapedText(reason) << ")\n";
  std::string saved = session.Store(policy).Save(database);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const CScanCounters& counters = scanner.counters();
  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.2f", seconds);
  std::cout << "policy " << EscapedText(policy.name) << " (" << EscapedText(policy.root)
            << "): recorded " << GroupedNumber(counters.objects) << " objects ("
            << ByteSize(counters.bytes) << ") in " << elapsed << " s; saved " << saved << "\n";
  if (counters.unreadable > 0) {
    std::cout << GroupedNumber(counters.unreadable)
              << (counters.unreadable == 1 ? " object could not be read"
                                           : " objects could not be read")
              << " and is not recorded (see above)\n";
    return kExitError;
  }
  return kExitOk;
}

}  // namespace

int RunScan(const CCommandLine& line) {
  RequireShape(line, {"--sign-later", "--all"}, 0, 1);
  CSession session(SessionOptionsOf(line));
  std::vector<const CRefPolicySettings*> policies = PoliciesOf(session, line);
  int status = kExitOk;
  for (const CRefPolicySettings* policy : policies) {
    try {
      status = WorstStatus(status, ScanPolicy(session, *policy, line));
    } catch (const CToolError& e) {
      if (policies.size() == 1 && !line.Has("--all")) throw;
      ReportPolicyError(*policy, e);
      status = kExitError;
    }
  }
  return status;
}
