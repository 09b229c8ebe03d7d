// Fuzzes the load of an HDB body: the input follows a valid header (whose node count comes from
// the input's first byte), so the fuzzer spends its time in the record cutting and reading.

#include <cstdint>
#include <memory>
#include <string>

#include <boost/filesystem.hpp>

#include "hashdb/hash_db_impl.h"
#include "hdbfile/hdb_header.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "refhost/utility_service.h"
#include "host/crypto_service.h"

namespace {

struct CFuzzEnvironment {
  CFuzzEnvironment() {
    root = boost::filesystem::temp_directory_path() / "signdb-fuzz-root";
    boost::filesystem::create_directories(root);
    CRefSettings settings;
    settings.log_console = false;
    settings.threads = 2;
    settings.restore_time_limit_ms = 60000;
    host = std::make_shared<CRefHost>(settings);
    policy = std::make_shared<CRefPolicy>(CRefPolicySettings{"fuzz", root.string()});
  }
  boost::filesystem::path root;
  std::shared_ptr<CRefHost> host;
  std::shared_ptr<CPolicy> policy;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static CFuzzEnvironment* environment = new CFuzzEnvironment;
  CHdbHeader header;
  header.platform_flag = 1;
  header.policy_number = 256;
  header.policy_value = environment->host->Crypto()->DigestDescriptor(256);
  header.node_count = size > 0 ? data[0] : 0;
  header.revision = 1;
  std::vector<uint8_t> bytes(kHeaderSize);
  header.EncodeTo(bytes.data());
  if (size > 1) bytes.insert(bytes.end(), data + 1, data + size);

  auto db = std::make_shared<CHashDBImpl>(environment->host, 256, L"/nonexistent/fuzz.hdb",
                                          environment->policy);
  try {
    db->Load(nullptr, false, "fuzz.hdb", std::make_shared<CRefBuffer>(std::move(bytes)),
             std::make_shared<CRefBuffer>(std::vector<uint8_t>{1}));
  } catch (const std::runtime_error&) {
    // a refused body is a clear error, which is all that is asked
  }
  return 0;
}
