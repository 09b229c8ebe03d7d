#include "tool/store/dev_keys.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <boost/filesystem/operations.hpp>
#include <memory>
#include <stdexcept>

#include "refhost/file_io.h"
#include "refhost/openssl_handles.h"
#include "refhost/pkcs7.h"
#include "util/text_conversion.h"

namespace {

void Require(bool ok, const char* what) {
  if (!ok)
    throw std::runtime_error(std::string("making development keys: ") + what + ": " +
                             OpenSslError());
}

bool IsDecimal(const std::string& text) {
  if (text.empty() || text.size() > 18) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

CKey NewKey() {
  CKey key(EVP_EC_gen("P-256"));
  Require(key != nullptr, "EC key generation");
  return key;
}

void AddName(X509_NAME* name, const char* field, const std::string& value) {
  Require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                     0) == 1,
          field);
}

void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  CExtension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  Require(extension != nullptr, value);
  Require(X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

// A certificate for "key", signed by "issuer_key"; "issuer" null makes it self-signed.
CX509 NewCertificate(EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key, long not_before_days,
                     long not_after_days, const std::string& organisation,
                     const std::string& serial_number, const std::string& common_name, bool is_ca) {
  CX509 certificate(X509_new());
  Require(certificate != nullptr, "X509_new");
  Require(X509_set_version(certificate.get(), X509_VERSION_3) == 1, "version");
  uint64_t serial = 0;
  Require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1, "serial");
  Require(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1) == 1,
          "serial");
  Require(
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 86400L * not_before_days) != nullptr,
      "validity");
  Require(
      X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400L * not_after_days) != nullptr,
      "validity");
  Require(X509_set_pubkey(certificate.get(), key) == 1, "public key");
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  AddName(subject, "O", organisation);
  if (!serial_number.empty()) AddName(subject, "serialNumber", serial_number);
  AddName(subject, "CN", common_name);
  X509* signer = issuer ? issuer : certificate.get();
  Require(X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)) == 1, "issuer");
  if (is_ca) {
    AddExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    AddExtension(certificate.get(), signer, NID_basic_constraints, "CA:FALSE");
    AddExtension(certificate.get(), signer, NID_key_usage, "critical,digitalSignature");
  }
  AddExtension(certificate.get(), signer, NID_subject_key_identifier, "hash");
  if (issuer) AddExtension(certificate.get(), signer, NID_authority_key_identifier, "keyid:always");
  Require(X509_sign(certificate.get(), issuer_key, EVP_sha256()) > 0, "signing the certificate");
  return certificate;
}

// A PEM text is made in memory, then written to a file that must not exist yet.
CBio MemoryBio() {
  CBio bio(BIO_new(BIO_s_mem()));
  Require(bio != nullptr, "BIO_new");
  return bio;
}

void WriteNewFileFrom(const std::string& path, BIO* bio, unsigned mode) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  WriteNewFile(path, data, static_cast<uint64_t>(length), mode);
}

void WriteCertificate(const std::string& path, X509* certificate) {
  CBio bio = MemoryBio();
  Require(PEM_write_bio_X509(bio.get(), certificate) == 1, path.c_str());
  WriteNewFileFrom(path, bio.get(), 0644);
}

// Keys are readable by their owner only.
void WriteKey(const std::string& path, EVP_PKEY* key,
              const std::string& passphrase = std::string()) {
  CBio bio = MemoryBio();
  const EVP_CIPHER* cipher = passphrase.empty() ? nullptr : EVP_aes_256_cbc();
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(passphrase.data()));
  Require(PEM_write_bio_PrivateKey(bio.get(), key, cipher, passphrase.empty() ? nullptr : bytes,
                                   static_cast<int>(passphrase.size()), nullptr, nullptr) == 1,
          path.c_str());
  WriteNewFileFrom(path, bio.get(), 0600);
}

}  // namespace

CDevKeyFiles MakeDevelopmentKeys(const std::string& folder, const CDevKeyRequest& request) {
  if (!IsDecimal(request.signer_lcs_id) || !IsDecimal(request.local_lcs_id)) {
    throw std::runtime_error("an lcs_id must be a decimal number (signer '" +
                             request.signer_lcs_id + "', local '" + request.local_lcs_id + "')");
  }
  if (request.signer_lcs_id == request.local_lcs_id) {
    throw std::runtime_error("the signer's lcs_id must differ from the local one (both " +
                             request.local_lcs_id + "), or signed files are refused here");
  }
  if (request.cstm_id.empty()) throw std::runtime_error("the cstm_id must not be empty");
  boost::filesystem::create_directories(folder);
  CDevKeyFiles files{folder + "/ca.pem",
                     request.ca_key_path.empty() ? folder + "/ca.key" : request.ca_key_path,
                     folder + "/signer.pem", folder + "/signer.key"};
  for (const std::string& path :
       {files.ca_certificate, files.ca_key, files.signer_certificate, files.signer_key}) {
    if (boost::filesystem::exists(boost::filesystem::symlink_status(path))) {
      throw std::runtime_error(path + " already exists; keys are never overwritten");
    }
  }
  CKey ca_key = NewKey();
  CX509 ca = NewCertificate(ca_key.get(), nullptr, ca_key.get(), 0, request.valid_days,
                            request.cstm_id, "", "signdb development CA", true);
  CKey signer_key = NewKey();
  CX509 signer = NewCertificate(signer_key.get(), ca.get(), ca_key.get(),
                                request.signer_not_before_days, request.signer_not_after_days,
                                request.cstm_id, request.signer_lcs_id, "signdb signer", false);
  WriteKey(files.ca_key, ca_key.get());
  WriteCertificate(files.ca_certificate, ca.get());
  WriteKey(files.signer_key, signer_key.get(), request.signer_passphrase);
  WriteCertificate(files.signer_certificate, signer.get());
  return files;
}

void IssueSignerCertificate(const std::string& ca_certificate, const std::string& ca_key,
                            const std::string& signer_key, const std::string& signer_passphrase,
                            const std::string& cstm_id, const std::string& lcs_id,
                            long not_before_days, long not_after_days,
                            const std::string& certificate_out) {
  auto read_key = [](const std::string& path, const std::string& passphrase) {
    CBio bio(BIO_new_file(path.c_str(), "rb"));
    if (!bio) throw std::runtime_error("cannot read " + path + ": " + OpenSslError());
    CKey key(PEM_read_bio_PrivateKey(
        bio.get(), nullptr, nullptr,
        passphrase.empty() ? nullptr : const_cast<char*>(passphrase.c_str())));
    if (!key) throw std::runtime_error("no private key in " + path + ": " + OpenSslError());
    return key;
  };
  CBio ca_bio(BIO_new_file(ca_certificate.c_str(), "rb"));
  if (!ca_bio) throw std::runtime_error("cannot read " + ca_certificate + ": " + OpenSslError());
  CX509 ca(PEM_read_bio_X509(ca_bio.get(), nullptr, nullptr, nullptr));
  if (!ca) throw std::runtime_error("no certificate in " + ca_certificate + ": " + OpenSslError());
  CKey issuer = read_key(ca_key, std::string());
  if (X509_check_private_key(ca.get(), issuer.get()) != 1) {
    throw std::runtime_error("the CA key " + ca_key + " does not belong to " + ca_certificate);
  }
  CKey signer = read_key(signer_key, signer_passphrase);
  CX509 certificate = NewCertificate(signer.get(), ca.get(), issuer.get(), not_before_days,
                                     not_after_days, cstm_id, lcs_id, "signdb signer", false);
  WriteCertificate(certificate_out, certificate.get());
}

std::string RandomCstmId() {
  unsigned char bytes[8];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("the random generator failed");
  return "signdb " + HexText(bytes, sizeof bytes);
}

namespace {

std::string SubjectField(const std::string& certificate_path, int nid, const char* what) {
  CBio file(BIO_new_file(certificate_path.c_str(), "r"));
  CX509 certificate(file ? PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!certificate) throw std::runtime_error("cannot read the certificate " + certificate_path);
  char text[256] = {};
  int length =
      X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), nid, text, sizeof text);
  if (length < 0)
    throw std::runtime_error(std::string("the certificate ") + certificate_path + " names no " +
                             what);
  return std::string(text, static_cast<size_t>(length));
}

}  // namespace

std::string CertificateOrganization(const std::string& certificate_path) {
  return SubjectField(certificate_path, NID_organizationName, "organization");
}

std::string CertificateSerialNumber(const std::string& certificate_path) {
  return SubjectField(certificate_path, NID_serialNumber, "serialNumber");
}
