#pragma once

#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// The objects of a tree that wait to be read again, each with the time it is due: an object
// written many times within kSettle is read once, and one that keeps being written is read at
// least every kLongestWait.
//
// Ordered both by path (a subtree is a range: a move or removal takes it at once) and by due time
// (the next due object is found without looking at the others: a burst of 100,000 new files must
// not cost a pass over the queue per file read).
class CWriteQueue {
 public:
  using CClock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kSettle{50};
  static constexpr std::chrono::milliseconds kLongestWait{1000};

  struct CEntry {
    std::string path;
    CClock::time_point first;  // when it was first queued
    CClock::time_point due;
    // Written (or new) since it was last recorded: read its content. Otherwise only attributes
    // changed. Once set, it stays set until the object is read.
    bool content = false;
    bool created = false;  // it appeared meanwhile
  };

  // Queues "path", or pushes its due time back to kSettle from "now" (never past kLongestWait
  // from its first queuing) when it waits already.
  void Add(const std::string& path, CClock::time_point now, bool content, bool created = false);
  // What waits at or below "top" (everything when "top" is empty) follows a move to "to", or is
  // dropped when "to" is empty.
  void Move(const std::string& top, const std::optional<std::string>& to);
  // When the next object is due, if any waits.
  std::optional<CClock::time_point> NextDue() const;
  // Takes out the objects due at "now", at most "most" of them, earliest first.
  std::vector<CEntry> TakeDue(CClock::time_point now, size_t most);
  size_t size() const { return entries_.size(); }
  void clear() { entries_.clear(); }

 private:
  struct CByPath {};
  struct CByDue {};
  using CEntries = boost::multi_index_container<
      CEntry, boost::multi_index::indexed_by<
                  boost::multi_index::ordered_unique<
                      boost::multi_index::tag<CByPath>,
                      boost::multi_index::member<CEntry, std::string, &CEntry::path>>,
                  boost::multi_index::ordered_non_unique<
                      boost::multi_index::tag<CByDue>,
                      boost::multi_index::member<CEntry, CClock::time_point, &CEntry::due>>>>;
  CEntries entries_;
};
