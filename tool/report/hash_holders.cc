#include "tool/report/hash_holders.h"

#include <unordered_set>

#include "hashdb/hash_db.h"

std::vector<std::wstring> HoldersOf(CHashDB& database, const std::string& hash, bool unmark) {
  std::vector<std::wstring> paths;
  std::unordered_set<std::wstring> seen;
  for (;;) {
    std::wstring path = database.PathByHash(hash, false);
    if (path.empty()) break;
    if (!seen.insert(path).second) break;  // could not be marked
    paths.push_back(path);
    database.Mark(true, path, true);
  }
  if (unmark) {
    for (const std::wstring& path : paths) database.Mark(true, path, false);
  }
  return paths;
}
