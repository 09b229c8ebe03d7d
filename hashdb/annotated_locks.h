#pragma once

#include <mutex>
#include <shared_mutex>

#include <boost/thread/shared_mutex.hpp>

#include "hashdb/thread_annotations.h"

// Locks and guards that Clang's thread-safety analysis understands: the library's own mutexes and
// guards carry no annotations, so a field marked as guarded by them could not be checked.

// A reader/writer mutex (the threading library's shared mutex). Taking it exclusively tries a
// while before it sleeps: inserts hold it for a microsecond or two, and a writer that finds it
// taken would otherwise pay a sleep and a wake-up, each costing more than the wait itself.
class SIGNDB_CAPABILITY("shared_mutex") CSharedMutex {
 public:
  static constexpr int kTriesBeforeSleeping = 200;

  void lock() SIGNDB_ACQUIRE() {
    for (int i = 0; i < kTriesBeforeSleeping; ++i) {
      if (mutex_.try_lock()) return;
      Pause();
    }
    mutex_.lock();
  }
  void unlock() SIGNDB_RELEASE() { mutex_.unlock(); }
  void lock_shared() SIGNDB_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() SIGNDB_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  static void Pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }

  boost::shared_mutex mutex_;
};

// A reader/writer mutex whose readers never sleep on each other (the system's rwlock: a reader
// takes it with one atomic operation, where the threading library's shared mutex takes an inner
// mutex that concurrent readers contend for). For locks that readers take very often and
// writers rarely: the hash index, the pool of shared texts.
class SIGNDB_CAPABILITY("shared_mutex") CReaderWriterMutex {
 public:
  void lock() SIGNDB_ACQUIRE() { mutex_.lock(); }
  void unlock() SIGNDB_RELEASE() { mutex_.unlock(); }
  void lock_shared() SIGNDB_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() SIGNDB_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// A plain mutex.
class SIGNDB_CAPABILITY("mutex") CMutex {
 public:
  void lock() SIGNDB_ACQUIRE() { mutex_.lock(); }
  void unlock() SIGNDB_RELEASE() { mutex_.unlock(); }
  std::mutex& native() { return mutex_; }  // for a condition variable's wait

 private:
  std::mutex mutex_;
};

// Holds a lock exclusively for its scope.
template <class Mutex>
class SIGNDB_SCOPED_CAPABILITY CExclusiveGuard {
 public:
  explicit CExclusiveGuard(Mutex& mutex) SIGNDB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~CExclusiveGuard() SIGNDB_RELEASE() { mutex_.unlock(); }
  CExclusiveGuard(const CExclusiveGuard&) = delete;
  CExclusiveGuard& operator=(const CExclusiveGuard&) = delete;

 private:
  Mutex& mutex_;
};

// Holds a reader/writer lock shared for its scope.
template <class Mutex>
class SIGNDB_SCOPED_CAPABILITY CSharedGuard {
 public:
  explicit CSharedGuard(Mutex& mutex) SIGNDB_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
  ~CSharedGuard() SIGNDB_RELEASE() { mutex_.unlock_shared(); }
  CSharedGuard(const CSharedGuard&) = delete;
  CSharedGuard& operator=(const CSharedGuard&) = delete;

 private:
  Mutex& mutex_;
};
