#include "tool/store/signed_load.h"

#include <boost/filesystem/operations.hpp>

#include "hashdb/hash_db.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/utility_service.h"
#include "refhost/pkcs7.h"
#include "refhost/ref_host.h"
#include "refhost/save_hooks.h"
#include "tool/common/exit_status.h"
#include "util/text_conversion.h"

std::string SignatureFileOf(CRefHost& host, const std::string& hdb_path) {
  return WideToUtf8(host.Crypto()->SignatureFilePath(Utf8ToWide(hdb_path)));
}

void LoadSignedFile(CRefHost& host, CHashDB& database, const std::string& hdb_path,
                    const std::string& signature_path, bool verify) {
  CUtilityService& utility = *host.Utility();
  CSaveHooks hooks(host);
  hooks.TakeProblems();
  std::shared_ptr<CBuffer> hdb;
  try {
    hdb = utility.ReadFile(Utf8ToWide(hdb_path), 0);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  boost::system::error_code missing;
  if (!boost::filesystem::exists(signature_path, missing)) {
    throw CToolError("the database " + hdb_path + " has no signature file (" + signature_path +
                     "); an unsigned database is never used");
  }
  std::shared_ptr<CBuffer> signature;
  try {
    signature = utility.ReadFile(Utf8ToWide(signature_path), 0);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  if (!database.Load(nullptr, verify, hdb_path, hdb, signature)) {
    std::vector<std::string> problems = hooks.TakeProblems();
    // The module says that the signature failed; OpenSSL says why (an expired certificate, say).
    CRefPkcs7Verifier verifier(host.settings().signer_chain, host.settings().local_cstm_id);
    if (verify && (!verifier.ReadSignerInfo(signature->Data(), signature->Size()) ||
                   !verifier.Verify(hdb->Data(), hdb->Size()))) {
      problems.push_back("OpenSSL: " + verifier.reason());
    }
    throw CToolError("the database " + hdb_path + " was refused:", problems);
  }
}
