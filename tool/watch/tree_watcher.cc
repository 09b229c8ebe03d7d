#include "tool/watch/tree_watcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tool/report/report_event.h"
#include "tool/watch/fanotify_watcher.h"
#include "tool/watch/inotify_watcher.h"
#include "util/relative_path.h"

std::unique_ptr<CTreeWatcher> MakeTreeWatcher(const std::string& root,
                                              CTreeWatcher::CExcluded excluded, bool cross_mounts,
                                              bool force_inotify) {
  // One file-system mark does not follow other file systems mounted below the root.
  if (!force_inotify && !cross_mounts) {
    try {
      return std::make_unique<CFanotifyWatcher>(root, excluded);
    } catch (const std::runtime_error&) {
      // Not allowed here (no CAP_SYS_ADMIN, a container) or not supported: a watch per directory.
    }
  }
  return std::make_unique<CInotifyWatcher>(root, std::move(excluded), cross_mounts);
}

void WalkBelow(const std::string& root, const std::string& top, uint64_t device, bool cross_mounts,
               const CTreeWatcher::CExcluded& excluded,
               const std::function<bool(const std::string&)>& enter,
               const std::function<void(const std::string& child, bool directory)>& found) {
  std::vector<std::string> pending{top};
  while (!pending.empty()) {
    std::string directory = std::move(pending.back());
    pending.pop_back();
    if (!enter(directory)) continue;
    int fd = ::open(JoinedPath(root, directory).c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;
    DIR* listing = ::fdopendir(fd);
    if (listing == nullptr) {
      ::close(fd);
      continue;
    }
    while (const struct dirent* entry = ::readdir(listing)) {
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      std::string child = JoinRelative(directory, name);
      struct stat status {};
      bool is_directory = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN || is_directory) {
        if (::fstatat(::dirfd(listing), name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        is_directory = S_ISDIR(status.st_mode);
      }
      if (excluded && excluded(child, is_directory)) continue;
      if (is_directory && !cross_mounts && status.st_dev != device)
        continue;  // another file system
      found(child, is_directory);
      if (is_directory) pending.push_back(std::move(child));
    }
    ::closedir(listing);
  }
}

size_t ReadQueued(int fd, char* buffer, size_t size) {
  for (;;) {
    ssize_t length = ::read(fd, buffer, size);
    if (length >= 0) return static_cast<size_t>(length);
    if (errno == EINTR) continue;
    if (errno == EAGAIN) return 0;
    throw std::runtime_error(std::string("cannot read the file events: ") + std::strerror(errno));
  }
}

void ReportTreeBelow(const std::string& root, const std::string& top,
                     const CTreeWatcher::CExcluded& excluded, bool cross_mounts,
                     std::vector<CWatchEvent>& events) {
  struct stat top_status {};
  if (::lstat(JoinedPath(root, top).c_str(), &top_status) != 0 || !S_ISDIR(top_status.st_mode))
    return;
  WalkBelow(
      root, top, top_status.st_dev, cross_mounts, excluded, [](const std::string&) { return true; },
      [&events](const std::string& child, bool directory) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, child, "", directory});
      });
}
