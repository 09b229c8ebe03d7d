#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The accepted content of the small text files whose rules keep it, so that a report can show
// what changed inside them: one compressed copy per content in DATA/content/HASH.gz, in a folder
// and files only the owner may read (the copies of configuration files may hold what their
// readers may not see). A copy is named by the hash of what it holds: one changed behind the
// tool's back is told by its hash when it is read.
class CContentStore {
 public:
  static constexpr uint64_t kLargest = 256 * 1024;  // what is larger is not kept

  // "folder" is made (owner-only) on the first Keep.
  CContentStore(std::string folder, uint32_t policy_number);

  // Reads the regular file at "path" whole, never following a link at its last name; nothing
  // when it is gone, not a regular file, larger than kLargest or holds a NUL byte (no text).
  static std::optional<std::string> ReadText(const std::string& path);

  // Keeps "content" under "hash" (its hash under the policy's digest, checked); false when it is
  // not that content's hash. Kept already is kept.
  bool Keep(const std::string& hash, const std::string& content);

  enum class CFound { kMissing, kTampered, kFound };
  // The content kept under "hash": kTampered when the copy is not what its name says.
  CFound Find(const std::string& hash, std::string& content) const;

 private:
  std::string PathOf(const std::string& hash) const;

  std::string folder_;
  uint32_t policy_number_;
};
