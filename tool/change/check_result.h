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
  // Read from the watch service's live record rather than from a walk of the disk.
  bool from_live_record = false;
};
