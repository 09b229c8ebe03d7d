// Renames, moves and removals of objects: the node keeps its hash, details and children.

#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/bad_obj_name_error.h"
#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/wide_path.h"
#include "host/cfg_service.h"
#include "host/message.h"
#include "host/utility_service.h"

void CHashDBImpl::RenameObject(std::shared_ptr<CObjInfo>& info, const std::wstring& old_path,
                               const std::wstring& new_path) {
  std::wstring old_relative = RelativeOf(old_path);
  if (old_relative.empty()) {
    throw std::runtime_error(
        Compose(*this, "[hdbi,rno]Can NOT be root dir here! root dir=", root_path_text_));
  }
  std::wstring new_relative = RelativeOf(new_path);
  if (new_relative.empty()) {
    throw std::runtime_error(
        Compose(*this, "[hdbi,rno]Can NOT be root dir here-2! root dir=", root_path_text_));
  }
  bool same_parent = cfg_->SamePath(std::wstring(ParentPath(old_relative)),
                                    std::wstring(ParentPath(new_relative)));

  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(old_relative);
  if (!node) {
    throw std::runtime_error(Compose(*this, "[hdbi,ro] NOT Found! [Old Path]=", Narrow(old_path),
                                     "[New Path]=", Narrow(new_path)));
  }
  if (info && node->pending_info) {
    info = node->pending_info;  // the caller first deals with the object's pending information
    return;
  }
  if (!info && node->pending_info) node->pending_info.reset();
  ++change_counter_;
  node->StampChange();
  if (same_parent) {
    RenameInPlace(node, std::wstring(FileName(new_relative)));
  } else {
    MoveNode(node, new_relative);
  }
}

int CHashDBImpl::RemoveObject(std::shared_ptr<CObjInfo>& info, const std::wstring& path) {
  std::wstring relative = RelativeOf(path);
  if (relative.empty()) {
    throw std::runtime_error(
        Compose(*this, "[hdbi,ro]Can NOT be root dir here! root dir=", root_path_text_));
  }
  CExclusiveGuard<CSharedMutex> tree(tree_lock_);
  ++change_counter_;  // counted before the lookup, also when nothing is found
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (!node) return 0;
  if (info && node->pending_info) {
    info = node->pending_info;
    return 0;
  }
  if (!info && node->pending_info) node->pending_info.reset();
  DetachNode(node, true);
  return 0;
}

void CHashDBImpl::RenameInPlace(const std::shared_ptr<CHashNode>& node,
                                const std::wstring& new_name) {
  if (!node) return;
  std::shared_ptr<CHashNode> parent = node->parent.lock();
  if (!parent) return;
  std::string name = Narrow(new_name);
  if (name.empty() || name == "." || name == ".." || !utility_->IsValidName(name)) {
    throw CBadObjNameError(Compose(*this, "Can NOT rename to bad obj name! [new name]=", name,
                                   " [old-path]=", Narrow(RelativePathOfNode(node))));
  }
  std::string new_key = KeyOf(name);
  CExclusiveGuard<CNodeLock> guard(parent->lock);
  if (!parent->children) {
    parent->children = std::make_unique<CHashNode::ChildMap>();
  } else {
    // Out under the old key before the key changes: the map orders children by their own keys.
    parent->children->erase(node->key());
  }
  node->SetName(name, new_key);
  // When the new key is taken, the object renamed onto it replaces the one that was there.
  parent->children->insert_or_replace(node);
}

void CHashDBImpl::MoveNode(const std::shared_ptr<CHashNode>& node,
                           const std::wstring& new_relative) {
  if (!node) return;
  std::wstring parent_path(ParentPath(new_relative));
  std::shared_ptr<CHashNode> new_parent = FindNode(parent_path);
  if (!new_parent) {
    throw std::runtime_error(Compose(
        *this, "[hdbi,mn]new relative parent path NOT Found! Path=", Narrow(new_relative)));
  }
  if (!new_parent->is_dir) {
    throw std::runtime_error(Compose(
        *this, "[hdbi,mn]new relative parent path is NOT Dir! Path=", Narrow(new_relative)));
  }
  const std::string& key = node->key();
  CExclusiveGuard<CNodeLock> guard(new_parent->lock);
  if (!new_parent->children) {
    new_parent->children = std::make_unique<CHashNode::ChildMap>();
  } else if (auto it = new_parent->children->find(key); it != new_parent->children->end()) {
    std::shared_ptr<CHashNode> replaced = it->second;
    new_parent->children->erase(it);
    if (replaced != node) index_->Remove(replaced);
  }
  DetachNode(node, false);
  // The node keeps its name: a move does not apply the new path's last component.
  node->parent = new_parent;
  new_parent->children->insert(node);
}
