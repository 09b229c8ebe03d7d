#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

// What Debian's package manager says about the files it installed: for each file, its package,
// the package's version and the MD5 checksum that the package's own list records
// (ADMIN/info/PACKAGE[:ARCH].md5sums), and whether it is a configuration file (conffiles, from
// ADMIN/status, whose checksum is the one installed); and the directories each package lists
// (ADMIN/info/PACKAGE[:ARCH].list). ADMIN is ROOT/var/lib/dpkg, where ROOT is
// the system the files belong to ("/" for this one).
class CPackageFiles {
 public:
  struct CEntry {
    const std::string* package = nullptr;  // "name version", shared by every file of the package
    std::string md5;  // lowercase hex; empty: listed without a checksum (a directory)
    bool conffile = false;
  };

  // Reads the lists once, every installed package's; throws std::runtime_error naming a file
  // that cannot be read. Packages that are not installed ("Status: ... installed") are left out.
  static std::unique_ptr<CPackageFiles> Load(const std::string& root);
  // The same from the texts of the status file and of the info lists ("NAME[:ARCH].md5sums" and
  // "NAME[:ARCH].list", by file name): the parser, whatever the texts hold.
  static std::unique_ptr<CPackageFiles> FromTexts(
      const std::string& status, const std::vector<std::pair<std::string, std::string>>& lists);

  // The entry of a file by its path on the system ("/usr/bin/ls"), or null.
  const CEntry* Find(std::string_view system_path) const;
  // "name version" of an installed package, or null when it is not installed.
  const std::string* Installed(const std::string& name) const;
  // Calls "visit" with every listed path and its entry.
  template <typename CVisit>
  void ForEach(const CVisit& visit) const {
    for (const auto& [path, entry] : files_) visit(path, entry);
  }
  size_t size() const { return files_.size(); }

 private:
  std::unordered_map<std::string, std::unique_ptr<std::string>> packages_;  // by package name
  std::unordered_map<std::string, CEntry> files_;
};

// The MD5 of a file's content as lowercase hex, read without following a link; empty when it
// cannot be read.
std::string Md5OfFile(const std::string& path);
