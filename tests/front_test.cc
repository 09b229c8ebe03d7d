// The front over the reference host: databases per policy and the policy's side files.

#include <gtest/gtest.h>

#include "front/sign_db_impl.h"
#include "hashdb/hash_db.h"
#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_format.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "util/text_conversion.h"
#include "tests/fake_obj_info.h"
#include "tests/temp_dir.h"
#include "hashdb/wide_path.h"

namespace {
std::wstring JoinPathForTest(const std::wstring& a, const std::wstring& b) { return JoinPath(a, b); }
}  // namespace

class FrontTest : public testing::Test {
 protected:
  void SetUp() override {
    settings_.data_dir = dir_.path().string();
    settings_.log_console = false;
    host_ = std::make_shared<CRefHost>(settings_);
    front_ = std::make_shared<CSignDBImpl>(host_);
  }
  std::shared_ptr<CPolicy> Policy(const std::string& name) {
    boost::filesystem::create_directories(dir_.path() / name);
    return std::make_shared<CRefPolicy>(CRefPolicySettings{name, (dir_.path() / name).string()});
  }
  void InsertFile(const std::shared_ptr<CHashDB>& db, const std::wstring& relative, const std::string& hash) {
    std::shared_ptr<CObjInfo> none;
    db->InsertObject(none, CFakeObjInfo::File(relative, hash));
  }
  std::string RevisionFile(const std::string& name) { return dir_ / (name + ".hdb.dff"); }

  CTempDir dir_;
  CRefSettings settings_;
  std::shared_ptr<CRefHost> host_;
  std::shared_ptr<CSignDBImpl> front_;
};

TEST_F(FrontTest, ADatabaseIsFoundByItsPolicyNameWhileItsOwnerHoldsIt) {
  std::shared_ptr<CHashDB> db = front_->CreateHashDB(Policy("etc"));
  EXPECT_EQ(db, front_->GetHashDB("etc"));
  EXPECT_EQ(nullptr, front_->GetHashDB("usr"));
  EXPECT_EQ(Utf8ToWide(dir_ / "etc.hdb"), db->HdbFilePath(false));
  EXPECT_EQ(Utf8ToWide((dir_.path() / "etc").string()), db->RootPath());
}

TEST_F(FrontTest, AReleasedDatabaseIsGoneAndItsEntryErased) {
  std::shared_ptr<CHashDB> db = front_->CreateHashDB(Policy("etc"));
  db.reset();
  EXPECT_EQ(1u, front_->TableSize());
  EXPECT_EQ(nullptr, front_->GetHashDB("etc"));
  EXPECT_EQ(0u, front_->TableSize());
}

TEST_F(FrontTest, FindingByHashAsksEachLivingDatabaseAndErasesDeadEntries) {
  std::shared_ptr<CHashDB> etc = front_->CreateHashDB(Policy("etc"));
  std::shared_ptr<CHashDB> usr = front_->CreateHashDB(Policy("usr"));
  std::shared_ptr<CHashDB> var = front_->CreateHashDB(Policy("var"));
  InsertFile(usr, L"bin/ls", "1111");
  InsertFile(var, L"log/x", "2222");
  var.reset();
  EXPECT_EQ(JoinPathForTest(usr->RootPath(), L"bin/ls"), front_->FindFileByHash("1111", false));
  EXPECT_EQ(L"", front_->FindFileByHash("2222", false));  // its database is gone
  EXPECT_EQ(2u, front_->TableSize());
  EXPECT_EQ(L"", front_->FindFileByHash("9999", false));
}

TEST_F(FrontTest, AnEmptyHashDoesNotTouchThePolicyTable) {
  std::shared_ptr<CHashDB> db = front_->CreateHashDB(Policy("etc"));
  db.reset();
  EXPECT_EQ(L"", front_->FindFileByHash("", true));
  EXPECT_EQ(1u, front_->TableSize());  // the dead entry was not even looked at
}

TEST_F(FrontTest, CreatingAgainReplacesTheEntryButNotTheOldDatabase) {
  std::shared_ptr<CHashDB> first = front_->CreateHashDB(Policy("etc"));
  InsertFile(first, L"f", "aa");
  std::shared_ptr<CHashDB> second = front_->CreateHashDB(Policy("etc"));
  EXPECT_NE(first, second);
  EXPECT_EQ(second, front_->GetHashDB("etc"));
  EXPECT_EQ("aa", first->HashOfObject(JoinPathForTest(first->RootPath(), L"f")));
}

TEST_F(FrontTest, TheRevisionFileIs28BytesAndMatchesWhileTheRevisionStays) {
  std::shared_ptr<CHashDB> db = front_->CreateHashDB(Policy("etc"));
  front_->WriteRevisionFile("etc");
  std::string bytes = CTempDir::Read(RevisionFile("etc"));
  ASSERT_EQ(28u, bytes.size());
  EXPECT_EQ(db->Revision(), DecodeBigEndian64(reinterpret_cast<const uint8_t*>(bytes.data())));
  EXPECT_EQ(' ', bytes[8]);
  EXPECT_EQ('-', bytes[13]);
  EXPECT_EQ(':', bytes[22]);
  EXPECT_TRUE(front_->RevisionFileMatches("etc"));
}

TEST_F(FrontTest, TheRevisionFileDoesNotMatchWhenShortDifferentOrWithoutDatabase) {
  std::shared_ptr<CHashDB> db = front_->CreateHashDB(Policy("etc"));
  EXPECT_FALSE(front_->RevisionFileMatches("etc"));  // no file
  dir_.Write("etc.hdb.dff", std::string(7, '\xff'));
  EXPECT_FALSE(front_->RevisionFileMatches("etc"));  // 7 bytes
  dir_.Write("etc.hdb.dff", std::string("\x01\x02\x03\x04\x05\x06\x07\x08 2026-01-01 00:00:00", 28));
  EXPECT_FALSE(front_->RevisionFileMatches("etc"));  // another revision
  front_->WriteRevisionFile("etc");
  EXPECT_TRUE(front_->RevisionFileMatches("etc"));
  db.reset();
  EXPECT_FALSE(front_->RevisionFileMatches("etc"));  // the database is gone
}

TEST_F(FrontTest, WritingTheRevisionWithoutADatabaseIsRefused) {
  try {
    front_->WriteRevisionFile("etc");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("[SDBI,shehdff] HDB sp NOT inited.[plc_name]=etc", e.what());
  }
  EXPECT_FALSE(boost::filesystem::exists(RevisionFile("etc")));
}

TEST_F(FrontTest, CreatingWithAnUnnamedPolicyIsRefused) {
  try {
    front_->CreateHashDB(std::make_shared<CRefPolicy>(CRefPolicySettings{"", "/"}));
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("[sdi,ghdfbpn] Policy name is empty!", e.what());
  }
}
