#pragma once

#include <functional>
#include <string>
#include <vector>

struct CDifference;

// Whether a file's content is a secret (password hashes, private keys): a hard link to it made by
// someone else is how it leaves unseen. "full_path" is the path on this system.
bool IsSecretFile(const std::string& full_path);

// Names the hard links among what a check found: a new file that is the same inode as a recorded
// file (whose link count rose) reads "new hard link", with "hard link to PATH" standing out;
// critical when PATH holds a secret (IsSecretFile, or "secret" says so of the relative path: the
// rules redact it), high otherwise. "root" is the policy's root.
void NameHardLinks(std::vector<CDifference>& differences, const std::string& root,
                   const std::function<bool(const std::string&)>& secret);
