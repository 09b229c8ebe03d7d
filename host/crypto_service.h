#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Signs a file with a detached PKCS#7 signature written beside it.
class CSigner {
 public:
  virtual ~CSigner() = default;
  // slot 0: signs the file at "path"; "result" receives a text about the outcome. Called with 4, 0.
  virtual bool Sign(const std::wstring& path, std::string& result, uint32_t a, uint32_t b) = 0;
};

// Checks one detached PKCS#7 signature. Made anew for each verification; not shared between threads.
class CPkcs7Verifier {
 public:
  virtual ~CPkcs7Verifier() = default;
  // slot 0: reads the signer information out of the signature bytes; false when unreadable.
  virtual bool ReadSignerInfo(const uint8_t* signature, uint64_t length) = 0;
  // slot 1: true when the signature is valid for exactly these bytes and its chain is trusted.
  virtual bool Verify(const uint8_t* data, uint64_t length) = 0;
  // slot 2: the signer's lcs_id as a number.
  virtual uint64_t SignerLcsId() = 0;
  // slot 3: whether the signer's cstm_id matches the local one; "signer_cstm_id" receives it.
  virtual bool SignerCstmIdMatches(std::string& signer_cstm_id) = 0;
};

// The host's hashing and signing. Safe for concurrent use.
class CCryptoService {
 public:
  virtual ~CCryptoService() = default;
  // slot 1: the digest descriptor that belongs to a policy number (stable for a number).
  virtual uint32_t DigestDescriptor(uint32_t policy_number) = 0;
  // slot 2 (host's choice): the hash text of a file's content with the policy's digest. Throws
  // when the file cannot be read.
  virtual std::string HashFile(const std::wstring& path, uint32_t policy_number) = 0;
  // slot 7: hash text to its binary form.
  virtual std::vector<uint8_t> HashTextToBinary(const std::string& hash_text) = 0;
  // slot 8 (host's choice): binary hash bytes to hash text; called with the bytes, their length, 0.
  virtual std::string BinaryToHashText(const uint8_t* bytes, uint64_t length, uint32_t a) = 0;
  // slot 50: a signer from the certificate, key and chain that the cfg service names (26, 27, 28).
  virtual std::shared_ptr<CSigner> MakeSigner(const std::wstring& certificate,
                                              const std::wstring& key,
                                              const std::wstring& chain) = 0;
  // slot 51 (host's choice): a new PKCS#7 verifier.
  virtual std::shared_ptr<CPkcs7Verifier> MakeVerifier() = 0;
  // slots 52-53 (host's choice): the local identifiers.
  virtual std::string LocalCstmId() = 0;  // slot 52
  virtual std::string LocalLcsId() = 0;   // slot 53
  // slot 54: the path of the detached signature file of a file.
  virtual std::wstring SignatureFilePath(const std::wstring& path) = 0;
};
