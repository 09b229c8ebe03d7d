#include "tool/watch/write_queue.h"

#include <algorithm>
#include <utility>

void CWriteQueue::Add(const std::string& path, CClock::time_point now, bool content, bool created) {
  auto& by_path = entries_.get<CByPath>();
  auto [entry, added] = by_path.insert(CEntry{path, now, now + kSettle, content, created});
  if (added) return;
  by_path.modify(entry, [&](CEntry& waiting) {
    waiting.due = std::min(now + kSettle, waiting.first + kLongestWait);
    waiting.content = waiting.content || content;
    waiting.created = waiting.created || created;
  });
}

void CWriteQueue::Move(const std::string& top, const std::optional<std::string>& to) {
  auto& by_path = entries_.get<CByPath>();
  std::vector<CEntry> moved;
  auto take = [&](auto from, auto end) {
    while (from != end) {
      if (to) {
        CEntry entry = *from;
        entry.path = *to + entry.path.substr(top.size());
        moved.push_back(std::move(entry));
      }
      from = by_path.erase(from);
    }
  };
  if (top.empty()) {
    take(by_path.begin(), by_path.end());
  } else {
    // The path itself, then what lies below it: "top/" up to "top0" ('0' follows '/'), which
    // leaves out siblings such as "top-old" that sort between the two.
    auto self = by_path.find(top);
    if (self != by_path.end()) take(self, std::next(self));
    take(by_path.lower_bound(top + "/"), by_path.lower_bound(top + "0"));
  }
  for (CEntry& entry : moved) {
    auto existing = by_path.find(entry.path);
    if (existing != by_path.end()) {
      by_path.replace(existing, std::move(entry));
    } else {
      by_path.insert(std::move(entry));
    }
  }
}

std::optional<CWriteQueue::CClock::time_point> CWriteQueue::NextDue() const {
  const auto& by_due = entries_.get<CByDue>();
  if (by_due.empty()) return std::nullopt;
  return by_due.begin()->due;
}

std::vector<CWriteQueue::CEntry> CWriteQueue::TakeDue(CClock::time_point now, size_t most) {
  auto& by_due = entries_.get<CByDue>();
  std::vector<CEntry> due;
  auto entry = by_due.begin();
  while (entry != by_due.end() && entry->due <= now && due.size() < most) {
    due.push_back(*entry);
    entry = by_due.erase(entry);
  }
  return due;
}
