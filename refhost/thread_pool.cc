#include "refhost/thread_pool.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sstream>

#include "host/log_service.h"

namespace {
constexpr uint32_t kEventPool = 0x10013;
}

// Everything below "lock" is guarded by it.
struct CRefThreadPool::CState {
  explicit CState(std::shared_ptr<CLogService> log_service) : log(std::move(log_service)) {}
  std::shared_ptr<CLogService> log;
  std::mutex lock;
  std::condition_variable work_ready;
  std::condition_variable all_finished;
  std::condition_variable idle;
  std::deque<std::function<void()>> queue;
  uint64_t unfinished = 0;  // queued plus running
  uint64_t running = 0;
  uint64_t in_flight = 0;   // taken from the queue and not yet released
  uint64_t completed = 0;
  uint64_t failed = 0;
  uint64_t runs = 0;
  bool stopping = false;
};

CRefThreadPool::CRefThreadPool(uint32_t threads, std::shared_ptr<CLogService> log)
    : state_(std::make_shared<CState>(std::move(log))) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  threads_.reserve(threads);
  for (uint32_t i = 0; i < threads; ++i) threads_.emplace_back([state = state_] { Work(state); });
}

CRefThreadPool::~CRefThreadPool() {
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->stopping = true;
  }
  state_->work_ready.notify_all();
  for (std::thread& thread : threads_) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();  // destroyed by one of its own tasks: this worker ends on its own
    } else {
      thread.join();
    }
  }
}

void CRefThreadPool::Submit(std::function<void()> task) {
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->queue.push_back(std::move(task));
    ++state_->unfinished;
  }
  state_->work_ready.notify_one();
}

void CRefThreadPool::FinishRun() {}

void CRefThreadPool::PrepareRun() {
  std::lock_guard<std::mutex> guard(state_->lock);
  ++state_->runs;
}

uint32_t CRefThreadPool::ThreadCount() { return static_cast<uint32_t>(threads_.size()); }

std::string CRefThreadPool::StatusText() {
  std::lock_guard<std::mutex> guard(state_->lock);
  std::ostringstream text;
  text << " [pool] threads=" << threads_.size() << " queued=" << state_->queue.size()
       << " running=" << state_->running << " completed=" << state_->completed
       << " failed=" << state_->failed << " runs=" << state_->runs;
  return text.str();
}

bool CRefThreadPool::AllFinished() {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->unfinished == 0;
}

bool CRefThreadPool::WaitAllFinished(uint32_t ms) {
  std::unique_lock<std::mutex> guard(state_->lock);
  return state_->all_finished.wait_for(guard, std::chrono::milliseconds(ms),
                                       [this] { return state_->unfinished == 0; });
}

void CRefThreadPool::Work(const std::shared_ptr<CState>& state) {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> guard(state->lock);
      state->work_ready.wait(guard, [&state] { return state->stopping || !state->queue.empty(); });
      if (state->queue.empty()) return;  // stopping, and nothing left to do
      task = std::move(state->queue.front());
      state->queue.pop_front();
      ++state->running;
      ++state->in_flight;
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
    if (!ok && state->log) state->log->Error(kEventPool, "[pool] a task failed: " + error);
    bool finished = false;
    {
      std::lock_guard<std::mutex> guard(state->lock);
      --state->running;
      ++(ok ? state->completed : state->failed);
      finished = --state->unfinished == 0;
    }
    if (finished) state->all_finished.notify_all();
    // Released last, outside the lock: this may destroy the pool's owner, and the pool with it;
    // the state lives on in this worker.
    task = nullptr;
    bool idle = false;
    {
      std::lock_guard<std::mutex> guard(state->lock);
      idle = --state->in_flight == 0 && state->queue.empty();
    }
    if (idle) state->idle.notify_all();
  }
}

void CRefThreadPool::WaitIdle() {
  std::unique_lock<std::mutex> guard(state_->lock);
  state_->idle.wait(guard, [this] { return state_->in_flight == 0 && state_->queue.empty(); });
}
