#include "tool/report/report_sink.h"

CReportSummary CReportSummary::Of(const CTreeCheckResult& result, bool accepted) {
  CReportSummary summary;
  summary.checked = result.checked;
  summary.bytes = result.bytes;
  summary.seconds = result.seconds;
  summary.differences = result.differences.size();
  summary.unreadable = result.unreadable.size();
  summary.accepted = accepted;
  summary.from_live_record = result.from_live_record;
  for (const CDifference& difference : result.differences) {
    ++summary.changes[difference.words];
    ++summary.by_severity[static_cast<int>(difference.severity)];
  }
  return summary;
}

void CReportSinks::Difference(const CDifference& difference, const CReportContext& context,
                              const char* watch_event) {
  for (CReportSink* sink : sinks_) sink->Difference(difference, context, watch_event);
}

void CReportSinks::Unreadable(const std::string& relative_path, const std::string& reason,
                              const CReportContext& context) {
  for (CReportSink* sink : sinks_) sink->Unreadable(relative_path, reason, context);
}

void CReportSinks::Summary(const CReportSummary& summary, const CReportContext& context) {
  for (CReportSink* sink : sinks_) sink->Summary(summary, context);
}

void CReportSinks::Flush() {
  for (CReportSink* sink : sinks_) sink->Flush();
}

void SendCheckResult(CReportSink& sink, const CTreeCheckResult& result,
                     const CReportContext& context, bool accepted) {
  for (const CDifference& difference : result.differences) sink.Difference(difference, context);
  for (const auto& [path, reason] : result.unreadable) sink.Unreadable(path, reason, context);
  sink.Summary(CReportSummary::Of(result, accepted), context);
}
