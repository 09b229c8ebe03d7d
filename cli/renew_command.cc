// signdb renew --ca-key PATH [--days N]: a new signer certificate for the signer key already in
// use, issued with the CA key brought to this host for that moment only.

#include <boost/filesystem/operations.hpp>
#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "refhost/file_io.h"
#include "refhost/pkcs7.h"
#include "tool/common/exit_status.h"
#include "tool/session/session.h"
#include "tool/store/dev_keys.h"
#include "tool/store/signer_keys.h"
#include "util/text_format.h"

int RunRenew(const CCommandLine& line) {
  RequireShape(line, {"--ca-key", "--days"}, 0, 0);
  std::string ca_key = line.Value("--ca-key");
  if (ca_key.empty())
    throw CToolError("signdb renew needs the CA key: --ca-key PATH (kept off this host)");
  long days = 365;
  try {
    if (!line.Value("--days").empty()) days = std::stol(line.Value("--days"));
  } catch (const std::exception&) {
    days = 0;
  }
  if (days < 1 || days > 36500) throw CToolError("--days wants a number of days from 1 to 36500");
  CSession session(SessionOptionsOf(line));
  const CRefSettings& settings = session.settings();
  const std::string& passphrase = session.signer().Passphrase();
  std::string fresh = settings.signer_certificate + ".new";
  boost::system::error_code ignored;
  boost::filesystem::remove(fresh, ignored);
  try {
    IssueSignerCertificate(settings.signer_chain, ca_key, settings.signer_key, passphrase,
                           CertificateOrganization(settings.signer_certificate),
                           CertificateSerialNumber(settings.signer_certificate), 0, days, fresh);
    DurableRename(fresh, settings.signer_certificate);
  } catch (const std::exception& e) {
    boost::filesystem::remove(fresh, ignored);
    throw CToolError(
        e.what(), {"the signer certificate " + settings.signer_certificate + " stays as it was"});
  }
  std::cout << "renewed " << settings.signer_certificate << ": valid until "
            << TimeText(static_cast<uint64_t>(CertificateNotAfter(settings.signer_certificate)) *
                        1000000000ull)
            << "\n";
  return kExitOk;
}
