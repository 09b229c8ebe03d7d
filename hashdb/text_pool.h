#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "hashdb/annotated_locks.h"
#include "hashdb/shared_text.h"

// One copy of each distinct text that many nodes carry: security attributes repeat across a
// whole system (a few dozen owner/group/mode/ACL combinations for millions of files), so the
// nodes share one allocation per distinct text instead of one each.
//
// The pool keeps at most kMaxTexts texts: a tree whose texts are all different (an attacker's,
// a file system with per-file ACLs, or texts that name each file's inode) costs no more than it
// would without the pool, and a text past the bound is simply not shared. Once full, a pool that
// finds almost none of the texts it is asked for stops looking (kTrialAfterFull asks, fewer than
// one in kHitsOneIn found): the search would cost every insert and spare nothing. Texts stay in
// the pool until it is destroyed.
//
// Thread safety: Share may be called from any thread (restore tasks share texts side by side).
class CTextPool {
 public:
  static constexpr size_t kMaxTexts = 4096;
  static constexpr uint64_t kTrialAfterFull = 65536;
  static constexpr uint64_t kHitsOneIn = 16;

  // A text equal to "text", the pool's copy where it has one (or takes one).
  CCompactText Share(std::string_view text) {
    if (text.empty()) return CCompactText();
    if (given_up_.load(std::memory_order_relaxed)) return CCompactText(text);
    bool full = false;
    {
      CSharedGuard guard(mutex_);  // lookups of several threads do not wait for each other
      auto found = texts_.find(text);
      full = texts_.size() >= kMaxTexts;
      if (full) Count(found != texts_.end());
      if (found != texts_.end()) return found->second;
    }
    CCompactText made(text);
    if (full) return made;
    CExclusiveGuard<CReaderWriterMutex> guard(mutex_);
    auto found = texts_.find(text);  // another thread may have taken it meanwhile
    if (found != texts_.end()) return found->second;
    if (texts_.size() < kMaxTexts) texts_.emplace(made.view(), made);  // keyed by its own characters
    return made;
  }

  // Whether the pool stopped looking texts up.
  bool given_up() const { return given_up_.load(std::memory_order_relaxed); }

  size_t size() {
    CSharedGuard guard(mutex_);
    return texts_.size();
  }

 private:
  // Counts a lookup in a full pool; gives up after kTrialAfterFull of them when too few were found.
  void Count(bool hit) {
    if (hit) found_after_full_.fetch_add(1, std::memory_order_relaxed);
    uint64_t asked = asked_after_full_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (asked == kTrialAfterFull && found_after_full_.load(std::memory_order_relaxed) * kHitsOneIn < asked) {
      given_up_.store(true, std::memory_order_relaxed);
    }
  }

  CReaderWriterMutex mutex_;
  // The key views the characters of its value, which never move (a copy shares them).
  std::unordered_map<std::string_view, CCompactText> texts_ SIGNDB_GUARDED_BY(mutex_);
  std::atomic<uint64_t> asked_after_full_{0};
  std::atomic<uint64_t> found_after_full_{0};
  std::atomic<bool> given_up_{false};
};
