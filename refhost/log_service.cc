#include "refhost/log_service.h"

#include <Poco/ConsoleChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>

#include <cstdio>

#include "refhost/fallback_file_channel.h"
#include "util/safe_text.h"

CRefLogService::CRefLogService(const std::string& level, bool console, const std::string& file)
    : level_(Poco::Logger::parseLevel(level)) {
  Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
  bool any = false;
  if (console) {
    splitter->addChannel(Poco::AutoPtr<Poco::Channel>(new Poco::ConsoleChannel));
    any = true;
  }
  if (!file.empty()) {
    splitter->addChannel(Poco::AutoPtr<Poco::Channel>(new CFallbackFileChannel(file)));
    any = true;
  }
  if (any) {
    Poco::AutoPtr<Poco::PatternFormatter> formatter(
        new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i %q %[event] %t"));
    formatter->setProperty("times", "local");
    channel_ = new Poco::FormattingChannel(formatter, splitter);
    channel_->open();
  }
}

void CRefLogService::Critical(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_CRITICAL, event, text);
}
void CRefLogService::Error(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_ERROR, event, text);
}
void CRefLogService::Warning(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_WARNING, event, text);
}
void CRefLogService::Notice(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_NOTICE, event, text);
}
void CRefLogService::Information(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_INFORMATION, event, text);
}
void CRefLogService::Debug(uint32_t event, const std::string& text) {
  Write(Poco::Message::PRIO_DEBUG, event, text);
}

void CRefLogService::Write(Poco::Message::Priority priority, uint32_t event,
                           const std::string& text) {
  {
    std::lock_guard<std::mutex> guard(records_lock_);
    if (keep_records_ && priority <= lowest_kept_) records_.push_back(CLogRecord{priority, event, text});
  }
  if (!channel_ || priority > level_) return;
  // One message, one line: names inside a message cannot start another or recolour it.
  Poco::Message message("signdb", EscapedText(text), priority);
  char code[16];
  std::snprintf(code, sizeof code, "0x%05X", static_cast<unsigned>(event));
  message.set("event", code);
  channel_->log(message);
}

void CRefLogService::KeepRecords(bool keep, Poco::Message::Priority lowest) {
  std::lock_guard<std::mutex> guard(records_lock_);
  keep_records_ = keep;
  lowest_kept_ = lowest;
}

std::vector<CLogRecord> CRefLogService::Records() const {
  std::lock_guard<std::mutex> guard(records_lock_);
  return records_;
}

void CRefLogService::ClearRecords() {
  std::lock_guard<std::mutex> guard(records_lock_);
  records_.clear();
}
