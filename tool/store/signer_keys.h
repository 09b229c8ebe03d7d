#pragma once

#include <memory>
#include <string>

class CRefSigner;
class CSaveHooks;
struct CRefSettings;

// The configured signer of a run: its certificate is looked at before the first signature (an
// expired one refuses, one that expires within 30 days is warned about), and the passphrase of a
// protected key is asked once (on the terminal or from --passphrase-fd), handed to the module's
// signers through the save hooks, and overwritten when the run ends.
class CSignerKeys {
 public:
  CSignerKeys(const CRefSettings& settings, CSaveHooks& hooks, std::string passphrase_fd);
  ~CSignerKeys();
  CSignerKeys(const CSignerKeys&) = delete;
  CSignerKeys& operator=(const CSignerKeys&) = delete;

  // Before the first signature of a run; throws CToolError when nothing may be signed.
  void Prepare();
  // The passphrase of a protected signer key; empty for a key that has none.
  const std::string& Passphrase();
  // The configured signer, prepared (throws CToolError with OpenSSL's reason).
  std::unique_ptr<CRefSigner> Signer();

 private:
  const CRefSettings& settings_;
  CSaveHooks& hooks_;
  std::string passphrase_fd_;
  std::string passphrase_;  // read once, when the first signature needs it
  bool prepared_ = false;
};
