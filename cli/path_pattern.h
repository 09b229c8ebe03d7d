#pragma once

#include <string>
#include <string_view>
#include <vector>

// A glob pattern over paths relative to a policy's root, compiled once: "*", "?" and "[...]"
// match within one name, "**" as a whole name matches any number of names (none included), and
// the pattern is anchored at the root ("log/*.gz" matches "log/a.gz", not "var/log/a.gz"; write
// "**/*.gz" for any depth). A "*" matches a leading dot too ("**/*.swp" matches ".f.swp"). Each name of the pattern is kept as a literal (compared as bytes), a
// "**", or a wildcard (matched with fnmatch(3)), so that matching costs no parsing.
class CPathPattern {
 public:
  // Throws std::invalid_argument with what is wrong (an empty pattern, a leading "/", "." or
  // ".." names, a "[" without its "]", "**" inside a name).
  explicit CPathPattern(const std::string& pattern);

  // "names": the path split at "/" (the root is no names).
  bool Matches(const std::vector<std::string_view>& names) const;

  const std::string& text() const { return text_; }

 private:
  enum class CKind { kLiteral, kAnyDepth, kWildcard };
  struct CName {
    CKind kind;
    std::string text;
  };
  bool MatchFrom(size_t pattern_at, const std::vector<std::string_view>& names, size_t name_at) const;

  std::string text_;
  std::vector<CName> names_;
};

// A relative path split at "/"; views into "path".
std::vector<std::string_view> SplitPath(std::string_view path);
