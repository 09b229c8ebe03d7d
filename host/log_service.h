#pragma once

#include <cstdint>
#include <string>

// The host's log: one operation per severity, each given an event code and the finished text.
// Safe for concurrent use from any thread. Operations are in slot order.
class CLogService {
 public:
  virtual ~CLogService() = default;
  virtual void Critical(uint32_t event, const std::string& text) = 0;     // slot 1
  virtual void Error(uint32_t event, const std::string& text) = 0;        // slot 2
  virtual void Warning(uint32_t event, const std::string& text) = 0;      // slot 3
  virtual void Notice(uint32_t event, const std::string& text) = 0;       // slot 4
  virtual void Information(uint32_t event, const std::string& text) = 0;  // slot 5
  virtual void Debug(uint32_t event, const std::string& text) = 0;        // slot 7
};
