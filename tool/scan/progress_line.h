#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

struct CScanCounters;

// A line on the terminal that shows how far a scan has come (objects, bytes, rate), redrawn a few
// times a second on standard error and cleared at the end. Shows nothing when standard error is
// not a terminal or when the user asked for quiet.
class CProgressLine {
 public:
  CProgressLine(std::string label, const CScanCounters& counters, bool quiet);
  ~CProgressLine();  // clears the line
  CProgressLine(const CProgressLine&) = delete;
  CProgressLine& operator=(const CProgressLine&) = delete;

 private:
  void Draw();

  std::string label_;
  const CScanCounters& counters_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex lock_;
  std::condition_variable stop_signal_;
  bool stop_ = false;  // guarded by lock_
  std::thread painter_;
};
