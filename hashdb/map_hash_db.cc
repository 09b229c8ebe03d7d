#include "hashdb/map_hash_db.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_node.h"

CMapHashDB::CKey::CKey(std::string_view key_text) : prefix(0), text(key_text) {
  for (size_t i = 0; i < sizeof prefix; ++i) {
    prefix = prefix << 8 | (i < text.size() ? static_cast<uint8_t>(text[i]) : 0);
  }
}

CMapHashDB::CMapHashDB(bool enabled) : enabled_(enabled) {}

std::shared_ptr<CNodeList> CMapHashDB::Find(const std::string& hash) const {
  auto result = std::make_shared<CNodeList>();
  if (!enabled_ || hash.empty()) return result;
  std::shared_lock<boost::shared_mutex> guard(lock_);
  auto it = map_.find(CKey(hash));
  if (it == map_.end()) return result;
  for (const std::weak_ptr<CHashNode>& entry : *it->second.nodes) {
    if (std::shared_ptr<CHashNode> node = entry.lock()) result->push_back(std::move(node));
  }
  return result;
}

// The node's hash is read under the lock: while loading, it may be assigned meanwhile.
void CMapHashDB::Add(const std::shared_ptr<CHashNode>& node) {
  if (!enabled_ || !node) return;
  std::unique_lock<boost::shared_mutex> guard(lock_);
  if (node->hash && !node->hash->empty()) AddLocked(node);
}

void CMapHashDB::AssignAndAddAll(CAssignments& assignments) {
  auto text_of = [](const std::shared_ptr<std::string>& hash) -> std::string_view {
    return hash ? std::string_view(*hash) : std::string_view();
  };
  std::sort(assignments.begin(), assignments.end(), [&](const auto& a, const auto& b) {
    return CKey(text_of(a.second)) < CKey(text_of(b.second));
  });
  std::unique_lock<boost::shared_mutex> guard(lock_);
  CMap::iterator near = map_.end();
  for (auto& [node, hash] : assignments) {
    // A node is indexed once: a second record of the same path replaces the first one's hash.
    if (enabled_ && node->hash && !node->hash->empty()) {
      RemoveLocked(node);
      near = map_.end();  // the removal may have erased the entry "near" stood on
    }
    node->hash = std::move(hash);
    if (enabled_ && node->hash && !node->hash->empty()) near = AddLockedNear(node, near);
  }
}

void CMapHashDB::AddLocked(const std::shared_ptr<CHashNode>& node) {
  AddLockedNear(node, map_.end());
}

CMapHashDB::CMap::iterator CMapHashDB::AddLockedNear(const std::shared_ptr<CHashNode>& node,
                                                     CMap::iterator near) {
  CKey key(*node->hash);
  // From "near" (the previous key's entry in an ascending batch), step forward a little; search
  // from the top when there is no such position or the key lies further on.
  CMap::iterator it = map_.end();
  if (near != map_.end()) {
    it = near;
    for (int steps = 0; it != map_.end() && it->first < key; ++steps, ++it) {
      if (steps == 4) {
        it = map_.lower_bound(key);
        break;
      }
    }
  } else {
    it = map_.lower_bound(key);
  }
  if (it == map_.end() || key < it->first) {
    CEntry entry{node->hash, std::make_shared<CEntryList>(), nullptr};
    entry.nodes->push_back(node);
    CKey stored(*entry.text);
    return map_.emplace_hint(it, stored, std::move(entry));
  }
  CEntryList& entries = *it->second.nodes;
  // Dead entries at the front are swept here; the first live one lends its string.
  for (auto entry = entries.begin(); entry != entries.end();) {
    std::shared_ptr<CHashNode> live = entry->lock();
    if (!live) {
      entry = EraseLocked(it->second, entry);
      continue;
    }
    node->hash = live->hash;  // one string object per hash text
    break;
  }
  if (entries.size() >= entries.max_size()) throw std::length_error("list<T> too long");
  AppendLocked(it->second, node);
  return it;
}

void CMapHashDB::AppendLocked(CEntry& entry, const std::shared_ptr<CHashNode>& node) {
  CEntryList& entries = *entry.nodes;
  entries.push_back(node);
  if (entry.positions) {
    entry.positions->insert_or_assign(entries.back(), std::prev(entries.end()));
  } else if (entries.size() > kPositionsFrom) {
    entry.positions = std::make_unique<CPositions>();
    for (auto element = entries.begin(); element != entries.end(); ++element) {
      entry.positions->insert_or_assign(*element, element);
    }
  }
}

CMapHashDB::CEntryList::iterator CMapHashDB::EraseLocked(CEntry& entry, CEntryList::iterator element) {
  if (entry.positions) entry.positions->erase(*element);
  return entry.nodes->erase(element);
}

void CMapHashDB::Remove(const std::shared_ptr<CHashNode>& node) {
  if (!enabled_ || !node) return;
  std::unique_lock<boost::shared_mutex> guard(lock_);
  if (node->hash && !node->hash->empty()) RemoveLocked(node);
}

void CMapHashDB::RemoveLocked(const std::shared_ptr<CHashNode>& node) {
  auto it = map_.find(CKey(*node->hash));
  if (it == map_.end()) return;
  CEntry& entry_of_hash = it->second;
  CEntryList& entries = *entry_of_hash.nodes;
  if (entry_of_hash.positions) {
    // A long list: straight to the node's own element, whatever else the list holds.
    auto position = entry_of_hash.positions->find(std::weak_ptr<CHashNode>(node));
    if (position != entry_of_hash.positions->end()) {
      entries.erase(position->second);
      entry_of_hash.positions->erase(position);
    }
    // Dead entries at either end go too; a list that has become short goes back to being walked,
    // which sweeps every dead entry it meets.
    while (!entries.empty() && entries.front().expired()) EraseLocked(entry_of_hash, entries.begin());
    while (!entries.empty() && entries.back().expired()) EraseLocked(entry_of_hash, std::prev(entries.end()));
    if (entries.size() <= kPositionsFrom / 2) entry_of_hash.positions.reset();
  } else {
    for (auto entry = entries.begin(); entry != entries.end();) {
      std::shared_ptr<CHashNode> live = entry->lock();
      if (!live) {
        entry = entries.erase(entry);
        continue;
      }
      if (live == node) {
        entries.erase(entry);
        break;
      }
      ++entry;
    }
  }
  if (entries.empty()) map_.erase(it);
}

void CMapHashDB::Clear() {
  std::unique_lock<boost::shared_mutex> guard(lock_);
  map_.clear();
}

size_t CMapHashDB::HashCount() const {
  std::shared_lock<boost::shared_mutex> guard(lock_);
  return map_.size();
}

std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> CMapHashDB::Snapshot() const {
  std::vector<std::pair<std::string, std::shared_ptr<CHashNode>>> entries;
  std::shared_lock<boost::shared_mutex> guard(lock_);
  for (const auto& [key, entry_of_hash] : map_) {
    for (const std::weak_ptr<CHashNode>& entry : *entry_of_hash.nodes) {
      if (std::shared_ptr<CHashNode> node = entry.lock()) entries.emplace_back(std::string(key.text), node);
    }
  }
  return entries;
}
