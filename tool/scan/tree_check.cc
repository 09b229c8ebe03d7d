#include "tool/scan/tree_check.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <mutex>
#include <set>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "tool/common/exit_status.h"
#include "tool/judge/judge.h"
#include "tool/packages/package_changes.h"
#include "tool/rules/policy_rules.h"
#include "tool/scan/kept_content.h"
#include "tool/scan/progress_line.h"
#include "tool/scan/tree_scanner.h"
#include "tool/session/session.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"

namespace {

// The module stamps the nodes that a check meets with this clock (monotonic, nanoseconds).
int64_t MonotonicNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Whether "path" is one of "unreadable" or lies below one of them.
bool InsideUnreadable(const std::set<std::string>& unreadable, std::string path) {
  for (;;) {
    if (unreadable.count(path)) return true;
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return unreadable.count("") != 0;
    path.resize(slash);
  }
}

}  // namespace

void SettleAndExplain(const CJudge& judge, std::vector<CDifference>& differences, CSession& session,
                      const CRefPolicySettings& policy, CHashDB& baseline) {
  judge.Settle(differences);
  ExplainByPackages(differences, policy, judge.rules().dpkg_root(),
                    session.Narrow(baseline.HdbFilePath(false)));
  ExplainContent(differences, session, policy);
  SortMostSevereFirst(differences);  // what is inside a file may have made it more severe
}

CTreeCheckResult CheckTree(CSession& session, const CRefPolicySettings& policy,
                           const std::shared_ptr<CHashDB>& database, bool quiet) {
  CTreeCheckResult result;
  auto start_time = std::chrono::steady_clock::now();
  int64_t start = MonotonicNanoseconds();
  std::mutex lock;
  CTreeScanner scanner(session.host(), policy.root, session.settings().threads);
  scanner.Exclude(session.DataFolder());
  const CPolicyRules& rules = session.Rules(policy);
  scanner.SetRules(&rules);
  CJudge judge(rules, session.settings().policy_number, policy.root);
  // What the database records where "info" is, with the hash that its check handed back.
  auto recorded_state = [&](const std::shared_ptr<CRefFileObjInfo>& info) {
    std::optional<CObjectState> recorded = RecordedStateIfAny(*database, info->Path());
    if (recorded && info->recorded_hash()) recorded->hash = *info->recorded_hash();
    return recorded;
  };
  {
    CProgressLine progress("checking " + policy.name, scanner.counters(), quiet);
    scanner.Run(
        [&](const std::shared_ptr<CRefFileObjInfo>& info) {
          uint32_t status = database->CheckObject(info);
          if (status == kCheckUnchanged) return;
          std::string relative = WideToUtf8(info->RelativePath());
          std::optional<CDifference> difference =
              judge.Present(relative, recorded_state(info), info, status);
          if (!difference) return;
          std::lock_guard<std::mutex> guard(lock);
          result.differences.push_back(std::move(*difference));
        },
        [&](const std::string& relative, const std::string& reason) {
          result.unreadable.emplace_back(relative, reason);  // called under the scanner's lock
        });
  }
  result.checked = scanner.counters().objects.load();
  result.bytes = scanner.counters().bytes.load();

  // What the walk met was stamped after "start"; the rest is gone, or hidden by a read error.
  std::set<std::string> unreadable;
  for (const auto& [path, reason] : result.unreadable) unreadable.insert(path);
  std::shared_ptr<CPathEntryList> unseen = database->ChangedSince(nullptr, start, std::wstring());
  CRefHost& host = session.host();
  for (const CPathEntry& entry : *unseen) {
    std::string relative = WideToUtf8(entry.second);
    if (InsideUnreadable(unreadable, relative)) continue;
    std::wstring full = session.WideFullPath(policy, relative);
    CObjectState recorded = RecordedState(*database, full);
    if (!rules.empty() && rules.ExcludedHereOrAbove(relative, recorded.kind())) {
      continue;  // excluded since it was recorded: the walk no longer looks at it
    }
    std::shared_ptr<CRefFileObjInfo> info;
    try {
      info = CRefFileObjInfo::FromDisk(*host.Utility(), *host.Cfg(), Utf8ToWide(policy.root), full,
                                       session.settings().policy_number);
    } catch (const std::exception& e) {
      result.unreadable.emplace_back(relative, e.what());
      continue;
    }
    uint32_t status = database->CheckObject(info);
    if (status == kCheckUnchanged) continue;
    if (info->IsGone()) {
      result.differences.push_back(judge.Gone(relative, recorded, status));
      continue;
    }
    // Appeared while the walk went by: judged against the record read above.
    if (info->recorded_hash()) recorded.hash = *info->recorded_hash();
    if (std::optional<CDifference> difference = judge.Present(relative, recorded, info, status)) {
      result.differences.push_back(std::move(*difference));
    }
  }
  SettleAndExplain(judge, result.differences, session, policy, *database);
  std::sort(result.unreadable.begin(), result.unreadable.end());
  result.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_time).count();
  return result;
}

CPolicyCheck CheckPolicy(CSession& session, const CRefPolicySettings& policy, bool quiet,
                         bool will_write) {
  session.RequireRoot(policy);
  if (will_write) session.Store(policy).Lock(CPolicyLock::CMode::kExclusive);
  std::shared_ptr<CHashDB> database = session.Store(policy).Load();
  CTreeCheckResult result = CheckTree(session, policy, database, quiet);
  return CPolicyCheck{policy, database, std::move(result)};
}
