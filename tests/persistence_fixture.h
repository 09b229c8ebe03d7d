#pragma once

#include <fstream>

#include <gtest/gtest.h>

#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_format.h"
#include "host/crypto_service.h"
#include "host/utility_service.h"
#include "tool/store/dev_keys.h"
#include "refhost/utility_service.h"
#include "tests/hash_db_fixture.h"

// Makes development keys in "folder"; returns the folder.
inline std::string MakeKeys(const std::string& folder, const std::string& cstm_id,
                            const std::string& signer_lcs_id, const std::string& local_lcs_id) {
  CDevKeyRequest request;
  request.cstm_id = cstm_id;
  request.signer_lcs_id = signer_lcs_id;
  request.local_lcs_id = local_lcs_id;
  MakeDevelopmentKeys(folder, request);
  return folder;
}

// One record: a file (or directory) at "path" with the given hash bytes and texts.
inline std::string HdbRecordBytes(const std::string& path, bool is_dir = false, const std::string& hash = "",
                          uint64_t size = 1, const std::string& security = "",
                          const std::string& target = "") {
  std::string record(kRecordHeaderSize, '\0');
  auto* out = reinterpret_cast<uint8_t*>(record.data());
  out[0] = kRecordMark;
  out[1] = is_dir ? 1 : 0;
  EncodeBigEndian32(out + kRecordAttributesOffset, 0100644);
  EncodeBigEndian64(out + kRecordTime1Offset, 11);
  EncodeBigEndian64(out + kRecordTime2Offset, 22);
  out[kRecordHashLengthOffset] = static_cast<uint8_t>(hash.size());
  EncodeBigEndian16(out + kRecordPathLengthOffset, static_cast<uint16_t>(path.size()));
  EncodeBigEndian16(out + kRecordSecurityLengthOffset, static_cast<uint16_t>(security.size()));
  EncodeBigEndian16(out + kRecordTargetLengthOffset, static_cast<uint16_t>(target.size()));
  EncodeBigEndian64(out + kRecordSizeOffset, size);
  EncodeBigEndian32(out + kRecordEndMarkOffset, kRecordEndMark);
  return record + hash + path + security + target;
}

// A database over the reference host with development keys: the signer's lcs_id is 1001, the
// local one 1002, both of customer "signdb development".
class PersistenceTest : public HashDbTest {
 protected:
  static void SetUpTestSuite() {
    keys_ = new CTempDir;
    MakeKeys((*keys_) / "main", "signdb development", "1001", "1002");
  }
  static void TearDownTestSuite() {
    delete keys_;
    keys_ = nullptr;
  }

  PersistenceTest() { UseKeys(*keys_ / "main", "signdb development", "1002"); }

  void UseKeys(const std::string& folder, const std::string& cstm_id, const std::string& lcs_id) {
    settings_.signer_certificate = folder + "/signer.pem";
    settings_.signer_key = folder + "/signer.key";
    settings_.signer_chain = folder + "/ca.pem";
    settings_.local_cstm_id = cstm_id;
    settings_.local_lcs_id = lcs_id;
  }

  std::string HdbFile() const { return dir_ / "test.hdb"; }
  std::string SignatureFile() const { return dir_ / "test.hdb.p7s"; }

  std::shared_ptr<CBuffer> Buffer(const std::string& bytes) {
    return std::make_shared<CRefBuffer>(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }

  // Loads "hdb" (and "signature") into a fresh database of this fixture's policy.
  bool LoadInto(const std::shared_ptr<CHashDBImpl>& db, const std::string& hdb,
                const std::string& signature = "signature", bool verify = false,
                const std::atomic<bool>* exit_flag = nullptr) {
    return db->Load(exit_flag, verify, HdbFile(), Buffer(hdb), Buffer(signature));
  }
  bool LoadSaved(const std::shared_ptr<CHashDBImpl>& db, bool verify = true) {
    return LoadInto(db, CTempDir::Read(HdbFile()), CTempDir::Read(SignatureFile()), verify);
  }

  // A header as this fixture's database writes it, with "count" nodes.
  std::string Header(uint64_t count, uint64_t revision = 0x1122334455667788ull) {
    std::string header(kHeaderSize, '\0');
    auto* out = reinterpret_cast<uint8_t*>(header.data());
    EncodeBigEndian64(out, kHdbMagic);
    EncodeBigEndian32(out + kHeaderVersionOffset, kHdbVersion);
    EncodeBigEndian32(out + kHeaderPlatformOffset, 1);
    EncodeBigEndian32(out + kHeaderSecondFlagOffset, 1);
    EncodeBigEndian32(out + kHeaderLengthOffset, kHeaderSize);
    EncodeBigEndian32(out + kHeaderPolicyNumberOffset, 256);
    EncodeBigEndian32(out + kHeaderPolicyValueOffset, host_->Crypto()->DigestDescriptor(256));
    EncodeBigEndian64(out + kHeaderNodeCountOffset, count);
    EncodeBigEndian64(out + kHeaderRevisionOffset, revision);
    return header;
  }

  static std::string Record(const std::string& path, bool is_dir = false, const std::string& hash = "",
                            uint64_t size = 1, const std::string& security = "",
                            const std::string& target = "") {
    return HdbRecordBytes(path, is_dir, hash, size, security, target);
  }

  bool Logs(Poco::Message::Priority priority, const std::string& text) const {
    std::vector<std::string> lines = Logged(priority);
    return std::find(lines.begin(), lines.end(), text) != lines.end();
  }
  bool LogsStarting(Poco::Message::Priority priority, const std::string& start) const {
    for (const std::string& line : Logged(priority)) {
      if (line.rfind(start, 0) == 0) return true;
    }
    return false;
  }

  static CTempDir* keys_;
};

inline CTempDir* PersistenceTest::keys_ = nullptr;
