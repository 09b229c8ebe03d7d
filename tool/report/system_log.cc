#include "tool/report/system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "tool/common/exit_status.h"
#include "tool/report/report_event.h"

namespace {

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace

CSystemLog::CSystemLog(std::string socket_path)
    : path_(std::move(socket_path)), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  if (!fd_.valid() || path_.size() >= sizeof(sockaddr_un::sun_path)) {
    throw CToolError("cannot reach the system log at " + path_ + ": " +
                     std::strerror(fd_.valid() ? ENAMETOOLONG : errno));
  }
}

bool CSystemLog::Listens(const std::string& socket_path) {
  return ::access(socket_path.c_str(), W_OK) == 0;
}

bool CSystemLog::Send(int severity, const std::string& text) {
  char stamp[32];
  std::time_t now = std::time(nullptr);
  struct tm local {};
  ::localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  std::string datagram = "<" + std::to_string(LOG_DAEMON | severity) + ">" + stamp + " signdb[" +
                         std::to_string(::getpid()) + "]: " + text;
  sockaddr_un address = AddressOf(path_);
  if (::sendto(fd_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    error_ = std::strerror(errno);
    return false;
  }
  return true;
}

void CSystemLogSink::Put(CEntry entry, const CReportContext& context, const std::string& line) {
  int severity = entry == CEntry::kDifference   ? LOG_WARNING
                 : entry == CEntry::kUnreadable ? LOG_ERR
                                                : LOG_NOTICE;
  if (!log_.Send(severity, "policy " + context.policy + ": " + line)) {
    throw CToolError("cannot send to the system log at " + log_.path() + ": " + log_.error());
  }
}
