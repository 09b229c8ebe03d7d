#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include <openssl/types.h>

#include "host/crypto_service.h"

// Detached DER PKCS#7 signatures with OpenSSL. The signer signs a file's exact bytes with its
// certificate and key and embeds the chain; the signature goes to the file's path plus ".p7s".
class CRefSigner : public CSigner {
 public:
  // Throws std::runtime_error naming the file that cannot be read, with OpenSSL's reason. "key" is
  // a PEM file (encrypted with "passphrase" when it is protected) or a URI that an OpenSSL store
  // serves ("file:", or "pkcs11:"/"handle:" with a PKCS#11 or TPM provider configured).
  CRefSigner(const std::string& certificate, const std::string& key, const std::string& chain,
             const std::string& passphrase = std::string());
  ~CRefSigner() override;
  bool Sign(const std::wstring& path, std::string& result, uint32_t a, uint32_t b) override;
  // The DER signature of these bytes in "result"; false with the reason there instead.
  bool SignBytes(const uint8_t* bytes, uint64_t length, std::string& result);

 private:
  // The DER signature of what "data" reads, in "result"; false with the reason there instead.
  bool SignData(BIO* data, std::string& result);
  struct CState;
  std::unique_ptr<CState> state_;
};

// Checks a detached signature: the signer's certificate must chain to the trust anchor (a CA
// file) and the signature must hold for exactly the given bytes. The signer's cstm_id is its
// certificate's organizationName (O), its lcs_id the subject's serialNumber, a decimal number.
class CRefPkcs7Verifier : public CPkcs7Verifier {
 public:
  CRefPkcs7Verifier(std::string trust_anchor, std::string local_cstm_id);
  ~CRefPkcs7Verifier() override;
  bool ReadSignerInfo(const uint8_t* signature, uint64_t length) override;
  bool Verify(const uint8_t* data, uint64_t length) override;
  uint64_t SignerLcsId() override;
  bool SignerCstmIdMatches(std::string& signer_cstm_id) override;

  // Why the last operation failed, for the tool's messages.
  const std::string& reason() const { return reason_; }

 private:
  struct CState;
  std::unique_ptr<CState> state_;
  std::string trust_anchor_;
  std::string local_cstm_id_;
  std::string signer_cstm_id_;
  uint64_t signer_lcs_id_ = 0;
  std::string reason_;
};

// The text of OpenSSL's queued errors with their details, for messages; clears the queue.
std::string OpenSslError();

// When the certificate in this PEM file stops being valid. Throws when it cannot be read.
time_t CertificateNotAfter(const std::string& path);

// Whether this PEM key file is encrypted (needs a passphrase to be read).
bool KeyNeedsPassphrase(const std::string& key);
