#pragma once

#include <string>

#include "refhost/file_descriptor.h"
#include "tool/report/stream_sinks.h"

// The system log's local socket (/dev/log, where journald and syslog daemons listen), written as
// the C library's syslog(3) writes it: one RFC 3164 datagram per message, facility daemon, tag
// "signdb" with the process id. One way of writing it for every report that goes there.
class CSystemLog {
 public:
  static constexpr const char* kDefaultSocket = "/dev/log";

  // Throws CToolError when no datagram socket can be made for "socket_path".
  explicit CSystemLog(std::string socket_path = kDefaultSocket);
  // Whether something may listen at "socket_path" (it is there and writable).
  static bool Listens(const std::string& socket_path = kDefaultSocket);

  // Sends one message with a severity of syslog.h (LOG_WARNING, ...); false when the socket took
  // nothing (no listener, a full queue), with why in error().
  bool Send(int severity, const std::string& text);
  const std::string& error() const { return error_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  CFileDescriptor fd_;
  std::string error_;
};

// A report sent to the system log: differences as warnings, unreadable objects as errors, the
// summary as a notice, each the line a person reads, after "policy NAME: ". Throws CToolError
// when a message cannot be sent.
class CSystemLogSink : public CTextLineSink {
 public:
  explicit CSystemLogSink(std::string socket_path) : log_(std::move(socket_path)) {}

 private:
  void Put(CEntry entry, const CReportContext& context, const std::string& line) override;

  CSystemLog log_;
};
