// Throughput of the reference host's file hashing, which bounds how fast a scan can go.

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include <boost/filesystem.hpp>

#include "refhost/crypto_service.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"

static void BM_HashFile(benchmark::State& state) {
  boost::filesystem::path file =
      boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("signdb-bench-%%%%");
  std::string content(static_cast<size_t>(state.range(0)), 'x');
  std::ofstream(file.string(), std::ios::binary) << content;
  CRefCryptoService crypto{CRefSettings{}};
  std::wstring path = Utf8ToWide(file.string());
  for (auto _ : state) benchmark::DoNotOptimize(crypto.HashFile(path, 256));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
  boost::filesystem::remove(file);
}
BENCHMARK(BM_HashFile)->Arg(4 << 10)->Arg(1 << 20)->Arg(16 << 20);

BENCHMARK_MAIN();
