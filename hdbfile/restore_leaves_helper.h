#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "hashdb/tree_builder.h"

class CTimeService;

// One piece of the record area, [begin, end), read by one restore task. Shared by the loader and
// the task; the task keeps it (and the data it points into) alive until it ends, also when the
// loader has stopped waiting.
class CRestoreLeavesHelper {
 public:
  // Throws std::runtime_error "[rlh]Bad pos!" when "begin" is not before "end".
  CRestoreLeavesHelper(const std::atomic<bool>* exit_flag, const uint8_t* begin, const uint8_t* end,
                       const std::wstring& hdb_path, std::shared_ptr<std::atomic<uint64_t>> restored,
                       std::shared_ptr<CTimeService> clock);

  // True when the task has finished within "limit_ms" of the helper's creation; false when the
  // limit had passed or the wait timed out.
  bool Wait(uint64_t limit_ms);
  // The task's last act: sets the done flag and wakes every waiter.
  void MarkDone();
  // The task leaves the hashes its records gave before it marks itself done; the loader takes
  // them once the task is done.
  void PutPiece(CTreeBuilder::CPiece piece);
  CTreeBuilder::CPiece TakePiece();

  const std::atomic<bool>* const exit_flag;  // the caller's; may be null
  const uint64_t length;
  const uint8_t* const begin;
  const uint8_t* const end;
  const std::wstring& hdb_path;
  const std::shared_ptr<std::atomic<uint64_t>> restored;

 private:
  std::shared_ptr<CTimeService> clock_;
  std::mutex lock_;
  std::condition_variable done_signal_;
  bool done_ = false;  // guarded by lock_
  CTreeBuilder::CPiece piece_;  // guarded by lock_
  const uint64_t created_;
};
