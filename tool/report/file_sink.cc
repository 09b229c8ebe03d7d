#include "tool/report/file_sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tool/common/exit_status.h"
#include "tool/report/report_event.h"
#include "tool/report/system_log.h"

CFileSink::CFileSink(std::string path)
    : path_(std::move(path)),
      fd_(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
  if (!fd_.valid())
    throw CToolError("cannot append the report to " + path_ + ": " + std::strerror(errno));
}

void CFileSink::Put(CEntry, const CReportContext& context, const std::string& line) {
  std::string text = context.timestamp + " policy " + context.policy + ": " + line + "\n";
  if (::write(fd_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw CToolError("cannot append the report to " + path_ + ": " + std::strerror(errno));
  }
}

std::unique_ptr<CReportSink> MakeReportDestination(const std::string& destination) {
  if (destination == "syslog" || destination == "journal")
    return std::make_unique<CSystemLogSink>(CSystemLog::kDefaultSocket);
  if (destination.rfind("syslog:", 0) == 0 && destination.size() > 7)
    return std::make_unique<CSystemLogSink>(destination.substr(7));
  if (destination.rfind("file:", 0) == 0 && destination.size() > 5)
    return std::make_unique<CFileSink>(destination.substr(5));
  throw CToolError("--report takes syslog, journal, syslog:SOCKET or file:PATH (got '" +
                   destination + "')");
}
