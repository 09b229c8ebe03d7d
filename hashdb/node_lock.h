#pragma once

#include <atomic>
#include <cstdint>

#include "hashdb/thread_annotations.h"

// A plain, non-recursive mutex in four bytes, for the lock that every node carries: a tree of a
// million nodes pays 4 MB for its node locks instead of the 40 MB of std::mutex. Node locks are
// held for a few instructions and almost never contended, so the uncontended path is one
// compare-and-swap; a contended lock sleeps on the word itself (a futex on Linux, through
// std::atomic::wait).
//
// States: 0 free, 1 held, 2 held with possible sleepers (the classic three-state futex mutex).
class SIGNDB_CAPABILITY("mutex") CNodeLock {
 public:
  CNodeLock() = default;
  CNodeLock(const CNodeLock&) = delete;
  CNodeLock& operator=(const CNodeLock&) = delete;

  void lock() SIGNDB_ACQUIRE() {
    uint32_t expected = 0;
    if (state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
    // Announce a sleeper, then sleep until the holder lets go; whoever takes the lock from here
    // on takes it in state 2, so its unlock wakes the next sleeper.
    while (state_.exchange(2, std::memory_order_acquire) != 0) state_.wait(2, std::memory_order_relaxed);
  }

  bool try_lock() SIGNDB_TRY_ACQUIRE(true) {
    uint32_t expected = 0;
    return state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
  }

  void unlock() SIGNDB_RELEASE() {
    if (state_.exchange(0, std::memory_order_release) == 2) state_.notify_one();
  }

 private:
  std::atomic<uint32_t> state_{0};
};
