#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class CRefSigner;
class CRefPkcs7Verifier;

// What ties a policy's database to that policy: a signed record beside it (NAME.hdb.bind) naming
// the policy, its root, the host, the revisions of the databases it vouches for and where the
// policy's accept journal stood. A database of
// another policy or host, or one put back from another save, is told apart by it even when its
// own signature holds. One file, replaced atomically: during a save it names both the revision
// in place and the one being saved, so every moment of a save has a record that holds.
//
// The file is two lines: the record as JSON, then the base64 DER PKCS#7 signature of that line.
struct CPolicyBinding {
  std::string policy;
  std::string root;
  std::string host;
  std::vector<uint64_t> revisions;
  // Where the policy's accept journal stood when the record was made: its entries and the
  // SHA-256 of the last one's line (none for a record made before the journal existed).
  uint64_t journal_entries = 0;
  std::string journal_hash;

  bool Vouches(uint64_t revision) const;
};

// Signs and writes the record; throws std::runtime_error with the reason.
void WritePolicyBinding(const std::string& hdb_path, const CPolicyBinding& binding,
                        CRefSigner& signer);

// Writes the record without its signature, for a candidate that is signed on another host.
void WriteUnsignedPolicyBinding(const std::string& hdb_path, const CPolicyBinding& binding);

// Signs the record beside "hdb_path" as it stands (on the signing host) and returns it; throws
// std::runtime_error when there is none or it cannot be read or signed.
CPolicyBinding SignPolicyBinding(const std::string& hdb_path, CRefSigner& signer);

// The record beside "hdb_path", its signature checked against the trust anchor; nothing when
// there is none. Throws std::runtime_error when it is there but damaged or not signed by a
// trusted signer.
std::optional<CPolicyBinding> ReadPolicyBinding(const std::string& hdb_path,
                                                CRefPkcs7Verifier& verifier);

// What is wrong with "binding" for the policy, root and host of "expected", as a sentence; empty
// when it holds. Revisions are not compared.
std::string PolicyBindingMismatch(const CPolicyBinding& binding, const CPolicyBinding& expected);
