#include "cli/path_pattern.h"

#include <fnmatch.h>

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
    throw std::invalid_argument("the pattern \"" + pattern + "\" starts with '/': patterns are relative to the root");
  }
  for (std::string_view name : SplitPath(pattern)) {
    std::string text(name);
    if (text == "." || text == "..") {
      throw std::invalid_argument("the pattern \"" + pattern + "\" holds a \"" + text + "\" name");
    }
    if (text == "**") {
      if (names_.empty() || names_.back().kind != CKind::kAnyDepth) names_.push_back({CKind::kAnyDepth, text});
      continue;
    }
    if (text.find("**") != std::string::npos) {
      throw std::invalid_argument("the pattern \"" + pattern + "\" has \"**\" inside a name; \"**\" stands alone between slashes");
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
            throw std::invalid_argument("the pattern \"" + pattern + "\" has a '[' without its ']'");
          }
          i = close;
        }
      }
    }
    names_.push_back({wildcard ? CKind::kWildcard : CKind::kLiteral, std::move(text)});
  }
  if (names_.empty()) throw std::invalid_argument("the pattern \"" + pattern + "\" names nothing");
}

bool CPathPattern::MatchFrom(size_t pattern_at, const std::vector<std::string_view>& names, size_t name_at) const {
  for (; pattern_at < names_.size(); ++pattern_at) {
    const CName& pattern = names_[pattern_at];
    if (pattern.kind == CKind::kAnyDepth) {
      if (pattern_at + 1 == names_.size()) return true;  // a trailing "**" takes the rest
      for (size_t skip = name_at; skip <= names.size(); ++skip) {
        if (MatchFrom(pattern_at + 1, names, skip)) return true;
      }
      return false;
    }
    if (name_at == names.size()) return false;
    std::string_view name = names[name_at++];
    if (pattern.kind == CKind::kLiteral) {
      if (name != pattern.text) return false;
    } else if (::fnmatch(pattern.text.c_str(), std::string(name).c_str(), 0) != 0) {
      return false;
    }
  }
  return name_at == names.size();
}

bool CPathPattern::Matches(const std::vector<std::string_view>& names) const { return MatchFrom(0, names, 0); }
