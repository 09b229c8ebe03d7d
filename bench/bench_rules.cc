// The cost of a policy's rules per object: 200 rules, matched against the paths of a synthetic
// tree of 200,000 files, as the walk of a scan or check asks (is it excluded). A check costs about
// 10 µs per object on the 2-core machine; rules must stay under 5% of that. (What is compared is
// asked only of the objects that differ.)

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tool/packages/package_files.h"
#include "tool/rules/policy_rules.h"

namespace {

// A configuration of 200 rules of the kinds a system configuration holds: most under a named
// folder, some for any depth.
std::string WriteRules(const std::string& path) {
  std::ostringstream rules;
  const char* groups[] = {"read-only", "permissions", "log", "ignore directory times"};
  for (int i = 0; i < 200; ++i) {
    if (i > 0) rules << ",\n";
    if (i % 20 == 0) {
      rules << R"({"path": "**/*.tmp)" << i << R"(", "exclude": true})";
    } else if (i % 7 == 0) {
      rules << R"({"path": "d)" << i % 40 << "/sub" << i << R"(/**", "exclude": true})";
    } else {
      rules << R"({"path": "d)" << i % 40 << "/s" << i << R"(*/**", "check": ")" << groups[i % 4] << R"("})";
    }
  }
  std::ofstream(path) << R"({"policies": [{"name": "t", "root": "/", "rules": [)" << rules.str() << "]}]}\n";
  return path;
}

void BM_RulesPerObject(benchmark::State& state) {
  std::string config = "/tmp/signdb-bench-rules-" + std::to_string(::getpid()) + ".json";
  CPolicyRules rules = CPolicyRules::Load(WriteRules(config), "t");
  ::unlink(config.c_str());
  std::vector<std::string> paths;
  for (int i = 0; i < 200000; ++i) {
    paths.push_back("d" + std::to_string(i % 400) + "/s" + std::to_string(i % 37) + "/file-" + std::to_string(i) + ".txt");
  }
  size_t kept = 0;
  for (auto _ : state) {
    for (const std::string& path : paths) {
      // As the walk asks: by the path first, by the kind when a rule for some kinds matched.
      CPolicyRules::CVerdict verdict = rules.VerdictBeforeKind(path);
      if (verdict == CPolicyRules::CVerdict::kKept ||
          (verdict == CPolicyRules::CVerdict::kByKind && !rules.Excluded(path, CObjectKind::kFile))) {
        ++kept;
      }
    }
  }
  benchmark::DoNotOptimize(kept);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * paths.size()));
  state.SetLabel(std::to_string(rules.size()) + " rules");
}
BENCHMARK(BM_RulesPerObject)->Unit(benchmark::kMillisecond)->UseRealTime();

// Reading this machine's package lists once, as a check that meets changed files does.
void BM_LoadDpkgLists(benchmark::State& state) {
  if (::access("/var/lib/dpkg/status", R_OK) != 0) {
    state.SkipWithError("no /var/lib/dpkg here");
    return;
  }
  size_t files = 0;
  for (auto _ : state) files = CPackageFiles::Load("/")->size();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * files));
  state.SetLabel(std::to_string(files) + " files");
}
BENCHMARK(BM_LoadDpkgLists)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
