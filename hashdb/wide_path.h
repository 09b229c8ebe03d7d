#pragma once

#include <string>
#include <string_view>
#include <vector>

// Lexical operations on wide paths, independent of the process locale (the path library would
// convert wide text through the global locale on POSIX, which fails for non-ASCII names under
// the "C" locale). Components follow the path library's iteration: a rooted path starts with a
// root component "/", and a trailing separator yields a final "." component.

#ifdef _WIN32
inline constexpr wchar_t kPreferredSeparator = L'\\';
inline bool IsPathSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }
#else
inline constexpr wchar_t kPreferredSeparator = L'/';
inline bool IsPathSeparator(wchar_t c) { return c == L'/'; }
#endif

struct CPathComponent {
  std::wstring_view name;
  size_t end;  // offset in the whole path just past this component
};

inline bool HasRootDirectory(std::wstring_view path) {
  return !path.empty() && IsPathSeparator(path.front());
}

inline std::vector<CPathComponent> PathComponents(std::wstring_view path) {
  std::vector<CPathComponent> components;
  size_t i = 0;
  if (HasRootDirectory(path)) {
    components.push_back({path.substr(0, 1), 1});
    while (i < path.size() && IsPathSeparator(path[i])) ++i;
  }
  while (i < path.size()) {
    size_t start = i;
    while (i < path.size() && !IsPathSeparator(path[i])) ++i;
    components.push_back({path.substr(start, i - start), i});
    if (i == path.size()) break;
    while (i < path.size() && IsPathSeparator(path[i])) ++i;
    if (i == path.size()) components.push_back({std::wstring_view(L"."), i});
  }
  return components;
}

// All but the last component, without the separators before it.
inline std::wstring_view ParentPath(std::wstring_view path) {
  std::vector<CPathComponent> components = PathComponents(path);
  if (components.size() < 2) return std::wstring_view();
  const CPathComponent& parent = components[components.size() - 2];
  return path.substr(0, parent.end);
}

// The last component.
inline std::wstring_view FileName(std::wstring_view path) {
  std::vector<CPathComponent> components = PathComponents(path);
  return components.empty() ? std::wstring_view() : components.back().name;
}

// "base" and "tail" joined with one separator; either may be empty.
inline std::wstring JoinPath(std::wstring_view base, std::wstring_view tail) {
  std::wstring joined(base);
  if (!joined.empty() && !tail.empty() && !IsPathSeparator(joined.back()) &&
      !IsPathSeparator(tail.front())) {
    joined += kPreferredSeparator;
  }
  joined += tail;
  return joined;
}
