// The object check: one object compared with what the database recorded for its path.

#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "hashdb/hash_db_impl.h"
#include "hashdb/obj_info.h"
#include "host/cfg_service.h"
#include "host/message.h"
#include "host/utility_service.h"

namespace {

constexpr uint32_t kUnknown32 = 0xFFFFFFFFu;
constexpr uint64_t kUnknown64 = 0xFFFFFFFFFFFFFFFFull;

// Hands the node's recorded hash to the caller's information source, for files that have one.
void HandOverHash(const std::shared_ptr<CHashNode>& node, const std::shared_ptr<CObjInfo>& info) {
  if (!node->is_dir && node->hash) info->TakeRecordedHash(std::make_shared<std::string>(node->hash.view()));
}

// A difference worth following up: flagged, stamped, and the recorded hash handed back.
void FlagDifference(const std::shared_ptr<CHashNode>& node, const std::shared_ptr<CObjInfo>& info) {
  node->flag_2 = true;
  node->StampChange();
  HandOverHash(node, info);
}

}  // namespace

uint32_t CHashDBImpl::CheckObject(const std::shared_ptr<CObjInfo>& info) {
  std::wstring relative = info->RelativePath();
  CSharedGuard tree(tree_lock_);
  bool gone = info->IsGone();
  bool is_dir = info->IsDirectory();
  std::shared_ptr<CHashNode> node = FindNode(relative);

  if (!node) {
    if (gone) return kCheckUnchanged;
    return is_dir ? kCheckDirectoryNew : kCheckFileNew;
  }
  if (gone) {
    FlagDifference(node, info);
    return node->is_dir ? kCheckDirectoryGone : kCheckFileGone;
  }

  node->StampChange();
  if (node->is_dir) {
    if (!is_dir) return kCheckFileNew;
    return CompareAttributes(info, node, true);
  }
  if (is_dir) return kCheckDirectoryNew;

  std::string hash = info->HashText();
  if (hash.empty()) return CompareAttributes(info, node, false);
  if (node->old_hash && utility_->HashEquals(hash, *node->old_hash)) return kCheckUnchanged;
  if (!node->hash) {
    throw std::runtime_error(Compose(*this, "[hdbi,cfoc]Bad logic-1! Path=", Narrow(info->Path())));
  }
  if (node->hash->empty()) return CompareAttributes(info, node, false);
  if (!utility_->HashEquals(hash, *node->hash)) {
    TouchDatabase();
    FlagDifference(node, info);
    return kCheckHashChanged;
  }
  uint32_t status = CompareAttributes(info, node, false);
  if (status == kCheckUnchanged) node->Touch();
  return status;
}

uint32_t CHashDBImpl::CompareAttributes(const std::shared_ptr<CObjInfo>& info,
                                        const std::shared_ptr<CHashNode>& node, bool skip_time_2) {
  if (node->mark) return kCheckUnchanged;

  const std::string& recorded_target = node->target_path;
  std::string target = info->TargetPath();
  uint32_t target_status = kCheckUnchanged;
  if (!recorded_target.empty() && target.empty()) {
    target_status = node->is_dir ? kCheckDirectoryTargetRemoved : kCheckFileTargetRemoved;
  } else if (!recorded_target.empty()) {
    if (!cfg_->SamePath(utility_->ToWide(recorded_target), info->TargetWidePath())) {
      target_status = node->is_dir ? kCheckDirectoryTargetChanged : kCheckFileTargetChanged;
    }
  } else if (!target.empty()) {
    target_status = node->is_dir ? kCheckDirectoryTargetAdded : kCheckFileTargetAdded;
  }
  if (target_status != kCheckUnchanged) {
    FlagDifference(node, info);
    return target_status;
  }

  // All bits set on either side means "unknown" and is never a difference.
  uint32_t attributes = info->Attributes();
  if (node->attributes != kUnknown32 && attributes != kUnknown32 && node->attributes != attributes) {
    return kCheckAttributesChanged;
  }
  uint64_t time_1 = info->Time1();
  if (node->time_1 != kUnknown64 && time_1 != kUnknown64 && node->time_1 != time_1) {
    return kCheckTime1Changed;
  }
  if (!skip_time_2) {
    uint64_t time_2 = info->Time2();
    if (node->time_2 != kUnknown64 && time_2 != kUnknown64 && node->time_2 != time_2) {
      return kCheckTime2Changed;
    }
  }
  std::string security = info->SecurityAttributes();
  if (node->security_attributes.empty() || security.empty()) return kCheckUnchanged;
  return utility_->SecurityAttributesEqual(node->security_attributes, security)
             ? kCheckUnchanged
             : kCheckSecurityChanged;
}
