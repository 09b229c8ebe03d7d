#include "refhost/file_obj_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "host/cfg_service.h"
#include "host/utility_service.h"
#include "refhost/crypto_service.h"
#include "refhost/file_descriptor.h"
#include "refhost/file_status.h"

namespace {

constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Opens an object of a directory for reading its attributes and content: never following a
// symbolic link, never blocking (a FIFO that took a file's place opens at once and is then left
// unread).
int OpenObjectAt(int directory_fd, const std::string& name, bool directory) {
  return ::openat(directory_fd, name.c_str(), kReadFlags | (directory ? O_DIRECTORY : 0));
}

[[noreturn]] void Fail(const std::string& what, const std::string& path, int error) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

bool ProcFdWorks() {
  static const bool works = ::access("/proc/self/fd", X_OK) == 0;
  return works;
}

// A path that names the object through descriptors already open, for the calls that only take a
// path (extended attributes of a link, a directory's default ACL): the kernel resolves
// /proc/self/fd/N to what N holds, so no component can be swapped on the way. Without /proc, the
// full path.
std::string StablePath(int object_fd, int directory_fd, const std::string& name, const std::string& full_path) {
  if (!ProcFdWorks()) return full_path;
  if (object_fd >= 0) return "/proc/self/fd/" + std::to_string(object_fd);
  return "/proc/self/fd/" + std::to_string(directory_fd) + "/" + name;
}

bool IsGoneError(int error) { return error == ENOENT || error == ENOTDIR; }

}  // namespace

int OpenParentOfRoot(const std::string& root, std::string& name) {
  std::string parent = "/";
  name = ".";
  if (root != "/") {
    size_t slash = root.rfind('/');
    parent = slash == std::string::npos ? "." : slash == 0 ? "/" : root.substr(0, slash);
    name = root.substr(slash == std::string::npos ? 0 : slash + 1);
  }
  int fd = ::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) Fail("cannot examine", root, errno);
  return fd;
}

void CRefFileObjInfo::TakeStatus(const struct stat& status) {
  is_dir_ = S_ISDIR(status.st_mode);
  size_ = S_ISREG(status.st_mode) || S_ISLNK(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
  time_1_ = StatTimeNs(status.st_ctim);
  time_2_ = StatTimeNs(status.st_mtim);
  attributes_ = static_cast<uint32_t>(status.st_mode);
  device_ = static_cast<uint64_t>(status.st_dev);
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::AtDirectory(CUtilityService& utility, CCfgService& cfg,
                                                              const std::wstring& root, const std::wstring& path,
                                                              uint32_t policy_number, int directory_fd,
                                                              const std::string& name, bool likely_regular,
                                                              CFileDescriptor* opened_directory,
                                                              const CKnownContent* known) {
  auto info = std::make_shared<CRefFileObjInfo>();
  info->path_ = path;
  info->relative_ = cfg.RelativePath(root, path);
  std::string narrow = utility.ToNarrow(path);
  info->description_ = narrow;
  struct stat status {};
  CFileDescriptor fd;
  if (likely_regular) {
    // The directory listed a regular file: open it first and examine it through that descriptor.
    fd.Reset(OpenObjectAt(directory_fd, name, false));
    if (fd.valid() && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) fd.Reset();
  }
  if (!fd.valid()) {
    if (::fstatat(directory_fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (IsGoneError(errno)) {
        info->gone_ = true;
        return info;
      }
      Fail("cannot examine", narrow, errno);
    }
    // Only regular files and directories are opened; a device, FIFO or socket never is.
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
      fd.Reset(OpenObjectAt(directory_fd, name, S_ISDIR(status.st_mode)));
      int open_error = errno;
      struct stat opened {};
      if (fd.valid()) {
        if (::fstat(fd.get(), &opened) != 0) Fail("cannot examine", narrow, errno);
        if (opened.st_ino != status.st_ino || opened.st_dev != status.st_dev) {
          if (!S_ISREG(opened.st_mode) && !S_ISDIR(opened.st_mode)) {
            throw std::runtime_error("cannot examine " + narrow + ": it was replaced while being read");
          }
          status = opened;  // replaced meanwhile: what was opened is what is read
        }
      } else if (S_ISREG(status.st_mode)) {
        if (IsGoneError(open_error) || open_error == ELOOP) {  // replaced by a link or removed meanwhile
          info->gone_ = true;
          return info;
        }
        Fail("cannot open", narrow, open_error);
      }
      // A directory that cannot be opened is still examined, without its inode flags.
    }
  }
  info->TakeStatus(status);
  info->security_ = ReadSecurityAttributes(StablePath(fd.get(), directory_fd, name, narrow), status, fd.get());
  if (S_ISLNK(status.st_mode)) {
    std::vector<char> target(static_cast<size_t>(status.st_size) + 1);
    ssize_t length = ::readlinkat(directory_fd, name.c_str(), target.data(), target.size());
    if (length < 0) Fail("cannot read link", narrow, errno);
    info->target_.assign(target.data(), static_cast<size_t>(length));
    info->target_wide_ = utility.ToWide(info->target_);
  } else if (S_ISREG(status.st_mode) && known != nullptr && !known->hash.empty() &&
             known->size == static_cast<uint64_t>(status.st_size) &&
             known->modified == static_cast<uint64_t>(StatTimeNs(status.st_mtim))) {
    info->hash_ = known->hash;  // the content was not written since it was hashed
  } else if (S_ISREG(status.st_mode)) {
    // At most the bytes it had when opened: a file that keeps growing is not followed.
    info->hash_ = HashOpenFilePrefix(fd.get(), static_cast<uint64_t>(status.st_size), policy_number, narrow);
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0) Fail("cannot examine", narrow, errno);
    if (after.st_size != status.st_size || StatTimeNs(after.st_mtim) != StatTimeNs(status.st_mtim)) {
      throw std::runtime_error("cannot read " + narrow + ": it changed while being read (" +
                               std::to_string(status.st_size) + " bytes when opened, " +
                               std::to_string(after.st_size) + " after); read it again when it is still");
    }
  } else if (S_ISDIR(status.st_mode) && opened_directory != nullptr) {
    opened_directory->Reset(fd.release());
  }
  return info;
}

int CRefFileObjInfo::OpenDirectoryBelow(int from, const std::string& relative) {
  CFileDescriptor directory;
  size_t start = 0;
  while (start < relative.size()) {
    size_t slash = relative.find('/', start);
    if (slash == std::string::npos) slash = relative.size();
    std::string component = relative.substr(start, slash - start);
    start = slash + 1;
    if (component.empty()) continue;
    int next = ::openat(directory.valid() ? directory.get() : from, component.c_str(),
                        O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) return -1;
    directory.Reset(next);
  }
  if (!directory.valid()) return ::fcntl(from, F_DUPFD_CLOEXEC, 0);
  return directory.release();
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::Absent(CUtilityService& utility, CCfgService& cfg,
                                                         const std::wstring& root, const std::wstring& path) {
  auto info = std::make_shared<CRefFileObjInfo>();
  info->path_ = path;
  info->relative_ = cfg.RelativePath(root, path);
  info->description_ = utility.ToNarrow(path);
  info->gone_ = true;
  return info;
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::FromRecord(CUtilityService& utility, CCfgService& cfg,
                                                             const std::wstring& root, const std::wstring& path,
                                                             const CRecordedValues& values) {
  std::shared_ptr<CRefFileObjInfo> info = Absent(utility, cfg, root, path);
  info->gone_ = false;
  info->is_dir_ = values.is_dir;
  info->size_ = values.size;
  info->time_1_ = values.time_1;
  info->time_2_ = values.time_2;
  info->attributes_ = values.attributes;
  info->hash_ = values.hash;
  info->security_ = values.security;
  info->target_ = values.target;
  if (!values.target.empty()) info->target_wide_ = utility.ToWide(values.target);
  return info;
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::FromDisk(CUtilityService& utility, CCfgService& cfg,
                                                           const std::wstring& root, const std::wstring& path,
                                                           uint32_t policy_number, bool likely_regular,
                                                           const CKnownContent* known) {
  std::string narrow_root = utility.ToNarrow(root);
  while (narrow_root.size() > 1 && narrow_root.back() == '/') narrow_root.pop_back();
  std::string narrow = utility.ToNarrow(path);
  // The root is reached as the administrator named it; below it, no component is followed.
  std::string below;
  if (narrow.size() > narrow_root.size() && narrow.compare(0, narrow_root.size(), narrow_root) == 0 &&
      (narrow_root == "/" || narrow[narrow_root.size()] == '/')) {
    below = narrow.substr(narrow_root.size() + (narrow_root == "/" ? 0 : 1));
  } else if (narrow != narrow_root) {
    throw std::runtime_error("cannot examine " + narrow + ": it is not below " + narrow_root);
  }
  CFileDescriptor directory;
  std::string name;
  if (below.empty()) {
    directory.Reset(OpenParentOfRoot(narrow_root, name));
  } else {
    CFileDescriptor root_directory(::open(narrow_root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root_directory.valid()) Fail("cannot examine", narrow_root, errno);
    size_t slash = below.rfind('/');
    name = slash == std::string::npos ? below : below.substr(slash + 1);
    directory.Reset(slash == std::string::npos ? root_directory.release()
                                               : OpenDirectoryBelow(root_directory.get(), below.substr(0, slash)));
    if (!directory.valid()) {
      if (IsGoneError(errno) || errno == ELOOP) {  // a directory on the way is gone, or now a link
        auto gone = std::make_shared<CRefFileObjInfo>();
        gone->path_ = path;
        gone->relative_ = cfg.RelativePath(root, path);
        gone->description_ = narrow;
        gone->gone_ = true;
        return gone;
      }
      Fail("cannot examine", narrow, errno);
    }
  }
  return AtDirectory(utility, cfg, root, path, policy_number, directory.get(), name, likely_regular, nullptr, known);
}
