#pragma once

#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "tool/report/report_sink.h"

class CSystemLog;

// Where the watch service writes every change it applies, one JSON line each: a file in the data
// folder that rotates (at kRotateAt bytes it becomes NAME.1, NAME.1 becomes NAME.2, up to
// kKept old files), and the system log (the journal takes it from there) where one listens, so
// that an administrator or a log shipper sees changes as they happen.
//
// As a report sink it takes the service's changes, each as its JSON line with the file event that
// led to it; a service has no summary, and objects it cannot read are counted, not logged.
//
// Not thread-safe: the service's one thread writes.
class CChangeLog : public CReportSink {
 public:
  static constexpr uint64_t kRotateAt = 16ull << 20;
  static constexpr int kKept = 3;
  static constexpr size_t kBuffer = 64u << 10;
  static constexpr const char* kSystemLog = "/dev/log";

  // Opens (or creates, owner-only) "path" for appending, and the system log at "system_log" when
  // something listens there ("" for none). Throws std::runtime_error when the file cannot be
  // opened.
  explicit CChangeLog(std::string path, uint64_t rotate_at = kRotateAt,
                      const std::string& system_log = kSystemLog);
  ~CChangeLog() override;
  CChangeLog(const CChangeLog&) = delete;
  CChangeLog& operator=(const CChangeLog&) = delete;

  // Appends one line (without its newline) and hands it to the system log. Lines are gathered and
  // written together by Flush (the service flushes before it waits for events again, and a full
  // buffer is flushed at once): a burst of changes costs a write per kBuffer bytes, not per line.
  // "severity": the system log's (LOG_NOTICE, LOG_WARNING, LOG_CRIT).
  void Write(const std::string& line, int severity = LOG_NOTICE);
  void Flush() override;

  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string&, const std::string&, const CReportContext&) override {}
  void Summary(const CReportSummary&, const CReportContext&) override {}
  const std::string& path() const { return path_; }
  // Whether something listened at the system log's socket when the log was opened.
  bool reaches_system_log() const { return system_log_ != nullptr; }

 private:
  void Rotate();

  std::string path_;
  uint64_t rotate_at_;
  int fd_ = -1;
  uint64_t size_ = 0;                       // of the file, with what is still buffered
  std::string pending_;                     // lines not written yet
  std::unique_ptr<CSystemLog> system_log_;  // where something listens at /dev/log
};
