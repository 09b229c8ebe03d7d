#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/thread_pool.h"

class CLogService;

// A fixed set of worker threads over one queue. "Finished" means that every task submitted so
// far, by any caller, has run to its end; tasks may submit further tasks, which count before the
// submitting task ends, so the pool never looks finished half-way through a run.
//
// Thread safety: every operation may be called from any thread, tasks included. State below is
// guarded by lock_.
class CRefThreadPool : public CThreadPool {
 public:
  // "threads" 0 uses the hardware threads. "log" receives the errors of tasks that throw.
  CRefThreadPool(uint32_t threads, std::shared_ptr<CLogService> log);
  ~CRefThreadPool() override;

  CRefThreadPool(const CRefThreadPool&) = delete;
  CRefThreadPool& operator=(const CRefThreadPool&) = delete;

  void Submit(std::function<void()> task) override;
  void FinishRun() override;
  void PrepareRun() override;
  uint32_t ThreadCount() override;
  std::string StatusText() override;
  bool AllFinished() override;
  bool WaitAllFinished(uint32_t ms) override;

 private:
  void Work();

  std::shared_ptr<CLogService> log_;
  std::mutex lock_;
  std::condition_variable work_ready_;
  std::condition_variable all_finished_;
  std::deque<std::function<void()>> queue_;
  uint64_t unfinished_ = 0;  // queued plus running
  uint64_t running_ = 0;
  uint64_t completed_ = 0;
  uint64_t failed_ = 0;
  uint64_t runs_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;  // last: started after the state above exists
};
