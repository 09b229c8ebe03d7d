#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tool/change/difference.h"

// Everything a check of a policy's tree found.
struct CTreeCheckResult {
  std::vector<CDifference> differences;                         // renames paired, sorted by path
  std::vector<std::pair<std::string, std::string>> unreadable;  // relative path, reason; sorted
  uint64_t checked = 0;
  uint64_t bytes = 0;
  double seconds = 0;
};
