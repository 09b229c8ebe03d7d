#pragma once

#include <cstdint>
#include <functional>
#include <string>

// The host's worker pool. One run at a time per caller: prepare, submit tasks (tasks may submit
// more), wait until all have finished, finish. An exception that leaves a task is logged by the
// pool as an error with the exception's text and does not end the run.
class CThreadPool {
 public:
  virtual ~CThreadPool() = default;
  virtual void Submit(std::function<void()> task) = 0;  // slot 0
  virtual void FinishRun() = 0;                         // slot 1
  virtual void PrepareRun() = 0;                        // slot 2
  virtual uint32_t ThreadCount() = 0;                   // slot 3 (host's choice)
  virtual std::string StatusText() = 0;                 // slot 4 (host's choice)
  virtual bool AllFinished() = 0;                       // slot 7
  // slot 8 (host's choice): waits up to "ms" milliseconds for every submitted task to finish;
  // true when they all have.
  virtual bool WaitAllFinished(uint32_t ms) = 0;
};
