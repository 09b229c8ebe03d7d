// The parallel tree walk and what stands on it: enumeration, the sub-node search, the old-node
// search and the shrink of old nodes.

#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/wide_path.h"
#include "host/cfg_service.h"
#include "host/message.h"
#include "host/thread_pool.h"
#include "host/utility_service.h"

namespace {

constexpr uint32_t kWaitStepMs = 500;
constexpr uint64_t kWaitingMessageEveryMs = 10000;

}  // namespace

void CHashDBImpl::TreeWalk(const std::string& prefix, bool take_tree_lock,
                           const std::shared_ptr<CHashNode>& start,
                           const std::shared_ptr<CNodeVisitor>& visitor) {
  std::shared_lock<CSharedMutex> tree(tree_lock_, std::defer_lock);
  if (take_tree_lock) tree.lock();
  std::lock_guard<std::mutex> walk(enumeration_mutex_);

  pool_->PrepareRun();
  SubmitWalkTask(start, visitor);
  // The waiting message goes out at once and then every 10 s of waiting; each step waits up to
  // 500 ms for the pool to report that every task has finished.
  for (uint64_t waited_ms = 0;; waited_ms += kWaitStepMs) {
    if (waited_ms % kWaitingMessageEveryMs == 0) {
      LogDebug(*log_, prefix + Compose(*this, ",waiting enum all leaves exit, HDB path=", hdb_path_text_));
    }
    pool_->WaitAllFinished(kWaitStepMs);
    if (pool_->AllFinished()) break;
  }
  LogDebug(*log_, prefix + Compose(*this, ",enum all finished, HDB path=", hdb_path_text_));
  pool_->FinishRun();
}

void CHashDBImpl::SubmitWalkTask(const std::shared_ptr<CHashNode>& node,
                                 const std::shared_ptr<CNodeVisitor>& visitor) {
  std::weak_ptr<CHashDBImpl> database = weak_from_this();
  pool_->Submit([database, node, visitor] { RunWalkTask(database, node, visitor); });
}

void CHashDBImpl::RunWalkTask(const std::weak_ptr<CHashDBImpl>& database,
                              const std::shared_ptr<CHashNode>& node,
                              const std::shared_ptr<CNodeVisitor>& visitor) {
  std::shared_ptr<CHashDBImpl> self = database.lock();
  if (!self || !node || !visitor) return;
  if (!node->is_dir) {
    (*visitor)(node);
    return;
  }
  if (!(*visitor)(node)) return;
  // The walker holds the tree lock shared, so no child map changes meanwhile; the node locks are
  // not needed to read them, and holding one while visiting would nest node locks.
  if (!node->children || node->children->empty()) return;
  for (const auto& [key, child] : *node->children) {
    if (child->is_dir && child->children && !child->children->empty()) {
      self->SubmitWalkTask(child, visitor);
    } else {
      (*visitor)(child);
    }
  }
}

void CHashDBImpl::VisitAll(const std::string& prefix, const std::shared_ptr<CNodeVisitor>& visitor) {
  TreeWalk(prefix, false, root_, visitor);
}

bool CHashDBImpl::Enumerate(const std::string& prefix, bool take_tree_lock,
                            const std::shared_ptr<CNodeVisitor>& visitor) {
  std::shared_ptr<CHashNode> start;
  {
    std::shared_lock<CSharedMutex> tree(tree_lock_, std::defer_lock);
    if (take_tree_lock) tree.lock();
    start = root_;
  }
  TreeWalk(prefix, take_tree_lock, start, visitor);
  return true;
}

std::shared_ptr<CPathEntryList> CHashDBImpl::SubNodes(const std::wstring& relative_path) {
  auto result = std::make_shared<CPathEntryList>();
  if (HasRootDirectory(relative_path)) {
    throw std::runtime_error("[hdbi,gsn] It MUST be relative path, but current obj path=" +
                             Narrow(relative_path));
  }
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative_path);
  if (!node) {
    throw std::runtime_error("[hdbi,gsn] Parent dir NOT found, current dir path=" +
                             Narrow(relative_path));
  }
  if (node->children && !node->children->empty()) {
    auto result_lock = std::make_shared<std::mutex>();
    auto visitor = std::make_shared<CNodeVisitor>(
        [this, result, result_lock](const std::shared_ptr<CHashNode>& visited) {
          CPathEntry entry(visited->is_dir, RelativePathOfNode(visited));
          std::lock_guard<std::mutex> guard(*result_lock);
          result->push_back(std::move(entry));
          return true;
        });
    std::string prefix;
    TreeWalk(Text(prefix, "Searching sub nodes"), false, node, visitor);
  }
  return result;
}

void CHashDBImpl::SearchOldNodes(int64_t threshold, const std::wstring& relative,
                                 const std::shared_ptr<CPathEntryList>& entries,
                                 const std::shared_ptr<CNodeList>& nodes) {
  if (HasRootDirectory(relative)) {
    throw std::runtime_error(Compose(
        *this, "[hdbi,gonk] It MUST be relative path, but current obj path=", Narrow(relative)));
  }
  auto entries_lock = std::make_shared<std::mutex>();
  auto nodes_lock = std::make_shared<std::mutex>();
  std::shared_ptr<CHashNode> root = root_;
  auto visitor = std::make_shared<CNodeVisitor>(
      [=, this](const std::shared_ptr<CHashNode>& node) {
        if (!node->ChangedBefore(threshold) || node == root) return true;
        std::wstring path = RelativePathOfNode(node);
        if (!cfg_->PathAtOrBelow(relative, path)) return false;
        if (entries) {
          std::lock_guard<std::mutex> guard(*entries_lock);
          entries->emplace_back(node->is_dir, path);
        }
        if (nodes) {
          std::lock_guard<std::mutex> guard(*nodes_lock);
          nodes->push_back(node);
        }
        return true;
      });
  std::string prefix;
  TreeWalk(Text(prefix, "Searching old nodes"), false, root, visitor);
}

std::shared_ptr<CPathEntryList> CHashDBImpl::ChangedSince(
    const std::shared_ptr<CPathEntryList>& result, int64_t threshold,
    const std::wstring& relative_path) {
  std::shared_ptr<CPathEntryList> entries = result ? result : std::make_shared<CPathEntryList>();
  CSharedGuard tree(tree_lock_);
  SearchOldNodes(threshold, relative_path, entries, nullptr);
  return entries;
}

bool CHashDBImpl::IsAttached(const std::shared_ptr<CHashNode>& node) {
  std::shared_ptr<CHashNode> parent = node->parent.lock();
  if (!parent || !parent->children) return false;
  auto it = parent->children->find(node->key());
  return it != parent->children->end() && it->second == node;
}

void CHashDBImpl::DetachNode(const std::shared_ptr<CHashNode>& node, bool from_index) {
  if (!node || node == root_) return;
  std::shared_ptr<CHashNode> parent = node->parent.lock();
  if (parent && parent->children) parent->children->erase(node->key());
  if (from_index) index_->Remove(node);
}

uint64_t CHashDBImpl::Shrink(int64_t threshold, const std::wstring& relative_path) {
  auto old_nodes = std::make_shared<CNodeList>();
  CNodeList emptied;
  {
    CSharedGuard tree(tree_lock_);
    SearchOldNodes(threshold, relative_path, nullptr, old_nodes);
  }
  {
    CExclusiveGuard<CSharedMutex> tree(tree_lock_);
    for (const std::shared_ptr<CHashNode>& node : *old_nodes) {
      DetachNode(node, true);
      // Ancestors emptied by the removal go too, while they are old themselves.
      for (std::shared_ptr<CHashNode> up = node->parent.lock(); up && up != root_;) {
        if (up->children && !up->children->empty()) break;
        if (!IsAttached(up)) break;  // already taken out earlier in this shrink
        if (!up->ChangedBefore(threshold)) break;
        DetachNode(up, true);
        emptied.push_back(up);
        up = up->parent.lock();
      }
    }
  }
  std::string key;
  Text(key, "Shrink old node.Obj path=");
  for (const CNodeList* list : {old_nodes.get(), &emptied}) {
    for (const std::shared_ptr<CHashNode>& node : *list) {
      LogInformation(*log_, key + Narrow(FullPathOfNode(node)) + " [Is Dir]=" + (node->is_dir ? "1" : "0"),
                     kEventShrink);
    }
  }
  return old_nodes->size() + emptied.size();
}
