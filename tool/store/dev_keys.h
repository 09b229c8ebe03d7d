#pragma once

#include <string>

// A development signing set: a self-signed CA, a signer certificate issued by it and the local
// identity that accepts the signer's files. The signer's cstm_id is its subject organizationName
// (O) and its lcs_id its subject serialNumber; the local identity shares the cstm_id and must have
// another lcs_id, or files signed here are refused on this installation.
struct CDevKeyRequest {
  std::string cstm_id = "signdb development";
  std::string signer_lcs_id = "1001";
  std::string local_lcs_id = "1002";
  unsigned valid_days = 3650;
  // Where the CA key goes: off this host (removable media), or, when empty, beside the others.
  std::string ca_key_path;
  // When not empty, the signer key is written encrypted (AES-256) with it.
  std::string signer_passphrase;
  // The signer certificate's validity, in days from now (tests make expired ones with it).
  long signer_not_before_days = 0;
  long signer_not_after_days = 3650;
};

// The files that MakeDevelopmentKeys wrote.
struct CDevKeyFiles {
  std::string ca_certificate;      // ca.pem
  std::string ca_key;              // ca.key (mode 0600)
  std::string signer_certificate;  // signer.pem
  std::string signer_key;          // signer.key (mode 0600)
};

// A cstm_id of its own for each installation: "signdb " and 16 random hex digits.
std::string RandomCstmId();

// The organizationName (O) of a PEM certificate's subject: the cstm_id of keys made before.
// Throws std::runtime_error when the file cannot be read as a certificate.
std::string CertificateOrganization(const std::string& certificate_path);
// The subject's serialNumber: the signer's lcs_id.
std::string CertificateSerialNumber(const std::string& certificate_path);

// Writes ca.pem, ca.key (or request.ca_key_path), signer.pem and signer.key (EC P-256, SHA-256)
// into "folder", made as needed. Throws std::runtime_error when an lcs_id is not a decimal number,
// when both lcs_ids are equal, when a key file already exists there (keys are never overwritten) or
// when OpenSSL fails.
CDevKeyFiles MakeDevelopmentKeys(const std::string& folder, const CDevKeyRequest& request);

// Issues a new signer certificate for the key in "signer_key" (its passphrase when protected)
// with the CA's certificate and key, valid from "not_before_days" to "not_after_days" from now,
// and writes it to "certificate_out" (which must not exist). Renews an expiring signer.
void IssueSignerCertificate(const std::string& ca_certificate, const std::string& ca_key,
                            const std::string& signer_key, const std::string& signer_passphrase,
                            const std::string& cstm_id, const std::string& lcs_id,
                            long not_before_days, long not_after_days,
                            const std::string& certificate_out);
