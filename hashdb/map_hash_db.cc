#include "hashdb/map_hash_db.h"

#include <algorithm>
#include <stdexcept>

#include "hashdb/hash_node.h"

namespace {

bool SameOwner(const std::weak_ptr<CHashNode>& entry, const std::shared_ptr<CHashNode>& node) {
  return !entry.owner_before(node) && !node.owner_before(entry);
}

}  // namespace

CMapHashDB::CMapHashDB(bool enabled) : enabled_(enabled) {}

std::shared_ptr<CNodeList> CMapHashDB::Find(const std::string& hash) const {
  auto result = std::make_shared<CNodeList>();
  if (!enabled_ || hash.empty()) return result;
  CSharedGuard guard(lock_);
  const CEntry* entry = entries_.Find(CTextKey(hash));
  if (entry == nullptr) return result;
  if (!entry->more) {
    if (std::shared_ptr<CHashNode> node = entry->single.lock()) result->push_back(std::move(node));
    return result;
  }
  for (const std::weak_ptr<CHashNode>& element : entry->more->nodes) {
    if (std::shared_ptr<CHashNode> node = element.lock()) result->push_back(std::move(node));
  }
  return result;
}

// The node's hash is read under the lock: while loading, it may be assigned meanwhile.
void CMapHashDB::Add(const std::shared_ptr<CHashNode>& node) {
  if (!enabled_ || !node) return;
  CExclusiveGuard<CReaderWriterMutex> guard(lock_);
  if (node->hash && !node->hash->empty()) AddLocked(node);
}

void CMapHashDB::AddLocked(const std::shared_ptr<CHashNode>& node) {
  CTextKey key(node->hash.view());
  CEntries::CPosition position = entries_.LowerBound(key);
  if (entries_.Holds(position, key)) {
    JoinEntryLocked(*entries_.At(position), node);
    return;
  }
  CEntry made;
  made.text = node->hash;
  made.single = node;
  entries_.InsertAt(position, std::move(made));
}

void CMapHashDB::JoinEntryLocked(CEntry& entry, const std::shared_ptr<CHashNode>& node) {
  if (!entry.more) {
    std::shared_ptr<CHashNode> live = entry.single.lock();
    if (!live) {
      entry.single = node;  // the dead one is swept; the node keeps its own string
      return;
    }
    node->hash = live->hash;  // one string object per hash text
    entry.more = std::make_unique<CMore>();
    entry.more->nodes.push_back(std::move(entry.single));
    entry.more->nodes.push_back(node);
    entry.single.reset();
    return;
  }
  CMore& more = *entry.more;
  // Dead entries at the front are swept here; the first live one lends its string.
  for (auto element = more.nodes.begin(); element != more.nodes.end();) {
    std::shared_ptr<CHashNode> live = element->lock();
    if (!live) {
      element = EraseLocked(more, element);
      continue;
    }
    node->hash = live->hash;
    break;
  }
  if (more.nodes.size() >= more.nodes.max_size()) throw std::length_error("list<T> too long");
  AppendLocked(more, node);
}

void CMapHashDB::AppendLocked(CMore& more, const std::shared_ptr<CHashNode>& node) {
  more.nodes.push_back(node);
  if (more.positions) {
    more.positions->insert_or_assign(more.nodes.back(), std::prev(more.nodes.end()));
  } else if (more.nodes.size() > kPositionsFrom) {
    more.positions = std::make_unique<CPositions>();
    for (auto element = more.nodes.begin(); element != more.nodes.end(); ++element) {
      more.positions->insert_or_assign(*element, element);
    }
  }
}

CMapHashDB::CEntryList::iterator CMapHashDB::EraseLocked(CMore& more, CEntryList::iterator element) {
  if (more.positions) more.positions->erase(*element);
  return more.nodes.erase(element);
}

void CMapHashDB::Remove(const std::shared_ptr<CHashNode>& node) {
  if (!enabled_ || !node) return;
  CExclusiveGuard<CReaderWriterMutex> guard(lock_);
  if (node->hash && !node->hash->empty()) RemoveLocked(node);
}

void CMapHashDB::RemoveLocked(const std::shared_ptr<CHashNode>& node) {
  CTextKey key(node->hash.view());
  CEntries::CPosition position = entries_.LowerBound(key);
  if (!entries_.Holds(position, key)) return;
  CEntry* entry = entries_.At(position);
  if (!entry->more) {
    // The one node goes, or a dead one met on the way.
    if (SameOwner(entry->single, node) || entry->single.expired()) entries_.EraseAt(position);
    return;
  }
  CMore& more = *entry->more;
  if (more.positions) {
    // A long list: straight to the node's own element, whatever else the list holds.
    auto found = more.positions->find(std::weak_ptr<CHashNode>(node));
    if (found != more.positions->end()) {
      more.nodes.erase(found->second);
      more.positions->erase(found);
    }
    // Dead entries at either end go too; a list that has become short goes back to being walked,
    // which sweeps every dead entry it meets.
    while (!more.nodes.empty() && more.nodes.front().expired()) EraseLocked(more, more.nodes.begin());
    while (!more.nodes.empty() && more.nodes.back().expired()) EraseLocked(more, std::prev(more.nodes.end()));
    if (more.nodes.size() <= kPositionsFrom / 2) more.positions.reset();
  } else {
    for (auto element = more.nodes.begin(); element != more.nodes.end();) {
      std::shared_ptr<CHashNode> live = element->lock();
      if (!live) {
        element = more.nodes.erase(element);
        continue;
      }
      if (live == node) {
        more.nodes.erase(element);
        break;
      }
      ++element;
    }
  }
  if (more.nodes.empty()) entries_.EraseAt(position);
}

void CMapHashDB::SortPiece(CTreeBuilder::CPiece& piece) {
  // Most comparisons are decided on the packed prefix without reading either text; a stable sort
  // keeps equal texts in the order of their records.
  std::stable_sort(piece.assignments.begin(), piece.assignments.end(), AssignedBefore);
}

bool CMapHashDB::AssignedBefore(const CTreeBuilder::CAssignment& a, const CTreeBuilder::CAssignment& b) {
  if (a.prefix != b.prefix) return a.prefix < b.prefix;
  return a.hash.view() < b.hash.view();
}

void CMapHashDB::AddLoaded(std::vector<CTreeBuilder::CPiece>& pieces) {
  if (!enabled_) return;
  bool checked = false;
  for (const CTreeBuilder::CPiece& piece : pieces) checked = checked || piece.reassigned;
  // Whether an assignment still names the hash its node holds (only asked when some node was
  // given two hashes).
  auto current = [checked](const CTreeBuilder::CAssignment& item) {
    if (!checked) return true;
    std::shared_ptr<CHashNode> node = item.node.lock();
    return node && node->hash == item.hash;
  };
  CExclusiveGuard<CReaderWriterMutex> guard(lock_);
  if (!entries_.empty()) {
    for (CTreeBuilder::CPiece& piece : pieces) {
      for (CTreeBuilder::CAssignment& item : piece.assignments) {
        std::shared_ptr<CHashNode> node = item.node.lock();
        if (node && node->hash == item.hash) AddLocked(node);
      }
    }
    return;
  }
  // An ordered merge of the sorted pieces, appended at the end of the index as it grows.
  std::vector<size_t> next(pieces.size(), 0);
  for (;;) {
    size_t best = pieces.size();
    for (size_t p = 0; p < pieces.size(); ++p) {
      std::vector<CTreeBuilder::CAssignment>& assignments = pieces[p].assignments;
      while (next[p] < assignments.size() && !current(assignments[next[p]])) ++next[p];
      if (next[p] == assignments.size()) continue;
      if (best == pieces.size() || AssignedBefore(assignments[next[p]], pieces[best].assignments[next[best]])) {
        best = p;
      }
    }
    if (best == pieces.size()) break;
    CTreeBuilder::CAssignment& item = pieces[best].assignments[next[best]++];
    CEntry* last = entries_.Last();
    if (last != nullptr && last->text.view() == item.hash.view()) {
      if (std::shared_ptr<CHashNode> node = item.node.lock()) JoinEntryLocked(*last, node);
      continue;
    }
    CEntry made;
    made.text = std::move(item.hash);
    made.single = std::move(item.node);
    entries_.PushBack(std::move(made));
  }
}

void CMapHashDB::Clear() {
  CExclusiveGuard<CReaderWriterMutex> guard(lock_);
  entries_.clear();
}

size_t CMapHashDB::HashCount() const {
  CSharedGuard guard(lock_);
  return entries_.size();
}

std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> CMapHashDB::Snapshot() const {
  std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> result;
  CSharedGuard guard(lock_);
  for (const CEntry& entry : entries_) {
    if (!entry.more) {
      if (std::shared_ptr<CHashNode> node = entry.single.lock()) result.emplace_back(std::string(entry.text.view()), node);
      continue;
    }
    for (const std::weak_ptr<CHashNode>& element : entry.more->nodes) {
      if (std::shared_ptr<CHashNode> node = element.lock()) result.emplace_back(std::string(entry.text.view()), node);
    }
  }
  return result;
}
