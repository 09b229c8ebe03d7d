#include "tool/store/policy_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "refhost/file_io.h"
#include "tool/common/policy_files.h"

namespace {

struct flock WholeFile(short type) {
  struct flock region {};
  region.l_type = type;
  region.l_whence = SEEK_SET;
  region.l_start = 0;
  region.l_len = 0;  // to the end, however long
  return region;
}

}  // namespace

CPolicyLockBusy::CPolicyLockBusy(const std::string& policy_name, int holder, bool writer)
    : CPolicyLockBusy(
          "policy '" + policy_name + "' is being " + (writer ? "written" : "read") + " by " +
              (holder != 0 ? "process " + std::to_string(holder) : std::string("another process")),
          holder) {}

CPolicyLockBusy::CPolicyLockBusy(std::string holding, int holder)
    : std::runtime_error(holding + "; try again when it has finished, or add --wait"),
      holder_(holder),
      holding_(std::move(holding)) {}

CPolicyLock::CPolicyLock(const std::string& hdb_path, const std::string& policy_name, CMode mode,
                         bool wait)
    : mode_(mode) {
  std::string path = LockFileOf(hdb_path);
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd_ < 0 && mode == CMode::kShared) {
    int create_error = errno;
    fd_ = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd_ < 0) {
      if ((create_error == EROFS || create_error == EACCES) && errno == ENOENT) return;
      throw std::runtime_error("cannot open the lock file " + path + ": " + std::strerror(errno));
    }
  } else if (fd_ < 0) {
    // A writer cannot go on: name the error as administrators search for it (EROFS, ENOSPC).
    throw std::runtime_error("cannot open the lock file " + path + ": " + ErrnoText(errno) +
                             "; nothing was changed");
  }
  struct flock region = WholeFile(mode == CMode::kShared ? F_RDLCK : F_WRLCK);
  while (::fcntl(fd_, wait ? F_SETLKW : F_SETLK, &region) != 0) {
    if (errno == EINTR) continue;
    int error = errno;
    if (!wait && (error == EACCES || error == EAGAIN)) {
      struct flock holder = WholeFile(mode == CMode::kShared ? F_RDLCK : F_WRLCK);
      int pid = ::fcntl(fd_, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK ? holder.l_pid : 0;
      ::close(fd_);
      fd_ = -1;
      throw CPolicyLockBusy(policy_name, pid, holder.l_type == F_WRLCK);
    }
    ::close(fd_);
    fd_ = -1;
    throw std::runtime_error("cannot lock " + path + ": " + std::strerror(error));
  }
}

bool CPolicyLock::Change(CMode mode, bool wait) {
  if (fd_ < 0) throw std::runtime_error("no lock is held to change");
  if (mode == mode_) return true;
  struct flock region = WholeFile(mode == CMode::kShared ? F_RDLCK : F_WRLCK);
  // A conversion that cannot be granted leaves the lock held as it was.
  while (::fcntl(fd_, wait ? F_SETLKW : F_SETLK, &region) != 0) {
    if (errno == EINTR) continue;
    if (!wait && (errno == EACCES || errno == EAGAIN)) return false;
    throw std::runtime_error(std::string("cannot change the policy lock: ") + std::strerror(errno));
  }
  mode_ = mode;
  return true;
}

CPolicyLock::~CPolicyLock() {
  if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}
