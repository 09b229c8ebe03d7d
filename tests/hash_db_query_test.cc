#include <gtest/gtest.h>

#include "hdbfile/big_endian.h"
#include "hdbfile/hdb_format.h"
#include "tests/hash_db_fixture.h"

using HashDbQueryTest = HashDbTest;

TEST_F(HashDbQueryTest, TheRootPathResolvesToTheRootNode) {
  EXPECT_TRUE(db_->IsDirectory(Root()));
  EXPECT_TRUE(db_->ExistsAs(Root(), true));
  EXPECT_FALSE(db_->ExistsAs(Root(), false));
  EXPECT_TRUE(db_->IsDirectory(Root() + L"/"));
}

TEST_F(HashDbQueryTest, TheRootIsReadFromTheRootDirectory) {
  std::shared_ptr<CHashNode> root = db_->root();
  EXPECT_TRUE(root->is_dir);
  EXPECT_EQ("", root->name);
  EXPECT_NE(0xFFFFFFFFu, root->attributes);
  EXPECT_NE(std::string::npos, root->security_attributes.find("mode="));
  EXPECT_EQ(nullptr, root->hash);
}

TEST_F(HashDbQueryTest, SizeOfADirectoryIsZeroAndOfAnUnknownObjectAnError) {
  InsertFile(L"d/f", "aa", 42);
  EXPECT_EQ(42u, db_->SizeOfObject(Full(L"d/f")));
  EXPECT_EQ(0u, db_->SizeOfObject(Full(L"d")));
  EXPECT_EQ("[hdbi,gfos]Object NOT found! [obj]=" + RootText() + "/x/y [relative path]=x/y [root path]=" + RootText(),
            ErrorOf<std::runtime_error>([&] { db_->SizeOfObject(Full(L"x/y")); }));
}

TEST_F(HashDbQueryTest, HashOfObject) {
  InsertFile(L"f", "abc1");
  EXPECT_EQ("abc1", db_->HashOfObject(Full(L"f")));
  EXPECT_EQ("", db_->HashOfObject(Full(L"unknown")));
  EXPECT_EQ("", db_->HashOfObject(Root()));
}

TEST_F(HashDbQueryTest, PathByHashSkipsMarkedNodesAndNodesWithAnOldHash) {
  InsertFile(L"a", "cafe");
  InsertFile(L"b", "cafe");
  InsertFile(L"c", "cafe");
  EXPECT_EQ(Full(L"a"), db_->PathByHash("cafe", false));
  db_->Mark(true, Full(L"a"), true);
  EXPECT_EQ(Full(L"b"), db_->PathByHash("cafe", false));
  Find(L"b")->old_hash = std::make_shared<std::string>("0ld");
  EXPECT_EQ(Full(L"c"), db_->PathByHash("cafe", false));
  db_->Mark(true, Full(L"c"), true);
  EXPECT_EQ(L"", db_->PathByHash("cafe", false));
  EXPECT_EQ(L"", db_->PathByHash("unknown", false));
}

TEST_F(HashDbQueryTest, PathByHashWithCheckWantsTheFileToStillCarryTheHash) {
  const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  dir_.Write("root/changed", "not abc");
  dir_.Write("root/good", "abc");
  InsertFile(L"missing", abc);
  InsertFile(L"changed", abc);
  InsertFile(L"good", abc);
  EXPECT_EQ(Full(L"missing"), db_->PathByHash(abc, false));
  EXPECT_EQ(Full(L"good"), db_->PathByHash(abc, true));
}

TEST_F(HashDbQueryTest, FileRevisionOfAMissingOrShortFileIsAllOnes) {
  EXPECT_EQ(kNoRevision, db_->FileRevision());
  EXPECT_EQ(kNoRevision, db_->Revision());
  EXPECT_TRUE(db_->IsCurrent());  // the in-memory revision holds the same value
  dir_.Write("test.hdb", std::string(47, 'x'));
  EXPECT_EQ(kNoRevision, db_->FileRevision());
  EXPECT_EQ(std::vector<std::string>{"[HDBI,ghdrvfdf]HDB file corrupted-1.File=" + (dir_ / "test.hdb")},
            Logged(Poco::Message::PRIO_ERROR));
}

TEST_F(HashDbQueryTest, FileRevisionIsTheHeaderFieldAtOffset40) {
  std::string header(48, '\0');
  EncodeBigEndian64(reinterpret_cast<uint8_t*>(header.data()) + kHeaderRevisionOffset,
                    0x0102030405060708ull);
  dir_.Write("test.hdb", header + "records follow");
  EXPECT_EQ(0x0102030405060708ull, db_->FileRevision());
  EXPECT_FALSE(db_->IsCurrent());
}

TEST_F(HashDbQueryTest, TouchedRecentlyIsFalseWhenTheTouchPeriodIsZero) {
  InsertFile(L"f", "aa");
  Find(L"f")->Touch();
  EXPECT_FALSE(db_->TouchedRecently(Full(L"f")));
}

TEST_F(HashDbQueryTest, TouchedRecentlyFollowsTheNodeAndTheDatabaseTouch) {
  policy_.touch_period_s = 60;
  policy_.db_touch_period_s = 30;
  db_ = MakeDb();
  InsertFile(L"f", "aa");
  EXPECT_FALSE(db_->TouchedRecently(Full(L"f")));  // never touched
  Find(L"f")->Touch();
  EXPECT_TRUE(db_->TouchedRecently(Full(L"f")));
  EXPECT_FALSE(db_->TouchedRecently(Full(L"unknown")));
  db_->TouchDatabase();  // a recent touch of the whole database silences the answer
  EXPECT_FALSE(db_->TouchedRecently(Full(L"f")));
}

TEST_F(HashDbQueryTest, IsEmptyUntilTheFirstInsert) {
  EXPECT_TRUE(db_->IsEmpty());
  InsertFile(L"f", "aa");
  EXPECT_FALSE(db_->IsEmpty());
}

TEST_F(HashDbQueryTest, UnderTargetLooksAtTheDirectoriesOnTheWay) {
  auto linked = CFakeObjInfo::Directory(L"a/linked");
  linked->target = "/elsewhere";
  Insert(linked);
  InsertFile(L"a/linked/deep/f", "aa");
  InsertFile(L"a/f", "aa");
  EXPECT_TRUE(db_->IsUnderTarget(Full(L"a/linked/deep/f")));
  EXPECT_TRUE(db_->IsUnderTarget(Full(L"a/linked/x")));
  EXPECT_FALSE(db_->IsUnderTarget(Full(L"a/linked")));
  EXPECT_FALSE(db_->IsUnderTarget(Full(L"a/f")));
  EXPECT_FALSE(db_->IsUnderTarget(Full(L"top")));
  EXPECT_FALSE(db_->IsUnderTarget(Full(L"no/such/f")));
}

TEST_F(HashDbQueryTest, TargetOfObject) {
  auto link = CFakeObjInfo::File(L"link", "");
  link->target = "../target";
  Insert(link);
  InsertFile(L"plain", "aa");
  bool is_dir = true;
  EXPECT_EQ(L"../target", db_->TargetOfObject(Full(L"link"), is_dir));
  EXPECT_FALSE(is_dir);
  is_dir = true;
  EXPECT_EQ(L"", db_->TargetOfObject(Full(L"plain"), is_dir));
  EXPECT_TRUE(is_dir);  // untouched
  EXPECT_EQ("[hdbi,tgssp]Object NOT found! [obj]=" + RootText() + "/x [relative path]=x [root path]=" + RootText(),
            ErrorOf<std::runtime_error>([&] { db_->TargetOfObject(Full(L"x"), is_dir); }));
}

TEST_F(HashDbQueryTest, AttributesOfObjectCopiesTheFourValues) {
  InsertFile(L"f", "aa");
  uint32_t attributes = 0;
  uint64_t time_1 = 0, time_2 = 0;
  std::string security;
  EXPECT_TRUE(db_->AttributesOfObject(Full(L"f"), attributes, time_1, time_2, security));
  EXPECT_EQ(0100644u, attributes);
  EXPECT_EQ(100u, time_1);
  EXPECT_EQ(200u, time_2);
  EXPECT_EQ("owner=0 group=0 mode=0644", security);
  EXPECT_FALSE(db_->AttributesOfObject(Full(L"x"), attributes, time_1, time_2, security));
}

TEST_F(HashDbQueryTest, FilePathsOfTheDatabase) {
  EXPECT_EQ(HdbPath(), db_->HdbFilePath(false));
  EXPECT_EQ(HdbPath() + L".candidate", db_->HdbFilePath(true));
  EXPECT_EQ(HdbPath() + L".p7s", db_->SignatureFilePath(false));
  EXPECT_EQ(HdbPath() + L".candidate.p7s", db_->SignatureFilePath(true));
  EXPECT_EQ(Root(), db_->RootPath());
  EXPECT_FALSE(db_->IsLoaded());
}

TEST_F(HashDbQueryTest, FullPathOfNode) {
  std::shared_ptr<CHashNode> node = InsertFile(L"a/b/r\u00e9sum\u00e9.txt", "aa");
  EXPECT_EQ(Full(L"a/b/r\u00e9sum\u00e9.txt"), db_->FullPathOfNode(node));
  EXPECT_EQ(Root(), db_->FullPathOfNode(db_->root()));
}

TEST_F(HashDbQueryTest, AConstructionWithoutTheCfgServiceFails) {
  struct CNoCfgHost : CRefHost {
    using CRefHost::CRefHost;
    const std::shared_ptr<CCfgService>& Cfg() override { return empty; }
    std::shared_ptr<CCfgService> empty;
  };
  auto host = std::make_shared<CNoCfgHost>(settings_);
  EXPECT_EQ("bad cfg init!", ErrorOf<std::runtime_error>([&] {
              std::make_shared<CHashDBImpl>(host, 256, HdbPath(), std::make_shared<CRefPolicy>(policy_));
            }));
}
