// Hash database core at one million nodes: full inserts (with resident memory per node), object
// checks from two threads, and path-by-hash lookups.

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include <boost/filesystem.hpp>

#include "hashdb/hash_db_impl.h"
#include "hashdb/map_hash_db.h"
#include "hashdb/monotonic_clock.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "tests/fake_obj_info.h"

namespace {

constexpr int kFanOut = 50;

void AppendNumber(std::wstring& out, int64_t value) {
  wchar_t digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<wchar_t>(L'0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (n > 0) out += digits[--n];
}

// Synthetic files four levels deep, 50 entries per directory: dA/dB/dC/fD.dat. Built by hand so
// that making the input costs little beside the insert being measured.
std::wstring SyntheticPath(int64_t i) {
  std::wstring path;
  path.reserve(32);
  path += L"d";
  AppendNumber(path, i / (kFanOut * kFanOut * kFanOut));
  path += L"/d";
  AppendNumber(path, i / (kFanOut * kFanOut) % kFanOut);
  path += L"/d";
  AppendNumber(path, i / kFanOut % kFanOut);
  path += L"/f";
  AppendNumber(path, i % kFanOut);
  path += L".dat";
  return path;
}

// A 64-hex-digit text, distinct per file, like a SHA-256 hash.
std::string SyntheticHash(int64_t i) {
  static const char kHex[] = "0123456789abcdef";
  std::string text(64, '0');
  uint64_t x = static_cast<uint64_t>(i) * 0x9E3779B97F4A7C15ull;
  for (int word = 0; word < 4; ++word) {
    uint64_t value = x ^ (0xA5A5A5A5A5A5A5A5ull * static_cast<uint64_t>(word));
    for (int d = 0; d < 16; ++d) text[word * 16 + d] = kHex[(value >> (60 - 4 * d)) & 15];
  }
  return text;
}

long ResidentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

struct CBenchDb {
  explicit CBenchDb(uint32_t threads = 2) {
    CRefSettings settings;
    settings.log_console = false;
    settings.threads = threads;
    host = std::make_shared<CRefHost>(settings);
    CRefPolicySettings policy{"bench", "/bench/root"};
    db = std::make_shared<CHashDBImpl>(host, 256, L"/bench/bench.hdb",
                                       std::make_shared<CRefPolicy>(policy));
  }
  void Fill(int64_t count, int64_t from = 0) {
    auto info = CFakeObjInfo::File(L"", "");
    std::shared_ptr<CObjInfo> none;
    for (int64_t i = from; i < count; ++i) {
      info->relative = SyntheticPath(i);
      info->hash = SyntheticHash(i);
      info->size = static_cast<uint64_t>(i);
      db->InsertObject(none, info);
    }
  }
  std::shared_ptr<CRefHost> host;
  std::shared_ptr<CHashDBImpl> db;
};

CBenchDb& SharedMillion() {
  static CBenchDb* shared = [] {
    auto* bench = new CBenchDb;
    bench->Fill(1000000);
    return bench;
  }();
  return *shared;
}

void BM_Insert(benchmark::State& state) {
  int64_t count = state.range(0);
  double bytes_per_node = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // Memory that earlier runs freed goes back to the system first: reused, it would hide what
    // this run takes.
    malloc_trim(0);
    long before = ResidentBytes();
    auto bench = std::make_unique<CBenchDb>();
    state.ResumeTiming();
    bench->Fill(count);
    state.PauseTiming();
    // Files plus the directories made on the way.
    int64_t nodes = count + count / kFanOut + count / (kFanOut * kFanOut) + 1;
    bytes_per_node = static_cast<double>(ResidentBytes() - before) / static_cast<double>(nodes);
    bench.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["rss_bytes_per_node"] = bytes_per_node;
}
BENCHMARK(BM_Insert)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_Check(benchmark::State& state) {
  CBenchDb& bench = SharedMillion();
  std::mt19937_64 random(static_cast<uint64_t>(state.thread_index()) + 1);
  auto info = CFakeObjInfo::File(L"", "");
  for (auto _ : state) {
    int64_t i = static_cast<int64_t>(random() % 1000000);
    info->relative = SyntheticPath(i);
    info->hash = SyntheticHash(i);
    info->size = static_cast<uint64_t>(i);
    benchmark::DoNotOptimize(bench.db->CheckObject(info));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Check)->Threads(1)->Threads(2)->UseRealTime();

void BM_PathByHash(benchmark::State& state) {
  CBenchDb& bench = SharedMillion();
  std::mt19937_64 random(42);
  for (auto _ : state) {
    std::string hash = SyntheticHash(static_cast<int64_t>(random() % 1000000));
    benchmark::DoNotOptimize(bench.db->PathByHash(hash, false));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PathByHash);

// The hash index alone: a million nodes with distinct random hash texts added one by one, then
// looked up, apart from everything else an insert does.
void BM_IndexAdd(benchmark::State& state) {
  std::vector<std::shared_ptr<CHashNode>> nodes;
  for (int64_t i = 0; i < 1000000; ++i) {
    nodes.push_back(std::make_shared<CHashNode>(std::weak_ptr<CHashNode>()));
    nodes.back()->hash = std::make_shared<std::string>(SyntheticHash(i));
  }
  for (auto _ : state) {
    state.PauseTiming();
    auto index = std::make_unique<CMapHashDB>(true);
    state.ResumeTiming();
    for (const auto& node : nodes) index->Add(node);
    state.PauseTiming();
    index.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(nodes.size()));
}
BENCHMARK(BM_IndexAdd)->Unit(benchmark::kMillisecond)->Iterations(1);

// Walks a million-node tree (about 20,000 directories with children, one task each) with a visitor
// that only counts, on a pool of 1 or 2 threads.
void BM_Enumerate(benchmark::State& state) {
  static std::unique_ptr<CBenchDb> by_threads[3];
  auto threads = static_cast<uint32_t>(state.range(0));
  if (!by_threads[threads]) {
    by_threads[threads] = std::make_unique<CBenchDb>(threads);
    by_threads[threads]->Fill(1000000);
  }
  CBenchDb& bench = *by_threads[threads];
  std::atomic<int64_t> visited{0};
  auto visitor = std::make_shared<CNodeVisitor>([&visited](const std::shared_ptr<CHashNode>&) {
    visited.fetch_add(1, std::memory_order_relaxed);
    return true;
  });
  for (auto _ : state) bench.db->Enumerate("bench", true, visitor);
  state.SetItemsProcessed(visited.load());
  state.counters["nodes"] = static_cast<double>(visited.load()) / static_cast<double>(state.iterations());
  if (threads == 2) by_threads[1].reset();  // keep only one big tree alive at a time
}
BENCHMARK(BM_Enumerate)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The sub-node search of one leaf directory (50 files) of the million-node tree.
void BM_SubNodesOfASmallDirectory(benchmark::State& state) {
  CBenchDb& bench = SharedMillion();
  for (auto _ : state) benchmark::DoNotOptimize(bench.db->SubNodes(L"d3/d17/d42"));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SubNodesOfASmallDirectory)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Shrinks 100,000 old files (and the 2,000 directories they leave empty) out of a million-node tree.
void BM_Shrink(benchmark::State& state) {
  uint64_t removed = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto bench = std::make_unique<CBenchDb>();
    bench->Fill(1000000);
    int64_t threshold = MonotonicNowNs();
    bench->Fill(1000000, 100000);  // seen again: everything but the first 100,000 files
    state.ResumeTiming();
    removed = bench->db->Shrink(threshold, L"");
    state.PauseTiming();
    bench.reset();
    state.ResumeTiming();
  }
  state.counters["removed"] = static_cast<double>(removed);
}
BENCHMARK(BM_Shrink)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// Removes 20,000 of 100,000 files that all carry one content (empty files), or that all differ:
// the removal from the hash index must cost the same in both cases, not grow with the number of
// files that share the hash.
void BM_RemoveFiles(benchmark::State& state) {
  const bool one_content = state.range(0) == 1;
  constexpr int64_t kFiles = 100000, kRemoved = 20000;
  for (auto _ : state) {
    state.PauseTiming();
    auto bench = std::make_unique<CBenchDb>();
    auto info = CFakeObjInfo::File(L"", "");
    std::shared_ptr<CObjInfo> none;
    for (int64_t i = 0; i < kFiles; ++i) {
      info->relative = SyntheticPath(i);
      info->hash = one_content ? SyntheticHash(0) : SyntheticHash(i);
      bench->db->InsertObject(none, info);
    }
    state.ResumeTiming();
    for (int64_t i = 0; i < kFiles; i += kFiles / kRemoved) {
      bench->db->RemoveObject(none, L"/bench/root/" + SyntheticPath(i));
    }
    state.PauseTiming();
    bench.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRemoved);
  state.SetLabel(one_content ? "one content" : "distinct contents");
}
BENCHMARK(BM_RemoveFiles)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
