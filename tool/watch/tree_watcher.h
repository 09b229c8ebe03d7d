#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tool/watch/watch_event.h"

// Follows one policy's tree through the kernel's file events: fanotify where the process may use
// it (one mark for the whole file system, names reported with their directory), inotify otherwise
// (a watch per directory). Either reports changes as CWatchEvent, by root-relative paths.
//
// Not thread-safe: one thread reads the events.
class CTreeWatcher {
 public:
  // Whether a path (relative to the root) is left out: nothing is reported at or below it.
  using CExcluded = std::function<bool(const std::string& relative, bool directory)>;

  virtual ~CTreeWatcher() = default;
  // The descriptor to wait on (readable when events are queued).
  virtual int fd() const = 0;
  // Takes every event the kernel has queued, without waiting, and appends them to "events".
  virtual void Read(std::vector<CWatchEvent>& events) = 0;
  // "fanotify" or "inotify".
  virtual const char* kind() const = 0;
  // Directories whose changes are not followed (inotify's per-user limit of watches reached).
  virtual uint64_t unwatched() const = 0;
};

// The watcher for "root": fanotify unless "force_inotify", or unless the process may not use it
// (no CAP_SYS_ADMIN, a kernel or file system without names in its events, other file systems to
// follow with "cross_mounts"), then inotify. Throws std::runtime_error when neither can be used.
std::unique_ptr<CTreeWatcher> MakeTreeWatcher(const std::string& root,
                                              CTreeWatcher::CExcluded excluded, bool cross_mounts,
                                              bool force_inotify);

// Walks the directories at and below "top" (relative to "root"), depth first. "enter" is called
// with each directory before it is listed and may refuse it (false: it is not listed); "found"
// with each entry listed and whether it is a directory (whose own walk follows). Excluded paths
// are left out, and directories on another file system than "device" unless "cross_mounts".
void WalkBelow(const std::string& root, const std::string& top, uint64_t device, bool cross_mounts,
               const CTreeWatcher::CExcluded& excluded,
               const std::function<bool(const std::string&)>& enter,
               const std::function<void(const std::string& child, bool directory)>& found);

// Reads what the kernel has queued on the non-blocking event descriptor "fd" into "buffer";
// returns the bytes read, 0 when nothing more is queued. Throws std::runtime_error on failure.
size_t ReadQueued(int fd, char* buffer, size_t size);

// Every object below the directory "top" (relative to "root"), "top" left out, as created events:
// what a directory brought with it when it appeared. Other file systems are not entered (unless
// "cross_mounts"), excluded paths are left out.
void ReportTreeBelow(const std::string& root, const std::string& top,
                     const CTreeWatcher::CExcluded& excluded, bool cross_mounts,
                     std::vector<CWatchEvent>& events);
