#pragma once

#include <string>
#include <string_view>
#include <vector>

// A glob pattern over paths relative to a policy's root, compiled once: "*", "?" and "[...]"
// match within one name, "**" as a whole name matches any number of names (none included), and
// the pattern is anchored at the root ("log/*.gz" matches "log/a.gz", not "var/log/a.gz"; write
// "**/*.gz" for any depth). A "*" matches a leading dot too ("**/*.swp" matches ".f.swp"). Each
// name of the pattern is kept as a literal (compared as bytes), a
// "**", or a wildcard (matched with fnmatch(3)), so that matching costs no parsing.
class CPathPattern {
 public:
  // Throws std::invalid_argument with what is wrong (an empty pattern, a leading "/", "." or
  // ".." names, a "[" without its "]", "**" inside a name).
  explicit CPathPattern(const std::string& pattern);

  // "names": the path split at "/" (the root is no names).
  bool Matches(const std::vector<std::string_view>& names) const;

  const std::string& text() const { return text_; }
  // The pattern's first name when it is a literal (most patterns start at a named folder), for
  // looking rules up by the first name of a path; null otherwise.
  const std::string* FirstLiteral() const {
    return names_.front().kind == CKind::kLiteral ? &names_.front().text : nullptr;
  }

 private:
  // A wildcard of the common forms "*.log" and "s12*" is compared as a suffix or a prefix.
  enum class CKind { kLiteral, kAnyDepth, kWildcard, kSuffix, kPrefix };
  struct CName {
    CKind kind;
    std::string text;  // for kSuffix and kPrefix, without the "*"
  };
  bool NameMatches(const CName& pattern, std::string_view name) const;
  bool MatchFrom(size_t pattern_at, const std::vector<std::string_view>& names,
                 size_t name_at) const;

  std::string text_;
  std::vector<CName> names_;
  // For each position, whether a "**" follows it: where none does, the rest of the pattern can
  // only match the last names of a path, so "**" is tried at that one place.
  std::vector<bool> any_depth_after_;
};

// A relative path split at "/"; views into "path".
std::vector<std::string_view> SplitPath(std::string_view path);
