#pragma once

#include <string>

#include "hashdb/wide_path.h"

// Suffixes of a policy's side files. Each is appended directly to the HDB file path, so the side
// files of policy P are named P.hdb followed by the suffix.
inline constexpr const char* kHdbSuffix = ".hdb";
inline constexpr const char* kRevisionSuffix = ".dff";
inline constexpr const char* kSedSuffix = ".sed";
inline constexpr const char* kCandidateSuffix = ".candidate";
inline constexpr const char* kTemporarySuffix = ".tmp";

// "path" followed by "suffix" (ASCII), with no separator.
inline std::wstring AppendSuffix(const std::wstring& path, const char* suffix) {
  std::wstring result = path;
  for (const char* c = suffix; *c; ++c) result += static_cast<wchar_t>(*c);
  return result;
}

// "directory" joined with "name": a separator is added only when the directory does not already
// end in one and the name does not begin with one.
inline std::wstring JoinFileName(const std::wstring& directory, const std::wstring& name) {
  auto is_separator = [](wchar_t c) { return c == L'/' || c == L'\\'; };
  std::wstring joined = directory;
  if (!joined.empty() && !is_separator(joined.back()) && !(name.size() && is_separator(name[0]))) {
    joined += kPreferredSeparator;
  }
  return joined + name;
}
