// signdb scan POLICY: records every object below the policy's root into a new signed database.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/journal_entry.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "tool/common/exit_status.h"
#include "tool/scan/kept_content.h"
#include "tool/scan/progress_line.h"
#include "tool/scan/tree_check.h"
#include "tool/scan/tree_scanner.h"
#include "tool/session/session.h"
#include "tool/store/database_files.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

// A policy's baseline is what a person looked at and accepted: a scan that would put the tree as
// it is now in its place, taking in unseen whatever changed, is refused unless asked for by name.
// Says how much is pending and the two ways forward.
void RefuseToReplaceBaseline(CSession& session, const CRefPolicySettings& policy) {
  const std::string& baseline = session.Store(policy).database_file();
  std::vector<std::string> ways = {
      "to look at what changed and accept it: signdb check " + policy.name +
          ", then signdb update " + policy.name + " (all, or the paths you name)",
      "to record the tree afresh in its place: signdb scan " + policy.name + " --replace"};
  std::string pending;
  try {
    CPolicyCheck check = CheckPolicy(session, policy, true, true);
    size_t count = check.result.differences.size();
    pending = count == 0   ? "nothing is pending"
              : count == 1 ? "1 difference is pending"
                           : GroupedNumber(count) + " differences are pending";
  } catch (const CToolError& e) {
    throw CToolError("policy '" + policy.name + "' has a baseline (" + baseline +
                         ") that cannot be used: " + e.what() + "; nothing was recorded",
                     {ways[1] + ", once you know why it cannot be used"});
  }
  throw CToolError("policy '" + policy.name + "' has a baseline already (" + baseline +
                       "): " + pending + "; nothing was recorded",
                   ways);
}

int ScanPolicy(CSession& session, const CRefPolicySettings& policy, const CCommandLine& line) {
  session.RequireRoot(policy);
  session.Store(policy).Lock(CPolicyLock::CMode::kExclusive);
  if (!line.Has("--replace") && session.Store(policy).HasRecord())
    RefuseToReplaceBaseline(session, policy);
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
  CPolicyStore& store = session.Store(policy);
  CJournalEntry entry = JournalEntryOf(line, "scan", policy);
  if (line.Has("--replace") && store.HasRecord()) {
    entry.event = "replace";
    uint64_t replaced = 0;
    entry.note = ReadRecordedRevision(store.database_file(), replaced)
                     ? "replaced the baseline of revision " + RevisionText(replaced)
                     : "replaced a baseline that could not be read";
    std::string aside = store.SetBrokenJournalAside();
    if (!aside.empty()) entry.note += "; the broken journal before it was set aside as " + aside;
  }
  entry.note += (entry.note.empty() ? "" : "; ") + std::string("recorded ") +
                std::to_string(scanner.counters().objects) + " objects";
  std::string saved = store.Save(database, &entry);
  KeepRecordedContent(session, policy, *database);
  if (!line.Has("--sign-later")) PublishToFleet(session, policy, *database);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const CScanCounters& counters = scanner.counters();
  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.2f", seconds);
  std::cout << "policy " << EscapedText(policy.name) << " (" << EscapedText(policy.root)
            << "): recorded " << CountText(counters.objects, "object", "objects") << " ("
            << ByteSize(counters.bytes) << ") in " << elapsed << " s; saved " << saved << "\n";
  if (counters.unreadable > 0) {
    std::cout << CountText(counters.unreadable, "object", "objects")
              << (counters.unreadable == 1 ? " could not be read and is not recorded"
                                           : " could not be read and are not recorded")
              << " (see above)\n";
    return kExitError;
  }
  return kExitOk;
}

}  // namespace

int RunScan(const CCommandLine& line) {
  RequireShape(line, {"--sign-later", "--all", "--replace"}, 0, 1);
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
