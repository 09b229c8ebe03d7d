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

// Opens an object for reading its attributes and content: never following a symbolic link, never
// blocking (a FIFO that took a file's place opens at once and is then left unread).
int OpenObject(const std::string& path, bool directory) {
  return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (directory ? O_DIRECTORY : 0));
}

[[noreturn]] void Fail(const std::string& what, const std::string& path, int error) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

}  // namespace

void CRefFileObjInfo::TakeStatus(const struct stat& status) {
  is_dir_ = S_ISDIR(status.st_mode);
  size_ = S_ISREG(status.st_mode) || S_ISLNK(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
  time_1_ = StatTimeNs(status.st_ctim);
  time_2_ = StatTimeNs(status.st_mtim);
  attributes_ = static_cast<uint32_t>(status.st_mode);
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::FromDisk(CUtilityService& utility, CCfgService& cfg,
                                                           const std::wstring& root, const std::wstring& path,
                                                           uint32_t policy_number, bool likely_regular) {
  auto info = std::make_shared<CRefFileObjInfo>();
  info->path_ = path;
  info->relative_ = cfg.RelativePath(root, path);
  std::string narrow = utility.ToNarrow(path);
  info->description_ = narrow;
  struct stat status {};
  CFileDescriptor fd;
  if (likely_regular) {
    // The directory listed a regular file: open it first and examine it through that descriptor.
    fd.Reset(OpenObject(narrow, false));
    if (fd.valid() && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) fd.Reset();
  }
  if (!fd.valid()) {
    if (::lstat(narrow.c_str(), &status) != 0) {
      if (errno == ENOENT || errno == ENOTDIR) {
        info->gone_ = true;
        return info;
      }
      Fail("cannot examine", narrow, errno);
    }
    // Only regular files and directories are opened; a device, FIFO or socket never is.
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
      fd.Reset(OpenObject(narrow, S_ISDIR(status.st_mode)));
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
        Fail("cannot open", narrow, open_error);
      }
      // A directory that cannot be opened is still examined by path, without its inode flags.
    }
  }
  info->TakeStatus(status);
  info->security_ = ReadSecurityAttributes(narrow, status, fd.get());
  if (S_ISLNK(status.st_mode)) {
    std::vector<char> target(static_cast<size_t>(status.st_size) + 1);
    ssize_t length = ::readlink(narrow.c_str(), target.data(), target.size());
    if (length < 0) Fail("cannot read link", narrow, errno);
    info->target_.assign(target.data(), static_cast<size_t>(length));
    info->target_wide_ = utility.ToWide(info->target_);
  } else if (S_ISREG(status.st_mode)) {
    info->hash_ = HashOpenFile(fd.get(), policy_number, narrow);
  }
  return info;
}
