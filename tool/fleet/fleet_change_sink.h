#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tool/fleet/fleet_publisher.h"
#include "tool/report/report_sink.h"

// The fleet's part of a report: every change line (the JSON line and the line for people) goes to
// the fleet store's changes, gathered until the report is flushed and spooled as one batch. A
// check's summary also tells the fleet that the host is alive (its publication, as of the last).
class CFleetChangeSink : public CReportSink {
 public:
  // "deliver": a command delivers at once and says on standard error what became of the lines;
  // the watch service only spools (its courier delivers, with back-off).
  CFleetChangeSink(std::shared_ptr<CFleetPublisher> publisher, bool deliver);

  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string&, const std::string&, const CReportContext&) override {}
  void Summary(const CReportSummary& summary, const CReportContext& context) override;
  void Flush() override;

  // Whether a flush spooled something since the last call (the courier's cue).
  bool TakeSpooled();

 private:
  std::shared_ptr<CFleetPublisher> publisher_;
  bool deliver_;
  std::vector<CFleetChange> changes_;
  std::vector<std::string> checked_policies_;  // whose check ended: the host is alive
  bool spooled_ = false;
};
