#include "tool/store/signer_keys.h"

#include <ctime>
#include <iostream>

#include "refhost/pkcs7.h"
#include "refhost/save_hooks.h"
#include "refhost/settings.h"
#include "tool/common/exit_status.h"
#include "tool/store/passphrase.h"
#include "util/text_format.h"

CSignerKeys::CSignerKeys(const CRefSettings& settings, CSaveHooks& hooks, std::string passphrase_fd)
    : settings_(settings), hooks_(hooks), passphrase_fd_(std::move(passphrase_fd)) {}

CSignerKeys::~CSignerKeys() { ForgetPassphrase(passphrase_); }

void CSignerKeys::Prepare() {
  if (prepared_) return;
  const std::string& certificate = settings_.signer_certificate;
  time_t not_after = 0;
  try {
    not_after = CertificateNotAfter(certificate);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; nothing was saved");
  }
  time_t now = ::time(nullptr);
  std::string until = TimeText(static_cast<uint64_t>(not_after) * 1000000000ull);
  if (not_after <= now) {
    throw CToolError("the signer certificate " + certificate + " expired on " + until +
                         "; nothing is signed with it, and nothing was saved",
                     {"issue a new one with the CA key: signdb renew --ca-key PATH"});
  }
  constexpr time_t kWarnAhead = 30 * 24 * 3600;
  if (not_after - now < kWarnAhead) {
    std::cerr << "signdb: warning: the signer certificate " << certificate << " expires on "
              << until << " (in " << (not_after - now) / 86400
              << " days); issue a new one before then: signdb renew --ca-key PATH\n";
  }
  Passphrase();
  prepared_ = true;
}

const std::string& CSignerKeys::Passphrase() {
  if (passphrase_.empty() && KeyNeedsPassphrase(settings_.signer_key)) {
    passphrase_ = ReadPassphrase("passphrase of the signer key " + settings_.signer_key + ": ",
                                 passphrase_fd_);
    hooks_.SetSignerPassphrase(passphrase_);
  }
  return passphrase_;
}

std::unique_ptr<CRefSigner> CSignerKeys::Signer() {
  Prepare();
  try {
    return std::make_unique<CRefSigner>(settings_.signer_certificate, settings_.signer_key,
                                        settings_.signer_chain, passphrase_);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
}
