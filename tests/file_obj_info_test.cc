#include "refhost/file_obj_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "refhost/cfg_service.h"
#include "refhost/crypto_service.h"
#include "refhost/log_service.h"
#include "refhost/settings.h"
#include "refhost/text_conversion.h"
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
