// signdb diff POLICY [PREVIOUS.hdb]: what changed, is new and was removed between a previous
// database of the policy and its current one.

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
#include "tool/session/session.h"
#include "tool/store/database_files.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

// Describes each entry of one of the comparison's lists from the two databases' records.
void Describe(CSession& session, const CRefPolicySettings& policy, CChange change,
              CPathEntryList& entries, CHashDB& previous, CHashDB& current,
              std::vector<CDifference>& differences) {
  for (const CPathEntry& entry : entries) {
    std::string relative = WideToUtf8(entry.second);
    std::wstring full = session.WideFullPath(policy, relative);
    // The comparison lists a file that became a directory, or the other way round, as new.
    CChange kind = change == CChange::kNew && previous.ExistsAs(full, !entry.first)
                       ? CChange::kChanged
                       : change;
    std::optional<CObjectState> before;
    std::optional<CObjectState> after;
    if (kind != CChange::kNew) before = RecordedState(previous, full);
    if (kind != CChange::kGone) after = RecordedState(current, full);
    CDifference difference =
        DescribeRecorded(kind, relative, before ? &*before : nullptr, after ? &*after : nullptr);
    if (change == CChange::kGone) difference.words = "removed";
    differences.push_back(std::move(difference));
  }
}

}  // namespace

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
  CPathEntryList changed, added, removed;
  current->CompareWithPrevious(previous, changed, added, removed);
  bool json = line.Has("--json");
  std::vector<CDifference> differences;
  Describe(session, policy, CChange::kChanged, changed, *previous, *current, differences);
  Describe(session, policy, CChange::kNew, added, *previous, *current, differences);
  Describe(session, policy, CChange::kGone, removed, *previous, *current, differences);
  std::stable_sort(differences.begin(), differences.end(),
                   [](const CDifference& a, const CDifference& b) { return a.path < b.path; });
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
                     .Number("changed", changed.size())
                     .Number("new", added.size())
                     .Number("removed", removed.size())
                     .Close()
                     .Close()
                     .Take()
              << "\n";
  } else {
    std::cout << "policy " << EscapedText(policy.name) << " since " << EscapedText(previous_path)
              << ": " << GroupedNumber(changed.size()) << " changed, "
              << GroupedNumber(added.size()) << " new, " << GroupedNumber(removed.size())
              << " removed\n";
  }
  return changed.empty() && added.empty() && removed.empty() ? kExitOk : kExitDifferences;
}
