#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tool/watch/tree_watcher.h"
#include "tool/watch/watch_event.h"

// Follows one policy's tree through inotify: one watch per directory, added as directories appear.
// Works for any user who can read the tree (no privilege needed), at the price of a watch per
// directory (fs.inotify.max_user_watches bounds how many).
//
// A directory that appears is watched first and listed after: whatever is created in it before its
// watch is in place is found by the listing, whatever comes after by the watch, and what both see
// is reported twice, which costs a second read but loses nothing. A rename whose two halves both
// lie in the tree is one move (a directory keeps its watches and everything below it); a half
// whose other half is outside is a removal or a creation.
//
// Not thread-safe: one thread reads the events.
class CInotifyWatcher : public CTreeWatcher {
 public:
  // Watches "root" and every directory below it on the same file system (all of them with
  // "cross_mounts"). Throws std::runtime_error when inotify cannot be used or the root not watched.
  CInotifyWatcher(std::string root, CExcluded excluded, bool cross_mounts);
  ~CInotifyWatcher() override;
  CInotifyWatcher(const CInotifyWatcher&) = delete;
  CInotifyWatcher& operator=(const CInotifyWatcher&) = delete;

  int fd() const override { return fd_; }
  void Read(std::vector<CWatchEvent>& events) override;
  const char* kind() const override { return "inotify"; }
  // Directories that could not be watched (the per-user limit reached, say) since the start.
  uint64_t unwatched() const override { return unwatched_; }
  // Directories watched now.
  size_t watched() const { return paths_.size(); }

 private:
  // Watches the directory at "relative" and every directory below it. With "report", every object
  // found below it is reported as created (it appeared with its directory).
  void WatchTree(const std::string& relative, std::vector<CWatchEvent>* report);
  bool WatchDirectory(const std::string& relative);
  void ForgetTree(const std::string& relative);
  void RenameTree(const std::string& from, const std::string& to);

  std::string root_;
  CExcluded excluded_;
  bool cross_mounts_;
  uint64_t root_device_ = 0;
  int fd_ = -1;
  std::unordered_map<int, std::string> paths_;    // watch descriptor -> directory (relative)
  std::unordered_map<std::string, int> watches_;  // directory (relative) -> watch descriptor
  uint64_t unwatched_ = 0;
};
