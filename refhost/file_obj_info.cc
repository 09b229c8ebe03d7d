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
#include "host/crypto_service.h"
#include "host/utility_service.h"
#include "refhost/crypto_service.h"
#include "refhost/file_status.h"

void CRefFileObjInfo::TakeStatus(const struct stat& status) {
  is_dir_ = S_ISDIR(status.st_mode);
  size_ = is_dir_ ? 0 : static_cast<uint64_t>(status.st_size);
  time_1_ = StatTimeNs(status.st_ctim);
  time_2_ = StatTimeNs(status.st_mtim);
  attributes_ = static_cast<uint32_t>(status.st_mode);
}

std::shared_ptr<CRefFileObjInfo> CRefFileObjInfo::FromDisk(CUtilityService& utility,
                                                           CCryptoService& crypto,
                                                           CCfgService& cfg,
                                                           const std::wstring& root,
                                                           const std::wstring& path,
                                                           uint32_t policy_number,
                                                           bool likely_regular) {
  auto info = std::make_shared<CRefFileObjInfo>();
  info->path_ = path;
  info->relative_ = cfg.RelativePath(root, path);
  std::string narrow = utility.ToNarrow(path);
  info->description_ = narrow;
  struct stat status {};
  if (likely_regular) {
    // O_NOFOLLOW refuses a symbolic link; O_NONBLOCK keeps a FIFO that took the file's place from
    // blocking the open. Anything but a regular file goes the general way below.
    int fd = ::open(narrow.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) {
      std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { ::close(*f); });
      if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        info->TakeStatus(status);
        info->security_ = SecurityAttributesTextOfOpenFile(fd, status);
        info->hash_ = HashOpenFile(fd, policy_number, narrow);
        return info;
      }
    }
  }
  if (::lstat(narrow.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      info->gone_ = true;
      return info;
    }
    throw std::runtime_error("cannot examine " + narrow + ": " + std::strerror(errno));
  }
  info->TakeStatus(status);
  info->security_ = SecurityAttributesText(narrow, status);
  if (S_ISLNK(status.st_mode)) {
    std::vector<char> target(static_cast<size_t>(status.st_size) + 1);
    ssize_t length = ::readlink(narrow.c_str(), target.data(), target.size());
    if (length < 0) throw std::runtime_error("cannot read link " + narrow + ": " + std::strerror(errno));
    info->target_.assign(target.data(), static_cast<size_t>(length));
    info->target_wide_ = utility.ToWide(info->target_);
  } else if (S_ISREG(status.st_mode)) {
    info->hash_ = crypto.HashFile(path, policy_number);
  }
  return info;
}
