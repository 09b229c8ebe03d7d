// signdb update POLICY [PATH...]: accepts what is pending into the policy's baseline (what changed
// or is new is recorded anew, what is gone is removed), signs and saves it, and journals who
// accepted what. What is pending comes from the watch service's live record while it keeps the
// policy, else from a walk of the tree.

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/journal_entry.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "tool/common/exit_status.h"
#include "tool/report/change_text.h"
#include "tool/report/report_event.h"
#include "tool/report/report_sink.h"
#include "tool/scan/difference_apply.h"
#include "tool/scan/kept_content.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "tool/watch/query_protocol.h"
#include "util/edit_distance.h"
#include "util/relative_path.h"
#include "util/safe_text.h"

namespace {

// Whether the difference is at or below "name" (a rename by its new or its old path).
bool Touches(const CDifference& difference, const std::string& name) {
  return IsBelowOrSame(difference.path, name) ||
         (difference.change == CChange::kRenamed && IsBelowOrSame(difference.from, name));
}

// Refuses (before anything is accepted) a path named to update or to --except that no pending
// difference lies at or below: a typo would otherwise accept what the person meant to hold back,
// or accept nothing while saying so. Names the pending paths nearest to it.
void RequireEveryNameMatches(const CRefPolicySettings& policy,
                             const std::vector<CDifference>& pending,
                             const std::vector<std::string>& names, const char* option) {
  for (const std::string& name : names) {
    if (std::any_of(pending.begin(), pending.end(),
                    [&](const CDifference& difference) { return Touches(difference, name); }))
      continue;
    std::vector<std::pair<size_t, std::string>> nearest;
    for (const CDifference& difference : pending)
      nearest.emplace_back(EditDistance(name, difference.path), difference.path);
    std::sort(nearest.begin(), nearest.end());
    std::vector<std::string> hints;
    if (pending.empty()) {
      hints.push_back("no difference is pending in policy '" + policy.name + "'");
    } else {
      std::string listed;
      for (size_t i = 0; i < nearest.size() && i < 3; ++i)
        listed += (i ? ", " : "") + SafePath(nearest[i].second);
      hints.push_back("pending nearest to it: " + listed);
    }
    throw CToolError(std::string(option) + SafePath(name.empty() ? "." : name) +
                         " matches no pending difference of policy '" + policy.name +
                         "'; nothing was accepted",
                     std::move(hints));
  }
}

// Lets the watch service take the new baseline before the update ends, so that what it says is
// pending from then on (a check, its status) no longer holds what was accepted: the lock turns
// shared, which lets the service read the baseline, and its status is asked (which reads it).
void TellServiceOfNewBaseline(CSession& session, const CRefPolicySettings& policy) {
  session.Store(policy).ChangeLock(CPolicyLock::CMode::kShared, true);
  try {
    AskRunningWatchService(session.DataFolder(), CQueryRequest::Status(), 30000);
  } catch (const std::runtime_error& e) {
    std::cerr << "signdb: the watch service did not answer after the update ("
              << EscapedText(e.what()) << "); it takes the new baseline when it next looks\n";
  }
}

// Asks on the terminal, difference by difference, which to accept; removes the others and
// returns how many.
size_t AskEach(std::vector<CDifference>& differences) {
  std::vector<CDifference> accepted;
  size_t refused = 0;
  bool all = false;
  bool done = false;
  for (CDifference& difference : differences) {
    if (done) {
      ++refused;
      continue;
    }
    if (!all) {
      std::cout << DifferenceText(difference, CLineForm::kCompact) << "\n"
                << "accept? [y]es, [n]o, [a]ll that follow, [q]uit (accept nothing more): "
                << std::flush;
      std::string answer;
      if (!std::getline(std::cin, answer)) answer = "q";
      char first = answer.empty()
                       ? 'n'
                       : static_cast<char>(std::tolower(static_cast<unsigned char>(answer[0])));
      if (first == 'q') {
        done = true;
        ++refused;
        continue;
      }
      if (first == 'a') all = true;
      if (first != 'y' && first != 'a') {
        ++refused;
        continue;
      }
    }
    accepted.push_back(std::move(difference));
  }
  differences = std::move(accepted);
  return refused;
}

// Accepts the chosen differences of one policy into its database and saves it; returns the status.
int UpdatePolicy(CSession& session, const CRefPolicySettings& policy, const CCommandLine& line,
                 const std::vector<std::string>& only, const std::vector<std::string>& except,
                 CReportSink& report) {
  // While the watch service keeps the policy, what is accepted is what its live record holds,
  // exactly as the service shows it; otherwise (or with --walk) the tree is walked.
  session.Store(policy).Lock(CPolicyLock::CMode::kExclusive);
  std::optional<CTreeCheckResult> pending;
  if (!line.Has("--walk")) pending = PendingFromService(session, policy);
  std::shared_ptr<CHashDB> database;
  CTreeCheckResult result;
  if (pending) {
    database = session.Store(policy).Load();
    result = std::move(*pending);
  } else {
    CPolicyCheck check = CheckPolicy(session, policy, line.Has("--quiet"), true);
    database = std::move(check.database);
    result = std::move(check.result);
  }
  // Only what was named (a rename counts by its new and its old path), and nothing excepted.
  size_t left = 0;
  RequireEveryNameMatches(policy, result.differences, only, "");
  RequireEveryNameMatches(policy, result.differences, except, "--except ");
  if (line.Has("--packages")) {  // exactly what the packages explain
    auto kept = std::stable_partition(
        result.differences.begin(), result.differences.end(),
        [](const CDifference& d) { return d.package_verdict == CPackageVerdict::kByPackage; });
    left += static_cast<size_t>(result.differences.end() - kept);
    result.differences.erase(kept, result.differences.end());
  }
  if (!only.empty() || !except.empty()) {
    auto chosen = [&](const CDifference& difference) {
      auto matches = [&](const std::vector<std::string>& named) {
        return std::any_of(named.begin(), named.end(),
                           [&](const std::string& name) { return Touches(difference, name); });
      };
      return (only.empty() || matches(only)) && !matches(except);
    };
    auto kept = std::stable_partition(result.differences.begin(), result.differences.end(), chosen);
    left += static_cast<size_t>(result.differences.end() - kept);
    result.differences.erase(kept, result.differences.end());
  }
  if (line.Has("--interactive")) left += AskEach(result.differences);
  ApplyDifferences(session, policy, *database, result.differences);
  std::string saved;
  CJournalEntry entry =
      JournalEntryOf(line, result.differences.empty() ? "bind" : "accept", policy);
  entry.changes = JournalChangesOf(result.differences);
  // --bind saves even an unchanged tree: that is how a database gets its policy binding.
  if (!result.differences.empty() || line.Has("--bind")) {
    saved = session.Store(policy).Save(database, &entry);
    KeepAcceptedContent(session, policy, result.differences);
    if (!line.Has("--sign-later")) PublishToFleet(session, policy, *database);
    if (result.from_live_record) TellServiceOfNewBaseline(session, policy);
  }
  CReportContext context =
      CReportContext::Make(policy.name, policy.root, "update", session.settings().policy_number);
  SendCheckResult(report, result, context, true);
  report.Flush();
  if (!line.Has("--json")) {
    std::cout << (saved.empty() ? std::string("nothing to accept; the database stays as it is")
                                : "saved " + saved + " (the one it replaced: " +
                                      session.Store(policy).previous_file() + ")")
              << "\n";
    if (entry.sequence != 0) {
      std::cout << "journalled in " << session.Store(policy).journal().path() << " (entry "
                << entry.sequence << ": who accepted what, and when)\n";
    }
    if (left > 0) {
      std::cout << left
                << (left == 1 ? " difference was not chosen and stays"
                              : " differences were not chosen and stay")
                << " reported by the next check\n";
    }
  }
  return result.unreadable.empty() ? kExitOk : kExitError;
}

}  // namespace

int RunUpdate(const CCommandLine& line) {
  RequireShape(line,
               {"--json", "--bind", "--sign-later", "--all", "--except", "--report", "--packages",
                "--interactive", "--walk", "--long"},
               0, SIZE_MAX);
  if (line.Has("--interactive") && (::isatty(0) == 0 || line.Has("--json"))) {
    throw CToolError("update -i asks on a terminal: run it on one, without --json");
  }
  CSession session(SessionOptionsOf(line));
  std::vector<const CRefPolicySettings*> policies = PoliciesOf(session, line);
  std::vector<std::string> only;
  std::vector<std::string> except;
  if (policies.size() == 1 && !line.Has("--all") && !line.arguments.empty()) {
    for (size_t i = 1; i < line.arguments.size(); ++i)
      only.push_back(RelativeToRoot(*policies[0], line.arguments[i]));
    for (const std::string& path : line.Values("--except"))
      except.push_back(RelativeToRoot(*policies[0], path));
  } else if (!line.Values("--except").empty()) {
    throw CToolError("--except names paths of one policy: name the policy");
  }
  std::unique_ptr<CReportSinks> report = ReportSinksOf(line, session);
  int status = kExitOk;
  for (const CRefPolicySettings* policy : policies) {
    try {
      status = WorstStatus(status, UpdatePolicy(session, *policy, line, only, except, *report));
    } catch (const CToolError& e) {
      if (policies.size() == 1 && !line.Has("--all")) throw;
      ReportPolicyError(*policy, e);
      status = kExitError;
    }
  }
  return status;
}
