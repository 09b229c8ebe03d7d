#include "tool/scan/record_check.h"

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "tool/change/object_state.h"
#include "tool/judge/judge.h"
#include "tool/rules/policy_rules.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "util/text_conversion.h"

std::optional<CDifference> DifferenceFromBaseline(CSession& session,
                                                  const CRefPolicySettings& policy,
                                                  const CJudge& judge, CHashDB& baseline,
                                                  CHashDB& record, const std::string& relative) {
  std::wstring full = session.WideFullPath(policy, relative);
  std::optional<CObjectState> recorded = RecordedStateIfAny(baseline, full);
  std::optional<CObjectState> now = RecordedStateIfAny(record, full);
  if (!recorded && !now) return std::nullopt;
  CObjectKind kind = now ? now->kind() : recorded->kind();
  // What a walk no longer looks at is not reported (excluded since it was recorded).
  const CPolicyRules& rules = judge.rules();
  if (!relative.empty() && !rules.empty() && rules.ExcludedHereOrAbove(relative, kind)) {
    return std::nullopt;
  }
  if (recorded) {
    // A comparison leaves the other record's hash on the baseline's node as the one it carried
    // over (a file changed back to it would check as unchanged); clearing the node's mark drops
    // it, so that the check below compares with what the baseline holds.
    baseline.Mark(true, full, false);
  }
  CRefHost& host = session.host();
  std::wstring root = session.WideFullPath(policy, "");
  if (!now) {
    uint32_t status =
        baseline.CheckObject(CRefFileObjInfo::Absent(*host.Utility(), *host.Cfg(), root, full));
    if (status == kCheckUnchanged) return std::nullopt;
    return judge.Gone(relative, *recorded, status);
  }
  std::shared_ptr<CRefFileObjInfo> info =
      CRefFileObjInfo::FromRecord(*host.Utility(), *host.Cfg(), root, full, *now);
  uint32_t status = baseline.CheckObject(info);
  if (status == kCheckUnchanged) return std::nullopt;
  return judge.Present(relative, recorded, info, status);
}

CTreeCheckResult CheckRecordAgainstBaseline(CSession& session, const CRefPolicySettings& policy,
                                            const std::shared_ptr<CHashDB>& baseline,
                                            const std::shared_ptr<CHashDB>& record) {
  CTreeCheckResult result;
  auto start_time = std::chrono::steady_clock::now();
  // The baseline is the current side: the comparison only reads the record it is given. What it
  // calls new is in the baseline alone (gone from the record), what it calls removed is in the
  // record alone (new there).
  CPathEntryList changed;
  CPathEntryList in_baseline_only;
  CPathEntryList in_record_only;
  baseline->CompareWithPrevious(record, changed, in_baseline_only, in_record_only);

  std::set<std::string> paths;
  for (const CPathEntryList* list : {&changed, &in_baseline_only, &in_record_only}) {
    for (const CPathEntry& entry : *list) paths.insert(WideToUtf8(entry.second));
  }
  // A directory of the record where the baseline has a file: the comparison does not go below
  // it, and everything there is new.
  for (const CPathEntry& entry : in_baseline_only) {
    std::wstring full = session.WideFullPath(policy, WideToUtf8(entry.second));
    if (!record->ExistsAs(full, true) || baseline->IsDirectory(full)) continue;
    std::shared_ptr<CPathEntryList> below = record->SubNodes(entry.second);
    for (const CPathEntry& node : *below) paths.insert(WideToUtf8(node.second));
  }

  CJudge judge(session.Rules(policy), session.settings().policy_number, policy.root);
  for (const std::string& relative : paths) {
    std::optional<CDifference> difference =
        DifferenceFromBaseline(session, policy, judge, *baseline, *record, relative);
    if (difference) result.differences.push_back(std::move(*difference));
  }
  SettleAndExplain(judge, result.differences, session, policy, *baseline);
  result.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_time).count();
  return result;
}
