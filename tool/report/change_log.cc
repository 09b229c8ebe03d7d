#include "tool/report/change_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tool/change/difference.h"
#include "tool/report/report_event.h"
#include "tool/report/system_log.h"

namespace {

int OpenForAppend(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0)
    throw std::runtime_error("cannot open the change log " + path + ": " + std::strerror(errno));
  return fd;
}

}  // namespace

CChangeLog::CChangeLog(std::string path, uint64_t rotate_at, const std::string& system_log)
    : path_(std::move(path)), rotate_at_(rotate_at) {
  fd_ = OpenForAppend(path_);
  struct stat status {};
  if (::fstat(fd_, &status) == 0) size_ = static_cast<uint64_t>(status.st_size);
  // The system log where something listens for it (the journal, a syslog daemon).
  if (!system_log.empty() && CSystemLog::Listens(system_log)) {
    try {
      system_log_ = std::make_unique<CSystemLog>(system_log);
    } catch (const std::exception&) {
      // The file keeps the changes.
    }
  }
}

CChangeLog::~CChangeLog() {
  Flush();
  if (fd_ >= 0) ::close(fd_);
}

void CChangeLog::Write(const std::string& line, int severity) {
  if (size_ > 0 && size_ + line.size() + 1 > rotate_at_) Rotate();
  pending_ += line;
  pending_ += '\n';
  size_ += line.size() + 1;
  if (system_log_) system_log_->Send(severity, line);  // a full or absent listener loses it
  if (pending_.size() >= kBuffer) Flush();
}

void CChangeLog::Difference(const CDifference& difference, const CReportContext& context,
                            const char* watch_event) {
  // A critical change reaches those who watch the system log for critical messages.
  int severity = difference.severity == CSeverity::kCritical ? LOG_CRIT
                 : difference.severity == CSeverity::kHigh   ? LOG_WARNING
                                                             : LOG_NOTICE;
  Write(DifferenceJson(difference, context, watch_event), severity);
}

void CChangeLog::Flush() {
  size_t written = 0;
  while (fd_ >= 0 && written < pending_.size()) {
    ssize_t length = ::write(fd_, pending_.data() + written, pending_.size() - written);
    if (length < 0) {
      if (errno == EINTR) continue;
      break;  // a full disk loses log lines, never the service
    }
    written += static_cast<size_t>(length);
  }
  pending_.clear();
}

void CChangeLog::Rotate() {
  Flush();
  ::close(fd_);
  for (int i = kKept - 1; i >= 1; --i) {
    std::rename((path_ + "." + std::to_string(i)).c_str(),
                (path_ + "." + std::to_string(i + 1)).c_str());
  }
  std::rename(path_.c_str(), (path_ + ".1").c_str());
  size_ = 0;
  try {
    fd_ = OpenForAppend(path_);
  } catch (const std::runtime_error&) {
    fd_ = -1;  // the system log still gets the lines; the next rotation tries the file again
  }
}
