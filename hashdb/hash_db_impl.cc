#include "hashdb/hash_db_impl.h"

#include <mutex>
#include <shared_mutex>
#include <stdexcept>


#include "front/policy_files.h"
#include "hashdb/bad_obj_name_error.h"
#include "hashdb/inline_thread_pool.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/monotonic_clock.h"
#include "hashdb/steady_time_service.h"
#include "hashdb/wide_path.h"
#include "host/cfg_service.h"
#include "host/cfgex_service.h"
#include "host/crypto_service.h"
#include "host/host.h"
#include "host/message.h"
#include "host/path_status.h"
#include "host/policy.h"
#include "host/services.h"
#include "host/utility_service.h"

namespace {

constexpr const char* kCounterTag = "HDBI";
constexpr int64_t kNanosecondsPerSecond = 1000000000;

}  // namespace

CHashDBImpl::CHashDBImpl(const std::shared_ptr<CHost>& host, uint32_t policy_number,
                         const std::wstring& hdb_path, const std::shared_ptr<CPolicy>& policy)
    : CClassCounter(host, kCounterTag),
      CLanguage(host),
      host_(host),
      policy_number_(policy_number),
      hdb_path_(hdb_path),
      revision_(kNoRevision) {
  utility_ = FetchService(host_->Utility(), kBadUtilityInit);
  crypto_ = FetchService(host_->Crypto(), kBadCryptoInit);
  cfg_ = FetchService(host_->Cfg(), kBadCfgInit);
  localisation_ = FetchService(host_->Locale(), kBadLocaleInit);
  log_ = FetchService(host_->Log(), kBadLogInit);
  cfgex_ = FetchService(host_->CfgEx(), kBadCfgExInit);
  // Hosts without a worker pool get walks on the waiting thread.
  pool_ = host_->ThreadPool();
  if (!pool_) pool_ = std::make_shared<CInlineThreadPool>();
  time_service_ = host_->TimeService();
  if (!time_service_) time_service_ = std::make_shared<CSteadyTimeService>();

  if (!policy) throw std::runtime_error("[hdbi,ctor] Policy object is empty!");
  digest_descriptor_ = crypto_->DigestDescriptor(policy_number_);
  hdb_path_text_ = utility_->ToNarrow(hdb_path_);
  root_path_ = policy->RootPath();
  root_path_text_ = utility_->ToNarrow(root_path_);
  temporary_path_ = AppendSuffix(hdb_path_, kTemporarySuffix);
  touch_period_s_ = static_cast<uint32_t>(policy->Setting(kTouchPeriodSeconds));
  db_touch_period_s_ = policy->Setting(kDbTouchPeriodSeconds);
  security_setting_ = policy->Setting(kSecuritySetting);
  fold_case_ = policy->Setting(kFoldCase) != 0;
  restore_time_limit_ms_ = cfgex_->RestoreTimeLimitMs();
  index_ = std::make_shared<CMapHashDB>(policy->Setting(kIndexEnabled) != 0);
  root_ = MakeRoot();
}

CHashDBImpl::~CHashDBImpl() = default;

std::shared_ptr<CHashNode> CHashDBImpl::MakeRoot() {
  auto root = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  root->is_dir = true;
  root->attributes = utility_->PathAttributes(root_path_);
  root->time_1 = utility_->PathTime1(root_path_);
  root->time_2 = utility_->PathTime2(root_path_);
  root->security_attributes = security_texts_.Share(utility_->PathSecurityAttributes(root_path_, security_setting_));
  return root;
}

std::string CHashDBImpl::Narrow(const std::wstring& wide) { return utility_->ToNarrow(wide); }

std::wstring CHashDBImpl::RelativeOf(const std::wstring& full) {
  return cfg_->RelativePath(root_path_, full);
}

std::string CHashDBImpl::KeyOf(const std::string& name) {
  return cfg_->NormaliseName(name, fold_case_);
}

std::shared_ptr<CHashNode> CHashDBImpl::ChildOf(const std::shared_ptr<CHashNode>& node,
                                                 std::wstring_view component) {
  std::string key = KeyOf(Narrow(std::wstring(component)));
  CExclusiveGuard<CNodeLock> guard(node->lock);
  if (!node->children) return nullptr;
  auto it = node->children->find(key);
  return it == node->children->end() ? nullptr : it->second;
}

std::shared_ptr<CHashNode> CHashDBImpl::FindNode(const std::wstring& relative) {
  std::shared_ptr<CHashNode> node = root_;
  for (const CPathComponent& part : PathComponents(relative)) {
    node = ChildOf(node, part.name);
    if (!node) return nullptr;
  }
  return node;
}

std::shared_ptr<CHashNode> CHashDBImpl::CreateOrGetNode(std::wstring_view relative) {
  return CreateOrGetPath(relative, true);
}

std::shared_ptr<CHashNode> CHashDBImpl::CreateOrGetPath(std::wstring_view relative, bool unindex_replaced) {
  std::shared_ptr<CHashNode> node = root_;
  // Each level in turn, so that missing ancestors are made first; the message names the path
  // up to the refused component.
  for (const CPathComponent& part : PathComponents(relative)) {
    node = CreateOrGetChildOf(node, part.name, relative.substr(0, part.end), unindex_replaced);
  }
  return node;
}

std::shared_ptr<CHashNode> CHashDBImpl::FindOrCreateNode(std::wstring_view relative) {
  std::vector<CPathComponent> parts = PathComponents(relative);
  std::shared_ptr<CHashNode> node = root_;
  for (size_t i = 0; i < parts.size(); ++i) {
    std::shared_ptr<CHashNode> child = ChildOf(node, parts[i].name);
    bool last = i + 1 == parts.size();
    if (child && (last || child->is_dir)) {
      node = std::move(child);
    } else {
      node = CreateOrGetChild(node, parts[i].name, relative.substr(0, parts[i].end));
    }
  }
  return node;
}

std::shared_ptr<CHashNode> CHashDBImpl::CreateOrGetChild(const std::shared_ptr<CHashNode>& parent,
                                                         std::wstring_view component,
                                                         std::wstring_view path) {
  return CreateOrGetChildOf(parent, component, path, true);
}

std::shared_ptr<CHashNode> CHashDBImpl::CreateOrGetChildOf(const std::shared_ptr<CHashNode>& parent,
                                                           std::wstring_view component,
                                                           std::wstring_view path, bool unindex_replaced) {
  std::string name = Narrow(std::wstring(component));
  if (name.empty() || name == "." || name == ".." || !utility_->IsValidName(name)) {
    throw CBadObjNameError(Compose(*this, "Can NOT create illegal name obj node! [name]=", name,
                                   " [path]=", Narrow(std::wstring(path))));
  }
  std::string key = KeyOf(name);
  CExclusiveGuard<CNodeLock> guard(parent->lock);
  if (!parent->children) parent->children = std::make_unique<CHashNode::ChildMap>();
  auto it = parent->children->find(key);
  if (it != parent->children->end()) {
    if (it->second->is_dir) return it->second;
    // A path that runs through a former file turns it into a directory.
    if (unindex_replaced) index_->Remove(it->second);
    parent->children->erase(it);
  }
  auto node = std::make_shared<CHashNode>(parent);
  node->SetName(std::move(name), key);
  node->is_dir = true;
  parent->children->insert(node);
  return node;
}

std::shared_ptr<CHashNode> CHashDBImpl::MakePath(std::wstring_view relative) {
  return CreateOrGetPath(relative, false);
}

std::shared_ptr<CHashNode> CHashDBImpl::MakeChild(const std::shared_ptr<CHashNode>& parent,
                                                  std::wstring_view component, std::wstring_view path) {
  return CreateOrGetChildOf(parent, component, path, false);
}

void CHashDBImpl::PreparePiece(CPiece& piece) { CMapHashDB::SortPiece(piece); }

void CHashDBImpl::IndexRestored(std::vector<CPiece>& pieces) { index_->AddLoaded(pieces); }

std::wstring CHashDBImpl::RelativePathOfNode(const std::shared_ptr<CHashNode>& node) {
  // Widening the joined text equals widening name by name: the separator is ASCII and never part
  // of a name.
  return utility_->ToWide(RelativeTextOfNode(node));
}

std::string CHashDBImpl::RelativeTextOfNode(const std::shared_ptr<CHashNode>& node) {
  return RelativeTextOf(node);
}

std::wstring CHashDBImpl::FullPathOfNode(const std::shared_ptr<CHashNode>& node) {
  return JoinPath(root_path_, RelativePathOfNode(node));
}

std::string CHashDBImpl::NotFoundMessage(const char* key, const std::wstring& path,
                                         const std::wstring& relative) {
  return Compose(*this, key, Narrow(path), LKey{" [relative path]="}, Narrow(relative),
                 LKey{" [root path]="}, root_path_text_);
}

void CHashDBImpl::TouchDatabase() {
  CExclusiveGuard<CSharedMutex> guard(db_touch_lock_);
  if (!db_touch_time_) db_touch_time_ = std::make_shared<int64_t>();
  *db_touch_time_ = MonotonicNowNs();
}

bool CHashDBImpl::IsLoaded() {
  CSharedGuard tree(tree_lock_);
  return loaded_.load();
}

bool CHashDBImpl::IsEmpty() {
  CSharedGuard tree(tree_lock_);
  CExclusiveGuard<CNodeLock> guard(root_->lock);
  return !root_->children || root_->children->empty();
}

std::wstring CHashDBImpl::HdbFilePath(bool candidate) {
  return candidate ? AppendSuffix(hdb_path_, kCandidateSuffix) : hdb_path_;
}

std::wstring CHashDBImpl::SignatureFilePath(bool candidate) {
  return crypto_->SignatureFilePath(HdbFilePath(candidate));
}

const std::wstring& CHashDBImpl::RootPath() { return root_path_; }

std::wstring CHashDBImpl::PathByHash(const std::string& hash, bool check) {
  std::shared_ptr<CNodeList> candidates = index_->Find(hash);
  for (const std::shared_ptr<CHashNode>& node : *candidates) {
    {
      CSharedGuard tree(tree_lock_);
      if (node->mark || node->old_hash) continue;
    }
    // No file is read under the tree lock.
    std::wstring path = FullPathOfNode(node);
    if (!check) return path;
    if (!PathExistsInAnyForm(path, *utility_)) continue;
    try {
      if (utility_->HashEquals(crypto_->HashFile(path, policy_number_), hash)) return path;
    } catch (const std::exception&) {
      // A file that cannot be hashed is not the one asked for; try the next.
    }
  }
  return std::wstring();
}

std::string CHashDBImpl::HashOfObject(const std::wstring& path) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  return node && node->hash ? *node->hash : std::string();
}

uint64_t CHashDBImpl::SizeOfObject(const std::wstring& path) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (!node) {
    throw std::runtime_error(
        NotFoundMessage("[hdbi,gfos]Object NOT found! [obj]=", path, relative));
  }
  return node->size;
}

bool CHashDBImpl::IsUnderTarget(const std::wstring& path) {
  std::wstring relative = RelativeOf(path);
  std::wstring_view parent = ParentPath(relative);
  if (parent.empty()) return false;
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = root_;
  if (!node->target_path.empty()) return true;
  for (const CPathComponent& part : PathComponents(parent)) {
    node = ChildOf(node, part.name);
    if (!node) return false;
    if (!node->target_path.empty()) return true;
  }
  return false;
}

bool CHashDBImpl::ExistsAs(const std::wstring& path, bool is_dir) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  return node && node->is_dir == is_dir;
}

bool CHashDBImpl::TouchedRecently(const std::wstring& path) {
  if (touch_period_s_ == 0) return false;
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  {
    CSharedGuard touch(db_touch_lock_);
    if (db_touch_time_) {
      int64_t elapsed = (MonotonicNowNs() - *db_touch_time_) / kNanosecondsPerSecond;
      if (elapsed <= static_cast<int64_t>(db_touch_period_s_)) return false;
    }
  }
  std::shared_ptr<CHashNode> node = FindNode(relative);
  return node && node->TouchedWithin(touch_period_s_);
}

uint64_t CHashDBImpl::ChangeCounter() { return change_counter_.load(); }

uint64_t CHashDBImpl::Revision() { return revision_.load(); }

bool CHashDBImpl::IsCurrent() { return Revision() == FileRevision(); }

bool CHashDBImpl::AttributesOfObject(const std::wstring& path, uint32_t& attributes,
                                     uint64_t& time_1, uint64_t& time_2,
                                     std::string& security_attributes) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (!node) return false;
  attributes = node->attributes;
  time_1 = node->time_1;
  time_2 = node->time_2;
  security_attributes = node->security_attributes;
  return true;
}

bool CHashDBImpl::IsDirectory(const std::wstring& path) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  return node && node->is_dir;
}

std::wstring CHashDBImpl::TargetOfObject(const std::wstring& path, bool& is_dir) {
  std::wstring relative = RelativeOf(path);
  CSharedGuard tree(tree_lock_);
  std::shared_ptr<CHashNode> node = FindNode(relative);
  if (!node) {
    throw std::runtime_error(
        NotFoundMessage("[hdbi,tgssp]Object NOT found! [obj]=", path, relative));
  }
  if (node->target_path.empty()) return std::wstring();
  is_dir = node->is_dir;
  return utility_->ToWide(node->target_path);
}
