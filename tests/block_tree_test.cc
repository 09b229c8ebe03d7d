// The ordered container behind the hash index: every sequence of insertions and erasures leaves
// it holding exactly what an ordered map would, in the same order, and findable.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "hashdb/block_tree.h"
#include "hashdb/text_key.h"

namespace {

struct CItem {
  std::shared_ptr<std::string> text;  // a heap text, as the index's entries hold theirs
  int value = 0;
};

struct CItemTraits {
  using Key = CTextKey;
  static Key KeyOf(const CItem& item) { return CTextKey(*item.text); }
  static bool Less(const Key& a, const Key& b) { return a < b; }
};

using CTree = CBlockTree<CItem, CItemTraits>;

// Keys that share long prefixes as well as keys that differ early, so that both the packed
// prefixes and the texts behind them decide comparisons.
std::string KeyText(std::mt19937& random) {
  static const char* kStems[] = {"", "aaaaaaaa", "aaaaaaab", "zz", "hash-0000000000"};
  return std::string(kStems[random() % 5]) + std::to_string(random() % 5000);
}

void ExpectSame(const CTree& tree, const std::map<std::string, int>& expected) {
  ASSERT_EQ(expected.size(), tree.size());
  auto want = expected.begin();
  for (const CItem& item : tree) {
    ASSERT_NE(expected.end(), want);
    EXPECT_EQ(want->first, *item.text);
    EXPECT_EQ(want->second, item.value);
    ++want;
  }
  EXPECT_EQ(expected.end(), want);
  for (const auto& [text, value] : expected) {
    const CItem* found = tree.Find(CTextKey(text));
    ASSERT_NE(nullptr, found) << text;
    EXPECT_EQ(value, found->value);
  }
}

bool Insert(CTree& tree, const std::string& text, int value) {
  CTextKey key(text);
  CTree::CPosition position = tree.LowerBound(key);
  CItem* there = tree.At(position);
  if (there != nullptr && !(key < CItemTraits::KeyOf(*there))) return false;
  tree.InsertAt(position, CItem{std::make_shared<std::string>(text), value});
  return true;
}

bool Erase(CTree& tree, const std::string& text) {
  CTextKey key(text);
  CTree::CPosition position = tree.LowerBound(key);
  CItem* there = tree.At(position);
  if (there == nullptr || key < CItemTraits::KeyOf(*there)) return false;
  tree.EraseAt(position);
  return true;
}

}  // namespace

TEST(BlockTreeTest, RandomInsertionsAndErasuresMatchAnOrderedMap) {
  std::mt19937 random(7);
  CTree tree;
  std::map<std::string, int> expected;
  for (int round = 0; round < 40000; ++round) {
    std::string text = KeyText(random);
    if (random() % 3 == 0) {
      EXPECT_EQ(expected.erase(text) == 1, Erase(tree, text)) << text;
    } else {
      EXPECT_EQ(expected.emplace(text, round).second, Insert(tree, text, round)) << text;
    }
    if (round % 5000 == 0) ExpectSame(tree, expected);
  }
  ExpectSame(tree, expected);
  // Emptied again, it is empty, and it fills again.
  for (const auto& [text, value] : std::map<std::string, int>(expected)) EXPECT_TRUE(Erase(tree, text));
  EXPECT_TRUE(tree.empty());
  EXPECT_EQ(tree.begin(), tree.end());
  EXPECT_EQ(nullptr, tree.Last());
  expected.clear();
  for (int i = 0; i < 1000; ++i) {
    std::string text = KeyText(random);
    EXPECT_EQ(expected.emplace(text, i).second, Insert(tree, text, i));
  }
  ExpectSame(tree, expected);
}

TEST(BlockTreeTest, AppendingSortedInputBuildsTheSameOrder) {
  std::map<std::string, int> expected;
  for (int i = 0; i < 20000; ++i) expected.emplace("k" + std::to_string(i * 7919 % 100003), i);
  CTree tree;
  for (const auto& [text, value] : expected) tree.PushBack(CItem{std::make_shared<std::string>(text), value});
  ExpectSame(tree, expected);
  ASSERT_NE(nullptr, tree.Last());
  EXPECT_EQ(expected.rbegin()->first, *tree.Last()->text);
  // What was appended takes later insertions and erasures like anything else.
  EXPECT_TRUE(Insert(tree, "k", -1));
  expected.emplace("k", -1);
  EXPECT_TRUE(Erase(tree, expected.rbegin()->first));
  expected.erase(std::prev(expected.end()));
  ExpectSame(tree, expected);
}

TEST(BlockTreeTest, ErasingTheFirstOfEveryLeafKeepsEverythingFindable) {
  CTree tree;
  std::map<std::string, int> expected;
  for (int i = 0; i < 5000; ++i) {
    char text[16];
    std::snprintf(text, sizeof text, "%08d", i);
    Insert(tree, text, i);
    expected.emplace(text, i);
  }
  // From the front: each erasure changes the first key of a leaf and of the nodes above it.
  for (int i = 0; i < 5000; i += 2) {
    char text[16];
    std::snprintf(text, sizeof text, "%08d", i);
    EXPECT_TRUE(Erase(tree, text));
    expected.erase(text);
  }
  ExpectSame(tree, expected);
  EXPECT_EQ(nullptr, tree.Find(CTextKey(std::string("00000000"))));
}
