#pragma once

#include <string>

// Keeps a second watch service off a data folder: a POSIX record lock on "watch.pid" in the data
// folder, which holds the service's process id. The kernel releases it however the process ends,
// so a killed service never leaves a stale lock behind.
class CServiceLock {
 public:
  // Throws std::runtime_error naming the process that holds the lock, or why it cannot be taken.
  explicit CServiceLock(const std::string& data_folder);
  ~CServiceLock();
  CServiceLock(const CServiceLock&) = delete;
  CServiceLock& operator=(const CServiceLock&) = delete;

  // The process id of the service that runs on "data_folder", or 0 when none does.
  static int Holder(const std::string& data_folder);

 private:
  std::string path_;
  int fd_ = -1;
};
