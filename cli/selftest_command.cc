// signdb selftest: loads the module through the reference host, records a small tree, checks it,
// changes a file and sees the change reported.

#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "cli/command_line.h"
#include "cli/commands.h"
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
#include "tool/common/exit_status.h"

namespace {

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

}  // namespace

int RunSelfTest(const CCommandLine& line) {
  RequireShape(line, {}, 0, 0);
  CRefSettings settings;
  boost::filesystem::path scratch;
  if (!line.Value("--config").empty()) {
    settings = LoadSettings(line.Value("--config"));
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
    std::string module = line.Value("--module", CModuleLoader::DefaultModulePath());
    CModuleLoader loader(module, host);
    std::shared_ptr<CSignDB> front = loader.Front();
    CSelfTest test;
    test.Check(front != nullptr, "module", loader.module_path());
    std::shared_ptr<CReadContext> context = front->ReadContext();
    test.Check(context && context->Name() == "SDBI-Read", "read context",
               context ? context->Name() : "(none)");

    // A small real tree, recorded through the module, then checked and changed.
    boost::filesystem::path root = scratch.empty()
                                       ? boost::filesystem::temp_directory_path() /
                                             boost::filesystem::unique_path("signdb-selftest-%%%%")
                                       : scratch / "tree";
    boost::filesystem::create_directories(root / "etc");
    std::ofstream((root / "etc" / "hosts").string()) << "127.0.0.1 localhost\n";
    std::ofstream((root / "readme.txt").string()) << "signdb selftest\n";
    auto policy = std::make_shared<CRefPolicy>(CRefPolicySettings{"selftest", root.string()});
    std::shared_ptr<CHashDB> db = front->CreateHashDB(policy);
    CUtilityService& utility = *host->Utility();
    auto info_of = [&](const boost::filesystem::path& path) -> std::shared_ptr<CObjInfo> {
      return CRefFileObjInfo::FromDisk(utility, *host->Cfg(), utility.ToWide(root.string()),
                                       utility.ToWide(path.string()), settings.policy_number);
    };
    int recorded = 0;
    for (boost::filesystem::recursive_directory_iterator it(root), end; it != end; ++it) {
      std::shared_ptr<CObjInfo> none;
      db->InsertObject(none, info_of(it->path()));
      ++recorded;
    }
    test.Check(recorded == 3 && db->ChangeCounter() == 3, "objects recorded",
               std::to_string(recorded));
    uint32_t unchanged = db->CheckObject(info_of(root / "etc" / "hosts"));
    test.Check(unchanged == kCheckUnchanged, "check of an unchanged file",
               std::to_string(unchanged));
    std::string hash = db->HashOfObject(utility.ToWide((root / "etc" / "hosts").string()));
    std::wstring found = front->FindFileByHash(hash, true);
    test.Check(found == utility.ToWide((root / "etc" / "hosts").string()), "file found by its hash",
               hash.substr(0, 16) + "... -> " + utility.ToNarrow(found));
    std::ofstream((root / "etc" / "hosts").string(), std::ios::app) << "10.0.0.1 intruder\n";
    uint32_t changed = db->CheckObject(info_of(root / "etc" / "hosts"));
    test.Check(changed == kCheckHashChanged, "check of a changed file", std::to_string(changed));
    uint32_t added = db->CheckObject(info_of(root / "never-existed.txt"));  // reported as gone
    test.Check(added == kCheckUnchanged, "check of a path that never existed",
               std::to_string(added));
    db.reset();
    if (scratch.empty()) boost::filesystem::remove_all(root);
    failures = test.failures();
    std::cout << (failures == 0 ? "selftest passed" : "selftest FAILED") << "\n";
  }
  if (!scratch.empty()) boost::filesystem::remove_all(scratch);
  return failures == 0 ? kExitOk : kExitError;
}
