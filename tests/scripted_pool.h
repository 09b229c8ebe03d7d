#pragma once

#include <deque>
#include <functional>
#include <mutex>

#include "host/thread_pool.h"

// A pool that runs nothing by itself: tasks wait until the test runs them, and the all-finished
// answer is what the test scripted, so a walk's waiting can be observed without real waiting.
class CScriptedPool : public CThreadPool {
 public:
  // The first "unfinished_answers" questions are answered "not finished"; the next one runs every
  // queued task first (when "run_when_finished") and answers "finished".
  explicit CScriptedPool(int unfinished_answers, bool run_when_finished = true)
      : unfinished_answers_(unfinished_answers), run_when_finished_(run_when_finished) {}

  void Submit(std::function<void()> task) override {
    std::lock_guard<std::mutex> guard(lock_);
    queue_.push_back(std::move(task));
  }
  void FinishRun() override { ++finished_runs; }
  void PrepareRun() override { ++prepared_runs; }
  uint32_t ThreadCount() override { return 1; }
  std::string StatusText() override { return " [scripted pool]"; }
  bool AllFinished() override {
    ++questions;
    if (unfinished_answers_-- > 0) return false;
    if (run_when_finished_) RunQueued();
    return true;
  }
  bool WaitAllFinished(uint32_t) override {
    ++waits;
    return false;
  }

  // Runs queued tasks, including those they submit, until none is left.
  void RunQueued() {
    for (;;) {
      std::function<void()> task;
      {
        std::lock_guard<std::mutex> guard(lock_);
        if (queue_.empty()) return;
        task = std::move(queue_.front());
        queue_.pop_front();
      }
      task();
    }
  }
  size_t Queued() {
    std::lock_guard<std::mutex> guard(lock_);
    return queue_.size();
  }

  int prepared_runs = 0;
  int finished_runs = 0;
  int questions = 0;
  int waits = 0;

 private:
  int unfinished_answers_;
  bool run_when_finished_;
  std::mutex lock_;
  std::deque<std::function<void()>> queue_;
};

// A reference host whose worker pool is the given one.
template <typename Host>
class CHostWithPool : public Host {
 public:
  CHostWithPool(const CRefSettings& settings, std::shared_ptr<CThreadPool> pool)
      : Host(settings), pool_(std::move(pool)) {}
  const std::shared_ptr<CThreadPool>& ThreadPool() override { return pool_; }

 private:
  std::shared_ptr<CThreadPool> pool_;
};
