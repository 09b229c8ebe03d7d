#include <thread>

#include <gtest/gtest.h>

#include "tests/hash_db_fixture.h"

using ObjectInsertTest = HashDbTest;

TEST_F(ObjectInsertTest, InsertingADeepFileMakesItsDirectoriesAndStampsTheWayUp) {
  int64_t root_before = db_->root()->change_time;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::shared_ptr<CHashNode> file = InsertFile(L"a/b/c.txt", "abcd", 5);
  std::shared_ptr<CHashNode> a = Find(L"a"), b = Find(L"a/b");
  ASSERT_TRUE(a && b);
  EXPECT_TRUE(a->is_dir && b->is_dir);
  EXPECT_EQ(0u, a->size);
  EXPECT_EQ(0u, b->size);
  EXPECT_EQ(nullptr, a->hash);
  EXPECT_EQ(nullptr, b->hash);
  EXPECT_FALSE(file->is_dir);
  EXPECT_EQ(5u, file->size);
  EXPECT_EQ("abcd", *file->hash);
  EXPECT_GT(db_->root()->change_time, root_before);
  EXPECT_GE(a->change_time, file->change_time);
  EXPECT_GE(b->change_time, file->change_time);
  EXPECT_GE(db_->root()->change_time, a->change_time);
  EXPECT_EQ(1u, db_->ChangeCounter());
}

TEST_F(ObjectInsertTest, InsertingTheSameFileTwiceKeepsOneNodeIndexedUnderTheLatestHash) {
  std::shared_ptr<CHashNode> first = InsertFile(L"f", "1111");
  std::shared_ptr<CHashNode> second = InsertFile(L"f", "2222");
  EXPECT_EQ(first, second);
  EXPECT_TRUE(db_->index().Find("1111")->empty());
  ASSERT_EQ(1u, db_->index().Find("2222")->size());
  EXPECT_EQ(1u, db_->index().Snapshot().size());
  EXPECT_EQ(2u, db_->ChangeCounter());
}

TEST_F(ObjectInsertTest, ADirectoryOverAKnownFileBecomesADirectory) {
  InsertFile(L"x", "aa", 10);
  std::shared_ptr<CHashNode> node = Insert(CFakeObjInfo::Directory(L"x"));
  EXPECT_TRUE(node->is_dir);
  EXPECT_EQ(0u, node->size);
  EXPECT_EQ(nullptr, node->children);
  EXPECT_TRUE(db_->index().Find("aa")->empty());  // a directory with an empty hash is not indexed
}

TEST_F(ObjectInsertTest, AFileWithAnEmptyHashIsStoredButNotIndexed) {
  std::shared_ptr<CHashNode> node = InsertFile(L"empty", "", 0);
  ASSERT_NE(nullptr, node->hash);
  EXPECT_EQ("", *node->hash);
  EXPECT_TRUE(IsEmptyFile(node));
  EXPECT_EQ(0u, db_->index().HashCount());
}

TEST_F(ObjectInsertTest, ADeferredInsertKeepsThePendingInformationOnTheNode) {
  std::shared_ptr<CObjInfo> first = CFakeObjInfo::File(L"later", "aa");
  std::shared_ptr<CObjInfo> pending = first;
  std::shared_ptr<CHashNode> node = db_->InsertObject(pending, first);
  EXPECT_FALSE(node->is_dir);
  EXPECT_EQ(first, node->pending_info);
  EXPECT_EQ(nullptr, node->hash);  // initial details: nothing copied
  EXPECT_EQ(0xFFFFFFFFu, node->attributes);
  EXPECT_EQ(0u, db_->ChangeCounter());
  EXPECT_EQ(0u, db_->index().HashCount());

  std::shared_ptr<CObjInfo> second = CFakeObjInfo::File(L"later", "bb");
  pending = second;
  db_->InsertObject(pending, second);
  EXPECT_EQ(first, pending);  // the caller gets the first pending information back
  EXPECT_EQ(first, node->pending_info);

  InsertFile(L"later", "cc");  // a full insert drops it
  EXPECT_EQ(nullptr, node->pending_info);
  EXPECT_EQ("cc", *node->hash);
}

TEST_F(ObjectInsertTest, ANullObjectIsRefused) {
  EXPECT_EQ("[hdbi,io]Can NOT be empty file obj info here! Obj=",
            ErrorOf<std::runtime_error>([&] { Insert(nullptr); }));
}

TEST_F(ObjectInsertTest, AnEmptyDirectoryCarriesNoChildrenMap) {
  InsertFile(L"d/f", "aa");
  std::shared_ptr<CHashNode> d = Find(L"d");
  d->children->clear();
  Insert(CFakeObjInfo::Directory(L"d"));
  EXPECT_EQ(nullptr, d->children);
}

TEST_F(ObjectInsertTest, ClearingTheMarkDropsTheOldHashAndFlag2ButSettingItKeepsThem) {
  std::shared_ptr<CHashNode> node = InsertFile(L"f", "aa");
  node->old_hash = std::make_shared<std::string>("old");
  db_->Flag2(true, Full(L"f"), true);
  EXPECT_FALSE(db_->Mark(true, Full(L"f"), true));
  EXPECT_TRUE(db_->Mark(false, Full(L"f"), false));
  EXPECT_NE(nullptr, node->old_hash);
  EXPECT_TRUE(db_->Flag2(false, Full(L"f"), false));
  db_->Mark(true, Full(L"f"), false);
  EXPECT_FALSE(db_->Mark(false, Full(L"f"), false));
  EXPECT_EQ(nullptr, node->old_hash);
  EXPECT_FALSE(db_->Flag2(false, Full(L"f"), false));
}

TEST_F(ObjectInsertTest, FlagsOfAnUnknownObjectChangeNothing) {
  EXPECT_FALSE(db_->Mark(true, Full(L"x"), true));
  EXPECT_FALSE(db_->Mark(false, Full(L"x"), false));
  EXPECT_FALSE(db_->Flag2(true, Full(L"x"), true));
  EXPECT_FALSE(db_->Flag2(false, Full(L"x"), false));
  EXPECT_EQ(nullptr, Find(L"x"));
}

TEST_F(ObjectInsertTest, Flag2SetsOnlyItself) {
  std::shared_ptr<CHashNode> node = InsertFile(L"f", "aa");
  node->old_hash = std::make_shared<std::string>("old");
  db_->Flag2(true, Full(L"f"), true);
  db_->Flag2(true, Full(L"f"), false);
  EXPECT_FALSE(node->mark);
  EXPECT_NE(nullptr, node->old_hash);
}

TEST_F(ObjectInsertTest, FilesWithTheSameSecurityAttributesShareOneCopyOfTheText) {
  std::shared_ptr<CHashNode> a = InsertFile(L"a", "11");
  std::shared_ptr<CHashNode> b = InsertFile(L"d/b", "22");
  ASSERT_FALSE(a->security_attributes.empty());
  EXPECT_EQ(a->security_attributes, b->security_attributes);
  EXPECT_EQ(a->security_attributes.data(), b->security_attributes.data());
  std::shared_ptr<CHashNode> dir = Insert(CFakeObjInfo::Directory(L"d"));
  EXPECT_EQ("owner=0 group=0 mode=0755", dir->security_attributes);
  EXPECT_NE(a->security_attributes.data(), dir->security_attributes.data());
}
