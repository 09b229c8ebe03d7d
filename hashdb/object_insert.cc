// Insert and update of objects, and the two per-object flags.

#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/monotonic_clock.h"
#include "hashdb/obj_info.h"
#include "host/message.h"

std::shared_ptr<CHashNode> CHashDBImpl::InsertObject(std::shared_ptr<CObjInfo>& pending,
                                                     const std::shared_ptr<CObjInfo>& info) {
  if (!info) throw std::runtime_error(Compose(*this, "[hdbi,io]Can NOT be empty file obj info here! Obj="));
  std::wstring relative = info->RelativePath();
  bool is_dir = info->IsDirectory();

  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindOrCreateNode(relative);
  node->is_dir = is_dir;
  if (!is_dir) {
    CExclusiveGuard<CNodeLock> guard(node->lock);
    node->children.reset();
  }

  if (pending) {
    // Deferred insert: the node keeps the first pending information it was given.
    if (!node->pending_info) {
      node->pending_info = pending;
    } else {
      pending = node->pending_info;
    }
    return node;
  }

  node->pending_info.reset();
  index_->Remove(node);
  ++change_counter_;

  node->is_dir = is_dir;
  node->hash = CSharedText::Make(info->HashText());
  node->attributes = info->Attributes();
  node->time_1 = info->Time1();
  node->time_2 = info->Time2();
  node->security_attributes = security_texts_.Share(info->SecurityAttributes());
  node->target_path = info->TargetPath();
  if (is_dir) {
    node->size = 0;
    CExclusiveGuard<CNodeLock> guard(node->lock);
    if (node->children && node->children->empty()) node->children.reset();  // no empty maps
  } else {
    node->size = info->Size();
  }

  // A directory's change time is the newest change anywhere below it.
  int64_t now = MonotonicNowNs();
  for (std::shared_ptr<CHashNode> up = node; up; up = up->parent.lock()) up->StampChange(now);

  index_->Add(node);
  return node;
}

bool CHashDBImpl::Mark(bool set, const std::wstring& path, bool value) {
  std::wstring relative = RelativeOf(path);
  if (!set) {
    CSharedGuard tree(tree_lock_);
    std::shared_ptr<CHashNode> node = FindNode(relative);
    return node && node->mark;
  }
  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (node) {
    node->mark = value;
    node->StampChange();
    if (!value) {
      node->flag_2 = false;
      node->StampChange();
      node->old_hash.reset();
    }
  }
  return false;
}

bool CHashDBImpl::Flag2(bool set, const std::wstring& path, bool value) {
  std::wstring relative = RelativeOf(path);
  if (!set) {
    CSharedGuard tree(tree_lock_);
    std::shared_ptr<CHashNode> node = FindNode(relative);
    return node && node->flag_2;
  }
  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (node) {
    node->flag_2 = value;
    node->StampChange();
  }
  return false;
}
