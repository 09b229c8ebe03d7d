// signdb: file-integrity monitoring on top of the signdb module, loaded as a plug-in.

#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "hashdb/obj_info.h"
#include "host/crypto_service.h"
#include "host/read_context.h"
#include "host/utility_service.h"
#include "refhost/file_obj_info.h"
#include "refhost/module_loader.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "refhost/settings.h"

namespace {

constexpr const char* kVersion = "0.1.0";
constexpr int kExitOk = 0;
constexpr int kExitError = 2;

void PrintUsage(std::ostream& out) {
  out << "usage: signdb [--config FILE] [--module FILE] COMMAND\n"
         "\n"
         "commands:\n"
         "  version    print the tool's version\n"
         "  selftest   load the module through the reference host, record a small tree, check it,\n"
         "             change a file and see the change reported\n"
         "\n"
         "options:\n"
         "  --config FILE   configuration file (JSON or INI); default: built-in settings\n"
         "  --module FILE   the module to load; default: libsigndb.so beside this program\n"
         "\n"
         "examples:\n"
         "  signdb selftest\n"
         "  signdb --config /etc/signdb/signdb.json selftest\n";
}

struct COptions {
  std::string config;
  std::string module;
  std::string command;
};

// One check of the self test: prints the outcome and counts failures.
class CSelfTest {
 public:
  void Check(bool ok, const std::string& what, const std::string& detail) {
    std::cout << (ok ? "ok    " : "FAIL  ") << what << ": " << detail << "\n";
    if (!ok) ++failures_;
  }
  int failures() const { return failures_; }

 private:
  int failures_ = 0;
};

int RunSelfTest(const COptions& options) {
  CRefSettings settings;
  boost::filesystem::path scratch;
  if (!options.config.empty()) {
    settings = LoadSettings(options.config);
  } else {
    scratch = boost::filesystem::temp_directory_path() /
              boost::filesystem::unique_path("signdb-selftest-%%%%-%%%%");
    boost::filesystem::create_directories(scratch);
    settings.data_dir = scratch.string();
    settings.log_console = false;
  }
  int failures = 0;
  {
    auto host = std::make_shared<CRefHost>(settings);
    std::string module = options.module.empty() ? CModuleLoader::DefaultModulePath() : options.module;
    CModuleLoader loader(module, host);
    std::shared_ptr<CSignDB> front = loader.Front();
    CSelfTest test;
    test.Check(front != nullptr, "module", loader.module_path());
    std::shared_ptr<CReadContext> context = front->ReadContext();
    test.Check(context && context->Name() == "SDBI-Read", "read context",
               context ? context->Name() : "(none)");

    // A small real tree, recorded through the module, then checked and changed.
    boost::filesystem::path root = scratch.empty() ? boost::filesystem::temp_directory_path() /
                                                         boost::filesystem::unique_path("signdb-selftest-%%%%")
                                                   : scratch / "tree";
    boost::filesystem::create_directories(root / "etc");
    std::ofstream((root / "etc" / "hosts").string()) << "127.0.0.1 localhost\n";
    std::ofstream((root / "readme.txt").string()) << "signdb selftest\n";
    auto policy = std::make_shared<CRefPolicy>(CRefPolicySettings{"selftest", root.string()});
    std::shared_ptr<CHashDB> db = front->CreateHashDB(policy);
    CUtilityService& utility = *host->Utility();
    auto info_of = [&](const boost::filesystem::path& path) -> std::shared_ptr<CObjInfo> {
      return CRefFileObjInfo::FromDisk(utility, *host->Crypto(), *host->Cfg(), utility.ToWide(root.string()),
                                       utility.ToWide(path.string()), settings.policy_number);
    };
    int recorded = 0;
    for (boost::filesystem::recursive_directory_iterator it(root), end; it != end; ++it) {
      std::shared_ptr<CObjInfo> none;
      db->InsertObject(none, info_of(it->path()));
      ++recorded;
    }
    test.Check(recorded == 3 && db->ChangeCounter() == 3, "objects recorded", std::to_string(recorded));
    uint32_t unchanged = db->CheckObject(info_of(root / "etc" / "hosts"));
    test.Check(unchanged == kCheckUnchanged, "check of an unchanged file", std::to_string(unchanged));
    std::string hash = db->HashOfObject(utility.ToWide((root / "etc" / "hosts").string()));
    std::wstring found = front->FindFileByHash(hash, true);
    test.Check(found == utility.ToWide((root / "etc" / "hosts").string()), "file found by its hash",
               hash.substr(0, 16) + "... -> " + utility.ToNarrow(found));
    std::ofstream((root / "etc" / "hosts").string(), std::ios::app) << "10.0.0.1 intruder\n";
    uint32_t changed = db->CheckObject(info_of(root / "etc" / "hosts"));
    test.Check(changed == kCheckHashChanged, "check of a changed file", std::to_string(changed));
    uint32_t added = db->CheckObject(info_of(root / "never-existed.txt"));  // reported as gone
    test.Check(added == kCheckUnchanged, "check of a path that never existed", std::to_string(added));
    db.reset();
    if (scratch.empty()) boost::filesystem::remove_all(root);
    failures = test.failures();
    std::cout << (failures == 0 ? "selftest passed" : "selftest FAILED") << "\n";
  }
  if (!scratch.empty()) boost::filesystem::remove_all(scratch);
  return failures == 0 ? kExitOk : kExitError;
}

}  // namespace

int main(int argc, char** argv) {
  COptions options;
  std::vector<std::string> args(argv + 1, argv + argc);
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--help" || arg == "-h") {
      PrintUsage(std::cout);
      return kExitOk;
    } else if ((arg == "--config" || arg == "--module") && i + 1 < args.size()) {
      (arg == "--config" ? options.config : options.module) = args[++i];
    } else if (arg.rfind("--", 0) == 0) {
      std::cerr << "signdb: unknown option " << arg << " (see signdb --help)\n";
      return kExitError;
    } else if (options.command.empty()) {
      options.command = arg;
    } else {
      std::cerr << "signdb: unexpected argument " << arg << " (see signdb --help)\n";
      return kExitError;
    }
  }
  try {
    if (options.command == "version") {
      std::cout << "signdb " << kVersion << "\n";
      return kExitOk;
    }
    if (options.command == "selftest") return RunSelfTest(options);
    if (options.command.empty()) {
      PrintUsage(std::cerr);
    } else {
      std::cerr << "signdb: unknown command " << options.command << " (see signdb --help)\n";
    }
    return kExitError;
  } catch (const std::exception& e) {
    std::cerr << "signdb: " << e.what() << "\n";
    return kExitError;
  }
}
