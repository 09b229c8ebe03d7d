#include "tool/fleet/fleet_change_sink.h"

#include <ctime>
#include <iostream>
#include <utility>

#include "tool/change/difference.h"
#include "tool/report/change_text.h"
#include "tool/report/report_event.h"
#include "util/safe_text.h"

CFleetChangeSink::CFleetChangeSink(std::shared_ptr<CFleetPublisher> publisher, bool deliver)
    : publisher_(std::move(publisher)), deliver_(deliver) {}

void CFleetChangeSink::Difference(const CDifference& difference, const CReportContext& context,
                                  const char* watch_event) {
  CFleetChange change;
  change.time = static_cast<uint64_t>(std::time(nullptr));
  change.dataset = context.dataset;
  change.policy = context.policy;
  change.path = difference.path;
  change.change = difference.words;
  change.severity = SeverityWord(difference.severity);
  change.event = DifferenceJson(difference, context, watch_event);
  change.text = DifferenceText(difference, CLineForm::kLong);
  changes_.push_back(std::move(change));
}

void CFleetChangeSink::Summary(const CReportSummary&, const CReportContext& context) {
  if (context.dataset == "check") checked_policies_.push_back(context.policy);
}

void CFleetChangeSink::Flush() {
  if (changes_.empty() && checked_policies_.empty()) return;
  try {
    publisher_->SpoolChanges(changes_, checked_policies_);
    spooled_ = true;
  } catch (const std::exception& e) {
    std::cerr << "signdb: change lines not published to the fleet store: " << EscapedText(e.what())
              << "\n";
  }
  size_t lines = changes_.size();
  changes_.clear();
  checked_policies_.clear();
  if (!deliver_) return;
  try {
    publisher_->Deliver();
    if (lines > 0) {
      std::cerr << "signdb: " << lines << (lines == 1 ? " change line" : " change lines")
                << " published to the fleet store at " << publisher_->settings().url << "\n";
    }
  } catch (const std::exception& e) {
    std::cerr << "signdb: " << lines << (lines == 1 ? " change line" : " change lines")
              << " kept in the fleet spool " << publisher_->spool().folder()
              << " until the store takes them (" << EscapedText(e.what()) << ")\n";
  }
}

bool CFleetChangeSink::TakeSpooled() {
  bool spooled = spooled_;
  spooled_ = false;
  return spooled;
}
