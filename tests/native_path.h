#pragma once

#include <string>

#include "hashdb/wide_path.h"

// A path written in a test with "/" between its components, as the module spells it on this
// platform ("\\" on Windows, where the module joins components with the preferred separator).
inline std::wstring Native(std::wstring path) {
  for (wchar_t& c : path) {
    if (c == L'/') c = kPreferredSeparator;
  }
  return path;
}
