// signdb verify FILE.hdb and signdb dump FILE.hdb: an HDB file on its own, outside any policy.

#include <boost/filesystem/operations.hpp>
#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "hashdb/hash_db.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/utility_service.h"
#include "refhost/file_io.h"
#include "refhost/ref_host.h"
#include "tool/common/exit_status.h"
#include "tool/report/hdb_dump.h"
#include "tool/session/session.h"
#include "util/json_line.h"
#include "util/text_format.h"

namespace {

std::shared_ptr<CBuffer> ReadWhole(CSession& session, const std::string& path, const char* what) {
  boost::system::error_code error;
  if (!boost::filesystem::is_regular_file(path, error)) {
    throw CToolError(std::string("no ") + what + " at " + path);
  }
  try {
    return session.host().Utility()->ReadFile(session.Wide(path), 0);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
}

}  // namespace

int RunVerify(const CCommandLine& line) {
  RequireShape(line, {"--signature", "--json"}, 1, 1);
  CSession session(SessionOptionsOf(line));
  std::string hdb_path = line.arguments[0];
  std::string signature_path = line.Value("--signature", session.SignatureFileOf(hdb_path));
  session.LockIfPolicyFile(hdb_path);
  std::shared_ptr<CBuffer> hdb = ReadWhole(session, hdb_path, "HDB file");
  std::shared_ptr<CBuffer> signature = ReadWhole(session, signature_path, "signature file");

  // Who signed it, as far as the signature says; the verdict itself is the database's.
  std::string signer_cstm_id;
  std::string signer_lcs_id;
  std::shared_ptr<CPkcs7Verifier> reader = session.host().Crypto()->MakeVerifier();
  if (reader && reader->ReadSignerInfo(signature->Data(), signature->Size())) {
    reader->SignerCstmIdMatches(signer_cstm_id);
    signer_lcs_id = std::to_string(reader->SignerLcsId());
  }
  CRefPolicySettings scratch{"verify", "/"};
  std::shared_ptr<CHashDB> database = session.NewDatabase(scratch);
  session.TakeProblems();
  bool good = database->VerifySignature(hdb_path, hdb, signature);
  std::vector<std::string> reasons = session.TakeProblems();
  if (line.Has("--json")) {
    CJsonLine answer;
    answer.Open().String("file", hdb_path).String("signature", signature_path);
    answer.Bool("valid", good)
        .String("signer_cstm_id", signer_cstm_id)
        .String("signer_lcs_id", signer_lcs_id);
    answer.String("local_cstm_id", session.settings().local_cstm_id)
        .String("local_lcs_id", session.settings().local_lcs_id)
        .OpenArray("reasons");
    for (const std::string& reason : reasons) answer.Item(reason);
    std::cout << answer.Close().Close().Take() << "\n";
  } else {
    std::cout << hdb_path << ": " << (good ? "signature good" : "REFUSED") << "\n"
              << "  signature file: " << signature_path << "\n";
    if (!signer_lcs_id.empty()) {
      std::cout << "  signer:         cstm_id '" << signer_cstm_id << "', lcs_id " << signer_lcs_id
                << "\n";
    } else {
      std::cout << "  signer:         unreadable\n";
    }
    std::cout << "  this host:      cstm_id '" << session.settings().local_cstm_id << "', lcs_id "
              << session.settings().local_lcs_id << "\n";
    for (const std::string& reason : reasons) std::cout << "  reason:         " << reason << "\n";
  }
  return good ? kExitOk : kExitDifferences;
}

int RunDump(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 1);
  const std::string& path = line.arguments[0];
  std::vector<uint8_t> bytes;
  boost::system::error_code error;
  if (!boost::filesystem::is_regular_file(path, error)) throw CToolError("no HDB file at " + path);
  try {
    bytes = ReadWholeFile(path);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  std::string problem;
  if (!DumpHdb(bytes.data(), bytes.size(), line.Has("--json"), std::cout, problem)) {
    std::cout.flush();
    throw CToolError(path + " is not a well-formed HDB file: " + problem);
  }
  return kExitOk;
}
