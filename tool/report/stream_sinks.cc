#include "tool/report/stream_sinks.h"

#include "tool/report/change_text.h"
#include "tool/report/report_event.h"

void CTextSink::Difference(const CDifference& difference, const CReportContext&, const char*) {
  out_ << DifferenceText(difference) << "\n";
}

void CTextSink::Unreadable(const std::string& relative_path, const std::string& reason,
                           const CReportContext&) {
  out_ << UnreadableText(relative_path, reason) << "\n";
}

void CTextSink::Summary(const CReportSummary& summary, const CReportContext& context) {
  out_ << SummaryText(summary, context) << "\n";
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
