// The walk of a policy's tree on real folders: what is swapped while it runs, paths past PATH_MAX,
// and file systems mounted inside the root.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "tool/session/session.h"
#include "tool/scan/tree_scanner.h"
#include "refhost/file_descriptor.h"
#include "refhost/file_obj_info.h"
#include "util/text_conversion.h"
#include "tests/scoped_mount.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;

class ToolWalkTest : public ToolTest {};

// Between the moment a directory was examined and the moment it is listed, an attacker swaps it
// for a link to a folder outside the root: what is listed is the directory that was examined,
// and nothing outside the root is read.
TEST_F(ToolWalkTest, ADirectorySwappedForALinkBeforeItsListingIsListedAsItWasNeverFollowed) {
  Write("d/f", "inside\n");
  std::string outside = dir_.Write("outside/secret", "not ours\n");
  Init();
  CSessionOptions options;
  options.config_path = config_;
  CSession session(options);
  CTreeScanner scanner(session.host(), tree_, 1);
  scanner.SetBeforeListingHook([&](const std::string& directory) {
    if (directory != Tree("d")) return;
    ASSERT_EQ(::rename(Tree("d").c_str(), Tree("d.old").c_str()), 0);
    ASSERT_EQ(::symlink((dir_ / "outside").c_str(), Tree("d").c_str()), 0);
  });
  std::mutex lock;
  std::vector<std::string> seen;
  std::vector<std::string> problems;
  scanner.Run(
      [&](const std::shared_ptr<CRefFileObjInfo>& info) {
        std::lock_guard<std::mutex> guard(lock);
        seen.push_back(WideToUtf8(info->RelativePath()) + " " + info->HashText());
      },
      [&](const std::string& relative, const std::string& reason) { problems.push_back(relative + ": " + reason); });
  EXPECT_THAT(seen, Contains("d/f " + Sha256("inside\n")));
  EXPECT_THAT(seen, Each(Not(HasSubstr("secret"))));
  EXPECT_THAT(seen, Not(Contains(HasSubstr(Sha256("not ours\n")))));
  EXPECT_TRUE(problems.empty()) << problems.front();
}

// A recorded file below a directory that became a link to a copy elsewhere is gone: the check
// never reads the copy in its place.
TEST_F(ToolWalkTest, AFileBelowADirectoryThatBecameALinkIsGoneEvenWhenTheLinkLeadsToACopy) {
  Write("d/f", "same\n");
  dir_.Write("outside/f", "same\n");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  ASSERT_EQ(::rename(Tree("d").c_str(), (dir_ / "d.away").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "outside").c_str(), Tree("d").c_str()), 0);
  CToolRun check = Tool("check t --json");
  EXPECT_EQ(check.status, 1) << check.err;
  Poco::JSON::Object::Ptr file = JsonAbout(check, "d/f");
  ASSERT_TRUE(file) << check.out;
  EXPECT_EQ(Action(file), "gone");
}

// Makes "levels" nested directories of long names below "top" through descriptors (no path
// call could reach them) and a file at the bottom; returns the bottom file's relative path.
std::string MakeDeepTree(const std::string& top, int levels, const std::string& content) {
  ::mkdir(top.c_str(), 0755);
  CFileDescriptor directory(::open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::string name(240, 'n');
  std::string relative;
  for (int level = 0; level < levels; ++level) {
    name[0] = static_cast<char>('a' + level % 26);
    EXPECT_EQ(::mkdirat(directory.get(), name.c_str(), 0755), 0);
    directory.Reset(::openat(directory.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    relative += name + "/";
  }
  CFileDescriptor file(::openat(directory.get(), "bottom", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  EXPECT_EQ(::write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
  return relative + "bottom";
}

void AppendDeep(const std::string& top, const std::string& relative, const std::string& more) {
  CFileDescriptor directory(::open(top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  size_t start = 0;
  for (size_t slash = relative.find('/'); slash != std::string::npos; slash = relative.find('/', start)) {
    directory.Reset(::openat(directory.get(), relative.substr(start, slash - start).c_str(),
                             O_PATH | O_DIRECTORY | O_CLOEXEC));
    start = slash + 1;
  }
  CFileDescriptor file(::openat(directory.get(), relative.substr(start).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  EXPECT_EQ(::write(file.get(), more.data(), more.size()), static_cast<ssize_t>(more.size()));
}

TEST_F(ToolWalkTest, ATreeDeeperThanPathMaxIsRecordedAndChecked) {
  std::string bottom = "deep/" + MakeDeepTree(Tree("deep"), 20, "at the bottom\n");
  ASSERT_GT((tree_ + "/" + bottom).size(), static_cast<size_t>(PATH_MAX));
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.out, HasSubstr("23 objects"));
  CToolRun clean = Tool("check t");
  EXPECT_EQ(clean.status, 0) << clean.out << clean.err;

  AppendDeep(tree_, bottom, "and more\n");
  CToolRun check = Tool("check t --json");
  EXPECT_EQ(check.status, 1) << check.err;
  Poco::JSON::Object::Ptr file = JsonAbout(check, bottom);
  ASSERT_TRUE(file) << check.out;
  EXPECT_EQ(Action(file), "hash changed");
  EXPECT_EQ(std::system(("rm -rf '" + Tree("deep") + "'").c_str()), 0);  // past what path calls remove
}

// The kernel's state mounted inside a root (a /proc that never ends, say) is neither recorded nor
// entered; the rest of the tree is.
TEST_F(ToolWalkTest, AProcFileSystemMountedInsideTheRootIsNeitherRecordedNorEntered) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  boost::filesystem::create_directories(Tree("proc"));
  CScopedMount proc("mount -t proc proc '" + Tree("proc") + "'", Tree("proc"));
  if (!proc.reason().empty()) GTEST_SKIP() << proc.reason();
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  CToolRun list = Tool("ls t -R");
  EXPECT_THAT(list.out, HasSubstr("etc/hosts"));
  EXPECT_THAT(list.out, Not(HasSubstr("proc")));
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out << check.err;
}

}  // namespace
