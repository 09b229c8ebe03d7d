#include "tool/watch/inotify_watcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tool/report/report_event.h"
#include "util/relative_path.h"

namespace {

// What a watch reports. IN_MODIFY as well as IN_CLOSE_WRITE: a writer that keeps a file open (a
// log, a database) must not hide its changes until it closes.
constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                           IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                           IN_DONT_FOLLOW | IN_EXCL_UNLINK;

}  // namespace

const char* EventKindName(CWatchEvent::CKind kind) {
  switch (kind) {
    case CWatchEvent::CKind::kWritten:
      return "written";
    case CWatchEvent::CKind::kAttributes:
      return "attributes";
    case CWatchEvent::CKind::kCreated:
      return "created";
    case CWatchEvent::CKind::kRemoved:
      return "removed";
    case CWatchEvent::CKind::kMoved:
      return "moved";
    case CWatchEvent::CKind::kLost:
      return "lost";
  }
  return "unknown";
}

CInotifyWatcher::CInotifyWatcher(std::string root, CExcluded excluded, bool cross_mounts)
    : root_(std::move(root)), excluded_(std::move(excluded)), cross_mounts_(cross_mounts) {
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  struct stat status {};
  if (::stat(root_.c_str(), &status) != 0) {
    throw std::runtime_error("cannot watch " + root_ + ": " + std::strerror(errno));
  }
  root_device_ = status.st_dev;
  fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) throw std::runtime_error(std::string("cannot use inotify: ") + std::strerror(errno));
  if (!WatchDirectory("")) {
    int error = errno;
    ::close(fd_);
    throw std::runtime_error("cannot watch " + root_ + ": " + std::strerror(error));
  }
  WatchTree("", nullptr);
}

CInotifyWatcher::~CInotifyWatcher() {
  if (fd_ >= 0) ::close(fd_);
}

bool CInotifyWatcher::WatchDirectory(const std::string& relative) {
  int wd = ::inotify_add_watch(fd_, JoinedPath(root_, relative).c_str(), kMask);
  if (wd < 0) {
    ++unwatched_;
    return false;
  }
  // The same directory may come back under another name (a watch is of the inode): the new
  // name holds.
  auto known = paths_.find(wd);
  if (known != paths_.end()) watches_.erase(known->second);
  paths_[wd] = relative;
  watches_[relative] = wd;
  return true;
}

void CInotifyWatcher::WatchTree(const std::string& top, std::vector<CWatchEvent>* report) {
  // Each directory is listed after its watch is in place: nothing created meanwhile is missed.
  WalkBelow(
      root_, top, root_device_, cross_mounts_, excluded_,
      [this](const std::string& directory) {
        return directory.empty() || watches_.count(directory) != 0 || WatchDirectory(directory);
      },
      [report](const std::string& child, bool directory) {
        if (report != nullptr)
          report->push_back(CWatchEvent{CWatchEvent::CKind::kCreated, child, "", directory});
      });
}

void CInotifyWatcher::ForgetTree(const std::string& top) {
  for (auto it = watches_.begin(); it != watches_.end();) {
    if (!top.empty() && IsBelowOrSame(it->first, top)) {
      ::inotify_rm_watch(fd_, it->second);
      paths_.erase(it->second);
      it = watches_.erase(it);
    } else {
      ++it;
    }
  }
}

void CInotifyWatcher::RenameTree(const std::string& from, const std::string& to) {
  std::vector<std::pair<std::string, int>> moved;
  for (auto it = watches_.begin(); it != watches_.end();) {
    if (IsBelowOrSame(it->first, from)) {
      moved.emplace_back(to + it->first.substr(from.size()), it->second);
      it = watches_.erase(it);
    } else {
      ++it;
    }
  }
  for (auto& [path, wd] : moved) {
    paths_[wd] = path;
    watches_[path] = wd;
  }
}

void CInotifyWatcher::Read(std::vector<CWatchEvent>& events) {
  alignas(struct inotify_event) char buffer[64 * 1024];
  // The first half of a rename, waiting for its second: they come one after the other.
  bool have_from = false;
  uint32_t from_cookie = 0;
  CWatchEvent from;
  auto settle_from = [&] {
    // Its other half never came: moved out of the tree.
    if (!have_from) return;
    have_from = false;
    if (from.directory) ForgetTree(from.path);
    from.kind = CWatchEvent::CKind::kRemoved;
    events.push_back(std::move(from));
  };
  for (size_t length; (length = ReadQueued(fd_, buffer, sizeof buffer)) > 0;) {
    for (char* at = buffer; at < buffer + length;) {
      const auto* raw = reinterpret_cast<const struct inotify_event*>(at);
      at += sizeof(struct inotify_event) + raw->len;
      if (raw->mask & IN_Q_OVERFLOW) {
        settle_from();
        events.push_back(CWatchEvent{CWatchEvent::CKind::kLost, "", "", true});
        continue;
      }
      auto directory = paths_.find(raw->wd);
      if (directory == paths_.end()) continue;  // a watch already forgotten
      if (raw->mask & IN_IGNORED) {
        watches_.erase(directory->second);
        paths_.erase(directory);
        continue;
      }
      bool is_directory = (raw->mask & IN_ISDIR) != 0;
      if (raw->len == 0 || raw->name[0] == '\0') {
        // The watched directory itself: its attributes, or the root gone or moved away.
        if (raw->mask & IN_ATTRIB) {
          settle_from();
          events.push_back(
              CWatchEvent{CWatchEvent::CKind::kAttributes, directory->second, "", true});
        } else if ((raw->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) && directory->second.empty()) {
          settle_from();
          events.push_back(CWatchEvent{CWatchEvent::CKind::kLost, "", "", true});
        }
        continue;
      }
      std::string path = JoinRelative(directory->second, raw->name);
      if (excluded_ && excluded_(path, is_directory)) continue;
      if (raw->mask & IN_MOVED_TO) {
        if (have_from && from_cookie == raw->cookie) {
          have_from = false;
          if (from.directory) RenameTree(from.path, path);
          events.push_back(
              CWatchEvent{CWatchEvent::CKind::kMoved, path, std::move(from.path), is_directory});
          continue;
        }
        settle_from();
        // Moved in from outside the tree: new, with everything below it.
        events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, path, "", is_directory});
        if (is_directory) WatchTree(path, &events);
        continue;
      }
      settle_from();
      if (raw->mask & IN_MOVED_FROM) {
        have_from = true;
        from_cookie = raw->cookie;
        from = CWatchEvent{CWatchEvent::CKind::kMoved, path, "", is_directory};
      } else if (raw->mask & IN_CREATE) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, path, "", is_directory});
        if (is_directory) WatchTree(path, &events);
      } else if (raw->mask & IN_DELETE) {
        if (is_directory) ForgetTree(path);
        events.push_back(CWatchEvent{CWatchEvent::CKind::kRemoved, path, "", is_directory});
      } else if (raw->mask & (IN_CLOSE_WRITE | IN_MODIFY)) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kWritten, path, "", false});
      } else if (raw->mask & IN_ATTRIB) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kAttributes, path, "", is_directory});
      }
    }
  }
  settle_from();
}
