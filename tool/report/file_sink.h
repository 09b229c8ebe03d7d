#pragma once

#include <memory>
#include <string>

#include "refhost/file_descriptor.h"
#include "tool/report/stream_sinks.h"

// A report appended to a file, a line per entry: the report's time, "policy NAME: " and the line
// a person reads. The file is made owner-only and never opened through a symbolic link. Throws
// CToolError when it cannot be opened or written.
class CFileSink : public CTextLineSink {
 public:
  explicit CFileSink(std::string path);

 private:
  void Put(CEntry entry, const CReportContext& context, const std::string& line) override;

  std::string path_;
  CFileDescriptor fd_;
};

// The sink that --report DESTINATION names:
//   "syslog"        the system log socket /dev/log (journald reads it too; "journal" is the same)
//   "syslog:SOCKET" another system log socket (a chroot's, say)
//   "file:PATH"     appended to PATH
// Throws CToolError for a destination it does not know or cannot reach.
std::unique_ptr<CReportSink> MakeReportDestination(const std::string& destination);
