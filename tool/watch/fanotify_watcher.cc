#include "tool/watch/fanotify_watcher.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "util/relative_path.h"

namespace {

// Entries coming and going (a rename as one event with both places), content written, attributes
// changed; for directories as well as files.
constexpr uint64_t kMask =
    FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_CLOSE_WRITE | FAN_MODIFY | FAN_ATTRIB | FAN_ONDIR;

// A directory's path cannot be told from a handle that is not cached: more than this many
// directories, and the cache starts again (it is refilled by the events that need it).
constexpr size_t kMostCachedDirectories = 65536;

const char kOutside[] = "\n";  // cached for handles of directories outside the root

}  // namespace

CFanotifyWatcher::CFanotifyWatcher(std::string root, CExcluded excluded)
    : root_(std::move(root)), excluded_(std::move(excluded)) {
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  size_t slash = root_.rfind('/');
  root_parent_ = slash == 0 ? "/" : root_.substr(0, slash);
  root_name_ = root_.substr(slash + 1);
  fd_ = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME_TARGET,
                        O_RDONLY | O_LARGEFILE | O_CLOEXEC);
  if (fd_ < 0) throw std::runtime_error(std::string("fanotify: ") + std::strerror(errno));
  if (::fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kMask, AT_FDCWD, root_.c_str()) !=
      0) {
    int error = errno;
    ::close(fd_);
    throw std::runtime_error("fanotify on " + root_ + ": " + std::strerror(error));
  }
  mount_fd_ = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY |
                                        O_CLOEXEC);  // not O_PATH: open_by_handle_at refuses it
  if (mount_fd_ < 0) {
    int error = errno;
    ::close(fd_);
    throw std::runtime_error("cannot open " + root_ + ": " + std::strerror(error));
  }
}

CFanotifyWatcher::~CFanotifyWatcher() {
  if (mount_fd_ >= 0) ::close(mount_fd_);
  if (fd_ >= 0) ::close(fd_);
}

bool CFanotifyWatcher::DirectoryOf(const void* handle_bytes, std::string& relative) {
  // The handle as the event holds it, which need not be aligned for its type: copied out.
  unsigned int size = 0;
  std::memcpy(&size, handle_bytes, sizeof size);
  if (size > MAX_HANDLE_SZ) return false;
  std::string key(static_cast<const char*>(handle_bytes), sizeof(struct file_handle) + size);
  auto cached = directories_.find(key);
  if (cached != directories_.end()) {
    if (cached->second == kOutside) return false;
    relative = cached->second;
    return true;
  }
  alignas(struct file_handle) unsigned char aligned[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  std::memcpy(aligned, key.data(), key.size());
  auto* handle = reinterpret_cast<struct file_handle*>(aligned);
  int fd = ::open_by_handle_at(mount_fd_, handle, O_PATH | O_CLOEXEC);
  if (fd < 0) return false;  // gone meanwhile: its parent's event says so
  char path[PATH_MAX];
  std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t length = ::readlink(link.c_str(), path, sizeof path - 1);
  ::close(fd);
  if (length <= 0) return false;
  std::string full(path, static_cast<size_t>(length));
  if (directories_.size() >= kMostCachedDirectories) directories_.clear();
  if (full == root_) {
    relative.clear();
  } else if (root_ == "/" && full.size() > 1) {
    relative = full.substr(1);
  } else if (full.size() > root_.size() && full.compare(0, root_.size(), root_) == 0 &&
             full[root_.size()] == '/') {
    relative = full.substr(root_.size() + 1);
  } else {
    // Outside the root, or the root's own directory: only the root's removal matters there.
    directories_.emplace(std::move(key), kOutside);
    if (full == root_parent_) {
      relative = std::string(1, '\0');  // the root's parent, told apart from any path below
      return true;
    }
    return false;
  }
  directories_.emplace(std::move(key), relative);
  return true;
}

void CFanotifyWatcher::Read(std::vector<CWatchEvent>& events) {
  alignas(struct fanotify_event_metadata) char buffer[64 * 1024];
  for (size_t length; (length = ReadQueued(fd_, buffer, sizeof buffer)) > 0;) {
    // Events follow each other at lengths that keep no alignment: each part is copied out.
    for (size_t offset = 0; offset + sizeof(struct fanotify_event_metadata) <= length;) {
      struct fanotify_event_metadata metadata {};
      std::memcpy(&metadata, buffer + offset, sizeof metadata);
      if (metadata.event_len < sizeof metadata || offset + metadata.event_len > length) break;
      const struct fanotify_event_metadata* event = &metadata;
      const char* info = buffer + offset + metadata.metadata_len;
      const char* end = buffer + offset + metadata.event_len;
      offset += metadata.event_len;
      if (event->vers != FANOTIFY_METADATA_VERSION)
        throw std::runtime_error("fanotify: unknown event format");
      if (event->fd >= 0) ::close(event->fd);
      if (event->mask & FAN_Q_OVERFLOW) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kLost, "", "", true});
        continue;
      }
      bool directory = (event->mask & FAN_ONDIR) != 0;
      // The places the event names: one (directory, name), or a rename's old and new.
      std::string where, from;
      bool have_where = false, have_from = false;
      bool root_gone = false;
      while (info + sizeof(struct fanotify_event_info_header) <= end) {
        struct fanotify_event_info_header header {};
        std::memcpy(&header, info, sizeof header);
        if (header.len == 0 || info + header.len > end) break;
        uint8_t type = header.info_type;
        // The header, the file system's id, then the handle (its size, its type, its bytes) and,
        // for these, the entry's name.
        constexpr size_t kHandleAt =
            sizeof(struct fanotify_event_info_header) + sizeof(__kernel_fsid_t);
        if ((type == FAN_EVENT_INFO_TYPE_DFID_NAME || type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME ||
             type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME) &&
            kHandleAt + sizeof(struct file_handle) <= header.len) {
          const char* handle = info + kHandleAt;
          unsigned int handle_size = 0;
          std::memcpy(&handle_size, handle, sizeof handle_size);
          const char* name = handle + sizeof(struct file_handle) + handle_size;
          std::string directory_path;
          if (name < info + header.len && DirectoryOf(handle, directory_path)) {
            bool parent_of_root = directory_path.size() == 1 && directory_path[0] == '\0';
            if (parent_of_root) {
              if (name == root_name_ && (event->mask & (FAN_DELETE | FAN_RENAME))) root_gone = true;
            } else {
              std::string path = JoinRelative(directory_path, name);
              if (type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME) {
                from = std::move(path);
                have_from = true;
              } else {
                where = std::move(path);
                have_where = true;
              }
            }
          }
        }
        info += header.len;
      }
      if (root_gone) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kLost, "", "", true});
        continue;
      }
      if (have_where && excluded_ && excluded_(where, directory)) have_where = false;
      if (have_from && excluded_ && excluded_(from, directory)) have_from = false;
      if (event->mask & FAN_RENAME) {
        if (directory) directories_.clear();  // paths below the directory changed
        if (have_from && have_where) {
          events.push_back(CWatchEvent{CWatchEvent::CKind::kMoved, where, from, directory});
        } else if (have_from) {
          events.push_back(CWatchEvent{CWatchEvent::CKind::kRemoved, from, "", directory});
        } else if (have_where) {
          // Moved in from outside the tree: new, with everything below it.
          events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, where, "", directory});
          if (directory) ReportTreeBelow(root_, where, excluded_, false, events);
        }
        continue;
      }
      if (!have_where) continue;
      if (event->mask & FAN_CREATE) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kCreated, where, "", directory});
      } else if (event->mask & FAN_DELETE) {
        if (directory) directories_.clear();
        events.push_back(CWatchEvent{CWatchEvent::CKind::kRemoved, where, "", directory});
      } else if (event->mask & (FAN_CLOSE_WRITE | FAN_MODIFY)) {
        if (!directory)
          events.push_back(CWatchEvent{CWatchEvent::CKind::kWritten, where, "", false});
      } else if (event->mask & FAN_ATTRIB) {
        events.push_back(CWatchEvent{CWatchEvent::CKind::kAttributes, where, "", directory});
      }
    }
  }
}
