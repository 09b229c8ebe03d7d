#include "cli/difference.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include <boost/algorithm/string/predicate.hpp>

#include "cli/text_format.h"
#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/text_conversion.h"

namespace {

constexpr uint64_t kUnknownTime = ~0ull;
constexpr uint32_t kUnknownAttributes = 0xFFFFFFFFu;

// Hash texts are hex: compared as the host compares them, without regard to case.
bool SameHash(const std::string& a, const std::string& b) { return boost::algorithm::iequals(a, b); }

std::string KindName(bool is_dir, bool is_link) {
  return is_dir ? "directory" : is_link ? "symbolic link" : "file";
}

CChange ChangeOfStatus(uint32_t status) {
  switch (status) {
    case kCheckFileNew:
    case kCheckDirectoryNew: return CChange::kNew;
    case kCheckHashChanged: return CChange::kHashChanged;
    case kCheckFileGone:
    case kCheckDirectoryGone: return CChange::kGone;
    case kCheckAttributesChanged: return CChange::kAttributesChanged;
    case kCheckTime1Changed:
    case kCheckTime2Changed: return CChange::kTimesChanged;
    case kCheckSecurityChanged: return CChange::kSecurityChanged;
    default: return CChange::kTargetChanged;  // 4108 to 4113
  }
}

// One aspect that differs: its name, and the recorded and current values for the detail.
struct CAspect {
  CChange change;
  std::string name;
  std::string detail;
};

}  // namespace

const char* ChangeWords(CChange change) {
  switch (change) {
    case CChange::kNew: return "new";
    case CChange::kGone: return "gone";
    case CChange::kKindChanged: return "kind changed";
    case CChange::kHashChanged: return "hash changed";
    case CChange::kAttributesChanged: return "attributes changed";
    case CChange::kTimesChanged: return "times changed";
    case CChange::kSecurityChanged: return "security attributes changed";
    case CChange::kTargetChanged: return "link target changed";
    case CChange::kRenamed: return "renamed";
  }
  return "changed";
}

CDifference DescribeDifference(CHashDB& database, uint32_t status, const std::string& relative_path,
                               const std::shared_ptr<CRefFileObjInfo>& info) {
  CDifference difference;
  difference.status = status;
  difference.change = ChangeOfStatus(status);
  difference.path = relative_path;
  difference.is_dir = info->IsDirectory();
  difference.is_link = !info->TargetPath().empty();
  difference.current_hash = info->HashText();
  difference.info = info;
  std::wstring path = info->Path();

  if (difference.change == CChange::kNew) {
    // A node of the other kind at the same path makes it a change of kind, not a new object.
    if (database.ExistsAs(path, !difference.is_dir)) {
      difference.change = CChange::kKindChanged;
      difference.detail = KindName(!difference.is_dir, false) + " -> " + KindName(difference.is_dir, difference.is_link);
      difference.recorded_hash = database.HashOfObject(path);
    }
    return difference;
  }

  difference.recorded_hash = info->recorded_hash() ? *info->recorded_hash() : database.HashOfObject(path);
  uint32_t attributes = kUnknownAttributes;
  uint64_t time_1 = kUnknownTime;
  uint64_t time_2 = kUnknownTime;
  std::string security;
  database.AttributesOfObject(path, attributes, time_1, time_2, security);
  bool recorded_is_dir = false;
  std::string target = WideToUtf8(database.TargetOfObject(path, recorded_is_dir));

  std::vector<CAspect> aspects;
  if (!difference.recorded_hash.empty() && !difference.current_hash.empty() &&
      !SameHash(difference.recorded_hash, difference.current_hash)) {
    aspects.push_back({CChange::kHashChanged, "content",
                       "recorded " + difference.recorded_hash + ", current " + difference.current_hash});
  }
  if (target != info->TargetPath()) {
    aspects.push_back({CChange::kTargetChanged, "link target",
                       "target '" + target + "' -> '" + info->TargetPath() + "'"});
  }
  if (attributes != kUnknownAttributes && info->Attributes() != kUnknownAttributes &&
      attributes != info->Attributes()) {
    aspects.push_back({CChange::kAttributesChanged, "mode", "mode " + AttributesText(attributes) + " -> " + AttributesText(info->Attributes())});
  }
  if (time_2 != kUnknownTime && info->Time2() != kUnknownTime && time_2 != info->Time2() && !difference.is_dir) {
    aspects.push_back({CChange::kTimesChanged, "modification time",
                       "modified " + TimeText(time_2) + " -> " + TimeText(info->Time2())});
  }
  if (time_1 != kUnknownTime && info->Time1() != kUnknownTime && time_1 != info->Time1()) {
    aspects.push_back({CChange::kTimesChanged, "change time",
                       "changed " + TimeText(time_1) + " -> " + TimeText(info->Time1())});
  }
  if (!security.empty() && !info->SecurityAttributes().empty() && security != info->SecurityAttributes()) {
    aspects.push_back({CChange::kSecurityChanged, "security attributes",
                       "'" + security + "' -> '" + info->SecurityAttributes() + "'"});
  }
  // A link target that came or went means a file became a symbolic link, or the other way round.
  bool link_came = status == kCheckFileTargetAdded || status == kCheckDirectoryTargetAdded;
  bool link_went = status == kCheckFileTargetRemoved || status == kCheckDirectoryTargetRemoved;
  if (link_came || link_went) {
    difference.change = CChange::kKindChanged;
    difference.detail = link_came ? "file -> symbolic link" : "symbolic link -> file";
    std::erase_if(aspects, [](const CAspect& aspect) { return aspect.change == CChange::kTargetChanged; });
  }
  // The first aspect of the reported kind gives the detail; the others are named as well.
  bool detailed = false;
  for (const CAspect& aspect : aspects) {
    if (!detailed && aspect.change == difference.change) {
      difference.detail = aspect.detail;
      detailed = true;
    } else {
      difference.also.push_back(aspect.name);
    }
  }
  if (difference.change != CChange::kHashChanged && SameHash(difference.recorded_hash, difference.current_hash)) {
    difference.recorded_hash.clear();  // the hashes are shown only where they differ
    difference.current_hash.clear();
  }
  return difference;
}

CDifference DescribeGone(uint32_t status, const std::string& relative_path, bool is_dir,
                         const std::shared_ptr<CRefFileObjInfo>& info) {
  CDifference difference;
  difference.status = status;
  difference.change = CChange::kGone;
  difference.path = relative_path;
  difference.is_dir = is_dir;
  if (info && info->recorded_hash()) difference.recorded_hash = *info->recorded_hash();
  return difference;
}

void PairRenamesAndSort(std::vector<CDifference>& differences) {
  // hash -> (gone indexes, new indexes)
  std::map<std::string, std::pair<std::vector<size_t>, std::vector<size_t>>> by_hash;
  for (size_t i = 0; i < differences.size(); ++i) {
    const CDifference& d = differences[i];
    if (d.is_dir) continue;
    if (d.change == CChange::kGone && !d.recorded_hash.empty()) by_hash[d.recorded_hash].first.push_back(i);
    if (d.change == CChange::kNew && !d.current_hash.empty()) by_hash[d.current_hash].second.push_back(i);
  }
  std::vector<bool> dropped(differences.size(), false);
  for (const auto& [hash, indexes] : by_hash) {
    if (indexes.first.size() != 1 || indexes.second.size() != 1) continue;
    CDifference& renamed = differences[indexes.second.front()];
    const CDifference& gone = differences[indexes.first.front()];
    renamed.change = CChange::kRenamed;
    renamed.status = 0;
    renamed.from = gone.path;
    renamed.recorded_hash = gone.recorded_hash;
    renamed.detail = "from " + gone.path;
    dropped[indexes.first.front()] = true;
  }
  std::vector<CDifference> kept;
  kept.reserve(differences.size());
  for (size_t i = 0; i < differences.size(); ++i) {
    if (!dropped[i]) kept.push_back(std::move(differences[i]));
  }
  std::sort(kept.begin(), kept.end(), [](const CDifference& a, const CDifference& b) { return a.path < b.path; });
  differences = std::move(kept);
}

std::string DifferenceText(const CDifference& difference) {
  char words[40];
  std::snprintf(words, sizeof words, "%-28s", ChangeWords(difference.change));
  std::string line = words;
  line += difference.path.empty() ? "." : difference.path;
  if (difference.is_dir) line += "/";
  std::string detail = difference.detail;
  if (difference.change == CChange::kGone && !difference.recorded_hash.empty()) {
    detail = "recorded " + difference.recorded_hash;
  }
  if (!detail.empty()) line += "  (" + detail + ")";
  if (!difference.also.empty()) {
    line += "  also:";
    for (size_t i = 0; i < difference.also.size(); ++i) line += (i ? ", " : " ") + difference.also[i];
  }
  return line;
}

std::string DifferenceJson(const CDifference& difference) {
  std::string json = "{\"change\":" + JsonString(ChangeWords(difference.change));
  json += ",\"code\":" + std::to_string(difference.status);
  json += ",\"path\":" + JsonString(difference.path);
  if (!difference.from.empty()) json += ",\"from\":" + JsonString(difference.from);
  json += ",\"kind\":" + JsonString(KindName(difference.is_dir, difference.is_link));
  if (!difference.recorded_hash.empty()) json += ",\"recorded_hash\":" + JsonString(difference.recorded_hash);
  if (!difference.current_hash.empty()) {
    json += ",\"current_hash\":" + JsonString(difference.current_hash);
  }
  if (!difference.detail.empty()) json += ",\"detail\":" + JsonString(difference.detail);
  json += ",\"also\":[";
  for (size_t i = 0; i < difference.also.size(); ++i) json += (i ? "," : "") + JsonString(difference.also[i]);
  return json + "]}";
}
