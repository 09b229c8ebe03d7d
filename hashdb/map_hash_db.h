#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/thread/shared_mutex.hpp>

#include "hashdb/hash_db.h"

class CHashNode;

// The hash index of one database: hash text -> the file nodes carrying it, in the order they
// were added. Holds weak references only, so a node that leaves the tree drops out of lookups as
// soon as its last owner lets go; dead entries are swept by the next add or remove of that hash.
//
// Thread safety: all operations are safe from any thread. "lock_" is the innermost lock of a
// database: it is taken under the tree lock and a node's lock, and nothing is taken under it.
class CMapHashDB {
 public:
  using CEntryList = std::list<std::weak_ptr<CHashNode>>;
  // The nodes of one hash text. The key of the map is a view of "text", the string object that
  // the nodes share, so the text is stored once for the index and all its nodes.
  struct CEntry {
    std::shared_ptr<const std::string> text;
    std::shared_ptr<CEntryList> nodes;
  };

  explicit CMapHashDB(bool enabled);

  // A new list of the live nodes carrying "hash" (empty, never null).
  std::shared_ptr<CNodeList> Find(const std::string& hash) const;
  // Indexes a node under its hash text; nodes with equal text come to share one string.
  void Add(const std::shared_ptr<CHashNode>& node);
  // Gives the node "hash" and indexes it, under the index lock: while loading, other restore
  // tasks may read this node's hash inside the index at the same time.
  void AssignAndAdd(const std::shared_ptr<CHashNode>& node, std::shared_ptr<std::string> hash);
  // Takes a node out of the index under its hash text.
  void Remove(const std::shared_ptr<CHashNode>& node);
  void Clear();
  bool enabled() const { return enabled_; }
  // Number of distinct hash texts (for tests and statistics).
  size_t HashCount() const;
  // Every live entry as (hash text, node), in index order (for consistency checks).
  std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> Snapshot() const;

 private:
  // Add and Remove with lock_ held exclusively and a node that has a non-empty hash.
  void AddLocked(const std::shared_ptr<CHashNode>& node);
  void RemoveLocked(const std::shared_ptr<CHashNode>& node);

  const bool enabled_;
  mutable boost::shared_mutex lock_;
  std::map<std::string_view, CEntry> map_;  // guarded by lock_
};
