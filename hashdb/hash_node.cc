#include "hashdb/hash_node.h"

#include <stdexcept>
#include <vector>

#include "hashdb/annotated_locks.h"
#include "hashdb/monotonic_clock.h"
#include "hashdb/wide_path.h"
#include "host/utility_service.h"

namespace {
constexpr int64_t kNanosecondsPerSecond = 1000000000;
}

CHashNode::CHashNode(const std::weak_ptr<CHashNode>& parent_node) : parent(parent_node) {
  StampChange();
}

void CHashNode::StampChange() { StampChange(MonotonicNowNs()); }

void CHashNode::StampChange(int64_t now) {
  CExclusiveGuard<CNodeLock> guard(lock);
  change_time = now;
}

bool CHashNode::ChangedBefore(int64_t t) {
  CExclusiveGuard<CNodeLock> guard(lock);
  return change_time < t;
}

void CHashNode::Touch() {
  if (is_dir) return;
  CExclusiveGuard<CNodeLock> guard(lock);
  if (!touch_time) touch_time = std::make_unique<int64_t>();
  *touch_time = MonotonicNowNs();
}

bool CHashNode::TouchedWithin(uint64_t seconds) {
  if (is_dir) return false;
  CExclusiveGuard<CNodeLock> guard(lock);
  if (!touch_time) return false;
  int64_t elapsed = (MonotonicNowNs() - *touch_time) / kNanosecondsPerSecond;
  return elapsed <= static_cast<int64_t>(seconds);
}

std::string RelativeTextOf(const std::shared_ptr<CHashNode>& node) {
  std::vector<const std::string*> names;
  size_t length = 0;
  for (std::shared_ptr<CHashNode> current = node; current;) {
    std::shared_ptr<CHashNode> up = current->parent.lock();
    if (!up) break;  // the root (or a node cut off from it) ends the path
    names.push_back(&current->name);
    length += current->name.size() + 1;
    current = std::move(up);
  }
  std::string relative;
  relative.reserve(length);
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (!relative.empty()) relative += static_cast<char>(kPreferredSeparator);
    relative += **it;
  }
  return relative;
}

bool SameAs(const std::shared_ptr<CHashNode>& a, const std::shared_ptr<CHashNode>& b,
            CUtilityService& utility) {
  if (!a || !b) throw std::runtime_error("[hdbi,itnts]Bad node!");
  if (a->is_dir != b->is_dir || a->size != b->size || a->target_path != b->target_path ||
      a->time_1 != b->time_1 || a->time_2 != b->time_2 || a->attributes != b->attributes ||
      a->security_attributes != b->security_attributes || a->name != b->name) {
    return false;
  }
  if (a->hash) return b->hash && utility.HashEquals(*a->hash, *b->hash);
  return !b->hash;
}

bool IsEmptyFile(const std::shared_ptr<CHashNode>& node) {
  if (!node) throw std::runtime_error("[hdbi,iun]Bad node!");
  if (node->is_dir) return false;
  if (!node->hash) throw std::runtime_error("[hdbi,iun]Bad hash sp!");
  return node->hash->empty() && node->size == 0;
}
