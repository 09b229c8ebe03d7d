#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tool/watch/tree_watcher.h"

// Follows one policy's tree through fanotify: one mark on the root's whole file system, whose
// events name the directory (by its file handle) and the entry; a rename reports both places in
// one event. Nothing is placed per directory, so nothing can be missed while a directory is being
// watched, and a tree of any size costs the same. Needs CAP_SYS_ADMIN (and CAP_DAC_READ_SEARCH to
// turn handles into paths). Events of the file system outside the root are read and dropped.
//
// Not thread-safe: one thread reads the events.
class CFanotifyWatcher : public CTreeWatcher {
 public:
  // Throws std::runtime_error when fanotify cannot be used for "root".
  CFanotifyWatcher(std::string root, CExcluded excluded);
  ~CFanotifyWatcher() override;
  CFanotifyWatcher(const CFanotifyWatcher&) = delete;
  CFanotifyWatcher& operator=(const CFanotifyWatcher&) = delete;

  int fd() const override { return fd_; }
  void Read(std::vector<CWatchEvent>& events) override;
  const char* kind() const override { return "fanotify"; }
  uint64_t unwatched() const override { return 0; }

 private:
  // The root-relative path of the directory behind a file handle; false when it is not below the
  // root (or no longer exists).
  bool DirectoryOf(const void* handle, std::string& relative);

  std::string root_;
  std::string root_parent_;  // where the root itself is an entry (its removal ends the watch)
  std::string root_name_;
  CExcluded excluded_;
  int fd_ = -1;
  int mount_fd_ = -1;  // a descriptor on the root's file system, to open handles with
  std::unordered_map<std::string, std::string>
      directories_;  // handle bytes -> relative path ("\n": outside)
};
