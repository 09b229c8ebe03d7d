#include <gtest/gtest.h>

#include "tests/hash_db_fixture.h"

class ObjectCheckTest : public HashDbTest {
 protected:
  uint32_t Check(const std::shared_ptr<CFakeObjInfo>& info) { return db_->CheckObject(info); }
};

TEST_F(ObjectCheckTest, AnUnknownPathIsNewOrWhenGoneUnchanged) {
  EXPECT_EQ(4097u, Check(CFakeObjInfo::File(L"new", "aa")));
  EXPECT_EQ(4098u, Check(CFakeObjInfo::Directory(L"newdir")));
  auto gone = CFakeObjInfo::File(L"new", "aa");
  gone->gone = true;
  EXPECT_EQ(1u, Check(gone));
  EXPECT_EQ(nullptr, Find(L"new"));  // a check adds nothing
}

TEST_F(ObjectCheckTest, AnUnchangedFileIsOneAndGetsTouched) {
  std::shared_ptr<CHashNode> node = InsertFile(L"f", "aa");
  EXPECT_EQ(1u, Check(CFakeObjInfo::File(L"f", "aa")));
  EXPECT_TRUE(node->TouchedWithin(0));
  EXPECT_FALSE(node->flag_2);
}

TEST_F(ObjectCheckTest, AKindMismatchIsReportedAsTheObjectsKind) {
  InsertFile(L"f", "aa");
  Insert(CFakeObjInfo::Directory(L"d"));
  EXPECT_EQ(4098u, Check(CFakeObjInfo::Directory(L"f")));
  EXPECT_EQ(4097u, Check(CFakeObjInfo::File(L"d", "aa")));
}

TEST_F(ObjectCheckTest, AChangedHashIsFlaggedAndTheRecordedHashHandedBack) {
  std::shared_ptr<CHashNode> node = InsertFile(L"f", "aa");
  auto info = CFakeObjInfo::File(L"f", "bb");
  int64_t before = node->change_time;
  EXPECT_EQ(4099u, Check(info));
  EXPECT_TRUE(node->flag_2);
  EXPECT_GE(node->change_time, before);
  ASSERT_NE(nullptr, info->recorded);
  EXPECT_EQ("aa", *info->recorded);
}

TEST_F(ObjectCheckTest, AGoneFileHandsBackItsHashAndAGoneDirectoryIsReported) {
  std::shared_ptr<CHashNode> file = InsertFile(L"f", "aa");
  Insert(CFakeObjInfo::Directory(L"d"));
  auto gone_file = CFakeObjInfo::File(L"f", "");
  gone_file->gone = true;
  EXPECT_EQ(4100u, Check(gone_file));
  ASSERT_NE(nullptr, gone_file->recorded);
  EXPECT_EQ("aa", *gone_file->recorded);
  EXPECT_TRUE(file->flag_2);
  auto gone_dir = CFakeObjInfo::Directory(L"d");
  gone_dir->gone = true;
  EXPECT_EQ(4101u, Check(gone_dir));
  EXPECT_EQ(0, gone_dir->recorded_calls);
  EXPECT_TRUE(Find(L"d")->flag_2);
}

TEST_F(ObjectCheckTest, EachAttributeDifferenceHasItsCode) {
  InsertFile(L"f", "aa");
  auto info = CFakeObjInfo::File(L"f", "aa");
  info->attributes = 0100600;
  EXPECT_EQ(4104u, Check(info));
  info = CFakeObjInfo::File(L"f", "aa");
  info->time_1 = 101;
  EXPECT_EQ(4105u, Check(info));
  info = CFakeObjInfo::File(L"f", "aa");
  info->time_2 = 201;
  EXPECT_EQ(4106u, Check(info));
  info = CFakeObjInfo::File(L"f", "aa");
  info->security = "owner=1 group=0 mode=0644";
  EXPECT_EQ(4107u, Check(info));
  EXPECT_FALSE(Find(L"f")->flag_2);  // attribute differences do not flag
  EXPECT_EQ(0, info->recorded_calls);
}

TEST_F(ObjectCheckTest, UnknownAttributesOrTimesOnEitherSideAreNeverDifferent) {
  InsertFile(L"f", "aa");
  auto info = CFakeObjInfo::File(L"f", "aa");
  info->attributes = 0xFFFFFFFFu;
  info->time_1 = 0xFFFFFFFFFFFFFFFFull;
  info->time_2 = 0xFFFFFFFFFFFFFFFFull;
  info->security = "";
  EXPECT_EQ(1u, Check(info));
  auto unknown = CFakeObjInfo::File(L"g", "bb");
  unknown->attributes = 0xFFFFFFFFu;
  Insert(unknown);
  auto known = CFakeObjInfo::File(L"g", "bb");
  known->attributes = 0100600;
  EXPECT_EQ(1u, Check(known));
}

TEST_F(ObjectCheckTest, ADirectoryNeverReportsTheSecondTimeValue) {
  Insert(CFakeObjInfo::Directory(L"d"));
  auto info = CFakeObjInfo::Directory(L"d");
  info->time_2 = 999;
  EXPECT_EQ(1u, Check(info));
  info->time_1 = 999;
  EXPECT_EQ(4105u, Check(info));
}

TEST_F(ObjectCheckTest, TargetDifferencesComeInFilePlusDirectoryPairs) {
  auto link = CFakeObjInfo::File(L"link", "");
  link->target = "a";
  link->target_wide = L"a";
  Insert(link);
  auto dir_link = CFakeObjInfo::Directory(L"dlink");
  dir_link->target = "a";
  dir_link->target_wide = L"a";
  Insert(dir_link);
  Insert(CFakeObjInfo::File(L"plain", ""));
  Insert(CFakeObjInfo::Directory(L"pdir"));

  auto changed = CFakeObjInfo::File(L"link", "");
  changed->target = "b";
  changed->target_wide = L"b";
  EXPECT_EQ(4108u, Check(changed));
  auto dir_changed = CFakeObjInfo::Directory(L"dlink");
  dir_changed->target = "b";
  dir_changed->target_wide = L"b";
  EXPECT_EQ(4109u, Check(dir_changed));

  auto same_place = CFakeObjInfo::File(L"link", "");
  same_place->target = "./a";
  same_place->target_wide = L"./a";  // the host's path comparison says it is the same place
  EXPECT_EQ(1u, Check(same_place));

  auto added = CFakeObjInfo::File(L"plain", "");
  added->target = "x";
  added->target_wide = L"x";
  EXPECT_EQ(4110u, Check(added));
  auto dir_added = CFakeObjInfo::Directory(L"pdir");
  dir_added->target = "x";
  dir_added->target_wide = L"x";
  EXPECT_EQ(4111u, Check(dir_added));

  EXPECT_EQ(4112u, Check(CFakeObjInfo::File(L"link", "")));
  EXPECT_EQ(4113u, Check(CFakeObjInfo::Directory(L"dlink")));
  EXPECT_TRUE(Find(L"link")->flag_2);
  EXPECT_TRUE(Find(L"dlink")->flag_2);
}

TEST_F(ObjectCheckTest, ATargetDifferenceHandsBackTheHashOfAFile) {
  auto file = CFakeObjInfo::File(L"f", "aa");
  Insert(file);
  auto info = CFakeObjInfo::File(L"f", "aa");
  info->target = "t";
  info->target_wide = L"t";
  EXPECT_EQ(4110u, Check(info));
  ASSERT_NE(nullptr, info->recorded);
  EXPECT_EQ("aa", *info->recorded);
}

TEST_F(ObjectCheckTest, AFileWhoseHashEqualsItsOldHashIsUnchangedWhateverItsAttributes) {
  std::shared_ptr<CHashNode> node = InsertFile(L"f", "new");
  node->old_hash = std::make_shared<std::string>("old");
  auto info = CFakeObjInfo::File(L"f", "OLD");
  info->attributes = 0100777;
  EXPECT_EQ(1u, Check(info));
  EXPECT_FALSE(node->TouchedWithin(1000));
}

TEST_F(ObjectCheckTest, AnEmptyHashTextSkipsTheHashComparison) {
  InsertFile(L"f", "aa");
  auto info = CFakeObjInfo::File(L"f", "");
  EXPECT_EQ(1u, Check(info));
  info->security = "owner=5 group=5 mode=0600";
  EXPECT_EQ(4107u, Check(info));
}

TEST_F(ObjectCheckTest, ANodeWithAnEmptyHashComparesAttributesOnly) {
  InsertFile(L"f", "", 0);
  EXPECT_EQ(1u, Check(CFakeObjInfo::File(L"f", "bb")));
}

TEST_F(ObjectCheckTest, AMarkedNodeHidesAttributeDifferencesButNotHashOrKind) {
  InsertFile(L"f", "aa");
  db_->Mark(true, Full(L"f"), true);
  auto info = CFakeObjInfo::File(L"f", "aa");
  info->attributes = 0100777;
  info->target = "t";
  EXPECT_EQ(1u, Check(info));
  EXPECT_EQ(4099u, Check(CFakeObjInfo::File(L"f", "bb")));
  EXPECT_EQ(4098u, Check(CFakeObjInfo::Directory(L"f")));
}

TEST_F(ObjectCheckTest, AFileNodeWithoutAHashIsALogicError) {
  std::shared_ptr<CObjInfo> deferred = CFakeObjInfo::File(L"f", "aa");
  std::shared_ptr<CObjInfo> pending = deferred;
  db_->InsertObject(pending, deferred);  // makes the file node, copies no details
  auto info = CFakeObjInfo::File(L"f", "aa");
  info->path = L"/watched/f";
  EXPECT_EQ("[hdbi,cfoc]Bad logic-1! Path=/watched/f",
            ErrorOf<std::runtime_error>([&] { Check(info); }));
  EXPECT_TRUE(db_->IsEmpty() == false);  // the tree lock was released: queries still run
}

TEST_F(ObjectCheckTest, AHashChangeTouchesTheDatabase) {
  policy_.touch_period_s = 60;
  policy_.db_touch_period_s = 60;
  db_ = MakeDb();
  std::shared_ptr<CHashNode> g = InsertFile(L"g", "gg");
  g->Touch();
  EXPECT_TRUE(db_->TouchedRecently(Full(L"g")));
  InsertFile(L"f", "aa");
  EXPECT_EQ(4099u, Check(CFakeObjInfo::File(L"f", "bb")));
  EXPECT_FALSE(db_->TouchedRecently(Full(L"g")));
}
