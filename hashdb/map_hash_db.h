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
  // Where each node stands in a long list, by the identity of its shared allocation (its control
  // block, which the list's weak reference keeps alive, so an identity is never reused while its
  // entry exists). Lets a removal find its entry without walking every file of that hash.
  using CPositions = std::map<std::weak_ptr<CHashNode>, CEntryList::iterator, std::owner_less<>>;
  // The nodes of one hash text. The key of the map is a view of "text", the string object that
  // the nodes share, so the text is stored once for the index and all its nodes. "positions" is
  // made only once the list holds more than kPositionsFrom entries (most hashes have one file);
  // from then on it names every entry of the list.
  struct CEntry {
    std::shared_ptr<const std::string> text;
    std::shared_ptr<CEntryList> nodes;
    std::unique_ptr<CPositions> positions;
  };
  static constexpr size_t kPositionsFrom = 16;

  explicit CMapHashDB(bool enabled);

  // A new list of the live nodes carrying "hash" (empty, never null).
  std::shared_ptr<CNodeList> Find(const std::string& hash) const;
  // Indexes a node under its hash text; nodes with equal text come to share one string.
  void Add(const std::shared_ptr<CHashNode>& node);
  // Gives each node its hash and indexes it (taking it out under a previous hash first), under
  // one lock and in the order of the hash texts, so that most entries go in beside their
  // neighbour without a search from the top of the map. Loading uses this: the hashes are
  // assigned under the index lock because other restore tasks read nodes' hashes inside it.
  using CAssignments = std::vector<std::pair<std::shared_ptr<CHashNode>, std::shared_ptr<std::string>>>;
  void AssignAndAddAll(CAssignments& assignments);
  // Takes a node out of the index under its hash text.
  void Remove(const std::shared_ptr<CHashNode>& node);
  void Clear();
  bool enabled() const { return enabled_; }
  // Number of distinct hash texts (for tests and statistics).
  size_t HashCount() const;
  // Every live entry as (hash text, node), in index order (for consistency checks).
  std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> Snapshot() const;

 private:
  // A hash text as the map's key, ordered byte-wise like the text itself. The first eight bytes
  // are kept packed, most significant first, beside the view, so that almost every comparison
  // is decided on the tree node without reading the text from its own allocation.
  struct CKey {
    explicit CKey(std::string_view text);
    uint64_t prefix;
    std::string_view text;
    bool operator<(const CKey& other) const {
      if (prefix != other.prefix) return prefix < other.prefix;
      return text < other.text;
    }
  };

  using CMap = std::map<CKey, CEntry>;

  // Add and Remove with lock_ held exclusively and a node that has a non-empty hash.
  void AddLocked(const std::shared_ptr<CHashNode>& node);
  // AddLocked, starting the search at "near" (map_.end(): no position known); returns the
  // position of the node's entry.
  CMap::iterator AddLockedNear(const std::shared_ptr<CHashNode>& node, CMap::iterator near);
  void RemoveLocked(const std::shared_ptr<CHashNode>& node);
  // Appends a node to an entry's list, and to its positions when the list is long.
  static void AppendLocked(CEntry& entry, const std::shared_ptr<CHashNode>& node);
  // Erases one element of an entry's list, and its position.
  static CEntryList::iterator EraseLocked(CEntry& entry, CEntryList::iterator element);

  const bool enabled_;
  mutable boost::shared_mutex lock_;
  CMap map_;  // guarded by lock_
};
