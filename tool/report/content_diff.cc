#include "tool/report/content_diff.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>

#include "util/safe_text.h"

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The first field of a line: up to its first ':', '=' or blank.
std::string FirstField(const std::string& line) {
  size_t end = line.find_first_of(":= \t");
  return line.substr(0, end);
}

// The edit that turns "a" into "b", line by line: ('-', line) taken out, ('+', line) put in, in
// the order of the files. The longest common subsequence of two files that are kept (small text
// files) is found in their product's time; files too large for it are compared as a whole.
std::vector<std::pair<char, std::string>> Edit(const std::vector<std::string>& a,
                                               const std::vector<std::string>& b) {
  std::vector<std::pair<char, std::string>> edit;
  size_t start = 0;
  while (start < a.size() && start < b.size() && a[start] == b[start]) ++start;
  size_t end_a = a.size();
  size_t end_b = b.size();
  while (end_a > start && end_b > start && a[end_a - 1] == b[end_b - 1]) {
    --end_a;
    --end_b;
  }
  size_t n = end_a - start;
  size_t m = end_b - start;
  if (n * m > 4'000'000) {
    for (size_t i = start; i < end_a; ++i) edit.emplace_back('-', a[i]);
    for (size_t j = start; j < end_b; ++j) edit.emplace_back('+', b[j]);
    return edit;
  }
  // length[i][j]: the longest common subsequence of a[start+i..] and b[start+j..].
  std::vector<uint32_t> length((n + 1) * (m + 1), 0);
  auto at = [&](size_t i, size_t j) -> uint32_t& { return length[i * (m + 1) + j]; };
  for (size_t i = n; i-- > 0;) {
    for (size_t j = m; j-- > 0;) {
      at(i, j) = a[start + i] == b[start + j] ? at(i + 1, j + 1) + 1
                                              : std::max(at(i + 1, j), at(i, j + 1));
    }
  }
  size_t i = 0;
  size_t j = 0;
  while (i < n || j < m) {
    if (i < n && j < m && a[start + i] == b[start + j]) {
      ++i;
      ++j;
    } else if (i < n && (j == m || at(i + 1, j) >= at(i, j + 1))) {
      edit.emplace_back('-', a[start + i++]);  // what was taken out before what took its place
    } else {
      edit.emplace_back('+', b[start + j++]);
    }
  }
  return edit;
}

std::vector<std::string> Shown(const std::vector<std::pair<char, std::string>>& edit, size_t most,
                               bool redact) {
  std::vector<std::string> shown;
  for (const auto& [sign, line] : edit) {
    if (shown.size() == most) {
      shown.push_back("... " + std::to_string(edit.size() - most) + " more lines changed");
      break;
    }
    std::string text = line;
    if (redact) {
      // Only a field that a separator ends is a name; a line without one is all content.
      std::string first = FirstField(line);
      text = first.size() == line.size() ? std::string("(a line withheld)")
                                         : first + " (rest of the line withheld)";
    }
    shown.push_back(std::string(1, sign) + " " + EscapedText(text));
  }
  return shown;
}

std::string NameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (!name.empty() && name.back() == '-') name.pop_back();
  return name;
}

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (;;) {
    size_t colon = line.find(':', start);
    fields.push_back(line.substr(start, colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  return fields;
}

// The file's entries by their first field.
std::map<std::string, std::vector<std::string>> Entries(const std::string& text) {
  std::map<std::string, std::vector<std::string>> entries;
  for (const std::string& line : Lines(text)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields = Fields(line);
    entries[fields[0]] = fields;
  }
  return entries;
}

std::string Field(const std::vector<std::string>& fields, size_t index) {
  return index < fields.size() ? fields[index] : std::string();
}

// How a password field reads without its hash.
std::string PasswordWords(const std::string& field) {
  if (field.empty()) return "no password";
  if (field == "x") return "password in the shadow file";
  if (field[0] == '!' || field[0] == '*') return "locked";
  return "password set";
}

void Passwd(const std::string& name, const std::vector<std::string>* was,
            const std::vector<std::string>* is, std::vector<CAccountChange>& changes) {
  std::string who = "account " + EscapedText(name);
  if (!is) {
    changes.push_back({who + " removed", false});
    return;
  }
  bool root = Field(*is, 2) == "0";
  bool open = Field(*is, 1).empty();
  if (!was) {
    changes.push_back({who + " added: uid " + EscapedText(Field(*is, 2)) + ", gid " +
                           EscapedText(Field(*is, 3)) + ", home " + EscapedText(Field(*is, 5)) +
                           ", shell " + EscapedText(Field(*is, 6)) + (open ? ", no password" : ""),
                       root || open});
    return;
  }
  static const char* kNames[] = {"name", "password", "uid", "gid", "comment", "home", "shell"};
  std::string what;
  for (size_t i = 1; i < 7; ++i) {
    if (Field(*was, i) == Field(*is, i)) continue;
    what += (what.empty() ? "" : ", ") + std::string(kNames[i]) + " ";
    what += i == 1 ? PasswordWords(Field(*was, i)) + " -> " + PasswordWords(Field(*is, i))
                   : EscapedText(Field(*was, i)) + " -> " + EscapedText(Field(*is, i));
  }
  if (!what.empty()) {
    changes.push_back({who + " changed: " + what,
                       (root && Field(*was, 2) != "0") || (open && !Field(*was, 1).empty())});
  }
}

void Shadow(const std::string& name, const std::vector<std::string>* was,
            const std::vector<std::string>* is, std::vector<CAccountChange>& changes) {
  std::string who = "password entry of " + EscapedText(name);
  if (!is) {
    changes.push_back({who + " removed", false});
    return;
  }
  bool open = Field(*is, 1).empty();
  if (!was) {
    changes.push_back({who + " added: " + PasswordWords(Field(*is, 1)), open});
    return;
  }
  if (Field(*was, 1) != Field(*is, 1)) {
    changes.push_back({"password of " + EscapedText(name) + " changed: " +
                           PasswordWords(Field(*was, 1)) + " -> " + PasswordWords(Field(*is, 1)),
                       open});
  } else if (*was != *is) {
    changes.push_back({"password ageing of " + EscapedText(name) + " changed", false});
  }
}

void Group(const std::string& name, const std::vector<std::string>* was,
           const std::vector<std::string>* is, bool gshadow, std::vector<CAccountChange>& changes) {
  std::string who = "group " + EscapedText(name);
  constexpr size_t members = 3;  // group: name:x:gid:members; gshadow: name:pw:admins:members
  bool rules = name == "root" || name == "sudo" || name == "wheel" || name == "adm" ||
               name == "shadow" || name == "disk" || (!gshadow && is && Field(*is, 2) == "0");
  if (!is) {
    changes.push_back({who + " removed", false});
    return;
  }
  if (!was) {
    changes.push_back(
        {who + " added" + (gshadow ? std::string() : ": gid " + EscapedText(Field(*is, 2))) +
             (Field(*is, members).empty() ? std::string()
                                          : ", members " + EscapedText(Field(*is, members))),
         rules && !Field(*is, members).empty()});
    return;
  }
  if (Field(*was, members) != Field(*is, members)) {
    changes.push_back({who + " members " + EscapedText(Field(*was, members)) + " -> " +
                           EscapedText(Field(*is, members)),
                       rules});
  }
  if (!gshadow && Field(*was, 2) != Field(*is, 2)) {
    changes.push_back(
        {who + " gid " + EscapedText(Field(*was, 2)) + " -> " + EscapedText(Field(*is, 2)),
         Field(*is, 2) == "0"});
  }
  if (gshadow && Field(*was, 1) != Field(*is, 1)) {
    changes.push_back({who + " password changed", false});
  }
}

}  // namespace

std::vector<std::string> LineChanges(const std::string& before, const std::string& after,
                                     size_t most) {
  return Shown(Edit(Lines(before), Lines(after)), most, false);
}

std::vector<std::string> RedactedLineChanges(const std::string& before, const std::string& after,
                                             size_t most) {
  return Shown(Edit(Lines(before), Lines(after)), most, true);
}

bool LooksSecret(const std::string& text) {
  if (text.find("PRIVATE KEY") != std::string::npos) return true;
  // A crypt hash: "$ID$" (ID letters or digits, a few of them) right after a separator.
  for (size_t at = text.find('$'); at != std::string::npos; at = text.find('$', at + 1)) {
    if (at > 0 && text[at - 1] != ':' && text[at - 1] != '\n' && text[at - 1] != ' ') continue;
    size_t end = text.find('$', at + 1);
    if (end == std::string::npos || end - at < 2 || end - at > 5) continue;
    bool id = true;
    for (size_t i = at + 1; i < end; ++i)
      id = id && std::isalnum(static_cast<unsigned char>(text[i]));
    if (id && end + 1 < text.size() && text[end + 1] != '$') return true;
  }
  return false;
}

bool IsAccountFile(const std::string& path) {
  std::string name = NameOf(path);
  return name == "passwd" || name == "shadow" || name == "group" || name == "gshadow";
}

std::vector<CAccountChange> AccountChanges(const std::string& path, const std::string& before,
                                           const std::string& after) {
  std::string name = NameOf(path);
  std::map<std::string, std::vector<std::string>> was = Entries(before);
  std::map<std::string, std::vector<std::string>> is = Entries(after);
  std::map<std::string, bool> names;
  for (const auto& entry : was) names[entry.first] = true;
  for (const auto& entry : is) names[entry.first] = true;
  std::vector<CAccountChange> changes;
  for (const auto& [account, unused] : names) {
    auto old_entry = was.find(account);
    auto new_entry = is.find(account);
    const std::vector<std::string>* old_fields =
        old_entry == was.end() ? nullptr : &old_entry->second;
    const std::vector<std::string>* new_fields =
        new_entry == is.end() ? nullptr : &new_entry->second;
    if (old_fields && new_fields && *old_fields == *new_fields) continue;
    if (name == "passwd") {
      Passwd(account, old_fields, new_fields, changes);
    } else if (name == "shadow") {
      Shadow(account, old_fields, new_fields, changes);
    } else {
      Group(account, old_fields, new_fields, name == "gshadow", changes);
    }
  }
  return changes;
}
