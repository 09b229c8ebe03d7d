#pragma once

#include <optional>
#include <string>

// Paths relative to a policy's root, "/" between components, "" for the root itself.

// Whether "path" is "top" or lies below it ("a/b" is below "a", "a-b" is not); everything is
// below the root.
inline bool IsBelowOrSame(const std::string& path, const std::string& top) {
  return top.empty() || path == top ||
         (path.size() > top.size() && path.compare(0, top.size(), top) == 0 &&
          path[top.size()] == '/');
}

// The directory that holds "path" ("" for an entry of the root).
inline std::string ParentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// The last component of "path".
inline std::string NameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "name" in "directory".
inline std::string JoinRelative(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

// The full path of an object given relative to a root ("" is the root itself).
inline std::string JoinedPath(const std::string& root, const std::string& relative) {
  if (relative.empty()) return root;
  return root.empty() || root.back() == '/' ? root + relative : root + "/" + relative;
}

// "path" as a person or a client gives it, relative to "root": a full path below the root loses
// the root, and "./" in front and slashes at the end go ("" is the root itself). Nothing when a
// full path lies outside the root.
inline std::optional<std::string> RelativeBelow(std::string root, std::string path) {
  auto drop_trailing_slashes = [](std::string& text) {
    while (text.size() > 1 && text.back() == '/') text.pop_back();
  };
  drop_trailing_slashes(path);
  if (!path.empty() && path[0] == '/') {
    drop_trailing_slashes(root);
    if (path == root) return std::string();
    std::string prefix = root == "/" ? root : root + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    return path.substr(prefix.size());
  }
  while (path.compare(0, 2, "./") == 0) path.erase(0, 2);
  return path == "." ? std::string() : path;
}
