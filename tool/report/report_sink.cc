#include "tool/report/report_sink.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sstream>
#include <vector>

#include "refhost/file_descriptor.h"
#include "refhost/settings.h"
#include "tool/common/exit_status.h"
#include "tool/report/check_report.h"
#include "tool/report/report_event.h"

namespace {

struct CMessage {
  int severity;
  std::string text;
};

// The report's lines with the severity each deserves: the last is the summary.
std::vector<CMessage> Messages(const CTreeCheckResult& result, const CRefPolicySettings& policy,
                               const CReportContext& context, bool accepted) {
  std::ostringstream text;
  PrintCheckReport(text, result, policy, context, false, accepted);
  std::vector<CMessage> messages;
  std::istringstream lines(text.str());
  size_t index = 0;
  size_t differences = result.differences.size();
  for (std::string line; std::getline(lines, line); ++index) {
    int severity = index < differences                              ? LOG_WARNING
                   : index < differences + result.unreadable.size() ? LOG_ERR
                                                                    : LOG_NOTICE;
    messages.push_back({severity, "policy " + policy.name + ": " + line});
  }
  return messages;
}

void SendToSyslog(const std::string& socket_path, const std::vector<CMessage>& messages) {
  CFileDescriptor fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!fd.valid() || socket_path.size() >= sizeof address.sun_path) {
    throw CToolError("cannot reach the system log at " + socket_path + ": " +
                     std::strerror(fd.valid() ? ENAMETOOLONG : errno));
  }
  std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
  char stamp[32];
  std::time_t now = std::time(nullptr);
  struct tm local {};
  ::localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  for (const CMessage& message : messages) {
    // RFC 3164, as the C library's syslog(3) writes it to the local socket.
    std::string datagram = "<" + std::to_string(LOG_DAEMON | message.severity) + ">" + stamp +
                           " signdb[" + std::to_string(::getpid()) + "]: " + message.text;
    if (::sendto(fd.get(), datagram.data(), datagram.size(), 0,
                 reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
      throw CToolError("cannot send to the system log at " + socket_path + ": " +
                       std::strerror(errno));
    }
  }
}

void AppendToFile(const std::string& path, const std::vector<CMessage>& messages,
                  const std::string& timestamp) {
  CFileDescriptor fd(
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd.valid())
    throw CToolError("cannot append the report to " + path + ": " + std::strerror(errno));
  std::string text;
  for (const CMessage& message : messages) text += timestamp + " " + message.text + "\n";
  if (::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw CToolError("cannot append the report to " + path + ": " + std::strerror(errno));
  }
}

}  // namespace

void SendReport(const std::string& destination, const CTreeCheckResult& result,
                const CRefPolicySettings& policy, const CReportContext& context, bool accepted) {
  std::vector<CMessage> messages = Messages(result, policy, context, accepted);
  if (destination == "syslog" || destination == "journal") {
    SendToSyslog("/dev/log", messages);
  } else if (destination.rfind("syslog:", 0) == 0 && destination.size() > 7) {
    SendToSyslog(destination.substr(7), messages);
  } else if (destination.rfind("file:", 0) == 0 && destination.size() > 5) {
    AppendToFile(destination.substr(5), messages, context.timestamp);
  } else {
    throw CToolError("--report takes syslog, journal, syslog:SOCKET or file:PATH (got '" +
                     destination + "')");
  }
}
