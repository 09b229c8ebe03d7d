#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hashdb/hash_db.h"
#include "hashdb/annotated_locks.h"
#include "hashdb/block_tree.h"
#include "hashdb/text_key.h"
#include "hashdb/tree_builder.h"

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
  // The nodes of a hash text that more than one file carries, in the order they were added.
  // "positions" is made only once the list holds more than kPositionsFrom entries; from then on
  // it names every entry of the list.
  struct CMore {
    CEntryList nodes;
    std::unique_ptr<CPositions> positions;
  };
  // The nodes of one hash text. "text" is the string object that the nodes share, so the text is
  // stored once for the index and all its nodes (the index keeps its first eight bytes packed,
  // which decide most comparisons, beside the entries). Most hashes have one file: it is held in
  // "single" while "more" is null; a second file moves both into "more".
  struct CEntry {
    CEntry() = default;
    CEntry(CEntry&&) noexcept = default;
    // By exchange: inserting into a block moves every entry after the place by one, and an
    // exchange of the fields costs no reference counting (the moved-from entry takes the old
    // value, which is what a shift leaves to be overwritten or destroyed anyway).
    CEntry& operator=(CEntry&& other) noexcept {
      text.swap(other.text);
      single.swap(other.single);
      more.swap(other.more);
      return *this;
    }

    CSharedText text;
    std::weak_ptr<CHashNode> single;
    std::unique_ptr<CMore> more;
  };
  static constexpr size_t kPositionsFrom = 16;

  explicit CMapHashDB(bool enabled);

  // A new list of the live nodes carrying "hash" (empty, never null).
  std::shared_ptr<CNodeList> Find(const std::string& hash) const;
  // Indexes a node under its hash text; nodes with equal text come to share one string.
  void Add(const std::shared_ptr<CHashNode>& node);
  // Sorts one restore piece's assignments by hash text, so that AddLoaded can merge the pieces.
  static void SortPiece(CTreeBuilder::CPiece& piece);
  // The order of SortPiece: by hash text (packed prefix first), nothing else.
  static bool AssignedBefore(const CTreeBuilder::CAssignment& a, const CTreeBuilder::CAssignment& b);
  // Indexes the nodes of sorted pieces (SortPiece) in one ordered pass. Where a piece says that
  // nodes were reassigned, an assignment whose hash object its node no longer holds (a later
  // record of the same path replaced it) is passed over. Equal texts come to share one string.
  // Into an empty index (a load) the entries are appended in order without touching the nodes
  // of distinct texts; an index that is not empty takes the nodes one by one.
  void AddLoaded(std::vector<CTreeBuilder::CPiece>& pieces);
  // Takes a node out of the index under its hash text.
  void Remove(const std::shared_ptr<CHashNode>& node);
  void Clear();
  bool enabled() const { return enabled_; }
  // Number of distinct hash texts (for tests and statistics).
  size_t HashCount() const;
  // Every live entry as (hash text, node), in index order (for consistency checks).
  std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> Snapshot() const;

 private:
  struct CEntryTraits {
    using Key = CTextKey;
    static Key KeyOf(const CEntry& entry) { return CTextKey(entry.text.view()); }
    static bool Less(const Key& a, const Key& b) { return a < b; }
  };
  using CEntries = CBlockTree<CEntry, CEntryTraits>;

  // Add and Remove with lock_ held exclusively and a node that has a non-empty hash.
  void AddLocked(const std::shared_ptr<CHashNode>& node) SIGNDB_REQUIRES(lock_);
  void RemoveLocked(const std::shared_ptr<CHashNode>& node) SIGNDB_REQUIRES(lock_);
  // Adds a node to an existing entry of its hash text: dead entries at the front are swept, the
  // first live one lends its string, the node goes last.
  static void JoinEntryLocked(CEntry& entry, const std::shared_ptr<CHashNode>& node);
  // Appends a node to an entry's list of several, and to its positions when the list is long.
  static void AppendLocked(CMore& more, const std::shared_ptr<CHashNode>& node);
  // Erases one element of a list of several, and its position.
  static CEntryList::iterator EraseLocked(CMore& more, CEntryList::iterator element);

  const bool enabled_;
  mutable CReaderWriterMutex lock_;
  CEntries entries_ SIGNDB_GUARDED_BY(lock_);
};
