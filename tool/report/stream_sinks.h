#pragma once

#include <ostream>

#include "tool/report/report_sink.h"

// A report for people on a stream (standard output): one line per entry.
class CTextSink : public CReportSink {
 public:
  explicit CTextSink(std::ostream& out) : out_(out) {}
  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string& relative_path, const std::string& reason,
                  const CReportContext& context) override;
  void Summary(const CReportSummary& summary, const CReportContext& context) override;
  void Flush() override { out_.flush(); }

 private:
  std::ostream& out_;
};

// A report for programs on a stream: one JSON object per line and entry (see report_event.h).
class CJsonSink : public CReportSink {
 public:
  explicit CJsonSink(std::ostream& out) : out_(out) {}
  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string& relative_path, const std::string& reason,
                  const CReportContext& context) override;
  void Summary(const CReportSummary& summary, const CReportContext& context) override;
  void Flush() override { out_.flush(); }

 private:
  std::ostream& out_;
};
