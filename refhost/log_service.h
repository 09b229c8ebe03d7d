#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include "host/log_service.h"

// One line that the log received.
struct CLogRecord {
  Poco::Message::Priority priority;
  uint32_t event;
  std::string text;
};

// Writes every message to its sinks (console, file) as one line with time, severity and event
// code, e.g. "2026-11-22 10:00:00.123 Information 0x10013 HDB saved.Total nodes=3 ...".
// Keeps the lines it received in memory when asked to (tests and the tool's summaries).
// Thread-safe.
class CRefLogService : public CLogService {
 public:
  // "level": the lowest priority written to the sinks (POCO names: "debug", "information", ...).
  CRefLogService(const std::string& level, bool console, const std::string& file);

  void Critical(uint32_t event, const std::string& text) override;
  void Error(uint32_t event, const std::string& text) override;
  void Warning(uint32_t event, const std::string& text) override;
  void Notice(uint32_t event, const std::string& text) override;
  void Information(uint32_t event, const std::string& text) override;
  void Debug(uint32_t event, const std::string& text) override;

  void Write(Poco::Message::Priority priority, uint32_t event, const std::string& text);

  // Keeps the lines of priority "lowest" and above (all by default), whatever the sinks' level,
  // for Records().
  void KeepRecords(bool keep, Poco::Message::Priority lowest = Poco::Message::PRIO_TRACE);
  std::vector<CLogRecord> Records() const;
  void ClearRecords();

 private:
  Poco::AutoPtr<Poco::Channel> channel_;  // null: no sink
  int level_;
  mutable std::mutex records_lock_;
  bool keep_records_ = false;           // guarded by records_lock_
  Poco::Message::Priority lowest_kept_ = Poco::Message::PRIO_TRACE;  // guarded by records_lock_
  std::vector<CLogRecord> records_;     // guarded by records_lock_
};
