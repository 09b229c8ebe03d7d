#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tool/change/check_result.h"

struct CDifference;
struct CReportContext;

// What a check or an update found, counted for the report's last entry.
struct CReportSummary {
  uint64_t checked = 0;
  uint64_t bytes = 0;
  double seconds = 0;
  size_t differences = 0;
  size_t unreadable = 0;
  bool accepted = false;                    // an update took the differences in
  bool from_live_record = false;            // the watch service's record, not a walk, was read
  std::map<std::string, uint64_t> changes;  // how many of each kind, by the report's words
  uint64_t by_severity[4] = {0, 0, 0, 0};   // how many of each severity, by CSeverity

  static CReportSummary Of(const CTreeCheckResult& result, bool accepted);
};

// Where a report goes, entry by entry: every difference, every object that could not be read,
// and the summary. Each sink writes an entry in its own form as it comes (a line for people, a
// JSON line, a system log message, a line appended to a file, the watch service's change log);
// nothing is written in one form and read back to make another.
class CReportSink {
 public:
  virtual ~CReportSink() = default;
  // "watch_event" names the file event that led the watch service to the change; nullptr for
  // a check, an update or a diff.
  virtual void Difference(const CDifference& difference, const CReportContext& context,
                          const char* watch_event = nullptr) = 0;
  virtual void Unreadable(const std::string& relative_path, const std::string& reason,
                          const CReportContext& context) = 0;
  virtual void Summary(const CReportSummary& summary, const CReportContext& context) = 0;
  // Writes out what the sink gathered (it may gather entries until then).
  virtual void Flush() {}
};

// Several sinks as one: every entry goes to each, in the order they were added.
class CReportSinks : public CReportSink {
 public:
  void Add(CReportSink& sink) { sinks_.push_back(&sink); }
  void Add(std::unique_ptr<CReportSink> sink) {
    owned_.push_back(std::move(sink));
    sinks_.push_back(owned_.back().get());
  }

  void Difference(const CDifference& difference, const CReportContext& context,
                  const char* watch_event = nullptr) override;
  void Unreadable(const std::string& relative_path, const std::string& reason,
                  const CReportContext& context) override;
  void Summary(const CReportSummary& summary, const CReportContext& context) override;
  void Flush() override;

 private:
  std::vector<CReportSink*> sinks_;
  std::vector<std::unique_ptr<CReportSink>> owned_;
};

// Sends a check's result to the sink: its differences, its unreadable objects, then its summary.
// "accepted" says that an update took the differences into the database.
void SendCheckResult(CReportSink& sink, const CTreeCheckResult& result,
                     const CReportContext& context, bool accepted);
