#pragma once

#include <cstddef>
#include <string>
#include <vector>

// What changed inside a text file whose accepted content is kept, for people: the lines taken out
// ("- ...") and put in ("+ ..."), in the order of the file, at most "most" of them (then how many
// more). Every line is safe to print.
std::vector<std::string> LineChanges(const std::string& before, const std::string& after,
                                     size_t most);

// The same for a secret: each line shown by its first field only (up to the first ':' or blank:
// the account of a shadow line, the key of a setting), never what follows.
std::vector<std::string> RedactedLineChanges(const std::string& before, const std::string& after,
                                             size_t most);

// Whether a text looks like it holds a secret whatever its file: a private key, or a password
// hash of the crypt forms ("$6$...", "$y$...").
bool LooksSecret(const std::string& text);

// One account's change in an account file, for people.
struct CAccountChange {
  std::string text;       // "account toor added: uid 0, gid 0, home /, shell /bin/sh, no password"
  bool critical = false;  // uid 0, no password, or a member added to a group that rules others
};

// Whether the file's name is one of the account files (passwd, shadow, group, gshadow, or their
// "-" backups).
bool IsAccountFile(const std::string& path);

// The accounts (or groups) that were added, removed or changed between two versions of an account
// file; a password hash is never shown, only that it was set, changed, removed or locked.
std::vector<CAccountChange> AccountChanges(const std::string& path, const std::string& before,
                                           const std::string& after);
