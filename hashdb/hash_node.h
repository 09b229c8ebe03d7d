#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "hashdb/node_lock.h"
#include "hashdb/shared_text.h"

class CChildMap;
class CObjInfo;
class CUtilityService;

// One file or directory of a tree. Always made by one shared allocation and held by shared
// references: a parent's children map, lookup results, callers. The parent is held weakly.
//
// Thread safety: the database's tree lock guards the fields in general. "lock" guards "children",
// "change_time" and "touch_time" in addition, because loading builds the tree from several
// threads under one exclusive tree lock. Lock order: tree lock, then one node's lock, then the
// hash index's lock; a node's lock is never held while another node's is taken.
class CHashNode {
 public:
  // Children keyed by the normalised name, in byte-wise order of the key (child_map.h).
  using ChildMap = CChildMap;

  explicit CHashNode(const std::weak_ptr<CHashNode>& parent_node);

  CHashNode(const CHashNode&) = delete;
  CHashNode& operator=(const CHashNode&) = delete;

  // Declared largest first so that the node packs without holes.
  std::string name;                         // last path component; empty for the root
  std::unique_ptr<std::string> folded_key;  // the key among siblings, where it is not "name"
  CSharedText hash;                         // every file has one (maybe empty text)
  CSharedText old_hash;                     // the hash of a previous database
  uint64_t time_1 = 0xFFFFFFFFFFFFFFFFull;  // all bits set: unknown
  uint64_t time_2 = 0xFFFFFFFFFFFFFFFFull;  // all bits set: unknown
  uint64_t size = 0;                        // always 0 for a directory
  CCompactText security_attributes;
  CCompactText target_path;                 // non-empty on a directory: its subtree is "under target"
  std::weak_ptr<CHashNode> parent;          // empty for the root
  std::unique_ptr<ChildMap> children;       // guarded by lock; null for files and empty dirs
  std::shared_ptr<CObjInfo> pending_info;   // details of a deferred insert, not yet copied
  int64_t change_time SIGNDB_GUARDED_BY(lock) = 0;  // newest change at or below
  std::unique_ptr<int64_t> touch_time SIGNDB_GUARDED_BY(lock);  // files only, made on first touch
  uint32_t attributes = 0xFFFFFFFFu;        // all bits set: unknown
  CNodeLock lock;
  bool is_dir = false;
  bool mark = false;                        // set: not offered by hash lookup
  // Set by checks that hold the tree lock only shared, possibly from two threads at once: it is
  // only ever set there, so a relaxed atomic is all it needs.
  std::atomic<bool> flag_2{false};

  // The key among its siblings: the normalised name.
  const std::string& key() const { return folded_key ? *folded_key : name; }
  // Sets the name and the key it has among its siblings.
  void SetName(std::string new_name, const std::string& new_key) {
    name = std::move(new_name);
    if (new_key == name) {
      folded_key.reset();
    } else {
      folded_key = std::make_unique<std::string>(new_key);
    }
  }

  // change_time = now.
  void StampChange() SIGNDB_EXCLUDES(lock);
  // The same with a time read once for several nodes (a change and every directory above it).
  void StampChange(int64_t now) SIGNDB_EXCLUDES(lock);
  // change_time < t.
  bool ChangedBefore(int64_t t) SIGNDB_EXCLUDES(lock);
  // Files only: touch_time = now.
  void Touch() SIGNDB_EXCLUDES(lock);
  // Files only: whether whole seconds since the last touch are at most "seconds".
  bool TouchedWithin(uint64_t seconds) SIGNDB_EXCLUDES(lock);
};

// The node's path relative to the root, its names joined from its parent links (empty for the
// root; a node cut off from the tree ends its path where it was cut off).
std::string RelativeTextOf(const std::shared_ptr<CHashNode>& node);

// Whether two nodes record the same object state (kind, size, target, times, attributes,
// security attributes, name and hash). Throws std::runtime_error "[hdbi,itnts]Bad node!" for a
// null node.
bool SameAs(const std::shared_ptr<CHashNode>& a, const std::shared_ptr<CHashNode>& b,
            CUtilityService& utility);

// A file with an empty hash text and size 0. Throws "[hdbi,iun]Bad node!" for a null node and
// "[hdbi,iun]Bad hash sp!" for a file without a hash.
bool IsEmptyFile(const std::shared_ptr<CHashNode>& node);

// The children map needs the whole node: it comes after it.
#include "hashdb/child_map.h"  // IWYU pragma: export
