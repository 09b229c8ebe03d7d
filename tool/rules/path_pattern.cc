#include "tool/rules/path_pattern.h"

#include <fnmatch.h>

#include <algorithm>
#include <stdexcept>

std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> names;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > start) names.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return names;
}

CPathPattern::CPathPattern(const std::string& pattern) : text_(pattern) {
  if (pattern.empty()) throw std::invalid_argument("the pattern is empty");
  if (pattern[0] == '/') {
    throw std::invalid_argument("the pattern \"" + pattern +
                                "\" starts with '/': patterns are relative to the root");
  }
  for (std::string_view name : SplitPath(pattern)) {
    std::string text(name);
    if (text == "." || text == "..") {
      throw std::invalid_argument("the pattern \"" + pattern + "\" holds a \"" + text + "\" name");
    }
    if (text == "**") {
      if (names_.empty() || names_.back().kind != CKind::kAnyDepth)
        names_.push_back({CKind::kAnyDepth, text});
      continue;
    }
    if (text.find("**") != std::string::npos) {
      throw std::invalid_argument(
          "the pattern \"" + pattern +
          "\" has \"**\" inside a name; \"**\" stands alone between slashes");
    }
    bool wildcard = text.find_first_of("*?[\\") != std::string::npos;
    if (wildcard) {
      // A "[" must close: fnmatch would take it as a literal, which is never what was meant.
      for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
          ++i;
        } else if (text[i] == '[') {
          size_t close = text.find(']', i + 2);
          if (close == std::string::npos) {
            throw std::invalid_argument("the pattern \"" + pattern +
                                        "\" has a '[' without its ']'");
          }
          i = close;
        }
      }
    }
    CKind kind = wildcard ? CKind::kWildcard : CKind::kLiteral;
    if (wildcard && text.size() > 1 && text.find_first_of("?[\\") == std::string::npos) {
      size_t stars = std::count(text.begin(), text.end(), '*');
      if (stars == 1 && text.front() == '*') {
        kind = CKind::kSuffix;
        text.erase(0, 1);
      } else if (stars == 1 && text.back() == '*') {
        kind = CKind::kPrefix;
        text.pop_back();
      }
    }
    names_.push_back({kind, std::move(text)});
  }
  if (names_.empty()) throw std::invalid_argument("the pattern \"" + pattern + "\" names nothing");
  any_depth_after_.assign(names_.size() + 1, false);
  for (size_t i = names_.size(); i-- > 0;) {
    any_depth_after_[i] = any_depth_after_[i + 1] ||
                          (i + 1 < names_.size() && names_[i + 1].kind == CKind::kAnyDepth);
  }
}

bool CPathPattern::NameMatches(const CName& pattern, std::string_view name) const {
  switch (pattern.kind) {
    case CKind::kLiteral:
      return name == pattern.text;
    case CKind::kSuffix:
      return name.size() >= pattern.text.size() &&
             name.compare(name.size() - pattern.text.size(), pattern.text.size(), pattern.text) ==
                 0;
    case CKind::kPrefix:
      return name.size() >= pattern.text.size() &&
             name.compare(0, pattern.text.size(), pattern.text) == 0;
    default: {
      thread_local std::string buffer;  // fnmatch wants a terminated name
      buffer.assign(name);
      return ::fnmatch(pattern.text.c_str(), buffer.c_str(), 0) == 0;
    }
  }
}

bool CPathPattern::MatchFrom(size_t pattern_at, const std::vector<std::string_view>& names,
                             size_t name_at) const {
  for (; pattern_at < names_.size(); ++pattern_at) {
    const CName& pattern = names_[pattern_at];
    if (pattern.kind == CKind::kAnyDepth) {
      if (pattern_at + 1 == names_.size()) return true;  // a trailing "**" takes the rest
      if (!any_depth_after_[pattern_at]) {  // the rest matches the last names, or nothing
        size_t rest = names_.size() - pattern_at - 1;
        if (names.size() < name_at + rest) return false;
        return MatchFrom(pattern_at + 1, names, names.size() - rest);
      }
      for (size_t skip = name_at; skip <= names.size(); ++skip) {
        if (MatchFrom(pattern_at + 1, names, skip)) return true;
      }
      return false;
    }
    if (name_at == names.size()) return false;
    if (!NameMatches(pattern, names[name_at++])) return false;
  }
  return name_at == names.size();
}

bool CPathPattern::Matches(const std::vector<std::string_view>& names) const {
  return MatchFrom(0, names, 0);
}
