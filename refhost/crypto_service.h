#pragma once

#include <mutex>
#include <string>

#include "host/crypto_service.h"

struct CRefSettings;

// Hashing with OpenSSL's EVP digests; hash text is lowercase hex.
//
// Policy numbers name the digest by its length in bits: 160 SHA-1, 224 SHA-224, 256 SHA-256,
// 384 SHA-384, 512 SHA-512. The digest descriptor of a policy number is OpenSSL's NID of that
// digest. Any other policy number is refused with std::runtime_error.
class CRefCryptoService : public CCryptoService {
 public:
  explicit CRefCryptoService(const CRefSettings& settings);

  uint32_t DigestDescriptor(uint32_t policy_number) override;
  std::string HashFile(const std::wstring& path, uint32_t policy_number) override;
  std::vector<uint8_t> HashTextToBinary(const std::string& hash_text) override;
  std::string BinaryToHashText(const uint8_t* bytes, uint64_t length, uint32_t a) override;
  std::shared_ptr<CSigner> MakeSigner(const std::wstring& certificate, const std::wstring& key,
                                      const std::wstring& chain) override;
  std::shared_ptr<CPkcs7Verifier> MakeVerifier() override;
  // The passphrase of a protected signer key, given to every signer made from now on.
  void SetSignerPassphrase(std::string passphrase);
  // While set (not empty), signers only keep the file to sign as this candidate, for signing on
  // another host (CDeferredSigner).
  void DeferSigningTo(std::string candidate_path);
  std::string LocalCstmId() override;
  std::string LocalLcsId() override;
  std::wstring SignatureFilePath(const std::wstring& path) override;

 private:
  std::string local_cstm_id_;
  std::string local_lcs_id_;
  std::string trust_anchor_;  // the CA file that verified signatures must chain to
  std::mutex passphrase_lock_;
  std::string signer_passphrase_;  // guarded by passphrase_lock_
  std::string deferred_candidate_;  // guarded by passphrase_lock_
};

// The hash text of the content of an open regular file, as long as it was when this began; "name"
// names it in errors.
std::string HashOpenFile(int fd, uint32_t policy_number, const std::string& name);

// The hash text of the first "length" bytes of an open regular file (its size when it was
// opened), read from offset 0: a file that keeps growing is never read past that. The holes of a
// sparse file are hashed as the zeros they read as, without reading them. Throws when the file
// ends before "length" (it shrank while being read).
std::string HashOpenFilePrefix(int fd, uint64_t length, uint32_t policy_number, const std::string& name);

// The hash text of "bytes" under the digest of "policy_number".
std::string HashBytes(const void* bytes, size_t length, uint32_t policy_number);
