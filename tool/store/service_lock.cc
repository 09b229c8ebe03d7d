#include "tool/store/service_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

struct flock WholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

std::string PathIn(const std::string& data_folder) { return data_folder + "/watch.pid"; }

}  // namespace

CServiceLock::CServiceLock(const std::string& data_folder) : path_(PathIn(data_folder)) {
  fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd_ < 0) throw std::runtime_error("cannot open " + path_ + ": " + std::strerror(errno));
  struct flock lock = WholeFile(F_WRLCK);
  if (::fcntl(fd_, F_SETLK, &lock) != 0) {
    int error = errno;
    struct flock holder = WholeFile(F_WRLCK);
    std::string who = "another process";
    if (::fcntl(fd_, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK) {
      who = "process " + std::to_string(holder.l_pid);
    }
    ::close(fd_);
    fd_ = -1;
    if (error == EACCES || error == EAGAIN) {
      throw std::runtime_error("signdb watch already runs on " + data_folder + " (" + who + ")");
    }
    throw std::runtime_error("cannot lock " + path_ + ": " + std::strerror(error));
  }
  std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd_, 0) != 0 ||
      ::pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The lock holds without the number; the number only helps people.
  }
}

CServiceLock::~CServiceLock() {
  if (fd_ >= 0) ::close(fd_);
}

int CServiceLock::Holder(const std::string& data_folder) {
  int fd = ::open(PathIn(data_folder).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return 0;
  struct flock holder = WholeFile(F_WRLCK);
  int pid = 0;
  if (::fcntl(fd, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK) pid = holder.l_pid;
  ::close(fd);
  return pid;
}
