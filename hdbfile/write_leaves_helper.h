#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>

class CBufferedWriter;

// Shared by every worker task of one save. "output" and the counter belong to the saving thread,
// which outlives the walk but not necessarily the release of its tasks: the saving thread drops
// the writer itself before it leaves.
struct CWriteLeavesHelper {
  std::ostream& output;
  std::atomic<uint64_t>* total_nodes;
  std::shared_ptr<CBufferedWriter> writer;
};
