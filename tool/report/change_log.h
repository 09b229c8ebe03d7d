#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Where the watch service writes every change it applies, one JSON line each: a file in the data
// folder that rotates (at kRotateAt bytes it becomes NAME.1, NAME.1 becomes NAME.2, up to
// kKept old files), and the system log (the journal takes it from there) where one listens, so
// that an administrator or a log shipper sees changes as they happen.
//
// Not thread-safe: the service's one thread writes.
class CChangeLog {
 public:
  static constexpr uint64_t kRotateAt = 16ull << 20;
  static constexpr int kKept = 3;
  static constexpr size_t kBuffer = 64u << 10;

  // Opens (or creates, owner-only) "path" for appending. Throws std::runtime_error when it cannot.
  explicit CChangeLog(std::string path, uint64_t rotate_at = kRotateAt);
  ~CChangeLog();
  CChangeLog(const CChangeLog&) = delete;
  CChangeLog& operator=(const CChangeLog&) = delete;

  // Appends one line (without its newline) and hands it to the system log. Lines are gathered and
  // written together by Flush (the service flushes before it waits for events again, and a full
  // buffer is flushed at once): a burst of changes costs a write per kBuffer bytes, not per line.
  void Write(const std::string& line);
  void Flush();
  const std::string& path() const { return path_; }

 private:
  void Rotate();

  std::string path_;
  uint64_t rotate_at_;
  int fd_ = -1;
  uint64_t size_ = 0;    // of the file, with what is still buffered
  std::string pending_;  // lines not written yet
  bool system_log_ = false;
};
