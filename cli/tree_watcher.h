#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/watch_event.h"

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
std::unique_ptr<CTreeWatcher> MakeTreeWatcher(const std::string& root, CTreeWatcher::CExcluded excluded,
                                              bool cross_mounts, bool force_inotify);

// Every object below the directory "top" (relative to "root"), "top" left out, as created events:
// what a directory brought with it when it appeared. Other file systems are not entered (unless
// "cross_mounts"), excluded paths are left out.
void ReportTreeBelow(const std::string& root, const std::string& top, const CTreeWatcher::CExcluded& excluded,
                     bool cross_mounts, std::vector<CWatchEvent>& events);
