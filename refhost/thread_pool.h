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
// Thread safety: every operation may be called from any thread, tasks included. The pool may
// even be destroyed by one of its own tasks (a task can hold the last reference to an owner of
// the pool): the workers share the pool's state, and the destroying worker is detached rather
// than joined.
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

  // Waits until no task is queued, running or still being released. Unlike "finished", this also
  // waits for the tasks' own destruction: before a plug-in is unloaded, no code of it may be left
  // in flight on a worker.
  void WaitIdle();

 private:
  struct CState;
  static void Work(const std::shared_ptr<CState>& state);

  std::shared_ptr<CState> state_;
  std::vector<std::thread> threads_;
};
