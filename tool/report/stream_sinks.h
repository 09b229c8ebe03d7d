#pragma once

#include <ostream>

#include "tool/report/change_text.h"
#include "tool/report/report_sink.h"

// A sink that writes every entry as the line a person reads (see change_text.h); where each line
// goes is the subclass's.
class CTextLineSink : public CReportSink {
 public:
  explicit CTextLineSink(CLineForm form = CLineForm::kLong) : form_(form) {}
  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string& relative_path, const std::string& reason,
                  const CReportContext& context) override;
  void Summary(const CReportSummary& summary, const CReportContext& context) override;

 protected:
  enum class CEntry { kDifference, kUnreadable, kSummary };
  virtual void Put(CEntry entry, const CReportContext& context, const std::string& line) = 0;

 private:
  CLineForm form_;
};

// A report for people on a stream (standard output): one line per entry.
class CTextSink : public CTextLineSink {
 public:
  explicit CTextSink(std::ostream& out, CLineForm form = CLineForm::kCompact)
      : CTextLineSink(form), out_(out) {}
  void Flush() override { out_.flush(); }

 private:
  void Put(CEntry, const CReportContext&, const std::string& line) override {
    out_ << line << "\n";
  }

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
