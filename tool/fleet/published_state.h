#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

// What the fleet store holds of one policy of this host once every spooled batch is delivered:
// the publication's generation, revision and signer, and each object as its row was sent. A
// publication sends only what differs from it (and tombstones for what is gone), so that the
// watch service's frequent saves cost a few rows each.
//
// Kept in the spool as "POLICY.state", one line per object, fields as TabSeparated escapes them:
//   signdb-fleet-state 1 \t GENERATION \t REVISION \t OBJECTS \t CSTM_ID \t LCS_ID
//   PATH \t KIND \t HASH \t SIZE \t MODE \t UID \t GID \t SINCE_REVISION \t SINCE
// A state that cannot be read counts as none: the next publication is whole.
struct CPublishedObject {
  std::string row;              // KIND \t HASH \t SIZE \t MODE \t UID \t GID, escaped
  uint64_t since_revision = 0;  // the revision from which the object has had this content
  uint64_t since = 0;           // and when that was published (seconds since the epoch)

  // The row's hash, escaped.
  std::string_view hash() const {
    size_t start = row.find('\t') + 1;
    return std::string_view(row).substr(start, row.find('\t', start) - start);
  }
};

struct CPublishedState {
  uint64_t generation = 0;  // 0: nothing published yet (the next publication is whole)
  uint64_t revision = 0;
  uint64_t object_count = 0;  // of "objects" (read alone by a header-only read)
  std::string cstm_id;        // escaped, as the hosts table takes them
  std::string lcs_id;
  std::unordered_map<std::string, CPublishedObject> objects;  // by escaped relative path

  // "header_only": the generation, revision, count and signer, without the objects.
  static CPublishedState Read(const std::string& path, bool header_only = false);
  // Written aside and renamed: a stop never leaves half a state. Throws std::runtime_error.
  void Write(const std::string& path) const;
};
