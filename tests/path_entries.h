#pragma once

#include <algorithm>
#include <vector>

#include "hashdb/hash_db.h"

// The entries of a list in path order, for comparing lists whose order is not fixed.
inline std::vector<CPathEntry> Sorted(const CPathEntryList& list) {
  std::vector<CPathEntry> entries(list.begin(), list.end());
  std::sort(entries.begin(), entries.end(),
            [](const CPathEntry& a, const CPathEntry& b) { return a.second < b.second; });
  return entries;
}
