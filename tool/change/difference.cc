#include "tool/change/difference.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "hashdb/hash_db.h"
#include "refhost/security_text.h"
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

namespace {

bool Below(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() + 1 && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

// A directory renamed or moved: a gone directory and a new one that is the same inode become one
// rename, and what moved with it unchanged (the same name below it, inode and content) is no
// difference of its own.
void PairDirectoryRenames(std::vector<CDifference>& differences) {
  std::map<std::string, std::pair<std::vector<size_t>, std::vector<size_t>>> by_inode;
  for (size_t i = 0; i < differences.size(); ++i) {
    const CDifference& d = differences[i];
    if (d.change == CChange::kGone && d.recorded.is_dir) {
      std::string inode = SecurityItem(d.recorded, security_text::kInode);
      if (!inode.empty()) by_inode[inode].first.push_back(i);
    } else if (d.change == CChange::kNew && d.current.is_dir) {
      std::string inode = SecurityItem(d.current, security_text::kInode);
      if (!inode.empty()) by_inode[inode].second.push_back(i);
    }
  }
  // The outermost first: a directory below one that moved with it moved too.
  std::vector<std::pair<size_t, size_t>> pairs;
  for (const auto& [inode, indexes] : by_inode) {
    if (indexes.first.size() == 1 && indexes.second.size() == 1)
      pairs.emplace_back(indexes.first.front(), indexes.second.front());
  }
  std::sort(pairs.begin(), pairs.end(), [&](const auto& a, const auto& b) {
    return differences[a.first].path.size() < differences[b.first].path.size();
  });
  std::vector<bool> dropped(differences.size(), false);
  for (const auto& [gone_index, new_index] : pairs) {
    if (dropped[gone_index] || dropped[new_index]) continue;
    std::string from = differences[gone_index].path;
    std::string to = differences[new_index].path;
    // What lay below it, by its name there: gone from the old place, new in the new one.
    std::map<std::string, size_t> gone_below;
    for (size_t i = 0; i < differences.size(); ++i) {
      if (!dropped[i] && differences[i].change == CChange::kGone &&
          Below(differences[i].path, from))
        gone_below.emplace(differences[i].path.substr(from.size()), i);
    }
    for (size_t i = 0; i < differences.size(); ++i) {
      const CDifference& arrived = differences[i];
      if (dropped[i] || arrived.change != CChange::kNew || !Below(arrived.path, to)) continue;
      auto found = gone_below.find(arrived.path.substr(to.size()));
      if (found == gone_below.end()) continue;
      const CObjectState& was = differences[found->second].recorded;
      const CObjectState& is = arrived.current;
      if (was.is_dir != is.is_dir || was.hash != is.hash ||
          SecurityItem(was, security_text::kInode) != SecurityItem(is, security_text::kInode) ||
          was.attributes != is.attributes || was.target != is.target)
        continue;
      dropped[i] = dropped[found->second] = true;
    }
    CDifference& arrived = differences[new_index];
    arrived = RenamedDifference(differences[gone_index], std::move(arrived));
    dropped[gone_index] = true;
  }
  std::vector<CDifference> kept;
  kept.reserve(differences.size());
  for (size_t i = 0; i < differences.size(); ++i) {
    if (!dropped[i]) kept.push_back(std::move(differences[i]));
  }
  differences = std::move(kept);
}

}  // namespace

void PairRenamesAndSort(std::vector<CDifference>& differences) {
  PairDirectoryRenames(differences);
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

void SortMostSevereFirst(std::vector<CDifference>& differences) {
  std::stable_sort(
      differences.begin(), differences.end(),
      [](const CDifference& a, const CDifference& b) { return a.severity > b.severity; });
}
