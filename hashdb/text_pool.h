#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>

#include "hashdb/annotated_locks.h"
#include "hashdb/shared_text.h"

// One copy of each distinct text that many nodes carry: security attributes repeat across a
// whole system (a few dozen owner/group/mode/ACL combinations for millions of files), so the
// nodes share one allocation per distinct text instead of one each.
//
// The pool keeps at most kMaxTexts texts: a tree whose texts are all different (an attacker's,
// or a file system with per-file ACLs) costs no more than it would without the pool, and a text
// past the bound is simply not shared. Texts stay in the pool until it is destroyed.
//
// Thread safety: Share may be called from any thread (restore tasks share texts side by side).
class CTextPool {
 public:
  static constexpr size_t kMaxTexts = 4096;

  // A text equal to "text", the pool's copy where it has one (or takes one).
  CCompactText Share(std::string_view text) {
    if (text.empty()) return CCompactText();
    CExclusiveGuard<CMutex> guard(mutex_);
    auto found = texts_.find(text);
    if (found != texts_.end()) return found->second;
    CCompactText made(text);
    if (texts_.size() < kMaxTexts) texts_.emplace(made.view(), made);  // keyed by its own characters
    return made;
  }

  size_t size() {
    CExclusiveGuard<CMutex> guard(mutex_);
    return texts_.size();
  }

 private:
  CMutex mutex_;
  // The key views the characters of its value, which never move (a copy shares them).
  std::unordered_map<std::string_view, CCompactText> texts_ SIGNDB_GUARDED_BY(mutex_);
};
