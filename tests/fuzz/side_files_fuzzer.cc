// Fuzzes the parsers of the files the tool reads beside a database and from the system: the
// package manager's status and lists (parts of the input split at 0xFF bytes: status, md5sums,
// list), the owners file, the policy binding's record, and where a configuration stops being JSON.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/packages/package_files.h"
#include "tool/packages/package_owners.h"
#include "util/json_position.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> parts(3);
  size_t part = 0;
  for (char c : input) {
    if (static_cast<unsigned char>(c) == 0xFF && part + 1 < parts.size()) {
      ++part;
    } else {
      parts[part] += c;
    }
  }
  std::vector<std::pair<std::string, std::string>> lists = {{"pkg:amd64.md5sums", parts[1]}, {"pkg.list", parts[2]},
                                                            {"other.md5sums", parts[2]}};
  std::unique_ptr<CPackageFiles> packages = CPackageFiles::FromTexts(parts[0], lists);
  size_t seen = 0;
  packages->ForEach([&](const std::string& path, const CPackageFiles::CEntry& entry) {
    seen += path.size() + entry.md5.size() + (entry.package != nullptr ? entry.package->size() : 0);
  });
  (void)packages->Find("/usr/bin/x");
  (void)packages->Installed("pkg");
  std::unordered_map<std::string, std::string> owners = ParsePackageOwners(input);
  if (std::optional<CJsonPosition> at = JsonErrorPosition(input)) seen += at->line + at->column;
  for (const auto& [path, owner] : owners) seen += path.size() + owner.size();
  volatile size_t sink = seen;  // keeps the reads
  (void)sink;
  return 0;
}
