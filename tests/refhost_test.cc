#include <sys/stat.h>

#include <atomic>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "refhost/catalogue.h"
#include "refhost/cfg_service.h"
#include "refhost/crypto_service.h"
#include "refhost/log_service.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"
#include "refhost/thread_pool.h"
#include "refhost/utility_service.h"
#include "tests/temp_dir.h"

namespace {

std::shared_ptr<CRefLogService> QuietLog() {
  auto log = std::make_shared<CRefLogService>("debug", false, "");
  log->KeepRecords(true);
  return log;
}

std::wstring W(const std::string& narrow) { return Utf8ToWide(narrow); }

}  // namespace

TEST(RefCryptoTest, HashingAKnownFileGivesTheKnownSha256Text) {
  CTempDir dir;
  std::string file = dir.Write("abc.txt", "abc");
  CRefCryptoService crypto{CRefSettings{}};
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
            crypto.HashFile(W(file), 256));
  EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", crypto.HashFile(W(file), 160));
}

TEST(RefCryptoTest, AnEmptyFileHasTheEmptyDigest) {
  CTempDir dir;
  std::string file = dir.Write("empty", "");
  CRefCryptoService crypto{CRefSettings{}};
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
            crypto.HashFile(W(file), 256));
}

TEST(RefCryptoTest, AMissingFileOrUnknownPolicyNumberIsAnError) {
  CTempDir dir;
  CRefCryptoService crypto{CRefSettings{}};
  EXPECT_THROW(crypto.HashFile(W(dir / "missing"), 256), std::runtime_error);
  std::string file = dir.Write("f", "x");
  EXPECT_THROW(crypto.HashFile(W(file), 7), std::runtime_error);
  EXPECT_THROW(crypto.DigestDescriptor(7), std::runtime_error);
  EXPECT_NE(crypto.DigestDescriptor(256), crypto.DigestDescriptor(512));
}

TEST(RefCryptoTest, HashTextAndBinaryConvertBothWays) {
  CRefCryptoService crypto{CRefSettings{}};
  std::vector<uint8_t> bytes = crypto.HashTextToBinary("00ff7A");
  EXPECT_EQ((std::vector<uint8_t>{0x00, 0xff, 0x7a}), bytes);
  EXPECT_EQ("00ff7a", crypto.BinaryToHashText(bytes.data(), bytes.size(), 0));
  EXPECT_THROW(crypto.HashTextToBinary("abc"), std::runtime_error);
  EXPECT_THROW(crypto.HashTextToBinary("zz"), std::runtime_error);
  EXPECT_EQ(L"/d/etc.hdb.p7s", crypto.SignatureFilePath(L"/d/etc.hdb"));
}

TEST(RefUtilityTest, WholeFileWriteThenReadGivesTheSameBytes) {
  CTempDir dir;
  CRefUtilityService utility(QuietLog(), "");
  std::string bytes("a\0b\xff\n", 5);
  ASSERT_TRUE(utility.WriteBytes(W(dir / "f.bin"), bytes.data(), bytes.size(), 1, 0));
  std::shared_ptr<CBuffer> read = utility.ReadFile(W(dir / "f.bin"), 0);
  EXPECT_EQ(bytes, std::string(reinterpret_cast<char*>(read->Data()), read->Size()));
  std::shared_ptr<CBuffer> head = utility.ReadFile(W(dir / "f.bin"), 2);
  EXPECT_EQ(2u, head->Size());
  EXPECT_FALSE(boost::filesystem::exists(dir / "f.bin.writing"));
  EXPECT_THROW(utility.ReadFile(W(dir / "missing"), 0), std::runtime_error);
  EXPECT_THROW(utility.ReadFile(W(dir.path().string()), 0), std::runtime_error);
}

TEST(RefUtilityTest, AMoveReplacesTheTarget) {
  CTempDir dir;
  CRefUtilityService utility(QuietLog(), "");
  std::string from = dir.Write("new", "new content");
  std::string to = dir.Write("old", "old content");
  EXPECT_TRUE(utility.MoveFile(W(from), W(to), 0, 1, 0));
  EXPECT_FALSE(boost::filesystem::exists(from));
  EXPECT_EQ("new content", CTempDir::Read(to));
  EXPECT_FALSE(utility.MoveFile(W(from), W(to), 0, 1, 0));
  EXPECT_TRUE(utility.DeleteFile(W(to)));
  EXPECT_TRUE(utility.DeleteFile(W(to)));  // already gone
}

TEST(RefUtilityTest, NameValidityRefusesEmptyDotsAndSlashes) {
  CRefUtilityService utility(QuietLog(), "");
  EXPECT_FALSE(utility.IsValidName(""));
  EXPECT_FALSE(utility.IsValidName("a/b"));
  EXPECT_FALSE(utility.IsValidName("/"));
  EXPECT_FALSE(utility.IsValidName(std::string("a\0b", 3)));
  EXPECT_FALSE(utility.IsValidName(std::string(256, 'x')));
  EXPECT_TRUE(utility.IsValidName(std::string(255, 'x')));
  EXPECT_TRUE(utility.IsValidName("résumé.txt"));
  EXPECT_TRUE(utility.IsValidName("a\\b"));
}

TEST(RefUtilityTest, NameValidityLeavesDotAndDotDotToTheDatabase) {
  // "." and ".." are refused by the tree itself, before the host is asked.
  CRefUtilityService utility(QuietLog(), "");
  EXPECT_TRUE(utility.IsValidName("."));
  EXPECT_TRUE(utility.IsValidName(".."));
}

TEST(RefUtilityTest, NarrowTextIsUtf8) {
  CRefUtilityService utility(QuietLog(), "");
  std::wstring wide = L"r\u00e9sum\u00e9-\u6587\u4ef6-\U0001F600";
  std::string narrow = utility.ToNarrow(wide);
  EXPECT_EQ("r\xC3\xA9sum\xC3\xA9-\xE6\x96\x87\xE4\xBB\xB6-\xF0\x9F\x98\x80", narrow);
  EXPECT_EQ(wide, utility.ToWide(narrow));
}

TEST(RefUtilityTest, HashComparisonIgnoresCase) {
  CRefUtilityService utility(QuietLog(), "");
  EXPECT_TRUE(utility.HashEquals("ABCdef01", "abcDEF01"));
  EXPECT_FALSE(utility.HashEquals("abc", "abd"));
  EXPECT_FALSE(utility.HashEquals("abc", "abc0"));
  EXPECT_TRUE(utility.SecurityAttributesEqual("owner=0", "owner=0"));
  EXPECT_FALSE(utility.SecurityAttributesEqual("owner=0", "owner=1"));
}

TEST(RefUtilityTest, PathQueriesReadTheObject) {
  CTempDir dir;
  CRefUtilityService utility(QuietLog(), "");
  std::string file = dir.Write("f", "x");
  ::chmod(file.c_str(), 0640);
  struct stat info {};
  ASSERT_EQ(0, ::lstat(file.c_str(), &info));
  EXPECT_EQ(info.st_mode, utility.PathAttributes(W(file)));
  EXPECT_EQ(static_cast<uint64_t>(info.st_mtim.tv_sec) * 1000000000ull + info.st_mtim.tv_nsec,
            utility.PathTime2(W(file)));
  EXPECT_EQ(static_cast<uint64_t>(info.st_ctim.tv_sec) * 1000000000ull + info.st_ctim.tv_nsec,
            utility.PathTime1(W(file)));
  std::string security = utility.PathSecurityAttributes(W(file), 0);
  EXPECT_NE(std::string::npos, security.find("mode=0640")) << security;
  EXPECT_EQ(0xFFFFFFFFu, utility.PathAttributes(W(dir / "missing")));
  EXPECT_EQ(~0ull, utility.PathTime1(W(dir / "missing")));
  EXPECT_EQ("", utility.PathSecurityAttributes(W(dir / "missing"), 0));
}

TEST(RefUtilityTest, PlatformValuesAndAdaptation) {
  CRefUtilityService utility(QuietLog(), "");
  EXPECT_EQ(1u, utility.PlatformValue());
  EXPECT_TRUE(utility.PlatformMatches(true));
  EXPECT_FALSE(utility.PlatformMatches(false));
  EXPECT_EQ("a/b/c", utility.AdaptPath("a\\b\\c", false));
  EXPECT_EQ("a\\b", utility.AdaptPath("a\\b", true));
  EXPECT_FALSE(utility.Is32BitBuild());
}

TEST(RefUtilityTest, RandomStampsDiffer) {
  CRefUtilityService utility(QuietLog(), "");
  EXPECT_NE(utility.RandomStamp(), utility.RandomStamp());
}

TEST(RefUtilityTest, BufferedWriterGathersWritesUntilFlushed) {
  CRefUtilityService utility(QuietLog(), "");
  std::ostringstream out;
  std::shared_ptr<CBufferedWriter> writer = utility.MakeBufferedWriter(out, 8);
  writer->Write("abc", 3);
  EXPECT_EQ("", out.str());
  writer->Write("defgh", 5);
  writer->Write("ij", 2);  // would exceed the capacity: the first eight bytes go out
  EXPECT_EQ("abcdefgh", out.str());
  writer->Write("0123456789", 10);  // larger than the buffer: written through
  EXPECT_EQ("abcdefghij0123456789", out.str());
  writer->Write("z", 1);
  writer->Flush();
  EXPECT_EQ("abcdefghij0123456789z", out.str());
}

TEST(RefUtilityTest, MessageOutputAndOwnLogReachTheLog) {
  auto log = QuietLog();
  CRefUtilityService utility(log, "");
  utility.Message(82, "[After New][1]:HDBI", 7);
  utility.Log(7, "[Thread:Restore Leave Nodes][Create]");
  std::vector<CLogRecord> records = log->Records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(82u, records[0].event);
  EXPECT_EQ("[After New][1]:HDBI", records[0].text);
  EXPECT_EQ(Poco::Message::PRIO_DEBUG, records[1].priority);
}

TEST(RefCfgTest, RelativePathsAreLexical) {
  CRefCfgService cfg{CRefSettings{}};
  EXPECT_EQ(L"", cfg.RelativePath(L"/data/root", L"/data/root"));
  EXPECT_EQ(L"", cfg.RelativePath(L"/data/root/", L"/data/root"));
  EXPECT_EQ(L"a/b.txt", cfg.RelativePath(L"/data/root", L"/data/root/a/b.txt"));
  EXPECT_EQ(L"a/b.txt", cfg.RelativePath(L"/data/root", L"/data//root/./a/x/../b.txt"));
  EXPECT_EQ(L"/data/rootless/a", cfg.RelativePath(L"/data/root", L"/data/rootless/a"));
  // Paths that start with the root as it is written, and those that only reach it.
  EXPECT_EQ(L"etc/hosts", cfg.RelativePath(L"/", L"/etc/hosts"));
  EXPECT_EQ(L"a", cfg.RelativePath(L"/data/root/", L"/data/root/a"));
  EXPECT_EQ(L"a", cfg.RelativePath(L"/data/root", L"/data/root/a/"));
  EXPECT_EQ(L"a/b", cfg.RelativePath(L"/data/root", L"/data/root/a/./b"));
  EXPECT_EQ(L"a/b", cfg.RelativePath(L"/data/root", L"/data/root/a//b"));
  EXPECT_EQ(L"b", cfg.RelativePath(L"/data/root", L"/data/root/a/../b"));
  EXPECT_EQ(L"x", cfg.RelativePath(L"/data/root/..", L"/data/root/../x"));
  EXPECT_EQ(L"/data/root/../x", cfg.RelativePath(L"/data/root", L"/data/root/../x"));  // not below: as given
  EXPECT_EQ(L"b", cfg.RelativePath(L"a", L"a/b"));
  EXPECT_EQ(L"/a/b", cfg.RelativePath(L"a", L"/a/b"));
  EXPECT_TRUE(cfg.SamePath(L"/a/b/", L"/a/./b"));
  EXPECT_FALSE(cfg.SamePath(L"a/b", L"/a/b"));
  EXPECT_TRUE(cfg.PathAtOrBelow(L"a", L"a/b"));
  EXPECT_TRUE(cfg.PathAtOrBelow(L"a", L"a"));
  EXPECT_TRUE(cfg.PathAtOrBelow(L"", L"a/b"));
  EXPECT_FALSE(cfg.PathAtOrBelow(L"a/b", L"a"));
  EXPECT_FALSE(cfg.PathAtOrBelow(L"a", L"ab"));
}

TEST(RefCfgTest, NamesFoldCaseOnlyWhenThePolicySaysSo) {
  CRefCfgService cfg{CRefSettings{}};
  EXPECT_EQ("ReadMe.TXT", cfg.NormaliseName("ReadMe.TXT", false));
  EXPECT_EQ("readme.txt", cfg.NormaliseName("ReadMe.TXT", true));
  EXPECT_EQ("\xC3\xA9t\xC3\xA9", cfg.NormaliseName("\xC3\x89T\xC3\x89", true));
}

TEST(RefSettingsTest, AJsonConfigurationIsRead) {
  CTempDir dir;
  std::string file = dir.Write("signdb.json", R"({
    "data_dir": "data",
    "policy_number": 512,
    "restore_time_limit_ms": 1000,
    "threads": 3,
    "signer": {"certificate": "keys/signer.pem", "key": "/abs/key.pem", "ca": "keys/ca.pem"},
    "local": {"cstm_id": "Example Org", "lcs_id": "2"},
    "policies": [
      {"name": "etc", "root": "/etc", "touch_period": 60, "case_fold": true},
      {"name": "home", "root": "home", "index": false}
    ]
  })");
  CRefSettings settings = LoadSettings(file);
  EXPECT_EQ(dir / "data", settings.data_dir);
  EXPECT_EQ(512u, settings.policy_number);
  EXPECT_EQ(1000u, settings.restore_time_limit_ms);
  EXPECT_EQ(3u, settings.threads);
  EXPECT_EQ(dir / "keys/signer.pem", settings.signer_certificate);
  EXPECT_EQ("/abs/key.pem", settings.signer_key);
  EXPECT_EQ("Example Org", settings.local_cstm_id);
  EXPECT_EQ("2", settings.local_lcs_id);
  ASSERT_EQ(2u, settings.policies.size());
  EXPECT_EQ("etc", settings.policies[0].name);
  EXPECT_EQ("/etc", settings.policies[0].root);
  EXPECT_EQ(60u, settings.policies[0].touch_period_s);
  EXPECT_TRUE(settings.policies[0].fold_case);
  EXPECT_EQ(dir / "home", settings.policies[1].root);
  EXPECT_FALSE(settings.policies[1].index_enabled);
}

TEST(RefSettingsTest, AnIniConfigurationIsRead) {
  CTempDir dir;
  std::string file = dir.Write("signdb.ini",
                               "data_dir = /var/lib/signdb\n"
                               "[policy.etc]\nroot = /etc\ntouch_period = 5\n");
  CRefSettings settings = LoadSettings(file);
  EXPECT_EQ("/var/lib/signdb", settings.data_dir);
  ASSERT_EQ(1u, settings.policies.size());
  EXPECT_EQ("etc", settings.policies[0].name);
  EXPECT_EQ(5u, settings.policies[0].touch_period_s);
}

TEST(RefSettingsTest, MissingOrBrokenConfigurationsSayWhichFileAndWhy) {
  CTempDir dir;
  try {
    LoadSettings(dir / "none.json");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("not found")) << e.what();
  }
  std::string broken = dir.Write("broken.json", "{ \"data_dir\": ");
  try {
    LoadSettings(broken);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("broken.json")) << e.what();
  }
}

TEST(RefCatalogueTest, KeysWithoutEntryAreTheirOwnText) {
  CTempDir dir;
  std::string file = dir.Write("fr.json", R"({"Saving HDB,path=": "Sauvegarde HDB,chemin="})");
  CRefCatalogue catalogue = CRefCatalogue::FromFile(file);
  std::string out;
  catalogue.Text(out, "Saving HDB,path=");
  EXPECT_EQ("Sauvegarde HDB,chemin=", out);
  catalogue.Text(out, "HDB saved.Total nodes=");
  EXPECT_EQ("HDB saved.Total nodes=", out);
  EXPECT_THROW(CRefCatalogue::FromFile(dir / "none.json"), std::runtime_error);
}

TEST(RefLogTest, LinesCarryTimeSeverityAndEventCode) {
  CTempDir dir;
  {
    CRefLogService log("information", false, dir / "signdb.log");
    log.Information(0x10013, "HDB saved.Total nodes=1");
    log.Debug(0x10013, "not written at this level");
    log.Error(0x10030, "failure");
  }
  std::string text = CTempDir::Read(dir / "signdb.log");
  EXPECT_NE(std::string::npos, text.find(" I 0x10013 HDB saved.Total nodes=1\n")) << text;
  EXPECT_NE(std::string::npos, text.find(" E 0x10030 failure\n")) << text;
  EXPECT_EQ(std::string::npos, text.find("not written")) << text;
}

TEST(RefLogTest, AFolderWithoutALogFileIsNeverWrittenUntilSomethingIsLogged) {
  CTempDir dir;
  { CRefLogService log("information", false, dir / "signdb.log"); }
  EXPECT_FALSE(boost::filesystem::exists(dir / "signdb.log"));
}

// A log that cannot be written (read-only media) costs the informational lines only, in silence;
// the first warning says why and comes to the standard error with every one after it.
TEST(RefLogTest, ALogThatCannotBeWrittenSendsWarningsAndErrorsToTheStandardError) {
  CTempDir dir;
  std::string log_path = dir / "no-such-folder/signdb.log";
  testing::internal::CaptureStderr();
  {
    CRefLogService log("information", false, log_path);
    log.Information(0x10013, "HDB saved.Total nodes=1");
    log.Warning(0x10030, "first warning");
    log.Error(0x10031, "an error");
  }
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::string::npos, err.find("HDB saved")) << err;
  size_t notice = err.find("signdb: cannot write the log " + log_path + " (");
  size_t warning = err.find("first warning");
  EXPECT_NE(std::string::npos, notice) << err;
  EXPECT_NE(std::string::npos, warning) << err;
  EXPECT_LT(notice, warning) << err;
  EXPECT_NE(std::string::npos, err.find("an error")) << err;
  EXPECT_EQ(err.find("cannot write the log"), err.rfind("cannot write the log")) << "said once: " << err;
}

TEST(RefThreadPoolTest, RunsNestedTasksAndReportsAllFinished) {
  auto log = QuietLog();
  CRefThreadPool pool(2, log);
  EXPECT_EQ(2u, pool.ThreadCount());
  EXPECT_TRUE(pool.AllFinished());
  std::atomic<int> done{0};
  pool.PrepareRun();
  for (int i = 0; i < 10; ++i) {
    pool.Submit([&pool, &done] {
      for (int j = 0; j < 10; ++j) pool.Submit([&done] { ++done; });
      ++done;
    });
  }
  while (!pool.WaitAllFinished(500)) {
  }
  pool.FinishRun();
  EXPECT_EQ(110, done.load());
  EXPECT_TRUE(pool.AllFinished());
}

TEST(RefThreadPoolTest, AThrowingTaskIsLoggedAsAnErrorWithItsText) {
  auto log = QuietLog();
  CRefThreadPool pool(1, log);
  pool.Submit([] { throw std::runtime_error("[HDBI,wn] bad size-2!"); });
  ASSERT_TRUE(pool.WaitAllFinished(10000));
  std::vector<CLogRecord> records = log->Records();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(Poco::Message::PRIO_ERROR, records[0].priority);
  EXPECT_NE(std::string::npos, records[0].text.find("[HDBI,wn] bad size-2!"));
  EXPECT_NE(std::string::npos, pool.StatusText().find("failed=1"));
}
