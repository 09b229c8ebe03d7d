// Comparison with a previous database: what changed, is new, or was removed since then.

#include <mutex>
#include <shared_mutex>

#include "hashdb/hash_db_impl.h"
#include "hashdb/monotonic_clock.h"
#include "host/utility_service.h"

namespace {

// The hash that a current file takes over from the previous one of the same path: nothing but a
// carried-over hash from an empty file, else the hash it had carried over, else its own.
CSharedText CarriedHash(const std::shared_ptr<CHashNode>& old_node) {
  if (IsEmptyFile(old_node)) return old_node->old_hash;
  return old_node->old_hash ? old_node->old_hash : old_node->hash;
}

// Appends under the list's own mutex: the comparison runs on several threads at once.
struct CLockedList {
  CPathEntryList& entries;
  std::mutex lock;
  void Append(bool is_dir, const std::wstring& path) {
    std::lock_guard<std::mutex> guard(lock);
    entries.emplace_back(is_dir, path);
  }
};

}  // namespace

void CHashDBImpl::CompareWithPrevious(const std::shared_ptr<CHashDB>& previous,
                                      CPathEntryList& changed, CPathEntryList& added,
                                      CPathEntryList& removed) {
  int64_t start = MonotonicNowNs();
  if (previous) {
    CLockedList changed_list{changed, {}};
    CLockedList added_list{added, {}};
    CLockedList removed_list{removed, {}};
    CSharedGuard tree(tree_lock_);
    auto visitor = std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>& old_node) {
      TreeLockHeldForWalk();
      std::wstring path = RelativePathOfNode(old_node);
      std::shared_ptr<CHashNode> current = FindNode(path);
      if (!current) {
        removed_list.Append(old_node->is_dir, path);
        return old_node->is_dir;
      }
      current->StampChange();
      if (old_node->is_dir && !current->is_dir) {
        added_list.Append(false, path);
        return false;
      }
      if (!old_node->is_dir && current->is_dir) {
        added_list.Append(true, path);
      } else if (old_node->is_dir && current->is_dir) {
        if (!SameAs(old_node, current, *utility_)) changed_list.Append(true, path);
      } else {
        bool current_is_empty = IsEmptyFile(current);
        current->old_hash = CarriedHash(old_node);
        if (current_is_empty) {
          current->size = old_node->size;
        } else if (!SameAs(old_node, current, *utility_)) {
          changed_list.Append(false, path);
        }
      }
      return true;
    });
    previous->Enumerate("Traversing old HDB", true, visitor);
  }
  // Every node that the previous database also had was stamped above; what is older than the
  // start is new since then.
  std::shared_ptr<CPathEntryList> fresh = ChangedSince(nullptr, start, std::wstring());
  added.insert(added.end(), fresh->begin(), fresh->end());
}
