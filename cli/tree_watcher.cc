#include "cli/tree_watcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "cli/fanotify_watcher.h"
#include "cli/inotify_watcher.h"
#include "cli/relative_path.h"

std::unique_ptr<CTreeWatcher> MakeTreeWatcher(const std::string& root, CTreeWatcher::CExcluded excluded,
                                              bool cross_mounts, bool force_inotify) {
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

void ReportTreeBelow(const std::string& root, const std::string& top, const CTreeWatcher::CExcluded& excluded,
                     bool cross_mounts, std::vector<CWatchEvent>& events) {
  auto full = [&root](const std::string& relative) {
    if (relative.empty()) return root;
    return root == "/" ? "/" + relative : root + "/" + relative;
  };
  struct stat top_status {};
  if (::lstat(full(top).c_str(), &top_status) != 0 || !S_ISDIR(top_status.st_mode)) return;
  std::vector<std::string> pending{top};
  while (!pending.empty()) {
    std::string directory = std::move(pending.back());
    pending.pop_back();
    int fd = ::open(full(directory).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
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
      if (is_directory && !cross_mounts && status.st_dev != top_status.st_dev) continue;  // another file system
      events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, child, "", is_directory});
      if (is_directory) pending.push_back(std::move(child));
    }
    ::closedir(listing);
  }
}
