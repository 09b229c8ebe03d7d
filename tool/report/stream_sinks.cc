#include "tool/report/stream_sinks.h"

#include "tool/report/change_text.h"
#include "tool/report/report_event.h"

void CTextLineSink::Difference(const CDifference& difference, const CReportContext& context,
                               const char*) {
  Put(CEntry::kDifference, context, DifferenceText(difference, form_));
  for (const std::string& line : difference.content)
    Put(CEntry::kDifference, context, "    " + line);
}

void CTextLineSink::Unreadable(const std::string& relative_path, const std::string& reason,
                               const CReportContext& context) {
  Put(CEntry::kUnreadable, context, UnreadableText(relative_path, reason));
}

void CTextLineSink::Summary(const CReportSummary& summary, const CReportContext& context) {
  Put(CEntry::kSummary, context, SummaryText(summary, context));
}

void CJsonSink::Difference(const CDifference& difference, const CReportContext& context,
                           const char* watch_event) {
  out_ << DifferenceJson(difference, context, watch_event) << "\n";
}

void CJsonSink::Unreadable(const std::string& relative_path, const std::string& reason,
                           const CReportContext& context) {
  out_ << UnreadableJson(relative_path, reason, context) << "\n";
}

void CJsonSink::Summary(const CReportSummary& summary, const CReportContext& context) {
  out_ << SummaryJson(summary, context) << "\n";
}
