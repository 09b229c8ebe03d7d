#include "refhost/pkcs7.h"

#include <cerrno>
#include <charconv>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "refhost/file_io.h"
#include "refhost/openssl_handles.h"
#include "refhost/text_conversion.h"

namespace {

CBio OpenFile(const std::string& path) {
  CBio bio(BIO_new_file(path.c_str(), "rb"));
  if (!bio) throw std::runtime_error("cannot read " + path + ": " + OpenSslError());
  return bio;
}

CCertificates ReadCertificates(const std::string& path) {
  CBio bio = OpenFile(path);
  CCertificates certificates(sk_X509_new_null());
  while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    sk_X509_push(certificates.get(), certificate);
  }
  ERR_clear_error();  // the end of the file reads as an error
  if (sk_X509_num(certificates.get()) == 0) throw std::runtime_error("no certificate in " + path);
  return certificates;
}

// A subject attribute of a certificate as UTF-8 text; empty when absent.
std::string SubjectText(X509* certificate, int nid) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  int index = X509_NAME_get_index_by_NID(subject, nid, -1);
  if (index < 0) return std::string();
  ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  unsigned char* utf8 = nullptr;
  int length = ASN1_STRING_to_UTF8(&utf8, value);
  if (length < 0) return std::string();
  std::string text(reinterpret_cast<char*>(utf8), static_cast<size_t>(length));
  OPENSSL_free(utf8);
  return text;
}

}  // namespace

std::string OpenSslError() {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "unknown error";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

struct CRefSigner::CState {
  CX509 certificate;
  CKey key;
  CCertificates chain;
};

CRefSigner::CRefSigner(const std::string& certificate, const std::string& key,
                       const std::string& chain)
    : state_(std::make_unique<CState>()) {
  if (certificate.empty() || key.empty()) {
    throw std::runtime_error("no signing certificate or key is configured (run signdb init)");
  }
  CBio certificate_file = OpenFile(certificate);
  state_->certificate.reset(PEM_read_bio_X509(certificate_file.get(), nullptr, nullptr, nullptr));
  if (!state_->certificate) throw std::runtime_error("no certificate in " + certificate);
  CBio key_file = OpenFile(key);
  state_->key.reset(PEM_read_bio_PrivateKey(key_file.get(), nullptr, nullptr, nullptr));
  if (!state_->key) throw std::runtime_error("no private key in " + key);
  if (!chain.empty()) state_->chain = ReadCertificates(chain);
}

CRefSigner::~CRefSigner() = default;

bool CRefSigner::SignBytes(const uint8_t* bytes, uint64_t length, std::string& result) {
  CBio data(BIO_new_mem_buf(bytes, static_cast<int>(length)));
  CPkcs7 signature(PKCS7_sign(state_->certificate.get(), state_->key.get(), state_->chain.get(), data.get(),
                              PKCS7_DETACHED | PKCS7_BINARY));
  if (!signature) {
    result = "signing failed: " + OpenSslError();
    return false;
  }
  unsigned char* der = nullptr;
  int der_length = i2d_PKCS7(signature.get(), &der);
  if (der_length <= 0) {
    result = "encoding the signature failed: " + OpenSslError();
    return false;
  }
  result.assign(reinterpret_cast<const char*>(der), static_cast<size_t>(der_length));
  OPENSSL_free(der);
  return true;
}

bool CRefSigner::Sign(const std::wstring& path, std::string& result, uint32_t, uint32_t) {
  std::string narrow = WideToUtf8(path);
  try {
    std::vector<uint8_t> bytes = ReadWholeFile(narrow);
    std::string der;
    if (!SignBytes(bytes.data(), bytes.size(), der)) {
      result = der.replace(0, 0, narrow + ": ");
      return false;
    }
    WriteWholeFile(narrow + ".p7s", der.data(), der.size());
    result = "signed " + narrow;
    return true;
  } catch (const std::exception& e) {
    result = e.what();
    return false;
  }
}

struct CRefPkcs7Verifier::CState {
  CPkcs7 signature;
};

CRefPkcs7Verifier::CRefPkcs7Verifier(std::string trust_anchor, std::string local_cstm_id)
    : state_(std::make_unique<CState>()),
      trust_anchor_(std::move(trust_anchor)),
      local_cstm_id_(std::move(local_cstm_id)) {}

CRefPkcs7Verifier::~CRefPkcs7Verifier() = default;

bool CRefPkcs7Verifier::ReadSignerInfo(const uint8_t* signature, uint64_t length) {
  const unsigned char* cursor = signature;
  state_->signature.reset(d2i_PKCS7(nullptr, &cursor, static_cast<long>(length)));
  if (!state_->signature || !PKCS7_type_is_signed(state_->signature.get())) {
    reason_ = "the signature is not a PKCS#7 signed-data structure";
    ERR_clear_error();
    return false;
  }
  STACK_OF(X509)* signers = PKCS7_get0_signers(state_->signature.get(), nullptr, 0);
  if (signers == nullptr || sk_X509_num(signers) == 0) {
    sk_X509_free(signers);
    reason_ = "the signature carries no signer certificate";
    ERR_clear_error();
    return false;
  }
  X509* signer = sk_X509_value(signers, 0);
  signer_cstm_id_ = SubjectText(signer, NID_organizationName);
  std::string lcs_id = SubjectText(signer, NID_serialNumber);
  sk_X509_free(signers);
  auto [end, error] = std::from_chars(lcs_id.data(), lcs_id.data() + lcs_id.size(), signer_lcs_id_);
  if (lcs_id.empty() || error != std::errc() || end != lcs_id.data() + lcs_id.size()) {
    reason_ = "the signer's serialNumber is not a decimal number: " + lcs_id;
    return false;
  }
  return true;
}

bool CRefPkcs7Verifier::Verify(const uint8_t* data, uint64_t length) {
  if (!state_->signature) return false;
  if (trust_anchor_.empty()) {
    reason_ = "no trust anchor (CA certificate) is configured";
    return false;
  }
  try {
    CStore store(X509_STORE_new());
    CCertificates anchors = ReadCertificates(trust_anchor_);
    for (int i = 0; i < sk_X509_num(anchors.get()); ++i) {
      X509_STORE_add_cert(store.get(), sk_X509_value(anchors.get(), i));
    }
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    CBio content(BIO_new_mem_buf(data, static_cast<int>(length)));
    bool valid = PKCS7_verify(state_->signature.get(), nullptr, store.get(), content.get(), nullptr,
                              PKCS7_BINARY) == 1;
    if (!valid) reason_ = OpenSslError();
    return valid;
  } catch (const std::exception& e) {
    reason_ = e.what();
    return false;
  }
}

uint64_t CRefPkcs7Verifier::SignerLcsId() { return signer_lcs_id_; }

bool CRefPkcs7Verifier::SignerCstmIdMatches(std::string& signer_cstm_id) {
  signer_cstm_id = signer_cstm_id_;
  return signer_cstm_id_ == local_cstm_id_;
}
