#include "refhost/file_obj_info.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "refhost/cfg_service.h"
#include "refhost/crypto_service.h"
#include "refhost/file_descriptor.h"
#include "refhost/log_service.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"
#include "refhost/utility_service.h"
#include "tests/temp_dir.h"

class FileObjInfoTest : public testing::Test {
 protected:
  std::shared_ptr<CRefFileObjInfo> Read(const std::string& relative) {
    return CRefFileObjInfo::FromDisk(utility_, cfg_, Utf8ToWide(dir_.path().string()),
                                     Utf8ToWide(dir_ / relative), 256);
  }
  CTempDir dir_;
  CRefSettings settings_;
  CRefUtilityService utility_{std::make_shared<CRefLogService>("error", false, ""), ""};
  CRefCryptoService crypto_{settings_};
  CRefCfgService cfg_{settings_};
};

TEST_F(FileObjInfoTest, AFileCarriesItsHashSizeModeAndTimes) {
  std::string file = dir_.Write("etc/hosts", "abc");
  ::chmod(file.c_str(), 0640);
  auto info = Read("etc/hosts");
  struct stat status {};
  ASSERT_EQ(0, ::lstat(file.c_str(), &status));
  EXPECT_FALSE(info->IsDirectory());
  EXPECT_FALSE(info->IsGone());
  EXPECT_EQ(L"etc/hosts", info->RelativePath());
  EXPECT_EQ(3u, info->Size());
  EXPECT_EQ(status.st_mode, info->Attributes());
  EXPECT_EQ(utility_.PathTime2(Utf8ToWide(file)), info->Time2());
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", info->HashText());
  EXPECT_NE(std::string::npos, info->SecurityAttributes().find("mode=0640"));
  EXPECT_EQ("", info->TargetPath());
  EXPECT_EQ(file, info->Description());
}

TEST_F(FileObjInfoTest, ADirectoryHasNoHashAndNoSize) {
  dir_.Write("d/f", "x");
  auto info = Read("d");
  EXPECT_TRUE(info->IsDirectory());
  EXPECT_EQ(0u, info->Size());
  EXPECT_EQ("", info->HashText());
}

TEST_F(FileObjInfoTest, ASymbolicLinkIsAFileWithItsTargetAndIsNotFollowed) {
  dir_.Write("real", "abc");
  ASSERT_EQ(0, ::symlink("real", (dir_ / "link").c_str()));
  auto info = Read("link");
  EXPECT_FALSE(info->IsDirectory());
  EXPECT_EQ("real", info->TargetPath());
  EXPECT_EQ(L"real", info->TargetWidePath());
  EXPECT_EQ("", info->HashText());
}

TEST_F(FileObjInfoTest, AMissingObjectIsGone) {
  auto info = Read("no/such/file");
  EXPECT_TRUE(info->IsGone());
  EXPECT_EQ(L"no/such/file", info->RelativePath());
}

TEST_F(FileObjInfoTest, AnObjectThatCannotBeExaminedIsAnError) {
  try {
    Read(std::string(300, 'n'));  // longer than a name may be
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("cannot examine")) << e.what();
  }
}

class FileObjInfoHintTest : public FileObjInfoTest {
 protected:
  std::shared_ptr<CRefFileObjInfo> ReadHinted(const std::string& relative) {
    return CRefFileObjInfo::FromDisk(utility_, cfg_, Utf8ToWide(dir_.path().string()),
                                     Utf8ToWide(dir_ / relative), 256, true);
  }
  // Everything the database compares, as one text.
  static std::string Summary(const std::shared_ptr<CRefFileObjInfo>& info) {
    return std::to_string(info->IsDirectory()) + "|" + std::to_string(info->IsGone()) + "|" +
           std::to_string(info->Size()) + "|" + std::to_string(info->Attributes()) + "|" +
           std::to_string(info->Time1()) + "|" + std::to_string(info->Time2()) + "|" + info->HashText() + "|" +
           info->SecurityAttributes() + "|" + info->TargetPath() + "|" + WideToUtf8(info->RelativePath());
  }
};

TEST_F(FileObjInfoHintTest, AFileReadThroughItsDescriptorIsReadAsWithoutTheHint) {
  std::string file = dir_.Write("etc/hosts", "abc");
  ::chmod(file.c_str(), 0604);
  EXPECT_EQ(Summary(Read("etc/hosts")), Summary(ReadHinted("etc/hosts")));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", ReadHinted("etc/hosts")->HashText());
}

TEST_F(FileObjInfoHintTest, AWrongHintChangesNothing) {
  dir_.Write("d/f", "x");
  ASSERT_EQ(0, ::symlink("d/f", (dir_ / "link").c_str()));
  ASSERT_EQ(0, ::mkfifo((dir_ / "fifo").c_str(), 0600));  // opening it would block without care
  for (const char* name : {"d", "link", "fifo", "missing"}) {
    EXPECT_EQ(Summary(Read(name)), Summary(ReadHinted(name))) << name;
  }
  EXPECT_EQ("d/f", ReadHinted("link")->TargetPath());
  EXPECT_TRUE(ReadHinted("missing")->IsGone());
}

// The bytes read(2) has returned to this process so far.
uint64_t BytesReadByThisProcess() {
  std::ifstream io("/proc/self/io");
  for (std::string key; io >> key;) {
    uint64_t value = 0;
    io >> value;
    if (key == "rchar:") return value;
  }
  return 0;
}

TEST_F(FileObjInfoTest, TheHolesOfASparseFileAreHashedAsZerosWithoutBeingRead) {
  std::string file = dir_.Write("sparse", "head");
  constexpr off_t kSize = 256 << 20;
  {
    CFileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(fd.get(), "tail", 4, kSize - 4), 4);
  }
  CFileDescriptor probe(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (::lseek(probe.get(), 0, SEEK_HOLE) >= kSize - 4) GTEST_SKIP() << "this file system does not report holes";
  std::string content(static_cast<size_t>(kSize), '\0');
  content.replace(0, 4, "head");
  content.replace(content.size() - 4, 4, "tail");
  std::string expected = HashBytes(content.data(), content.size(), 256);
  content.clear();
  content.shrink_to_fit();

  uint64_t before = BytesReadByThisProcess();
  auto info = Read("sparse");
  uint64_t read = BytesReadByThisProcess() - before;
  EXPECT_EQ(expected, info->HashText());
  EXPECT_LT(read, 16u << 20) << "the holes were read";
}

TEST_F(FileObjInfoTest, ASmallFileWithAHoleIsHashedAsItsBytesWithTheHoleAsZeros) {
  std::string file = dir_.Write("small-sparse", "head");
  constexpr off_t kSize = 200 << 10;  // within one read block
  {
    CFileDescriptor fd(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(fd.get(), "tail", 4, kSize - 4), 4);
  }
  std::string content(static_cast<size_t>(kSize), '\0');
  content.replace(0, 4, "head");
  content.replace(content.size() - 4, 4, "tail");
  EXPECT_EQ(HashBytes(content.data(), content.size(), 256), Read("small-sparse")->HashText());
}

// A writer keeps appending while the file is read: the read stops at the size the file had when
// it was opened, and the object is refused as changed meanwhile, never recorded half-way.
TEST_F(FileObjInfoTest, AFileThatKeepsGrowingIsReadOnlyToItsSizeAtOpeningAndRefusedAsChanged) {
  std::string file = dir_.Write("growing", std::string(64 << 20, 'a'));
  std::atomic<bool> reading_done{false};
  std::atomic<uint64_t> appended{0};
  std::thread writer([&] {
    CFileDescriptor fd(::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    std::string block(1 << 20, 'b');
    // Bounded, so that a reader that follows the growth still ends: at 1 GiB more.
    while (!reading_done && appended < (1u << 30)) {
      if (::write(fd.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size())) break;
      appended += block.size();
    }
  });
  while (appended == 0) std::this_thread::yield();
  std::string error;
  try {
    Read("growing");
  } catch (const std::runtime_error& e) {
    error = e.what();
  }
  bool writer_was_running = appended < (1u << 30);
  reading_done = true;
  writer.join();
  EXPECT_TRUE(writer_was_running) << "the read followed the file as it grew";
  EXPECT_NE(std::string::npos, error.find("it changed while being read")) << error;
}

TEST_F(FileObjInfoTest, OnlyThePrefixAskedForIsHashed) {
  std::string file = dir_.Write("three", "onetwothree");
  CFileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(HashBytes("onetwo", 6, 256), HashOpenFilePrefix(fd.get(), 6, 256, file));
  EXPECT_THROW(HashOpenFilePrefix(fd.get(), 100, 256, file), std::runtime_error);  // shorter than asked
}

TEST_F(FileObjInfoTest, AnObjectBelowADirectoryThatBecameALinkIsGone) {
  dir_.Write("d/f", "inside");
  dir_.Write("elsewhere/f", "inside");
  boost::filesystem::rename(dir_.path() / "d", dir_.path() / "d.old");
  ASSERT_EQ(0, ::symlink((dir_ / "elsewhere").c_str(), (dir_ / "d").c_str()));
  EXPECT_TRUE(Read("d/f")->IsGone());
  EXPECT_FALSE(Read("d.old/f")->IsGone());
}
