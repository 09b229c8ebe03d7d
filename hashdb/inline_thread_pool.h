#pragma once

#include <deque>
#include <functional>
#include <mutex>

#include "host/thread_pool.h"

// A pool without threads, for hosts that offer none: submitted tasks run on the thread that waits
// for them. Tasks may submit further tasks; they run in submission order.
class CInlineThreadPool : public CThreadPool {
 public:
  void Submit(std::function<void()> task) override {
    std::lock_guard<std::mutex> guard(lock_);
    queue_.push_back(std::move(task));
  }
  void FinishRun() override {}
  void PrepareRun() override {}
  uint32_t ThreadCount() override { return 1; }
  std::string StatusText() override { return " [pool] inline"; }
  bool AllFinished() override {
    std::lock_guard<std::mutex> guard(lock_);
    return queue_.empty();
  }
  bool WaitAllFinished(uint32_t) override {
    for (;;) {
      std::function<void()> task;
      {
        std::lock_guard<std::mutex> guard(lock_);
        if (queue_.empty()) return true;
        task = std::move(queue_.front());
        queue_.pop_front();
      }
      task();
    }
  }

 private:
  std::mutex lock_;
  std::deque<std::function<void()>> queue_;
};
