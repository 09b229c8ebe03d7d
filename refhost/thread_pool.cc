#include "refhost/thread_pool.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sstream>

#include "host/log_service.h"

namespace {
constexpr uint32_t kEventPool = 0x10013;
}

CRefThreadPool::CRefThreadPool(uint32_t threads, std::shared_ptr<CLogService> log)
    : log_(std::move(log)) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  threads_.reserve(threads);
  for (uint32_t i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
}

CRefThreadPool::~CRefThreadPool() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  work_ready_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void CRefThreadPool::Submit(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    queue_.push_back(std::move(task));
    ++unfinished_;
  }
  work_ready_.notify_one();
}

void CRefThreadPool::FinishRun() {}

void CRefThreadPool::PrepareRun() {
  std::lock_guard<std::mutex> guard(lock_);
  ++runs_;
}

uint32_t CRefThreadPool::ThreadCount() { return static_cast<uint32_t>(threads_.size()); }

std::string CRefThreadPool::StatusText() {
  std::lock_guard<std::mutex> guard(lock_);
  std::ostringstream text;
  text << " [pool] threads=" << threads_.size() << " queued=" << queue_.size()
       << " running=" << running_ << " completed=" << completed_ << " failed=" << failed_
       << " runs=" << runs_;
  return text.str();
}

bool CRefThreadPool::AllFinished() {
  std::lock_guard<std::mutex> guard(lock_);
  return unfinished_ == 0;
}

bool CRefThreadPool::WaitAllFinished(uint32_t ms) {
  std::unique_lock<std::mutex> guard(lock_);
  return all_finished_.wait_for(guard, std::chrono::milliseconds(ms),
                                [this] { return unfinished_ == 0; });
}

void CRefThreadPool::Work() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> guard(lock_);
      work_ready_.wait(guard, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and nothing left to do
      task = std::move(queue_.front());
      queue_.pop_front();
      ++running_;
    }
    bool ok = true;
    std::string error;
    try {
      task();
    } catch (const std::exception& e) {
      ok = false;
      error = e.what();
    } catch (...) {
      ok = false;
      error = "unknown exception";
    }
    task = nullptr;  // release what the task holds before it counts as finished
    if (!ok && log_) log_->Error(kEventPool, "[pool] a task failed: " + error);
    bool finished = false;
    {
      std::lock_guard<std::mutex> guard(lock_);
      --running_;
      ++(ok ? completed_ : failed_);
      finished = --unfinished_ == 0;
    }
    if (finished) all_finished_.notify_all();
  }
}
