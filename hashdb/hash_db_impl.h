#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <istream>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "entry/class_counter.h"
#include "hashdb/annotated_locks.h"
#include "hashdb/hash_db.h"
#include "hashdb/hash_node.h"
#include "hashdb/text_pool.h"
#include "hashdb/tree_builder.h"
#include "hashdb/tree_source.h"
#include "host/language.h"

class CCfgExService;
class CCfgService;
class CCryptoService;
class CHost;
struct CHdbFileContext;
class CLocaleService;
class CLogService;
class CMapHashDB;
class CPolicy;
class CThreadPool;
class CTimeService;
class CUtilityService;

// One policy's hash database: the tree of every object below the root, the hash index, and the
// state that loading and saving keep.
//
// Thread safety: every CHashDB operation may be called from any thread.
//   tree_lock_ (reader/writer): queries, checks, walks and saving hold it shared; insert, flag
//     setting, rename, move, remove, the change phase of shrink and loading hold it exclusively.
//   Lock order: tree_lock_, then one node's lock, then the hash index's lock. Nothing is taken
//     while the index lock is held, and a node's lock is never held while another node's is taken.
//   db_touch_lock_ guards db_touch_time_ and is taken inside tree_lock_.
//   enumeration_mutex_ lets one tree walk run at a time; load_save_mutex_ spans a load or a save.
class CHashDBImpl : public CClassCounter,
                    public CLanguage,
                    public CHashDB,
                    private CTreeBuilder,
                    private CTreeSource,
                    public std::enable_shared_from_this<CHashDBImpl> {
 public:
  // Fetches utility, crypto, cfg, localisation, log and extended configuration in that order
  // (std::runtime_error "bad ... init!" for the first one missing), reads the policy's root path
  // and settings, and makes the hash index and the root. Must be made with std::make_shared.
  CHashDBImpl(const std::shared_ptr<CHost>& host, uint32_t policy_number,
              const std::wstring& hdb_path, const std::shared_ptr<CPolicy>& policy);
  ~CHashDBImpl() override;

  // CHashDB
  bool VerifySignature(const std::string& hdb_path, const std::shared_ptr<CBuffer>& hdb,
                       const std::shared_ptr<CBuffer>& signature) override;
  void CompareWithPrevious(const std::shared_ptr<CHashDB>& previous, CPathEntryList& changed,
                           CPathEntryList& added, CPathEntryList& removed) override;
  bool Enumerate(const std::string& prefix, bool take_tree_lock,
                 const std::shared_ptr<CNodeVisitor>& visitor) override;
  bool IsLoaded() override;
  bool IsEmpty() override;
  std::wstring HdbFilePath(bool candidate) override;
  std::wstring SignatureFilePath(bool candidate) override;
  const std::wstring& RootPath() override;
  std::wstring PathByHash(const std::string& hash, bool check) override;
  std::shared_ptr<CHashNode> InsertObject(std::shared_ptr<CObjInfo>& pending,
                                          const std::shared_ptr<CObjInfo>& info) override;
  void RenameObject(std::shared_ptr<CObjInfo>& info, const std::wstring& old_path,
                    const std::wstring& new_path) override;
  int RemoveObject(std::shared_ptr<CObjInfo>& info, const std::wstring& path) override;
  std::string HashOfObject(const std::wstring& path) override;
  uint64_t SizeOfObject(const std::wstring& path) override;
  bool IsUnderTarget(const std::wstring& path) override;
  bool ExistsAs(const std::wstring& path, bool is_dir) override;
  bool TouchedRecently(const std::wstring& path) override;
  bool Mark(bool set, const std::wstring& path, bool value) override;
  bool Flag2(bool set, const std::wstring& path, bool value) override;
  uint32_t CheckObject(const std::shared_ptr<CObjInfo>& info) override;
  bool Load(const std::atomic<bool>* exit_flag, bool verify_signature, const std::string& hdb_path,
            const std::shared_ptr<CBuffer>& hdb, const std::shared_ptr<CBuffer>& signature) override;
  void Save() override;
  uint64_t Shrink(int64_t threshold, const std::wstring& relative_path) override;
  std::shared_ptr<CPathEntryList> ChangedSince(const std::shared_ptr<CPathEntryList>& result,
                                               int64_t threshold,
                                               const std::wstring& relative_path) override;
  uint64_t ChangeCounter() override;
  uint64_t Revision() override;
  uint64_t FileRevision() override;
  bool IsCurrent() override;
  std::shared_ptr<CPathEntryList> SubNodes(const std::wstring& relative_path) override;
  std::wstring FullPathOfNode(const std::shared_ptr<CHashNode>& node) override;
  bool AttributesOfObject(const std::wstring& path, uint32_t& attributes, uint64_t& time_1,
                          uint64_t& time_2, std::string& security_attributes) override;
  bool IsDirectory(const std::wstring& path) override;
  std::wstring TargetOfObject(const std::wstring& path, bool& is_dir) override;

  // Tree internals, shared with loading and saving. The caller holds tree_lock_ as each says.

  // The root node (tree lock held in either mode).
  std::shared_ptr<CHashNode> root() const { return root_; }
  CMapHashDB& index() { return *index_; }
  // "full" relative to the root; empty for the root itself.
  std::wstring RelativeOf(const std::wstring& full);
  // The child of "node" named "component", or null.
  std::shared_ptr<CHashNode> ChildOf(const std::shared_ptr<CHashNode>& node,
                                     std::wstring_view component);
  // The node at a relative path, or null; creates nothing.
  std::shared_ptr<CHashNode> FindNode(const std::wstring& relative) SIGNDB_REQUIRES_SHARED(tree_lock_);
  // The node at a relative path, with missing directories made on the way; a file on the way is
  // replaced by a directory. Throws CBadObjNameError for an illegal name.
  std::shared_ptr<CHashNode> CreateOrGetNode(std::wstring_view relative);
  // The node's path relative to the root, from its parent links; empty for the root.
  std::wstring RelativePathOfNode(const std::shared_ptr<CHashNode>& node);
  // The same path as narrow text, joined from the names directly (the names are the host's own
  // narrow text already); saving writes it as it is.
  std::string RelativeTextOfNode(const std::shared_ptr<CHashNode>& node);
  // The key of a name among its siblings.
  std::string KeyOf(const std::string& name);
  // FindNode, and when that finds nothing, CreateOrGetNode, in one walk: existing directories are
  // followed, a missing or file component on the way is made a directory, and the last component
  // is made only when missing. Throws CBadObjNameError.
  std::shared_ptr<CHashNode> FindOrCreateNode(std::wstring_view relative) SIGNDB_REQUIRES(tree_lock_);
  // The child "component" of "parent", made as a directory when missing (a file there is
  // replaced); "path" names the position in messages. Throws CBadObjNameError.
  std::shared_ptr<CHashNode> CreateOrGetChild(const std::shared_ptr<CHashNode>& parent,
                                              std::wstring_view component, std::wstring_view path);
  // Takes a node out of its parent's children (not the root); with "from_index", out of the index
  // too. The caller holds tree_lock_ exclusively.
  void DetachNode(const std::shared_ptr<CHashNode>& node, bool from_index) SIGNDB_REQUIRES(tree_lock_);
  // Whether the node is still in its parent's children.
  bool IsAttached(const std::shared_ptr<CHashNode>& node) SIGNDB_REQUIRES_SHARED(tree_lock_);
  // A walk's visitor runs on the pool's threads while the thread that started the walk holds the
  // tree lock for it: the visitor says so to the lock analysis by calling this.
  void TreeLockHeldForWalk() const SIGNDB_ASSERT_SHARED_CAPABILITY(tree_lock_) {}
  // Visits every node from "start" on the worker pool; returns when all have been visited.
  void TreeWalk(const std::string& prefix, bool take_tree_lock,
                const std::shared_ptr<CHashNode>& start,
                const std::shared_ptr<CNodeVisitor>& visitor);
  // The database touch time becomes now.
  void TouchDatabase() SIGNDB_EXCLUDES(db_touch_lock_);
  // Gives a node a new name in its parent's children; the index is untouched. Throws
  // CBadObjNameError for an illegal name. The caller holds tree_lock_ exclusively.
  void RenameInPlace(const std::shared_ptr<CHashNode>& node, const std::wstring& new_name)
      SIGNDB_REQUIRES(tree_lock_);
  // Hangs a node, under its own name, into the directory that is the new relative path's parent;
  // an object there under the same key is dropped. The caller holds tree_lock_ exclusively.
  void MoveNode(const std::shared_ptr<CHashNode>& node, const std::wstring& new_relative)
      SIGNDB_REQUIRES(tree_lock_);

 private:
  std::string Narrow(const std::wstring& wide);
  // The host's services, the message language and the settings, for the HDB file classes.
  CHdbFileContext FileContext();
  // CTreeSource: the tree operation a save hands to the HDB file saver.
  void VisitAll(const std::string& prefix, const std::shared_ptr<CNodeVisitor>& visitor) override;
  // CTreeBuilder: the tree operations a load hands to the HDB file loader.
  std::shared_ptr<CHashNode> Root() override { return root_; }
  std::shared_ptr<CHashNode> MakePath(std::wstring_view relative) override;
  std::shared_ptr<CHashNode> MakeChild(const std::shared_ptr<CHashNode>& parent,
                                       std::wstring_view component, std::wstring_view path) override;
  void PreparePiece(CPiece& piece) override;
  void IndexRestored(std::vector<CPiece>& pieces) override;
  CCompactText SecurityText(std::string_view text) override { return security_texts_.Share(text); }
  // CreateOrGetChild; "unindex_replaced" takes a file that a directory replaces out of the index
  // (a load, whose index is made afterwards, has nothing to take out).
  std::shared_ptr<CHashNode> CreateOrGetChildOf(const std::shared_ptr<CHashNode>& parent,
                                                std::wstring_view component, std::wstring_view path,
                                                bool unindex_replaced);
  // CreateOrGetNode, level by level through CreateOrGetChildOf.
  std::shared_ptr<CHashNode> CreateOrGetPath(std::wstring_view relative, bool unindex_replaced);
  // "[obj]=" path " [relative path]=" relative " [root path]=" root, after a localised key.
  std::string NotFoundMessage(const char* key, const std::wstring& path,
                              const std::wstring& relative);
  // A fresh root node read from the root directory itself.
  std::shared_ptr<CHashNode> MakeRoot();
  void SubmitWalkTask(const std::shared_ptr<CHashNode>& node,
                      const std::shared_ptr<CNodeVisitor>& visitor);
  static void RunWalkTask(const std::weak_ptr<CHashDBImpl>& database,
                          const std::shared_ptr<CHashNode>& node,
                          const std::shared_ptr<CNodeVisitor>& visitor);
  // The old-node search: nodes not changed since "threshold" that lie at or below "relative".
  void SearchOldNodes(int64_t threshold, const std::wstring& relative,
                      const std::shared_ptr<CPathEntryList>& entries,
                      const std::shared_ptr<CNodeList>& nodes) SIGNDB_REQUIRES_SHARED(tree_lock_);
  // The attribute part of the object check; "skip_time_2" leaves the second time value out.
  uint32_t CompareAttributes(const std::shared_ptr<CObjInfo>& info,
                             const std::shared_ptr<CHashNode>& node, bool skip_time_2);

  std::shared_ptr<CHost> host_;
  std::shared_ptr<CUtilityService> utility_;
  std::shared_ptr<CCryptoService> crypto_;
  std::shared_ptr<CCfgService> cfg_;
  std::shared_ptr<CLocaleService> localisation_;
  std::shared_ptr<CLogService> log_;
  std::shared_ptr<CCfgExService> cfgex_;
  std::shared_ptr<CThreadPool> pool_;
  std::shared_ptr<CTimeService> time_service_;

  const uint32_t policy_number_;
  uint32_t digest_descriptor_ = 0;
  const std::wstring hdb_path_;
  std::string hdb_path_text_;
  std::wstring root_path_;
  std::string root_path_text_;
  std::wstring temporary_path_;
  uint32_t touch_period_s_ = 0;
  uint64_t db_touch_period_s_ = 0;
  uint64_t security_setting_ = 0;
  bool fold_case_ = false;
  uint64_t restore_time_limit_ms_ = 0;

  mutable CSharedMutex tree_lock_;
  std::atomic<bool> loaded_{false};
  std::shared_ptr<CHashNode> root_;                 // guarded by tree_lock_
  std::atomic<uint64_t> change_counter_{0};
  std::atomic<uint64_t> revision_;
  std::shared_ptr<CMapHashDB> index_;
  CTextPool security_texts_;
  CSharedMutex db_touch_lock_ SIGNDB_ACQUIRED_AFTER(tree_lock_);
  std::shared_ptr<int64_t> db_touch_time_ SIGNDB_GUARDED_BY(db_touch_lock_);
  std::atomic<bool> platform_flag_{true};
  std::atomic<bool> second_flag_{true};
  std::mutex enumeration_mutex_;
  std::mutex load_save_mutex_;
};
