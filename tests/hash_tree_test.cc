#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hashdb/bad_obj_name_error.h"
#include "hashdb/monotonic_clock.h"
#include "host/utility_service.h"
#include "tests/hash_db_fixture.h"
#include "tests/mock_host.h"

using HashTreeTest = HashDbTest;

TEST_F(HashTreeTest, CreatingABPathMakesDirectoriesAllTheWay) {
  std::shared_ptr<CHashNode> c = db_->CreateOrGetNode(L"a/b/c");
  std::shared_ptr<CHashNode> a = Find(L"a");
  std::shared_ptr<CHashNode> b = Find(L"a/b");
  ASSERT_TRUE(a && b);
  EXPECT_TRUE(a->is_dir);
  EXPECT_TRUE(b->is_dir);
  EXPECT_TRUE(c->is_dir);  // a directory until insert sets its kind
  EXPECT_EQ("c", c->name);
  EXPECT_EQ(b, c->parent.lock());
  EXPECT_EQ(c, Find(L"a/b/c"));
  EXPECT_EQ(c, db_->CreateOrGetNode(L"a/b/c"));  // got, not made again
}

TEST_F(HashTreeTest, APathThroughAFileReplacesTheFileByADirectory) {
  std::shared_ptr<CHashNode> file = InsertFile(L"f", "aa11");
  std::shared_ptr<CHashNode> x = db_->CreateOrGetNode(L"f/x");
  std::shared_ptr<CHashNode> f = Find(L"f");
  ASSERT_NE(nullptr, f);
  EXPECT_NE(file, f);
  EXPECT_TRUE(f->is_dir);
  EXPECT_EQ(f, x->parent.lock());
  EXPECT_TRUE(db_->index().Find("aa11")->empty());
}

TEST_F(HashTreeTest, DotAndDotDotAreRefusedWithNameAndPath) {
  EXPECT_EQ("Can NOT create illegal name obj node! [name]=. [path]=a/.",
            ErrorOf<CBadObjNameError>([&] { db_->CreateOrGetNode(L"a/./b"); }));
  EXPECT_EQ("Can NOT create illegal name obj node! [name]=.. [path]=a/..",
            ErrorOf<CBadObjNameError>([&] { db_->CreateOrGetNode(L"a/.."); }));
  EXPECT_NE(nullptr, Find(L"a"));  // the ancestor made before the bad name stays
  std::string long_name(256, 'n');
  EXPECT_EQ("Can NOT create illegal name obj node! [name]=" + long_name + " [path]=a/" + long_name,
            ErrorOf<CBadObjNameError>([&] {
              db_->CreateOrGetNode(L"a/" + std::wstring(256, L'n'));
            }));
}

TEST_F(HashTreeTest, TheBadNameErrorKeepsItsOwnCopyOfTheMessage) {
  try {
    db_->CreateOrGetNode(L"..");
    FAIL();
  } catch (const CBadObjNameError& e) {
    EXPECT_STREQ(e.what(), e.Message());
  }
}

TEST(HashTreeMockTest, AnEmptyNameIsRefused) {
  MockServices services;
  ON_CALL(services.mock_utility(), IsValidName(testing::_)).WillByDefault(testing::Return(true));
  ON_CALL(services.mock_utility(), ToNarrow(std::wstring(L"x"))).WillByDefault(testing::Return(""));
  ON_CALL(static_cast<testing::NiceMock<MockCfgService>&>(*services.cfg), NormaliseName(testing::_, testing::_))
      .WillByDefault([](const std::string& name, bool) { return name; });
  auto policy = std::make_shared<CRefPolicy>(CRefPolicySettings{"p", "/root"});
  auto db = std::make_shared<CHashDBImpl>(services.host, 256, L"/d/p.hdb", policy);
  EXPECT_EQ("Can NOT create illegal name obj node! [name]= [path]=a/x",
            ErrorOf<CBadObjNameError>([&] { db->CreateOrGetNode(L"a/x"); }));
}

TEST_F(HashTreeTest, NamesWithOneNormalisedKeyAreOneChild) {
  policy_.fold_case = true;
  db_ = MakeDb();
  std::shared_ptr<CHashNode> node = InsertFile(L"Dir/ReadMe.TXT", "ab");
  EXPECT_EQ(node, Find(L"dir/readme.txt"));
  EXPECT_EQ(node, Find(L"DIR/README.txt"));
  EXPECT_EQ(node, InsertFile(L"dir/readme.txt", "cd"));
  EXPECT_EQ("ReadMe.TXT", node->name);  // the name stays as it was first given
}

TEST_F(HashTreeTest, EqualHashesShareOneStringAndTheLaterNodeComesLast) {
  std::shared_ptr<CHashNode> first = InsertFile(L"one", "abcd");
  std::shared_ptr<CHashNode> second = InsertFile(L"two", "abcd");
  std::shared_ptr<CNodeList> found = db_->index().Find("abcd");
  ASSERT_EQ(2u, found->size());
  EXPECT_EQ(first, found->front());
  EXPECT_EQ(second, found->back());
  EXPECT_EQ(first->hash.get(), second->hash.get());
}

TEST_F(HashTreeTest, IndexFindOnADisabledIndexOrEmptyHashIsAnEmptyList) {
  InsertFile(L"one", "abcd");
  std::shared_ptr<CNodeList> none = db_->index().Find("");
  ASSERT_NE(nullptr, none);
  EXPECT_TRUE(none->empty());
  CMapHashDB disabled(false);
  disabled.Add(Find(L"one"));
  std::shared_ptr<CNodeList> found = disabled.Find("abcd");
  ASSERT_NE(nullptr, found);
  EXPECT_TRUE(found->empty());
}

TEST_F(HashTreeTest, DeadIndexEntriesVanishFromLookupsAndAreSwept) {
  CMapHashDB index(true);
  auto keep = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  keep->hash = std::make_shared<std::string>("ff");
  {
    auto gone = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
    gone->hash = std::make_shared<std::string>("ff");
    index.Add(gone);
    EXPECT_EQ(1u, index.Find("ff")->size());
  }
  EXPECT_TRUE(index.Find("ff")->empty());
  index.Add(keep);
  EXPECT_EQ(1u, index.Snapshot().size());
  index.Remove(keep);
  EXPECT_EQ(0u, index.HashCount());
}

// Many files of one content (empty files, copies): a removal takes out exactly its own node and
// keeps the others in the order they were added, also when dead entries lie among them.
TEST_F(HashTreeTest, RemovingFromALongListOfOneHashKeepsTheOthersInOrder) {
  CMapHashDB index(true);
  auto shared_text = std::make_shared<std::string>("e3b0");
  std::vector<std::shared_ptr<CHashNode>> nodes;
  for (int i = 0; i < 100; ++i) {
    nodes.push_back(std::make_shared<CHashNode>(std::weak_ptr<CHashNode>()));
    nodes.back()->hash = shared_text;
    index.Add(nodes.back());
  }
  for (int i = 0; i < 100; i += 3) index.Remove(nodes[static_cast<size_t>(i)]);
  nodes[1].reset();  // dies without being removed
  index.Remove(nodes[50]);
  index.Remove(nodes[50]);  // a second removal of the same node changes nothing
  std::shared_ptr<CNodeList> found = index.Find("e3b0");
  std::vector<std::shared_ptr<CHashNode>> expected;
  for (int i = 0; i < 100; ++i) {
    if (i % 3 != 0 && i != 1 && i != 50) expected.push_back(nodes[static_cast<size_t>(i)]);
  }
  EXPECT_EQ(expected, std::vector<std::shared_ptr<CHashNode>>(found->begin(), found->end()));
  index.Add(nodes[0]);  // back in: at the end
  EXPECT_EQ(nodes[0], index.Find("e3b0")->back());
  for (const std::shared_ptr<CHashNode>& node : nodes) {
    if (node) index.Remove(node);
  }
  EXPECT_EQ(0u, index.HashCount());
}

TEST(HashNodeTest, TouchedWithinZeroSecondsOnlyInTheSameSecond) {
  auto file = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  EXPECT_FALSE(file->TouchedWithin(1000));  // never touched
  file->Touch();
  EXPECT_TRUE(file->TouchedWithin(0));
  *file->touch_time -= 1500000000;  // as if touched one and a half seconds ago
  EXPECT_FALSE(file->TouchedWithin(0));
  EXPECT_TRUE(file->TouchedWithin(1));
  auto dir = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  dir->is_dir = true;
  dir->Touch();
  EXPECT_EQ(nullptr, dir->touch_time);
  EXPECT_FALSE(dir->TouchedWithin(1000));
}

TEST(HashNodeTest, ChangeStampsMoveForward) {
  auto node = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  int64_t made = node->change_time;
  EXPECT_FALSE(node->ChangedBefore(made));
  EXPECT_TRUE(node->ChangedBefore(made + 1));
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  node->StampChange();
  EXPECT_GT(node->change_time, made);
}

TEST(HashNodeTest, ANewNodeHoldsTheUnknownValues) {
  auto parent = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  auto node = std::make_shared<CHashNode>(parent);
  EXPECT_EQ(0xFFFFFFFFu, node->attributes);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, node->time_1);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, node->time_2);
  EXPECT_EQ(0u, node->size);
  EXPECT_FALSE(node->is_dir || node->mark || node->flag_2);
  EXPECT_FALSE(node->hash || node->old_hash || node->children || node->pending_info ||
               node->touch_time);
  EXPECT_EQ(parent, node->parent.lock());
}

TEST(HashNodeTest, SameAsComparesEveryRecordedField) {
  MockServices services;
  ON_CALL(services.mock_utility(), HashEquals(testing::_, testing::_))
      .WillByDefault([](const std::string& a, const std::string& b) { return a == b; });
  auto make = [] {
    auto node = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
    node->name = "f";
    node->hash = std::make_shared<std::string>("aa");
    node->size = 3;
    return node;
  };
  auto a = make(), b = make();
  EXPECT_TRUE(SameAs(a, b, *services.utility));
  b->security_attributes = "x";
  EXPECT_FALSE(SameAs(a, b, *services.utility));
  b = make();
  b->hash = std::make_shared<std::string>("bb");
  EXPECT_FALSE(SameAs(a, b, *services.utility));
  b->hash.reset();
  EXPECT_FALSE(SameAs(a, b, *services.utility));
  a->hash.reset();
  EXPECT_TRUE(SameAs(a, b, *services.utility));
  b->name = "g";
  EXPECT_FALSE(SameAs(a, b, *services.utility));
  EXPECT_EQ("[hdbi,itnts]Bad node!", ErrorOf<std::runtime_error>([&] { SameAs(a, nullptr, *services.utility); }));
}

TEST(HashNodeTest, EmptyFileRules) {
  auto node = std::make_shared<CHashNode>(std::weak_ptr<CHashNode>());
  EXPECT_EQ("[hdbi,iun]Bad node!", ErrorOf<std::runtime_error>([] { IsEmptyFile(nullptr); }));
  EXPECT_EQ("[hdbi,iun]Bad hash sp!", ErrorOf<std::runtime_error>([&] { IsEmptyFile(node); }));
  node->hash = std::make_shared<std::string>();
  EXPECT_TRUE(IsEmptyFile(node));
  node->size = 1;
  EXPECT_FALSE(IsEmptyFile(node));
  node->is_dir = true;
  EXPECT_FALSE(IsEmptyFile(node));
}

TEST(MonotonicClockTest, CounterConversionDoesNotOverflow) {
  EXPECT_EQ(1500000000, CounterToNanoseconds(15, 10));
  EXPECT_EQ(1000000500, CounterToNanoseconds(10000005, 10000000));
  // At 10 MHz, multiplying this reading by 10^9 first would overflow; two parts do not.
  EXPECT_EQ(900000000000000000, CounterToNanoseconds(9000000000000000, 10000000));
}
