// Several threads on one database; afterwards the tree and the index must agree.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/thread_pool.h"
#include "hdbfile/hdb_header.h"
#include "host/crypto_service.h"
#include "refhost/utility_service.h"
#include "tests/hash_db_fixture.h"
#include "tests/persistence_fixture.h"
#include "tests/scripted_pool.h"

namespace {

constexpr int kRounds = 300;

std::wstring PathOf(int i) {
  return L"d" + std::to_wstring(i % 4) + L"/e" + std::to_wstring(i % 7) + L"/f" + std::to_wstring(i % 23);
}

std::string HashOf(int i) { return "h" + std::to_string(i % 11); }

class HashDbConcurrencyTest : public HashDbTest {
 protected:
  // Every indexed node is reachable from the root under its own name, carries the hash it is
  // indexed under, and every file with a hash text is indexed exactly once.
  void ExpectConsistent() {
    std::multiset<const CHashNode*> indexed;
    for (const auto& [hash, node] : db_->index().Snapshot()) {
      ASSERT_NE(nullptr, node->hash);
      EXPECT_EQ(hash, *node->hash);
      for (std::shared_ptr<CHashNode> up = node; up != db_->root(); up = up->parent.lock()) {
        ASSERT_NE(nullptr, up) << "an indexed node is cut off from the root";
        ASSERT_TRUE(db_->IsAttached(up)) << "an indexed node is not in its parent's children";
      }
      indexed.insert(node.get());
    }
    std::function<void(const std::shared_ptr<CHashNode>&)> visit = [&](const std::shared_ptr<CHashNode>& node) {
      if (!node->is_dir && node->hash && !node->hash->empty()) {
        EXPECT_EQ(1u, indexed.count(node.get())) << node->name;
      }
      if (node->children) {
        for (const auto& [key, child] : *node->children) {
          EXPECT_EQ(node, child->parent.lock());
          visit(child);
        }
      }
    };
    visit(db_->root());
  }
};

}  // namespace

TEST_F(HashDbConcurrencyTest, InsertsChecksFlagsAndLookupsFromSeveralThreads) {
  std::vector<std::thread> threads;
  std::atomic<int> checked{0};
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) InsertFile(PathOf(i), HashOf(i));
  });
  threads.emplace_back([&] {
    for (int i = kRounds; i > 0; --i) {
      auto info = i % 5 == 0 ? CFakeObjInfo::Directory(PathOf(i)) : CFakeObjInfo::File(PathOf(i), HashOf(i + 1));
      Insert(info);
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      db_->CheckObject(CFakeObjInfo::File(PathOf(i), HashOf(i)));
      ++checked;
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      db_->Mark(true, Full(PathOf(i)), i % 2 == 0);
      db_->Flag2(true, Full(PathOf(i + 3)), true);
      db_->PathByHash(HashOf(i), false);
      db_->HashOfObject(Full(PathOf(i)));
      db_->ExistsAs(Full(PathOf(i)), false);
    }
  });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kRounds, checked.load());
  ExpectConsistent();
}

TEST_F(HashDbConcurrencyTest, RenamesMovesAndRemovesBesideChecksAndLookups) {
  for (int i = 0; i < 100; ++i) InsertFile(PathOf(i), HashOf(i));
  for (int i = 0; i < 4; ++i) Insert(CFakeObjInfo::Directory(L"target" + std::to_wstring(i)));
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    std::shared_ptr<CObjInfo> none;
    for (int i = 0; i < kRounds; ++i) {
      std::wstring from = Full(PathOf(i));
      try {
        switch (i % 3) {
          case 0: db_->RenameObject(none, from, from + L"r"); break;
          case 1: db_->RenameObject(none, from, Full(L"target" + std::to_wstring(i % 4) + L"/m")); break;
          default: db_->RemoveObject(none, from); break;
        }
      } catch (const std::runtime_error&) {
        // the object was already renamed, moved or removed by an earlier round
      }
      if (i % 10 == 0) InsertFile(PathOf(i), HashOf(i));
    }
  });
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        db_->CheckObject(CFakeObjInfo::File(PathOf(i + t), HashOf(i)));
        db_->PathByHash(HashOf(i), false);
        db_->IsDirectory(Full(L"target" + std::to_wstring(i % 4)));
        if (i % 50 == 0) db_->SubNodes(L"");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ExpectConsistent();
}

namespace {

// A real pool whose all-finished answer is always yes, so a walk returns while its tasks still
// wait in the queue behind a gate that the test opens.
class CGatedPool : public CThreadPool {
 public:
  explicit CGatedPool(std::shared_ptr<CThreadPool> pool) : pool_(std::move(pool)) {
    pool_->Submit([this] {
      std::unique_lock<std::mutex> guard(lock_);
      opened_.wait(guard, [this] { return open_; });
    });
  }
  void Open() {
    {
      std::lock_guard<std::mutex> guard(lock_);
      open_ = true;
    }
    opened_.notify_all();
  }
  void Submit(std::function<void()> task) override { pool_->Submit(std::move(task)); }
  void FinishRun() override {}
  void PrepareRun() override {}
  uint32_t ThreadCount() override { return pool_->ThreadCount(); }
  std::string StatusText() override { return pool_->StatusText(); }
  bool AllFinished() override { return true; }
  bool WaitAllFinished(uint32_t) override { return true; }
  bool RealWait(uint32_t ms) { return pool_->WaitAllFinished(ms); }

 private:
  std::shared_ptr<CThreadPool> pool_;
  std::mutex lock_;
  std::condition_variable opened_;
  bool open_ = false;
};

}  // namespace

TEST_F(HashDbConcurrencyTest, AWalkOfADatabaseDestroyedWhileItsTasksAreQueuedDoesNothing) {
  auto real = std::make_shared<CRefThreadPool>(1, host_->Log());
  auto gated = std::make_shared<CGatedPool>(real);
  host_ = std::make_shared<CHostWithPool<CRefHost>>(settings_, gated);
  db_ = MakeDb();
  for (int i = 0; i < 50; ++i) InsertFile(PathOf(i), HashOf(i));
  std::atomic<int> visits{0};
  db_->Enumerate("", true, std::make_shared<CNodeVisitor>([&](const std::shared_ptr<CHashNode>&) {
    ++visits;
    return true;
  }));
  db_.reset();
  gated->Open();
  ASSERT_TRUE(gated->RealWait(10000));
  EXPECT_EQ(0, visits.load());
}

TEST_F(HashDbConcurrencyTest, RecordsOfOnePathRestoredBySeveralTasksAtOnce) {
  std::string body;
  for (int i = 0; i < 400; ++i) {
    body += HdbRecordBytes(i % 2 ? "d/same" : "d/other", false, std::string(1 + i % 3, static_cast<char>(i)),
                                    1 + i % 7, std::string(i % 30, 's'));
  }
  CHdbHeader header;
  header.platform_flag = 1;
  header.policy_number = 256;
  header.policy_value = host_->Crypto()->DigestDescriptor(256);
  header.node_count = 400;
  header.revision = 5;
  std::string bytes(kHeaderSize, '\0');
  header.EncodeTo(reinterpret_cast<uint8_t*>(bytes.data()));
  bytes += body;
  auto buffer = [](const std::string& text) {
    return std::make_shared<CRefBuffer>(std::vector<uint8_t>(text.begin(), text.end()));
  };
  ASSERT_TRUE(db_->Load(nullptr, false, "test.hdb", buffer(bytes), buffer("s")));
  ExpectConsistent();
}
