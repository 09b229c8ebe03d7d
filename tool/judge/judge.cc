#include "tool/judge/judge.h"

#include <algorithm>
#include <utility>

#include "refhost/file_obj_info.h"
#include "tool/judge/change_selection.h"
#include "tool/judge/hard_links.h"
#include "tool/judge/severity.h"
#include "tool/rules/policy_rules.h"
#include "util/relative_path.h"

CJudge::CJudge(const CPolicyRules& rules, uint32_t policy_number, std::string root)
    : rules_(rules), policy_number_(policy_number), root_(std::move(root)) {}

void CJudge::Grade(CDifference& difference) const {
  ::Grade(difference, JoinedPath(root_, difference.path),
          rules_.SelectionFor(difference.path, difference.shown().kind()));
}

bool CJudge::Excluded(const std::string& relative, CObjectKind kind) const {
  return !relative.empty() && rules_.Excluded(relative, kind);
}

std::optional<CDifference> CJudge::Present(const std::string& relative,
                                           const std::optional<CObjectState>& recorded,
                                           const std::shared_ptr<CRefFileObjInfo>& info,
                                           uint32_t status) const {
  CDifference difference;
  difference.status = status;
  difference.path = relative;
  difference.current = StateOfObject(*info);
  difference.info = info;
  if (!recorded) {
    difference.change = CChange::kNew;
  } else {
    difference.change = CChange::kChanged;
    difference.recorded = *recorded;
    difference.changes = CompareStates(difference.recorded, difference.current);
  }
  SetHeadline(difference);
  CSelection selection = rules_.SelectionFor(relative, difference.shown().kind());
  if (!ApplySelection(difference, selection, policy_number_)) return std::nullopt;
  ::Grade(difference, JoinedPath(root_, relative), selection);
  return difference;
}

CDifference CJudge::Gone(const std::string& relative, const CObjectState& recorded,
                         uint32_t status) const {
  CDifference difference;
  difference.status = status;
  difference.change = CChange::kGone;
  difference.path = relative;
  difference.recorded = recorded;
  SetHeadline(difference);
  Grade(difference);
  return difference;
}

CDifference CJudge::Renamed(const CDifference& gone, CDifference arrived) const {
  CDifference renamed = RenamedDifference(gone, std::move(arrived));
  Grade(renamed);
  return renamed;
}

void CJudge::Settle(std::vector<CDifference>& differences) const {
  PairRenamesAndSort(differences);
  for (CDifference& difference : differences) {
    if (difference.change == CChange::kRenamed) Grade(difference);  // paired just now
  }
  ForgiveRotations(differences, rules_);
  NameHardLinks(differences, root_, [this](const std::string& relative) {
    return rules_.SelectionFor(relative, CObjectKind::kFile).kept == CKeptContent::kRedact;
  });
  SortMostSevereFirst(differences);
}

bool CLiveRotations::Forgives(const CDifference& difference) {
  if (difference.change == CChange::kGone) return false;
  if (!GrowsAsLog(rules_, difference.path, difference.shown().kind())) return false;
  std::string log = RotatedFrom(difference.path);
  if (difference.change == CChange::kRenamed) {
    // NAME to NAME.1, or NAME.1 to NAME.2: the log moves along its rotated names.
    if (log.empty() || (difference.from != log && RotatedFrom(difference.from) != log))
      return false;
    rotated_.insert(log);
    return true;
  }
  if (!log.empty()) {  // a rotated name that appears or changes: a copy of the log, or compressed
    rotated_.insert(log);
    return true;
  }
  // The log itself, new or cut short after its rotation: its fresh start.
  return rotated_.erase(difference.path) != 0;
}
