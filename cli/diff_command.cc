// signdb diff POLICY [PREVIOUS.hdb]: what changed, is new and was removed between a previous
// database of the policy and its current one, read as a check reads the tree.

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <iostream>
#include <optional>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "tool/change/difference.h"
#include "tool/common/exit_status.h"
#include "tool/report/report_event.h"
#include "tool/report/stream_sinks.h"
#include "tool/scan/record_check.h"
#include "tool/session/session.h"
#include "tool/store/database_files.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

int RunDiff(const CCommandLine& line) {
  RequireShape(line, {"--json", "--long"}, 1, 2);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string previous_path =
      line.arguments.size() > 1 ? line.arguments[1] : session.Store(policy).previous_file();
  session.Store(policy).Lock(CPolicyLock::CMode::kShared);
  CSignedPair previous_pair = FindSignedPair(
      previous_path, [&session](const std::string& hdb) { return session.SignatureFileOf(hdb); });
  if (!boost::filesystem::exists(previous_pair.hdb)) {
    throw CToolError("no previous database at " + previous_path +
                     (line.arguments.size() > 1
                          ? std::string()
                          : "; one is kept each time 'signdb scan' or 'signdb update' "
                            "replaces a database, or name one: signdb diff " +
                                policy.name + " FILE.hdb"));
  }
  // The previous database first: the front finds a policy's database by name, and the current one
  // is the one it should find.
  std::shared_ptr<CHashDB> previous = session.NewDatabase(policy);
  session.LoadFile(previous, previous_pair.hdb, previous_pair.signature, true);
  std::shared_ptr<CHashDB> current = session.Store(policy).Load();
  bool json = line.Has("--json");
  // Read as a check reads the tree against its baseline: the rules, renames (of directories
  // too) and grades apply; what the previous database held and the current one does not is
  // "removed".
  std::vector<CDifference> differences =
      CheckRecordAgainstBaseline(session, policy, previous, current).differences;
  size_t changed = 0, added = 0, removed = 0;
  for (CDifference& difference : differences) {
    if (difference.change == CChange::kGone) {
      difference.words = "removed";
      ++removed;
    } else if (difference.change == CChange::kNew) {
      ++added;
    } else {
      ++changed;  // renamed or changed
    }
  }
  CReportContext context =
      CReportContext::Make(policy.name, policy.root, "diff", session.settings().policy_number);
  std::unique_ptr<CReportSink> report;
  if (json) {
    report = std::make_unique<CJsonSink>(std::cout);
  } else {
    report = std::make_unique<CTextSink>(
        std::cout, line.Has("--long") ? CLineForm::kLong : CLineForm::kCompact);
  }
  for (const CDifference& difference : differences) report->Difference(difference, context);
  if (json) {
    std::cout << CJsonLine()
                     .Open()
                     .String("@timestamp", context.timestamp)
                     .Open("host")
                     .String("name", context.host_name)
                     .Close()
                     .Open("summary")
                     .String("policy", policy.name)
                     .String("previous", previous_path)
                     .Number("changed", changed)
                     .Number("new", added)
                     .Number("removed", removed)
                     .Close()
                     .Close()
                     .Take()
              << "\n";
  } else {
    std::cout << "policy " << EscapedText(policy.name) << " since " << EscapedText(previous_path)
              << ": " << GroupedNumber(changed) << " changed, " << GroupedNumber(added) << " new, "
              << GroupedNumber(removed) << " removed\n";
  }
  return differences.empty() ? kExitOk : kExitDifferences;
}
