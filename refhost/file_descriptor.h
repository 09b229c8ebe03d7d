#pragma once

#include <unistd.h>

// Owns one POSIX file descriptor and closes it when it goes; -1 owns nothing.
class CFileDescriptor {
 public:
  explicit CFileDescriptor(int fd = -1) : fd_(fd) {}
  ~CFileDescriptor() { Reset(); }
  CFileDescriptor(const CFileDescriptor&) = delete;
  CFileDescriptor& operator=(const CFileDescriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes what it holds and takes "fd" instead.
  void Reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};
