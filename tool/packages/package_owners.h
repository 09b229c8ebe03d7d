#pragma once

#include <string>
#include <unordered_map>

// Which package owned each file and directory below a policy's root when its database was last
// saved, kept beside the database (NAME.hdb.owners: "relative path NUL name version NUL" per
// entry, written whole, owner-only). A package removed since takes its lists with it; this is
// how its files, gone with it, are still told to be its.

// Writes the owners of the paths below "policy_root" as the lists of "dpkg_root" say now.
// Throws std::runtime_error when the lists or the file cannot be read or written.
void WritePackageOwners(const std::string& hdb_path, const std::string& policy_root,
                        const std::string& dpkg_root);

// The owners written at the last save, by relative path; empty when there are none.
std::unordered_map<std::string, std::string> ReadPackageOwners(const std::string& hdb_path);
// The same from the file's text (an entry cut short at its end is left out).
std::unordered_map<std::string, std::string> ParsePackageOwners(const std::string& text);
