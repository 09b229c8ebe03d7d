#include <algorithm>

#include <gtest/gtest.h>

#include "tests/hash_db_fixture.h"
#include "tests/path_entries.h"


class PreviousCompareTest : public HashDbTest {
 protected:
  std::shared_ptr<CNodeList> FindAll(const std::shared_ptr<CHashDBImpl>& db, const std::string& hash) {
    return db->index().Find(hash);
  }
};

TEST_F(PreviousCompareTest, ChangedNewAndRemovedObjectsAreListed) {
  std::shared_ptr<CHashDBImpl> previous = MakeDb();
  std::shared_ptr<CHashDBImpl> current = db_;
  auto insert = [](const std::shared_ptr<CHashDBImpl>& db, const std::shared_ptr<CObjInfo>& info) {
    std::shared_ptr<CObjInfo> none;
    db->InsertObject(none, info);
  };
  insert(previous, CFakeObjInfo::File(L"same", "11"));
  insert(previous, CFakeObjInfo::File(L"edited", "22"));
  insert(previous, CFakeObjInfo::File(L"gone", "33"));
  insert(previous, CFakeObjInfo::File(L"gonedir/inner", "44"));
  insert(previous, CFakeObjInfo::Directory(L"became_file"));
  insert(previous, CFakeObjInfo::File(L"became_dir", "55"));
  insert(current, CFakeObjInfo::File(L"same", "11"));
  insert(current, CFakeObjInfo::File(L"edited", "99"));
  insert(current, CFakeObjInfo::File(L"became_file", "66"));
  insert(current, CFakeObjInfo::Directory(L"became_dir"));
  insert(current, CFakeObjInfo::File(L"fresh/new", "77"));

  CPathEntryList changed, added, removed;
  current->CompareWithPrevious(previous, changed, added, removed);

  EXPECT_EQ((std::vector<CPathEntry>{{false, L"edited"}}), Sorted(changed));
  EXPECT_EQ((std::vector<CPathEntry>{{true, L"became_dir"}, {false, L"became_file"},
                                     {true, L"fresh"}, {false, L"fresh/new"}}),
            Sorted(added));
  EXPECT_EQ((std::vector<CPathEntry>{{false, L"gone"}, {true, L"gonedir"}, {false, L"gonedir/inner"}}),
            Sorted(removed));
  // The previous hash is carried over, so the edited file is no longer offered by hash lookup.
  ASSERT_NE(nullptr, current->FindNode(L"edited")->old_hash);
  EXPECT_EQ("22", *current->FindNode(L"edited")->old_hash);
  EXPECT_EQ(L"", current->PathByHash("99", false));
}

TEST_F(PreviousCompareTest, AnEmptyFileTakesThePreviousSize) {
  std::shared_ptr<CHashDBImpl> previous = MakeDb();
  std::shared_ptr<CObjInfo> none;
  previous->InsertObject(none, CFakeObjInfo::File(L"f", "aa", 40));
  InsertFile(L"f", "", 0);
  CPathEntryList changed, added, removed;
  db_->CompareWithPrevious(previous, changed, added, removed);
  EXPECT_TRUE(changed.empty());
  EXPECT_EQ(40u, Find(L"f")->size);
  EXPECT_EQ("aa", *Find(L"f")->old_hash);
}

TEST_F(PreviousCompareTest, WithoutAPreviousDatabaseEverythingIsNew) {
  InsertFile(L"d/f", "aa");
  CPathEntryList changed, added, removed;
  added.emplace_back(false, L"kept");  // entries are appended, never cleared
  db_->CompareWithPrevious(nullptr, changed, added, removed);
  EXPECT_EQ((std::vector<CPathEntry>{{true, L"d"}, {false, L"d/f"}, {false, L"kept"}}), Sorted(added));
  EXPECT_TRUE(changed.empty());
  EXPECT_TRUE(removed.empty());
}
