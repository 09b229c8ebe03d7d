#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class CBuffer;
class CHashNode;
class CObjInfo;

// All bits set: no revision (a missing or short file, or a database never loaded or saved).
inline constexpr uint64_t kNoRevision = 0xFFFFFFFFFFFFFFFFull;

// (is directory, path relative to the database root)
using CPathEntry = std::pair<bool, std::wstring>;
using CPathEntryList = std::list<CPathEntry>;
using CNodeList = std::list<std::shared_ptr<CHashNode>>;
using CNodeVector = std::vector<std::shared_ptr<CHashNode>>;
// Called for each node of a walk, from several threads at once. For a directory, false skips
// everything below it.
using CNodeVisitor = std::function<bool(const std::shared_ptr<CHashNode>&)>;

// Status codes of the object check (operation 19).
enum CCheckStatus : uint32_t {
  kCheckUnchanged = 1,
  kCheckFileNew = 4097,           // a file where the database has nothing or a directory
  kCheckDirectoryNew = 4098,      // a directory where the database has nothing or a file
  kCheckHashChanged = 4099,
  kCheckFileGone = 4100,
  kCheckDirectoryGone = 4101,
  kCheckAttributesChanged = 4104,
  kCheckTime1Changed = 4105,
  kCheckTime2Changed = 4106,
  kCheckSecurityChanged = 4107,
  kCheckFileTargetChanged = 4108,
  kCheckDirectoryTargetChanged = 4109,
  kCheckFileTargetAdded = 4110,
  kCheckDirectoryTargetAdded = 4111,
  kCheckFileTargetRemoved = 4112,
  kCheckDirectoryTargetRemoved = 4113,
};

// One hash database: the tree of every file and directory below a policy's root, with the index
// from hash text to files, persisted to one HDB file. All operations are safe for concurrent use
// from the host's threads. A path argument is a full path below the root unless it says
// "relative". Operations are in slot order.
class CHashDB {
 public:
  virtual ~CHashDB() = default;

  // slot 0: whether the HDB data carries a valid signature from an acceptable signer.
  virtual bool VerifySignature(const std::string& hdb_path, const std::shared_ptr<CBuffer>& hdb,
                               const std::shared_ptr<CBuffer>& signature) = 0;
  // slot 1: appends to the three lists what changed, is new and was removed since "previous".
  virtual void CompareWithPrevious(const std::shared_ptr<CHashDB>& previous,
                                   CPathEntryList& changed, CPathEntryList& added,
                                   CPathEntryList& removed) = 0;
  // slot 2: visits every node from the root on the host's worker pool.
  virtual bool Enumerate(const std::string& prefix, bool take_tree_lock,
                         const std::shared_ptr<CNodeVisitor>& visitor) = 0;
  virtual bool IsLoaded() = 0;                                      // slot 3
  virtual bool IsEmpty() = 0;                                       // slot 4
  virtual std::wstring HdbFilePath(bool candidate) = 0;             // slot 5
  virtual std::wstring SignatureFilePath(bool candidate) = 0;       // slot 6
  virtual const std::wstring& RootPath() = 0;                       // slot 7
  // slot 8: the first unmarked file carrying "hash"; with "check", one whose file still does.
  virtual std::wstring PathByHash(const std::string& hash, bool check) = 0;
  // slot 9: creates or updates the object's node. A non-null "pending" makes a deferred insert.
  virtual std::shared_ptr<CHashNode> InsertObject(std::shared_ptr<CObjInfo>& pending,
                                                  const std::shared_ptr<CObjInfo>& info) = 0;
  // slot 10: follows a rename or move of an object.
  virtual void RenameObject(std::shared_ptr<CObjInfo>& info, const std::wstring& old_path,
                            const std::wstring& new_path) = 0;
  // slot 11: takes an object and its subtree out of the tree; returns 0.
  virtual int RemoveObject(std::shared_ptr<CObjInfo>& info, const std::wstring& path) = 0;
  virtual std::string HashOfObject(const std::wstring& path) = 0;   // slot 12
  virtual uint64_t SizeOfObject(const std::wstring& path) = 0;      // slot 13
  virtual bool IsUnderTarget(const std::wstring& path) = 0;         // slot 14
  virtual bool ExistsAs(const std::wstring& path, bool is_dir) = 0;  // slot 15
  virtual bool TouchedRecently(const std::wstring& path) = 0;       // slot 16
  virtual bool Mark(bool set, const std::wstring& path, bool value) = 0;   // slot 17
  virtual bool Flag2(bool set, const std::wstring& path, bool value) = 0;  // slot 18
  virtual uint32_t CheckObject(const std::shared_ptr<CObjInfo>& info) = 0;  // slot 19
  // slot 20: reads the HDB data into the tree. "exit_flag" (may be null) abandons the restore.
  virtual bool Load(const std::atomic<bool>* exit_flag, bool verify_signature,
                    const std::string& hdb_path, const std::shared_ptr<CBuffer>& hdb,
                    const std::shared_ptr<CBuffer>& signature) = 0;
  virtual void Save() = 0;                                          // slot 21
  // slot 22: drops nodes below the relative path not changed since "threshold" (monotonic ns);
  // returns the number of nodes dropped.
  virtual uint64_t Shrink(int64_t threshold, const std::wstring& relative_path) = 0;
  // slot 23: appends the nodes below the relative path not changed since "threshold".
  virtual std::shared_ptr<CPathEntryList> ChangedSince(
      const std::shared_ptr<CPathEntryList>& result, int64_t threshold,
      const std::wstring& relative_path) = 0;
  virtual uint64_t ChangeCounter() = 0;                             // slot 24
  virtual uint64_t Revision() = 0;                                  // slot 25
  virtual uint64_t FileRevision() = 0;                              // slot 26
  virtual bool IsCurrent() = 0;                                     // slot 27
  // slot 28: the directory at the relative path and every node below it.
  virtual std::shared_ptr<CPathEntryList> SubNodes(const std::wstring& relative_path) = 0;
  virtual std::wstring FullPathOfNode(const std::shared_ptr<CHashNode>& node) = 0;  // slot 29
  virtual bool AttributesOfObject(const std::wstring& path, uint32_t& attributes,
                                  uint64_t& time_1, uint64_t& time_2,
                                  std::string& security_attributes) = 0;   // slot 30
  virtual bool IsDirectory(const std::wstring& path) = 0;           // slot 31
  virtual std::wstring TargetOfObject(const std::wstring& path, bool& is_dir) = 0;  // slot 32
};
