#include "tool/judge/change_selection.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <string>

#include "refhost/crypto_service.h"
#include "refhost/file_descriptor.h"
#include "refhost/file_obj_info.h"
#include "util/text_conversion.h"

namespace {

// Whether the file now at "path" begins with the bytes that were recorded: the first "length"
// bytes hash to "hash".
bool KeepsRecordedPrefix(const std::string& path, uint64_t length, const std::string& hash,
                         uint32_t policy_number) {
  CFileDescriptor fd(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) return false;
  try {
    return HashOpenFilePrefix(fd.get(), length, policy_number, path) == hash;
  } catch (const std::exception&) {
    return false;
  }
}

bool Drop(std::vector<CAttributeChange>& changes, CAspect aspect) {
  auto end =
      std::remove_if(changes.begin(), changes.end(),
                     [aspect](const CAttributeChange& change) { return change.aspect == aspect; });
  bool any = end != changes.end();
  changes.erase(end, changes.end());
  return any;
}

bool Has(const std::vector<CAttributeChange>& changes, CAspect aspect) {
  return std::any_of(changes.begin(), changes.end(),
                     [aspect](const CAttributeChange& change) { return change.aspect == aspect; });
}

}  // namespace

std::string RotatedFrom(std::string path) {
  for (const char* compressed : {".gz", ".xz", ".bz2", ".zst", ".lz4", ".Z"}) {
    size_t length = std::char_traits<char>::length(compressed);
    if (path.size() > length && path.compare(path.size() - length, length, compressed) == 0) {
      path.resize(path.size() - length);
      break;
    }
  }
  auto digits_end = [&path](size_t end) {  // where the run of digits that ends at "end" starts
    size_t start = end;
    while (start > 0 && std::isdigit(static_cast<unsigned char>(path[start - 1]))) --start;
    return start;
  };
  size_t start = digits_end(path.size());
  if (start == path.size() || start < 2) return std::string();
  if (path[start - 1] == '.') return path.substr(0, start - 1);  // NAME.1
  if (path[start - 1] != '-') return std::string();
  size_t count = path.size() - start;
  if (count == 8) return path.substr(0, start - 1);  // NAME-20261123
  size_t date = digits_end(start - 1);               // NAME-20261123-1
  if (start - 1 - date == 8 && date >= 2 && path[date - 1] == '-') return path.substr(0, date - 1);
  return std::string();
}

bool ApplySelection(CDifference& difference, const CSelection& selection, uint32_t policy_number) {
  if (difference.change != CChange::kChanged) return true;
  std::vector<CAttributeChange>& changes = difference.changes;
  if (selection.may_grow) {
    bool grew = difference.current.size >= difference.recorded.size &&
                !difference.recorded.hash.empty() && !Has(changes, CAspect::kInode) &&
                difference.info &&
                (!Has(changes, CAspect::kContent) ||
                 KeepsRecordedPrefix(WideToUtf8(difference.info->Path()), difference.recorded.size,
                                     difference.recorded.hash, policy_number));
    if (grew) {
      Drop(changes, CAspect::kContent);
      Drop(changes, CAspect::kSize);
    }
    Drop(changes, CAspect::kModified);
    Drop(changes, CAspect::kStatusChanged);
  }
  if (!selection.directory_times && (difference.current.is_dir || difference.recorded.is_dir)) {
    Drop(changes, CAspect::kModified);
    Drop(changes, CAspect::kStatusChanged);
  }
  changes.erase(std::remove_if(changes.begin(), changes.end(),
                               [&](const CAttributeChange& change) {
                                 return !selection.Reports(change.aspect);
                               }),
                changes.end());
  if (changes.empty()) return false;
  difference.words = HeadlineWords(changes.front().aspect);
  return true;
}

bool GrowsAsLog(const CPolicyRules& rules, const std::string& path, CObjectKind kind) {
  if (rules.SelectionFor(path, kind).may_grow) return true;
  std::string log = RotatedFrom(path);
  return !log.empty() && rules.SelectionFor(log, kind).may_grow;
}

void ForgiveRotations(std::vector<CDifference>& differences, const CPolicyRules& rules) {
  auto grows = [&](const std::string& path, const CDifference& difference) {
    return GrowsAsLog(rules, path, difference.shown().kind());
  };
  // The logs that show a rotation: one of their rotated names is new or changed.
  std::set<std::string> rotated;
  for (const CDifference& difference : differences) {
    if (difference.change == CChange::kGone) continue;
    std::string log = RotatedFrom(difference.path);
    if (!log.empty() && grows(difference.path, difference)) rotated.insert(log);
  }
  if (rotated.empty()) return;
  differences.erase(std::remove_if(differences.begin(), differences.end(),
                                   [&](const CDifference& difference) {
                                     if (!grows(difference.path, difference)) return false;
                                     if (difference.change == CChange::kRenamed) {
                                       return rotated.count(difference.from) != 0 &&
                                              RotatedFrom(difference.path) == difference.from;
                                     }
                                     if (rotated.count(difference.path) != 0)
                                       return difference.change == CChange::kChanged;
                                     std::string log = RotatedFrom(difference.path);
                                     return !log.empty() && rotated.count(log) != 0;
                                   }),
                    differences.end());
}
