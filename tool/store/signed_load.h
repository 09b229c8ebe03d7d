#pragma once

#include <string>

class CHashDB;
class CRefHost;

// The signature file that belongs to an HDB file, as the host names it.
std::string SignatureFileOf(CRefHost& host, const std::string& hdb_path);

// Loads the HDB file "hdb_path", with its signature "signature_path", into "database" through the
// module (its signature verified unless "verify" is false). Throws CToolError when the file or its
// signature is missing or unreadable, or when the module refuses it: the module's reasons, and
// OpenSSL's when the signature is what failed, are the error's lines.
void LoadSignedFile(CRefHost& host, CHashDB& database, const std::string& hdb_path,
                    const std::string& signature_path, bool verify);
