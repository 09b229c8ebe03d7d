// Damaged HDB files: every truncation and many byte flips of a saved file are refused or loaded
// in part, never crash, and never touch the file on disk.

#include <random>

#include <gtest/gtest.h>

#include "tests/persistence_fixture.h"

class HdbCorruptionTest : public PersistenceTest {
 protected:
  void SetUp() override {
    settings_.threads = 2;
    PersistenceTest::SetUp();
    host_->log().KeepRecords(false);
    for (int i = 0; i < 30; ++i) {
      InsertFile(L"d" + std::to_wstring(i % 3) + L"/f" + std::to_wstring(i), std::string(64, 'a' + i % 6), i);
    }
    auto link = CFakeObjInfo::File(L"d0/link", "", 4);
    link->target = "f1";
    Insert(link);
    db_->Save();
    hdb_ = CTempDir::Read(HdbFile());
    signature_ = CTempDir::Read(SignatureFile());
  }

  // Loads "bytes" without the signature check into a fresh database; errors are allowed,
  // crashes are not.
  void LoadDamaged(const std::string& bytes) {
    std::shared_ptr<CHashDBImpl> db = MakeDb();
    try {
      LoadInto(db, bytes);
    } catch (const std::runtime_error&) {
      // refused with a clear error
    }
  }

  std::string hdb_;
  std::string signature_;
};

TEST_F(HdbCorruptionTest, EveryTruncationIsRefusedOrLoadedInPart) {
  for (size_t length = 0; length < hdb_.size(); ++length) LoadDamaged(hdb_.substr(0, length));
  EXPECT_EQ(hdb_, CTempDir::Read(HdbFile()));
}

TEST_F(HdbCorruptionTest, ByteFlipsAreRefusedOrLoadedInPart) {
  std::mt19937 random(1234);
  for (int round = 0; round < 400; ++round) {
    std::string damaged = hdb_;
    int flips = 1 + round % 4;
    for (int i = 0; i < flips; ++i) {
      size_t at = round < 48 ? static_cast<size_t>(round) : random() % damaged.size();
      damaged[at] = static_cast<char>(damaged[at] ^ (1 << (random() % 8)));
    }
    LoadDamaged(damaged);
  }
  EXPECT_EQ(hdb_, CTempDir::Read(HdbFile()));
}

TEST_F(HdbCorruptionTest, ADamagedFileNeverPassesTheSignatureCheck) {
  std::mt19937 random(99);
  for (int round = 0; round < 50; ++round) {
    std::string damaged = hdb_;
    size_t at = random() % damaged.size();
    damaged[at] = static_cast<char>(damaged[at] ^ 0x01);
    std::shared_ptr<CHashDBImpl> db = MakeDb();
    EXPECT_FALSE(LoadInto(db, damaged, signature_, true)) << "byte " << at;
  }
}

TEST_F(HdbCorruptionTest, ManyRecordsOfOnePathRestoredSideBySideKeepTheTreeWhole) {
  std::string body;
  for (int i = 0; i < 200; ++i) {
    body += Record("d/same", i % 3 == 0, std::string(1 + i % 5, static_cast<char>(i)), i % 7,
                   std::string(i % 40, 's'), std::string(i % 9, 't'));
  }
  std::shared_ptr<CHashDBImpl> db = MakeDb();
  ASSERT_TRUE(LoadInto(db, Header(200) + body));
  std::shared_ptr<CHashNode> node = db->FindNode(L"d/same");
  ASSERT_NE(nullptr, node);
  for (const auto& [hash, indexed] : db->index().Snapshot()) EXPECT_EQ(hash, *indexed->hash);
}
