#include "tool/scan/progress_line.h"

#include <unistd.h>

#include <cstdio>

#include "tool/scan/tree_scanner.h"
#include "util/text_format.h"

CProgressLine::CProgressLine(std::string label, const CScanCounters& counters, bool quiet)
    : label_(std::move(label)), counters_(counters) {
  if (quiet || !::isatty(STDERR_FILENO)) return;
  painter_ = std::thread([this] {
    std::unique_lock<std::mutex> guard(lock_);
    Draw();  // at once, so that even a short scan says what it did on a terminal
    while (!stop_signal_.wait_for(guard, std::chrono::milliseconds(250), [this] { return stop_; }))
      Draw();
  });
}

CProgressLine::~CProgressLine() {
  if (!painter_.joinable()) return;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
  }
  stop_signal_.notify_all();
  painter_.join();
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
}

void CProgressLine::Draw() {
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  uint64_t objects = counters_.objects.load(std::memory_order_relaxed);
  uint64_t rate = seconds > 0 ? static_cast<uint64_t>(static_cast<double>(objects) / seconds) : 0;
  std::string line = label_ + ": " + GroupedNumber(objects) + " objects, " +
                     ByteSize(counters_.bytes.load(std::memory_order_relaxed)) + ", " +
                     GroupedNumber(rate) + " objects/s";
  if (uint64_t unreadable = counters_.unreadable.load(std::memory_order_relaxed)) {
    line += ", " + GroupedNumber(unreadable) + " unreadable";
  }
  std::fprintf(stderr, "\r%s\033[K", line.c_str());
  std::fflush(stderr);
}
