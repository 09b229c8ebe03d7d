#include "hashdb/map_hash_db.h"

#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_node.h"

CMapHashDB::CMapHashDB(bool enabled) : enabled_(enabled) {}

std::shared_ptr<CNodeList> CMapHashDB::Find(const std::string& hash) const {
  auto result = std::make_shared<CNodeList>();
  if (!enabled_ || hash.empty()) return result;
  std::shared_lock<boost::shared_mutex> guard(lock_);
  auto it = map_.find(hash);
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

void CMapHashDB::AssignAndAdd(const std::shared_ptr<CHashNode>& node,
                              std::shared_ptr<std::string> hash) {
  std::unique_lock<boost::shared_mutex> guard(lock_);
  // A node is indexed once: a second record of the same path replaces the first one's hash.
  if (enabled_ && node->hash && !node->hash->empty()) RemoveLocked(node);
  node->hash = std::move(hash);
  if (enabled_ && node->hash && !node->hash->empty()) AddLocked(node);
}

void CMapHashDB::AddLocked(const std::shared_ptr<CHashNode>& node) {
  auto it = map_.find(*node->hash);
  if (it == map_.end()) {
    CEntry entry{node->hash, std::make_shared<CEntryList>()};
    entry.nodes->push_back(node);
    std::string_view key(*entry.text);
    map_.emplace(key, std::move(entry));
    return;
  }
  CEntryList& entries = *it->second.nodes;
  for (auto entry = entries.begin(); entry != entries.end();) {
    std::shared_ptr<CHashNode> live = entry->lock();
    if (!live) {
      entry = entries.erase(entry);
      continue;
    }
    node->hash = live->hash;  // one string object per hash text
    break;
  }
  if (entries.size() >= entries.max_size()) throw std::length_error("list<T> too long");
  entries.push_back(node);
}

void CMapHashDB::Remove(const std::shared_ptr<CHashNode>& node) {
  if (!enabled_ || !node) return;
  std::unique_lock<boost::shared_mutex> guard(lock_);
  if (node->hash && !node->hash->empty()) RemoveLocked(node);
}

void CMapHashDB::RemoveLocked(const std::shared_ptr<CHashNode>& node) {
  auto it = map_.find(*node->hash);
  if (it == map_.end()) return;
  CEntryList& entries = *it->second.nodes;
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
  for (const auto& [hash, entry_of_hash] : map_) {
    for (const std::weak_ptr<CHashNode>& entry : *entry_of_hash.nodes) {
      if (std::shared_ptr<CHashNode> node = entry.lock()) entries.emplace_back(std::string(hash), node);
    }
  }
  return entries;
}
