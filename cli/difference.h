#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CHashDB;
class CRefFileObjInfo;

// What happened to one object since the database recorded it.
enum class CChange {
  kNew,
  kGone,
  kKindChanged,
  kHashChanged,
  kAttributesChanged,
  kTimesChanged,
  kSecurityChanged,
  kTargetChanged,
  kRenamed,
};

struct CDifference {
  CChange change = CChange::kNew;
  uint32_t status = 0;      // the database's check status; 0 for a rename, which pairs two
  std::string path;         // relative to the policy's root; "" is the root itself
  std::string from;         // a rename's old path
  bool is_dir = false;
  bool is_link = false;
  std::string recorded_hash;
  std::string current_hash;
  std::string detail;              // what differs, recorded then current
  std::vector<std::string> also;   // further aspects that differ besides the first
  std::shared_ptr<CRefFileObjInfo> info;  // the object as it is now; null when gone
};

// The words a report uses for a change: "hash changed", "new", ...
const char* ChangeWords(CChange change);

// Describes the check status of an object that differs (any status but "unchanged"), with every
// aspect that differs from what "database" recorded. Call it before the database is updated.
CDifference DescribeDifference(CHashDB& database, uint32_t status, const std::string& relative_path,
                               const std::shared_ptr<CRefFileObjInfo>& info);
// A recorded object that is gone, after the check handed back its recorded hash.
CDifference DescribeGone(uint32_t status, const std::string& relative_path, bool is_dir,
                         const std::shared_ptr<CRefFileObjInfo>& info);

// Pairs a gone file and a new file that carry the same content, when no other gone or new file
// carries it, into one rename; then sorts by path.
void PairRenamesAndSort(std::vector<CDifference>& differences);

// One line for people; one JSON object for machines.
std::string DifferenceText(const CDifference& difference);
std::string DifferenceJson(const CDifference& difference);
