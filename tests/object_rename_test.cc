#include <gtest/gtest.h>

#include "hashdb/bad_obj_name_error.h"
#include "tests/hash_db_fixture.h"

class ObjectRenameTest : public HashDbTest {
 protected:
  void Rename(const std::wstring& from, const std::wstring& to) {
    std::shared_ptr<CObjInfo> none;
    db_->RenameObject(none, Full(from), Full(to));
  }
  int Remove(const std::wstring& path) {
    std::shared_ptr<CObjInfo> none;
    return db_->RemoveObject(none, Full(path));
  }
};

TEST_F(ObjectRenameTest, RenameInPlaceKeepsTheNodeItsHashAndChildren) {
  std::shared_ptr<CHashNode> node = InsertFile(L"d/old/f", "aa");
  std::shared_ptr<CHashNode> dir = Find(L"d/old");
  uint64_t counter = db_->ChangeCounter();
  Rename(L"d/old", L"d/new");
  EXPECT_EQ(nullptr, Find(L"d/old"));
  EXPECT_EQ(dir, Find(L"d/new"));
  EXPECT_EQ("new", dir->name);
  EXPECT_EQ(node, Find(L"d/new/f"));
  EXPECT_EQ(Full(L"d/new/f"), db_->PathByHash("aa", false));
  EXPECT_EQ(counter + 1, db_->ChangeCounter());
}

TEST_F(ObjectRenameTest, TheRootCannotBeRenamedOrRemoved) {
  std::shared_ptr<CObjInfo> none;
  EXPECT_EQ("[hdbi,rno]Can NOT be root dir here! root dir=" + RootText(),
            ErrorOf<std::runtime_error>([&] { db_->RenameObject(none, Root(), Full(L"x")); }));
  EXPECT_EQ("[hdbi,rno]Can NOT be root dir here-2! root dir=" + RootText(),
            ErrorOf<std::runtime_error>([&] { db_->RenameObject(none, Full(L"x"), Root()); }));
  EXPECT_EQ("[hdbi,ro]Can NOT be root dir here! root dir=" + RootText(),
            ErrorOf<std::runtime_error>([&] { db_->RemoveObject(none, Root()); }));
  EXPECT_EQ(0u, db_->ChangeCounter());
}

TEST_F(ObjectRenameTest, RenamingAnUnknownObjectNamesBothPaths) {
  EXPECT_EQ("[hdbi,ro] NOT Found! [Old Path]=" + RootText() + "/a[New Path]=" + RootText() + "/b",
            ErrorOf<std::runtime_error>([&] { Rename(L"a", L"b"); }));
}

TEST_F(ObjectRenameTest, RenamingToDotDotDotOrEmptyIsRefused) {
  std::shared_ptr<CHashNode> node = InsertFile(L"d/f", "aa");
  for (const std::wstring& name : {std::wstring(L"."), std::wstring(L".."), std::wstring()}) {
    EXPECT_EQ("Can NOT rename to bad obj name! [new name]=" + std::string(name.begin(), name.end()) +
                  " [old-path]=d/f",
              ErrorOf<CBadObjNameError>([&] { db_->RenameInPlace(node, name); }));
  }
  EXPECT_EQ(node, Find(L"d/f"));
  EXPECT_EQ("f", node->name);
}

TEST_F(ObjectRenameTest, ABadNameRefusedAfterTheCountStillCountsTheChange) {
  std::shared_ptr<CHashNode> node = InsertFile(L"d/f", "aa");
  uint64_t counter = db_->ChangeCounter();
  std::wstring long_name(256, L'n');
  EXPECT_EQ("Can NOT rename to bad obj name! [new name]=" + std::string(256, 'n') + " [old-path]=d/f",
            ErrorOf<CBadObjNameError>([&] { Rename(L"d/f", L"d/" + long_name); }));
  EXPECT_EQ(node, Find(L"d/f"));
  EXPECT_EQ(counter + 1, db_->ChangeCounter());
  // The reference host resolves ".." lexically: "d/.." is the root itself.
  EXPECT_EQ("[hdbi,rno]Can NOT be root dir here-2! root dir=" + RootText(),
            ErrorOf<std::runtime_error>([&] { Rename(L"d/f", L"d/.."); }));
}

TEST_F(ObjectRenameTest, AMoveKeepsTheOldName) {
  std::shared_ptr<CHashNode> x = InsertFile(L"a/x", "aa");
  Insert(CFakeObjInfo::Directory(L"b"));
  Rename(L"a/x", L"b/y");
  EXPECT_EQ(nullptr, Find(L"a/x"));
  EXPECT_EQ(nullptr, Find(L"b/y"));
  EXPECT_EQ(x, Find(L"b/x"));
  EXPECT_EQ(Find(L"b"), x->parent.lock());
  EXPECT_EQ(Full(L"b/x"), db_->PathByHash("aa", false));
}

TEST_F(ObjectRenameTest, AMoveOntoANameInUseDropsTheObjectThere) {
  InsertFile(L"a/f", "moved");
  InsertFile(L"b/f", "replaced");
  Rename(L"a/f", L"b/f");
  EXPECT_EQ("moved", db_->HashOfObject(Full(L"b/f")));
  EXPECT_EQ(L"", db_->PathByHash("replaced", false));
  EXPECT_TRUE(db_->index().Find("replaced")->empty());
}

TEST_F(ObjectRenameTest, AMoveWantsAnExistingDirectoryAsTheNewParent) {
  InsertFile(L"a/f", "aa");
  InsertFile(L"file", "bb");
  EXPECT_EQ("[hdbi,mn]new relative parent path NOT Found! Path=none/f",
            ErrorOf<std::runtime_error>([&] { Rename(L"a/f", L"none/f"); }));
  EXPECT_EQ("[hdbi,mn]new relative parent path is NOT Dir! Path=file/f",
            ErrorOf<std::runtime_error>([&] { Rename(L"a/f", L"file/f"); }));
  EXPECT_NE(nullptr, Find(L"a/f"));
}

TEST_F(ObjectRenameTest, RemovingTakesTheSubtreeOutOfTreeAndIndex) {
  InsertFile(L"d/e/f", "aa");
  EXPECT_EQ(0, Remove(L"d"));
  EXPECT_EQ(nullptr, Find(L"d"));
  EXPECT_EQ(L"", db_->PathByHash("aa", false));
}

TEST_F(ObjectRenameTest, RemovingAnUnknownPathStillCountsAChange) {
  uint64_t counter = db_->ChangeCounter();
  EXPECT_EQ(0, Remove(L"no/such"));
  EXPECT_EQ(counter + 1, db_->ChangeCounter());
}

TEST_F(ObjectRenameTest, PendingInformationIsHandedBackAndNothingElseChanges) {
  std::shared_ptr<CObjInfo> first = CFakeObjInfo::File(L"p", "aa");
  std::shared_ptr<CObjInfo> pending = first;
  db_->InsertObject(pending, first);
  uint64_t counter = db_->ChangeCounter();

  std::shared_ptr<CObjInfo> asked = CFakeObjInfo::File(L"p", "bb");
  db_->RenameObject(asked, Full(L"p"), Full(L"q"));
  EXPECT_EQ(first, asked);
  EXPECT_NE(nullptr, Find(L"p"));
  EXPECT_EQ(counter, db_->ChangeCounter());

  asked = CFakeObjInfo::File(L"p", "bb");
  EXPECT_EQ(0, db_->RemoveObject(asked, Full(L"p")));
  EXPECT_EQ(first, asked);
  EXPECT_NE(nullptr, Find(L"p"));

  std::shared_ptr<CObjInfo> none;  // without a reference of its own, the caller clears it
  db_->RenameObject(none, Full(L"p"), Full(L"q"));
  EXPECT_EQ(nullptr, Find(L"q")->pending_info);
}
