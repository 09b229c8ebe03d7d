#include "hdbfile/restore_leaves_helper.h"

#include <chrono>
#include <stdexcept>

#include "host/time_service.h"

namespace {
const uint8_t* CheckedBegin(const uint8_t* begin, const uint8_t* end) {
  if (begin >= end) throw std::runtime_error("[rlh]Bad pos!");
  return begin;
}
}  // namespace

CRestoreLeavesHelper::CRestoreLeavesHelper(const std::atomic<bool>* exit_flag_pointer,
                                           const uint8_t* begin_position, const uint8_t* end_position,
                                           const std::wstring& path,
                                           std::shared_ptr<std::atomic<uint64_t>> restored_counter,
                                           std::shared_ptr<CTimeService> clock)
    : exit_flag(exit_flag_pointer),
      length(static_cast<uint64_t>(end_position - CheckedBegin(begin_position, end_position))),
      begin(begin_position),
      end(end_position),
      hdb_path(path),
      restored(std::move(restored_counter)),
      clock_(std::move(clock)),
      created_(clock_->Now()) {}

bool CRestoreLeavesHelper::Wait(uint64_t limit_ms) {
  std::unique_lock<std::mutex> guard(lock_);
  if (done_) return true;
  uint64_t elapsed = clock_->ElapsedMs(created_);
  if (elapsed >= limit_ms) return false;
  return done_signal_.wait_for(guard, std::chrono::milliseconds(limit_ms - elapsed), [this] { return done_; });
}

void CRestoreLeavesHelper::PutPiece(CTreeBuilder::CPiece piece) {
  std::lock_guard<std::mutex> guard(lock_);
  piece_ = std::move(piece);
}

CTreeBuilder::CPiece CRestoreLeavesHelper::TakePiece() {
  std::lock_guard<std::mutex> guard(lock_);
  return std::move(piece_);
}

void CRestoreLeavesHelper::MarkDone() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    done_ = true;
  }
  done_signal_.notify_all();
}
