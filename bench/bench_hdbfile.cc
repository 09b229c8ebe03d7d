// Save and load of a million-node database (realistic paths, SHA-256 hashes) with 1 and 2 pool
// threads: time, nodes per second, file size and resident memory. Prints one line per run.
//
//   signdb_bench_hdbfile [nodes]

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include <boost/filesystem.hpp>

#include "hashdb/hash_db_impl.h"
#include "host/utility_service.h"
#include "refhost/crypto_service.h"
#include "tool/store/dev_keys.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "util/text_conversion.h"
#include "tests/fake_obj_info.h"

namespace {

long ResidentMiB() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * sysconf(_SC_PAGESIZE) / (1024 * 1024);
}

long PeakMiB() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Paths like a system tree: usr/share/doc/pkg-0042/sub-3/file-0017.txt
std::wstring RealisticPath(int64_t i) {
  static const wchar_t* kTops[] = {L"usr/share/doc", L"usr/lib/x86_64-linux-gnu", L"usr/share/locale",
                                   L"var/lib/apt/lists", L"home/user/projects"};
  std::wstring path = kTops[i % 5];
  path += L"/pkg-" + std::to_wstring(i / 500 % 2000) + L"/sub-" + std::to_wstring(i / 50 % 10) +
          L"/file-" + std::to_wstring(i % 50) + L".txt";
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  int64_t count = argc > 1 ? std::atoll(argv[1]) : 1000000;
  boost::filesystem::path work = boost::filesystem::temp_directory_path() /
                                 boost::filesystem::unique_path("signdb-bench-hdb-%%%%");
  boost::filesystem::create_directories(work / "root");
  std::string keys = (work / "keys").string();
  MakeDevelopmentKeys(keys, CDevKeyRequest{});
  CRefPolicySettings policy{"bench", (work / "root").string()};
  std::printf("%-6s %-7s %10s %12s %10s %10s %10s\n", "action", "threads", "seconds", "nodes/s",
              "file MiB", "RSS MiB", "peak MiB");
  for (uint32_t threads : {1u, 2u}) {
    CRefSettings settings;
    settings.log_console = std::getenv("SIGNDB_BENCH_LOG") != nullptr;  // timed log lines
    settings.log_level = "debug";
    settings.threads = threads;
    settings.data_dir = work.string();
    settings.signer_certificate = keys + "/signer.pem";
    settings.signer_key = keys + "/signer.key";
    settings.signer_chain = keys + "/ca.pem";
    settings.local_cstm_id = "signdb development";
    settings.local_lcs_id = "1002";
    auto host = std::make_shared<CRefHost>(settings);
    std::wstring hdb_path = Utf8ToWide((work / "bench.hdb").string());
    uint64_t nodes = 0;
    {
      auto db = std::make_shared<CHashDBImpl>(host, 256, hdb_path, std::make_shared<CRefPolicy>(policy));
      auto info = CFakeObjInfo::File(L"", "");
      std::shared_ptr<CObjInfo> none;
      for (int64_t i = 0; i < count; ++i) {
        info->relative = RealisticPath(i);
        std::string name = std::to_string(i);
        info->hash = HashBytes(name.data(), name.size(), 256);
        info->size = static_cast<uint64_t>(i);
        db->InsertObject(none, info);
      }
      long before = ResidentMiB();
      auto start = std::chrono::steady_clock::now();
      db->Save();
      double seconds = Seconds(start);
      std::string data = (work / "bench.hdb").string();
      std::ifstream file(data, std::ios::binary | std::ios::ate);
      double file_mib = static_cast<double>(file.tellg()) / (1024 * 1024);
      std::FILE* header = std::fopen(data.c_str(), "rb");
      uint8_t bytes[48] = {};
      if (header) {
        if (std::fread(bytes, 1, 48, header) != 48) bytes[39] = 0;
        std::fclose(header);
      }
      for (int b = 32; b < 40; ++b) nodes = nodes << 8 | bytes[b];
      std::printf("%-6s %-7u %10.3f %12.0f %10.1f %10ld %10ld\n", "save", threads, seconds,
                  static_cast<double>(nodes) / seconds, file_mib, ResidentMiB() - before, PeakMiB());
    }
    // SIGNDB_BENCH_LOADS=N loads N times (to profile the load apart from the save).
    int loads = std::getenv("SIGNDB_BENCH_LOADS") ? std::atoi(std::getenv("SIGNDB_BENCH_LOADS")) : 1;
    for (int load = 0; load < loads; ++load) {
      auto db = std::make_shared<CHashDBImpl>(host, 256, hdb_path, std::make_shared<CRefPolicy>(policy));
      long before = ResidentMiB();
      auto start = std::chrono::steady_clock::now();
      std::shared_ptr<CBuffer> data = host->Utility()->ReadFile(hdb_path, 0);
      std::shared_ptr<CBuffer> signature = host->Utility()->ReadFile(hdb_path + L".p7s", 0);
      bool loaded = db->Load(nullptr, true, "bench.hdb", data, signature);
      double seconds = Seconds(start);
      std::printf("%-6s %-7u %10.3f %12.0f %10s %10ld %10ld%s\n", "load", threads, seconds,
                  static_cast<double>(nodes) / seconds, "", ResidentMiB() - before, PeakMiB(),
                  loaded ? "" : "  (refused)");
    }
  }
  boost::filesystem::remove_all(work);
  return 0;
}
