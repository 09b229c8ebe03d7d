#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "hashdb/obj_info.h"

class CCfgService;
class CFileDescriptor;
class CUtilityService;

// The parent directory of a policy's root, opened (O_PATH) by the path the administrator named, and
// the root's name in it ("/" is "." in itself): where every walk and look-up below the root starts.
// Returns the descriptor; throws std::runtime_error when it cannot be opened.
int OpenParentOfRoot(const std::string& root, std::string& name);

// What the disk says about one object below a policy's root, read once when made: kind and mode
// (attributes: st_mode, whose type bits tell a regular file, directory, symbolic link, character
// or block device, FIFO or socket apart), size, times (status change, modification), security
// attributes (refhost/security_text.h), symbolic-link target and, for regular files, the content
// hash. A symbolic link is a file object whose target is its link text and whose hash is empty;
// it is never followed. A device, FIFO or socket is a file object without hash or size, never
// opened: its kind, device number and security attributes are what is compared. An object that
// does not exist is "gone".
// What a database already records of a regular file's content: when the file still has this
// size and modification time, its recorded hash is taken instead of reading it again (an
// attribute change: a chmod does not rewrite the content).
struct CKnownContent {
  uint64_t size = 0;
  uint64_t modified = 0;  // nanoseconds, as time 2
  std::string hash;
};

// An object's values as a database records them (see CRefFileObjInfo::FromRecord).
struct CRecordedValues {
  bool is_dir = false;
  uint64_t size = 0;
  uint64_t time_1 = 0xFFFFFFFFFFFFFFFFull;
  uint64_t time_2 = 0xFFFFFFFFFFFFFFFFull;
  uint32_t attributes = 0xFFFFFFFFu;
  std::string hash;
  std::string security;
  std::string target;
};

class CRefFileObjInfo : public CObjInfo {
 public:
  // Throws std::runtime_error when the object exists but cannot be read (its hash included).
  // "likely_regular" (a directory listing said so) lets a regular file be opened first and then
  // examined and hashed through that one descriptor; whatever else the object turns out to be, it
  // is read as without the hint. Only a hint: a device or FIFO is opened only when one took a
  // listed file's place meanwhile, and then without blocking and without being read.
  //
  // The path is reached from the root one directory at a time, never following a symbolic link
  // below the root: an object under a directory that became a link is gone. A regular file is
  // hashed for at most the size it had when opened; one that changed while being read throws.
  static std::shared_ptr<CRefFileObjInfo> FromDisk(CUtilityService& utility, CCfgService& cfg,
                                                   const std::wstring& root, const std::wstring& path,
                                                   uint32_t policy_number, bool likely_regular = false,
                                                   const CKnownContent* known = nullptr);

  // Opens (O_PATH) the directory "relative" below the open directory "from" ("" for "from"
  // itself), one component at a time, following no symbolic link. -1 with errno set when it
  // cannot: ENOENT for a component that is gone, ENOTDIR for one that is no directory (a symbolic
  // link among them).
  static int OpenDirectoryBelow(int from, const std::string& relative);

  // The same for the object "name" of the open directory "directory_fd" (its full path is "path",
  // named in messages only: no call goes by it, so it may be longer than PATH_MAX). When it is a
  // directory that could be opened and "opened_directory" is given, that descriptor is handed
  // over there, to list it with: what is listed is what was examined.
  static std::shared_ptr<CRefFileObjInfo> AtDirectory(CUtilityService& utility, CCfgService& cfg,
                                                      const std::wstring& root, const std::wstring& path,
                                                      uint32_t policy_number, int directory_fd,
                                                      const std::string& name, bool likely_regular,
                                                      CFileDescriptor* opened_directory,
                                                      const CKnownContent* known = nullptr);

  // The object at "path" as another database records it rather than as the disk shows it: what
  // the watch service's live record says is there now, to be checked against the baseline and
  // accepted into it exactly as it was shown. Nothing is read from the disk.
  static std::shared_ptr<CRefFileObjInfo> FromRecord(CUtilityService& utility, CCfgService& cfg,
                                                     const std::wstring& root, const std::wstring& path,
                                                     const CRecordedValues& values);
  // An object at "path" that is not there (a record that holds nothing at that path).
  static std::shared_ptr<CRefFileObjInfo> Absent(CUtilityService& utility, CCfgService& cfg,
                                                 const std::wstring& root, const std::wstring& path);

  bool IsDirectory() override { return is_dir_; }
  std::wstring RelativePath() override { return relative_; }
  std::wstring Path() override { return path_; }
  bool IsGone() override { return gone_; }
  std::wstring TargetWidePath() override { return target_wide_; }
  uint64_t Size() override { return size_; }
  uint64_t Time1() override { return time_1_; }
  uint64_t Time2() override { return time_2_; }
  uint32_t Attributes() override { return attributes_; }
  std::string HashText() override { return hash_; }
  std::string SecurityAttributes() override { return security_; }
  std::string Description() override { return description_; }
  std::string TargetPath() override { return target_; }
  void TakeRecordedHash(const std::shared_ptr<std::string>& hash) override { recorded_ = hash; }

  // The file system (st_dev) it lies on.
  uint64_t Device() const { return device_; }

  // The hash that a check handed back, or null.
  const std::shared_ptr<std::string>& recorded_hash() const { return recorded_; }

 private:
  // Kind, size, times and mode from one stat(2) result: they cannot disagree with each other.
  void TakeStatus(const struct stat& status);

  std::wstring relative_;
  std::wstring path_;
  bool gone_ = false;
  bool is_dir_ = false;
  uint64_t device_ = 0;
  uint64_t size_ = 0;
  uint64_t time_1_ = 0xFFFFFFFFFFFFFFFFull;
  uint64_t time_2_ = 0xFFFFFFFFFFFFFFFFull;
  uint32_t attributes_ = 0xFFFFFFFFu;
  std::string hash_;
  std::string security_;
  std::string description_;
  std::string target_;
  std::wstring target_wide_;
  std::shared_ptr<std::string> recorded_;
};
