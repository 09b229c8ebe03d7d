#include "hashdb/wide_path.h"

#include <gtest/gtest.h>

#include "tests/native_path.h"

namespace {
std::vector<std::wstring> Names(std::wstring_view path) {
  std::vector<std::wstring> names;
  for (const CPathComponent& c : PathComponents(path)) names.emplace_back(c.name);
  return names;
}
}  // namespace

TEST(WidePathTest, ComponentsFollowThePathLibrary) {
  EXPECT_EQ((std::vector<std::wstring>{}), Names(L""));
  EXPECT_EQ((std::vector<std::wstring>{L"a", L"b", L"c"}), Names(L"a/b//c"));
  EXPECT_EQ((std::vector<std::wstring>{L"/", L"x"}), Names(L"//x"));
  EXPECT_EQ((std::vector<std::wstring>{L"a", L"."}), Names(L"a/"));
  EXPECT_EQ((std::vector<std::wstring>{L"a", L".", L".."}), Names(L"a/./.."));
  EXPECT_EQ((std::vector<std::wstring>{L"r\u00e9sum\u00e9"}), Names(L"r\u00e9sum\u00e9"));
}

TEST(WidePathTest, ParentFileNameAndJoin) {
  EXPECT_EQ(L"a/b", ParentPath(L"a/b/c"));  // the parent keeps the path's own spelling
  EXPECT_EQ(L"", ParentPath(L"c"));
  EXPECT_EQ(L"/", ParentPath(L"/c"));
  EXPECT_EQ(L"c", FileName(L"a/b/c"));
  EXPECT_EQ(L".", FileName(L"a/b/"));
  EXPECT_EQ(Native(L"a/b"), JoinPath(L"a", L"b"));
  EXPECT_EQ(L"a/b", JoinPath(L"a/", L"b"));
  EXPECT_EQ(L"b", JoinPath(L"", L"b"));
  EXPECT_EQ(L"a", JoinPath(L"a", L""));
}
