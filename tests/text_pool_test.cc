// Texts that many nodes carry are kept once: equal texts share one copy, up to a bound.

#include <gtest/gtest.h>

#include <string>

#include "hashdb/text_pool.h"

TEST(TextPoolTest, EqualTextsShareOneCopy) {
  CTextPool pool;
  std::string first = "owner=0 group=0 mode=0644";
  std::string second = first;  // equal, at another address
  CCompactText a = pool.Share(first);
  CCompactText b = pool.Share(second);
  EXPECT_EQ(first, a);
  EXPECT_EQ(a.data(), b.data());
  EXPECT_NE(a.data(), pool.Share("owner=0 group=0 mode=0755").data());
  EXPECT_EQ(2u, pool.size());
}

TEST(TextPoolTest, AnEmptyTextIsNotKept) {
  CTextPool pool;
  EXPECT_TRUE(pool.Share("").empty());
  EXPECT_EQ(0u, pool.size());
}

TEST(TextPoolTest, PastTheBoundTextsAreEqualButNotShared) {
  CTextPool pool;
  for (size_t i = 0; i < CTextPool::kMaxTexts; ++i) pool.Share("text " + std::to_string(i));
  EXPECT_EQ(CTextPool::kMaxTexts, pool.size());
  CCompactText a = pool.Share("one more");
  CCompactText b = pool.Share("one more");
  EXPECT_EQ("one more", a);
  EXPECT_EQ(a, b);
  EXPECT_NE(a.data(), b.data());
  EXPECT_EQ(CTextPool::kMaxTexts, pool.size());
  // What was kept before the bound is still shared.
  EXPECT_EQ(pool.Share("text 7").data(), pool.Share(std::string("text 7")).data());
}

TEST(TextPoolTest, AFullPoolThatFindsAlmostNothingStopsLookingAndStillGivesEqualTexts) {
  CTextPool pool;
  for (size_t i = 0; i < CTextPool::kMaxTexts; ++i) pool.Share("inode=" + std::to_string(i));
  for (uint64_t i = 0; i + 1 < CTextPool::kTrialAfterFull; ++i) pool.Share("inode=" + std::to_string(1000000 + i));
  EXPECT_FALSE(pool.given_up());
  pool.Share("inode=x");
  EXPECT_TRUE(pool.given_up());
  EXPECT_EQ("inode=5", pool.Share("inode=5"));
  EXPECT_NE(pool.Share("inode=5").data(), pool.Share("inode=5").data());
}

TEST(TextPoolTest, AFullPoolThatFindsItsTextsKeepsSharingThem) {
  CTextPool pool;
  for (size_t i = 0; i < CTextPool::kMaxTexts; ++i) pool.Share("mode=" + std::to_string(i));
  // One in eight asked is new: most are found.
  for (uint64_t i = 0; i < 2 * CTextPool::kTrialAfterFull; ++i) {
    pool.Share(i % 8 == 0 ? "new " + std::to_string(i) : "mode=" + std::to_string(i % 100));
  }
  EXPECT_FALSE(pool.given_up());
  EXPECT_EQ(pool.Share("mode=5").data(), pool.Share("mode=5").data());
}
