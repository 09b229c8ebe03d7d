#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "hashdb/monotonic_clock.h"
#include "tests/hash_db_fixture.h"
#include "tests/path_entries.h"
#include "tests/scripted_pool.h"


class TreeWalkTest : public HashDbTest {
 protected:
  // Makes the database over a host whose pool is "pool".
  void UsePool(std::shared_ptr<CThreadPool> pool) {
    host_ = std::make_shared<CHostWithPool<CRefHost>>(settings_, std::move(pool));
    host_->log().KeepRecords(true);
    db_ = MakeDb();
  }
  int64_t Later() {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    int64_t t = MonotonicNowNs();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return t;
  }
};

TEST_F(TreeWalkTest, EnumerationVisitsEveryNodeOnce) {
  InsertFile(L"a/b/c", "1");
  InsertFile(L"a/d", "2");
  Insert(CFakeObjInfo::Directory(L"empty"));
  std::mutex lock;
  std::vector<std::wstring> seen;
  auto visitor = std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>& node) {
    std::lock_guard<std::mutex> guard(lock);
    seen.push_back(db_->RelativePathOfNode(node));
    return true;
  });
  EXPECT_TRUE(db_->Enumerate("Listing", true, visitor));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ((std::vector<std::wstring>{L"", L"a", L"a/b", L"a/b/c", L"a/d", L"empty"}), seen);
  std::vector<std::string> debug = Logged(Poco::Message::PRIO_DEBUG);
  EXPECT_NE(debug.end(), std::find(debug.begin(), debug.end(),
                                   "Listing,enum all finished, HDB path=" + (dir_ / "test.hdb")));
}

TEST_F(TreeWalkTest, AVisitorSayingFalseSkipsTheDirectorysSubtree) {
  InsertFile(L"skip/deep/f", "1");
  InsertFile(L"keep/f", "2");
  std::atomic<int> visits{0};
  auto visitor = std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>& node) {
    ++visits;
    return node->name != "skip";
  });
  db_->Enumerate("", true, visitor);
  EXPECT_EQ(4, visits.load());  // root, keep, keep/f, skip
}

TEST_F(TreeWalkTest, TheWaitingMessageComesAtOnceAndThenEveryTenSeconds) {
  auto pool = std::make_shared<CScriptedPool>(44);  // 45 steps of 500 ms: 0 s to 22 s
  UsePool(pool);
  InsertFile(L"f", "1");
  std::atomic<int> visits{0};
  db_->Enumerate("Counting", true, std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>&) {
    ++visits;
    return true;
  }));
  std::string waiting = "Counting,waiting enum all leaves exit, HDB path=" + (dir_ / "test.hdb");
  std::vector<std::string> debug = Logged(Poco::Message::PRIO_DEBUG);
  EXPECT_EQ(3, std::count(debug.begin(), debug.end(), waiting));  // at 0 s, 10 s and 20 s
  EXPECT_EQ(45, pool->waits);
  EXPECT_EQ(1, pool->prepared_runs);
  EXPECT_EQ(1, pool->finished_runs);
  EXPECT_EQ(2, visits.load());
}

TEST_F(TreeWalkTest, AWalkOfADatabaseDestroyedWhileTasksAreQueuedDoesNothing) {
  auto pool = std::make_shared<CScriptedPool>(0, false);  // "finished" before anything ran
  UsePool(pool);
  InsertFile(L"a/b", "1");
  std::atomic<int> visits{0};
  db_->Enumerate("", true, std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>&) {
    ++visits;
    return true;
  }));
  EXPECT_EQ(1u, pool->Queued());
  db_.reset();
  pool->RunQueued();
  EXPECT_EQ(0, visits.load());
}

TEST_F(TreeWalkTest, SubNodesOfADirectoryListItAndEverythingBelow) {
  InsertFile(L"a/b/c", "1");
  InsertFile(L"a/d", "2");
  Insert(CFakeObjInfo::Directory(L"a/empty"));
  EXPECT_EQ((std::vector<CPathEntry>{{true, L"a"}, {true, L"a/b"}, {false, L"a/b/c"},
                                     {false, L"a/d"}, {true, L"a/empty"}}),
            Sorted(*db_->SubNodes(L"a")));
  EXPECT_TRUE(db_->SubNodes(L"a/empty")->empty());
  EXPECT_TRUE(db_->SubNodes(L"a/d")->empty());  // a file has no children either
  EXPECT_EQ(6u, db_->SubNodes(L"")->size());     // the root and all below
}

TEST_F(TreeWalkTest, SubNodesWantARelativePathThatExists) {
  EXPECT_EQ("[hdbi,gsn] It MUST be relative path, but current obj path=/etc",
            ErrorOf<std::runtime_error>([&] { db_->SubNodes(L"/etc"); }));
  EXPECT_EQ("[hdbi,gsn] Parent dir NOT found, current dir path=no/such",
            ErrorOf<std::runtime_error>([&] { db_->SubNodes(L"no/such"); }));
}

TEST_F(TreeWalkTest, OldNodesAreThoseNotChangedSinceTheThresholdAndNeverTheRoot) {
  InsertFile(L"old/f", "1");
  InsertFile(L"keep/g", "2");
  int64_t threshold = Later();
  InsertFile(L"keep/new", "3");  // stamps keep and the root too
  EXPECT_EQ((std::vector<CPathEntry>{{false, L"keep/g"}, {true, L"old"}, {false, L"old/f"}}),
            Sorted(*db_->ChangedSince(nullptr, threshold, L"")));
  EXPECT_EQ((std::vector<CPathEntry>{{true, L"old"}, {false, L"old/f"}}),
            Sorted(*db_->ChangedSince(nullptr, threshold, L"old")));
  EXPECT_TRUE(db_->ChangedSince(nullptr, 0, L"")->empty());
  EXPECT_EQ(5u, db_->ChangedSince(nullptr, Later(), L"")->size());  // everything but the root
  EXPECT_EQ("[hdbi,gonk] It MUST be relative path, but current obj path=/x",
            ErrorOf<std::runtime_error>([&] { db_->ChangedSince(nullptr, threshold, L"/x"); }));
}

TEST_F(TreeWalkTest, ShrinkRemovesOldNodesAndTheOldAncestorsTheyEmptied) {
  InsertFile(L"a/b/old", "1");
  InsertFile(L"c/old", "2");
  int64_t threshold = Later();
  InsertFile(L"c/new", "3");
  EXPECT_EQ(4u, db_->Shrink(threshold, L""));  // a, a/b, a/b/old, c/old
  EXPECT_EQ(nullptr, Find(L"a"));
  EXPECT_EQ(nullptr, Find(L"c/old"));
  EXPECT_NE(nullptr, Find(L"c/new"));
  EXPECT_NE(nullptr, Find(L"c"));
  EXPECT_EQ(L"", db_->PathByHash("1", false));
  std::vector<std::string> lines = Logged(Poco::Message::PRIO_INFORMATION);
  std::string root = RootText();
  for (const std::string& expected :
       {"Shrink old node.Obj path=" + root + "/a [Is Dir]=1", "Shrink old node.Obj path=" + root + "/a/b [Is Dir]=1",
        "Shrink old node.Obj path=" + root + "/a/b/old [Is Dir]=0", "Shrink old node.Obj path=" + root + "/c/old [Is Dir]=0"}) {
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), expected)) << expected;
  }
  for (const CLogRecord& record : host_->log().Records()) {
    if (record.text.rfind("Shrink old node.", 0) == 0) {
      EXPECT_EQ(0x10012u, record.event);
    }
  }
}

TEST_F(TreeWalkTest, ShrinkStopsAtAnAncestorThatStillHasChildrenOrIsNewer) {
  InsertFile(L"p/q/old", "1");
  int64_t threshold = Later();
  InsertFile(L"p/other", "2");  // p is newer now and keeps a child
  Insert(CFakeObjInfo::Directory(L"p/q"));  // q newer too
  EXPECT_EQ(1u, db_->Shrink(threshold, L""));
  EXPECT_EQ(nullptr, Find(L"p/q/old"));
  EXPECT_NE(nullptr, Find(L"p/q"));  // emptied but changed after the threshold
}

TEST_F(TreeWalkTest, ShrinkKeepsWhatLiesOutsideItsPath) {
  InsertFile(L"x/old", "1");
  InsertFile(L"y/old", "2");
  int64_t threshold = Later();
  EXPECT_EQ(2u, db_->Shrink(threshold, L"x"));
  EXPECT_EQ(nullptr, Find(L"x"));
  EXPECT_NE(nullptr, Find(L"y/old"));
}
