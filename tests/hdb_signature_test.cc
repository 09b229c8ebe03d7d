// The signature check with real certificates made by the development key script.

#include <gtest/gtest.h>

#include "tests/persistence_fixture.h"

class HdbSignatureTest : public PersistenceTest {
 protected:
  static void SetUpTestSuite() {
    PersistenceTest::SetUpTestSuite();
    MakeKeys((*keys_) / "other-ca", "signdb development", "1001", "1002");
    MakeKeys((*keys_) / "other-customer", "another customer", "1003", "1002");
  }

  void SetUp() override {
    PersistenceTest::SetUp();
    InsertFile(L"etc/passwd", std::string(64, 'a'), 10);
    db_->Save();
    hdb_ = CTempDir::Read(HdbFile());
    signature_ = CTempDir::Read(SignatureFile());
  }

  // Verifies through a database of a host with the given local identity and trust anchor.
  bool Verify(const std::string& hdb, const std::string& signature) {
    return db_->VerifySignature(HdbFile(), Buffer(hdb), Buffer(signature));
  }
  void UseHost(const std::string& ca_folder, const std::string& cstm_id, const std::string& lcs_id) {
    settings_.signer_chain = ca_folder + "/ca.pem";
    settings_.local_cstm_id = cstm_id;
    settings_.local_lcs_id = lcs_id;
    host_ = std::make_shared<CRefHost>(settings_);
    host_->log().KeepRecords(true);
    db_ = MakeDb();
  }
  std::string Signer(const std::string& cstm_id = "signdb development", const std::string& lcs_id = "1001") {
    return " [signer cstm_id]=" + cstm_id + " [signer lcs_id]=" + lcs_id + " [HDB]=" + HdbFile();
  }

  std::string hdb_;
  std::string signature_;
};

TEST_F(HdbSignatureTest, AFileSignedByAnotherSignerOfTheCustomerPasses) {
  EXPECT_TRUE(Verify(hdb_, signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_INFORMATION, "HDB file PKCS#7 digital signature verify passed." + Signer()));
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  EXPECT_TRUE(LoadSaved(loaded, true));
  EXPECT_NE(nullptr, loaded->FindNode(L"etc/passwd"));
}

TEST_F(HdbSignatureTest, AChainToAnotherCaIsRefused) {
  UseHost(*keys_ / "other-ca", "signdb development", "1002");
  EXPECT_FALSE(Verify(hdb_, signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB file PKCS#7 digital signature verify failure! HDB file damaged!" + Signer()));
}

TEST_F(HdbSignatureTest, AnotherCustomerIsRefused) {
  UseHost(*keys_ / "main", "another customer", "1002");
  EXPECT_FALSE(Verify(hdb_, signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_CRITICAL,
                   "The cstm_id of HDB signer is NOT same with local! [local cstm_id]=another customer" + Signer()));
}

TEST_F(HdbSignatureTest, AFileSignedUnderTheLocalLcsIdIsRefused) {
  UseHost(*keys_ / "main", "signdb development", "1001");
  EXPECT_FALSE(Verify(hdb_, signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_CRITICAL,
                   "The cstm_id and lcs_id of HDB signer must NOT the same with local! [local cstm_id]=signdb "
                   "development [local lcs_id]=1001" + Signer()));
}

TEST_F(HdbSignatureTest, TheLcsIdComparisonIsExact) {
  UseHost(*keys_ / "main", "signdb development", "100");  // a prefix of the signer's "1001"
  EXPECT_TRUE(Verify(hdb_, signature_));
  UseHost(*keys_ / "main", "signdb development", "01001");
  EXPECT_TRUE(Verify(hdb_, signature_));
}

TEST_F(HdbSignatureTest, OneChangedByteInTheHeaderOrARecordIsRefused) {
  std::string header_changed = hdb_;
  header_changed[kHeaderRevisionOffset] ^= 1;
  EXPECT_FALSE(Verify(header_changed, signature_));
  std::string record_changed = hdb_;
  record_changed[record_changed.size() - 1] ^= 0x20;
  EXPECT_FALSE(Verify(record_changed, signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB file PKCS#7 digital signature verify failure! HDB file damaged!" + Signer()));
  std::shared_ptr<CHashDBImpl> loaded = MakeDb();
  EXPECT_FALSE(LoadInto(loaded, record_changed, signature_, true));
  EXPECT_FALSE(loaded->IsLoaded());
}

TEST_F(HdbSignatureTest, SizesAreCheckedFirst) {
  EXPECT_FALSE(Verify(hdb_.substr(0, 47), signature_));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB file size NOT correct,current=47,expected=48 [HDB]=" + HdbFile()));
  EXPECT_FALSE(Verify(hdb_.substr(0, 48), signature_));  // passes the size, fails the signature
  EXPECT_FALSE(LogsStarting(Poco::Message::PRIO_ERROR, "HDB file size NOT correct,current=48"));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB file PKCS#7 digital signature verify failure! HDB file damaged!" + Signer()));
  EXPECT_FALSE(Verify(hdb_, ""));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB PKCS#7 digital signature file size NOT correct,current=0 [HDB]=" + HdbFile()));
  EXPECT_FALSE(db_->VerifySignature(HdbFile(), nullptr, Buffer(signature_)));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR, "[hdbi,hpv] Bad logic! [HDB]=" + HdbFile()));
}

TEST_F(HdbSignatureTest, ASignatureOfAnyNonZeroSizeIsJudgedByItsContent) {
  EXPECT_FALSE(Verify(hdb_, "x"));
  EXPECT_FALSE(LogsStarting(Poco::Message::PRIO_ERROR, "HDB PKCS#7 digital signature file size NOT correct"));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_ERROR,
                   "HDB file PKCS#7 digital signature verify failure! HDB file damaged! [HDB]=" + HdbFile()));
}

TEST_F(HdbSignatureTest, AnotherCustomersSignerIsNamedInTheRefusal) {
  UseKeys(*keys_ / "other-customer", "signdb development", "1002");
  settings_.signer_chain = *keys_ / "other-customer/ca.pem";
  host_ = std::make_shared<CRefHost>(settings_);
  host_->log().KeepRecords(true);
  db_ = MakeDb();
  InsertFile(L"f", "aa");
  db_->Save();
  EXPECT_FALSE(Verify(CTempDir::Read(HdbFile()), CTempDir::Read(SignatureFile())));
  EXPECT_TRUE(Logs(Poco::Message::PRIO_CRITICAL,
                   "The cstm_id of HDB signer is NOT same with local! [local cstm_id]=signdb development" +
                       Signer("another customer", "1003")));
}
