#include "tool/change/difference.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "hashdb/hash_db.h"
#include "util/text_conversion.h"

namespace {

const char* WordsOf(CChange change) {
  switch (change) {
    case CChange::kNew:
      return "new";
    case CChange::kGone:
      return "gone";
    case CChange::kRenamed:
      return "renamed";
    case CChange::kChanged:
      return "changed";
  }
  return "changed";
}

// Words for a difference that the check found but the recorded fields do not show (a status
// from the database alone).
const char* WordsOfStatus(uint32_t status) {
  switch (status) {
    case kCheckHashChanged:
      return "hash changed";
    case kCheckAttributesChanged:
      return "mode changed";
    case kCheckTime1Changed:
    case kCheckTime2Changed:
      return "times changed";
    case kCheckSecurityChanged:
      return "security attributes changed";
    default:
      return "changed";
  }
}

constexpr const char* kSeverityWords[] = {"low", "medium", "high", "critical"};

}  // namespace

const char* SeverityWord(CSeverity severity) { return kSeverityWords[static_cast<int>(severity)]; }

bool SeverityOfWord(const std::string& word, CSeverity& severity) {
  for (int i = 0; i < 4; ++i) {
    if (word == kSeverityWords[i]) {
      severity = static_cast<CSeverity>(i);
      return true;
    }
  }
  return false;
}

int SeverityScore(CSeverity severity) {
  static constexpr int kScores[] = {21, 47, 73, 99};
  return kScores[static_cast<int>(severity)];
}

void SetHeadline(CDifference& difference) {
  if (difference.change != CChange::kChanged) {
    difference.words = WordsOf(difference.change);
  } else {
    difference.words = difference.changes.empty()
                           ? WordsOfStatus(difference.status)
                           : HeadlineWords(difference.changes.front().aspect);
  }
  if (difference.change == CChange::kNew) difference.warnings = Warnings(difference.current);
}

CDifference DescribeRecorded(CChange change, const std::string& relative_path,
                             const CObjectState* recorded, const CObjectState* current) {
  CDifference difference;
  difference.change = change;
  difference.path = relative_path;
  if (recorded) difference.recorded = *recorded;
  if (current) difference.current = *current;
  if (recorded && current) difference.changes = CompareStates(*recorded, *current);
  SetHeadline(difference);
  return difference;
}

CDifference RenamedDifference(const CDifference& gone, CDifference arrived) {
  CDifference renamed = std::move(arrived);
  renamed.change = CChange::kRenamed;
  renamed.words = "renamed";
  renamed.status = 0;
  renamed.from = gone.path;
  renamed.recorded = gone.recorded;
  renamed.warnings.clear();
  renamed.changes = CompareStates(renamed.recorded, renamed.current);
  std::erase_if(renamed.changes, [](const CAttributeChange& change) {
    return change.aspect == CAspect::kStatusChanged;
  });
  return renamed;
}

void PairRenamesAndSort(std::vector<CDifference>& differences) {
  // hash -> (gone indexes, new indexes)
  std::map<std::string, std::pair<std::vector<size_t>, std::vector<size_t>>> by_hash;
  for (size_t i = 0; i < differences.size(); ++i) {
    const CDifference& d = differences[i];
    if (d.change == CChange::kGone && !d.recorded.is_dir && !d.recorded.hash.empty()) {
      by_hash[d.recorded.hash].first.push_back(i);
    }
    if (d.change == CChange::kNew && !d.current.is_dir && !d.current.hash.empty()) {
      by_hash[d.current.hash].second.push_back(i);
    }
  }
  std::vector<bool> dropped(differences.size(), false);
  for (const auto& [hash, indexes] : by_hash) {
    if (indexes.first.size() != 1 || indexes.second.size() != 1) continue;
    CDifference& arrived = differences[indexes.second.front()];
    arrived = RenamedDifference(differences[indexes.first.front()], std::move(arrived));
    dropped[indexes.first.front()] = true;
  }
  std::vector<CDifference> kept;
  kept.reserve(differences.size());
  for (size_t i = 0; i < differences.size(); ++i) {
    if (!dropped[i]) kept.push_back(std::move(differences[i]));
  }
  std::sort(kept.begin(), kept.end(),
            [](const CDifference& a, const CDifference& b) { return a.path < b.path; });
  differences = std::move(kept);
}
