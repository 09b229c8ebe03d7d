// The tool under accident and attack: runs at once, kills at any moment, planted links, loose
// permissions, rollback, read-only media and bad configuration never lose or fake a database.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tool/store/policy_lock.h"
#include "tests/scoped_mount.h"
#include "tests/tool_fixture.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ToolReliabilityTest : public ToolTest {
 protected:
  void SetUp() override {
    Write("etc/hosts", "127.0.0.1 localhost\n");
    Write("etc/passwd", "root:x:0:0::/root:/bin/sh\n");
    Init();
    CToolRun run = Tool("scan t");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }
  std::string HdbPath() const { return Data("t.hdb"); }
  // Runs "args" with the run killed at its "step"-th change to the data folder; true when it was
  // killed there (false: it finished before reaching that step).
  bool KilledAt(const std::string& args, int step, CToolRun& run) const {
    run = RunShell("SIGNDB_TEST_KILL_AT_STEP=" + std::to_string(step) + " '" SIGNDB_TOOL_PATH "' " +
                   args);
    return run.status == 128 + SIGKILL;
  }
};

TEST_F(ToolReliabilityTest, AWriterStopsAndNamesTheProcessThatIsWritingThePolicy) {
  CPolicyLock held(HdbPath(), "t", CPolicyLock::CMode::kExclusive, false);
  Write("etc/new", "x\n");
  std::string before = CTempDir::Read(HdbPath());
  for (const char* command : {"update t", "scan t"}) {
    CToolRun run = Tool(command);
    EXPECT_EQ(run.status, 2) << command;
    EXPECT_THAT(run.err,
                HasSubstr("policy 't' is being written by process " + std::to_string(::getpid()) +
                          "; try again when it has finished, or add --wait"))
        << command;
    EXPECT_EQ(CTempDir::Read(HdbPath()), before) << command;
  }
  CToolRun reader = Tool("check t");
  EXPECT_EQ(reader.status, 2);
  EXPECT_THAT(reader.err, HasSubstr("is being written by process"));
}

TEST_F(ToolReliabilityTest, AWriterWaitsForReadersAndReadersShareThePolicy) {
  CPolicyLock reading(HdbPath(), "t", CPolicyLock::CMode::kShared, false);
  EXPECT_EQ(Tool("check t").status, 0) << "readers share the policy";
  EXPECT_EQ(Tool("ls t").status, 0);
  CToolRun writer = Tool("update t");
  EXPECT_EQ(writer.status, 2);
  EXPECT_THAT(writer.err, HasSubstr("policy 't' is being read by process"));
}

TEST_F(ToolReliabilityTest, WithWaitARunWaitsForTheHolderThenGoesOn) {
  Write("etc/new", "x\n");
  auto held = std::make_unique<CPolicyLock>(HdbPath(), "t", CPolicyLock::CMode::kExclusive, false);
  std::thread release([&held] {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    held.reset();
  });
  auto start = std::chrono::steady_clock::now();
  CToolRun run = Tool("update t --wait");
  auto waited = std::chrono::steady_clock::now() - start;
  release.join();
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_GE(waited, std::chrono::milliseconds(600));
  EXPECT_EQ(Tool("check t").status, 0);
}

TEST_F(ToolReliabilityTest, WritersAtOnceNeverLoseTheDatabaseNorEachOthersWork) {
  // Many rounds of two writers started together: each either saves or stops with the holder
  // named, and the database always loads with its signature afterwards.
  for (int round = 0; round < 12; ++round) {
    Write("etc/round", std::to_string(round));
    std::string update = "'" SIGNDB_TOOL_PATH "' --config '" + config_ + "' update t";
    std::string u1 = dir_ / "u1", u2 = dir_ / "u2";
    CToolRun both = RunShell("{ (" + update + " >" + u1 + ".out 2>&1; echo $? >" + u1 + ".rc) & (" +
                             update + " >" + u2 + ".out 2>&1; echo $? >" + u2 + ".rc) & wait; }");
    ASSERT_EQ(both.status, 0);
    for (const char* name : {"u1", "u2"}) {
      std::string rc = CTempDir::Read(dir_ / (std::string(name) + ".rc"));
      std::string out = CTempDir::Read(dir_ / (std::string(name) + ".out"));
      if (rc != "0\n") {
        EXPECT_EQ(rc, "2\n") << out;
        EXPECT_THAT(out, HasSubstr("is being written by process")) << out;
      }
    }
    CToolRun check = Tool("check t");
    ASSERT_EQ(check.status, 0) << "round " << round << ": " << check.out << check.err;
  }
}

TEST_F(ToolReliabilityTest, ReadersDuringUpdatesNeverSeeADamagedOrUnsignedDatabase) {
  CToolRun loop = RunShell(
      // The file changes by rename: a check may never meet it half-written (that is reported).
      "{ for i in $(seq 1 15); do echo $i > counter.new; mv counter.new tree/etc/counter; '" SIGNDB_TOOL_PATH
      "' --config '" +
      config_ +
      "' update t --wait >/dev/null 2>>updates.err || echo update failed >>updates.err; done & "
      "for i in $(seq 1 30); do '" SIGNDB_TOOL_PATH "' --config '" +
      config_ +
      "' check t --wait >>checks.out 2>&1; s=$?; [ $s -le 1 ] || echo \"check status $s\" "
      ">>checks.out; "
      "'" SIGNDB_TOOL_PATH "' --config '" +
      config_ +
      "' verify cfg/data/t.hdb --wait >/dev/null 2>>checks.out || "
      "echo verify refused >>checks.out; done; wait; }");
  ASSERT_EQ(loop.status, 0);
  std::string checks = CTempDir::Read(dir_ / "checks.out");
  EXPECT_THAT(checks, AllOf(Not(HasSubstr("check status")), Not(HasSubstr("refused")),
                            Not(HasSubstr("damaged")), Not(HasSubstr("signature"))))
      << checks;
  EXPECT_EQ(CTempDir::Read(dir_ / "updates.err"), "");
}

TEST_F(ToolReliabilityTest, AKillAtEveryStepOfAnUpdateLeavesALoadableSignedPairAndNothingLost) {
  Write("etc/counter", "first");
  ASSERT_EQ(Tool("update t").status, 0);  // so that a previous pair is kept as well
  int steps = 0;
  for (int step = 1; step < 200; ++step) {
    Write("etc/counter", std::to_string(step));
    CToolRun killed;
    bool was_killed = KilledAt("--config '" + config_ + "' update t", step, killed);
    if (!was_killed) {
      ASSERT_EQ(killed.status, 0) << killed.out << killed.err;
      steps = step - 1;
      break;
    }
    // Whatever step the kill interrupted, the policy loads, signed, and is either as it was or as
    // the update made it; the kept previous pair loads too.
    CToolRun check = Tool("check t");
    ASSERT_LE(check.status, 1) << "killed at step " << step << ": " << check.out << check.err;
    CToolRun diff = Tool("diff t");
    ASSERT_LE(diff.status, 1) << "killed at step " << step << ": " << diff.out << diff.err;
    // The next update finishes what the killed one left, and afterwards nothing is reported.
    CToolRun update = Tool("update t");
    ASSERT_LE(update.status, 0) << "killed at step " << step << ": " << update.out << update.err;
    CToolRun clean = Tool("check t");
    ASSERT_EQ(clean.status, 0) << "killed at step " << step << ": " << clean.out << clean.err;
    EXPECT_FALSE(boost::filesystem::exists(HdbPath() + ".tmp")) << step;
    EXPECT_FALSE(boost::filesystem::exists(HdbPath() + ".saving")) << step;
  }
  EXPECT_GE(steps, 10) << "an update changes the data folder in at least ten steps";
}

TEST_F(ToolReliabilityTest, AKillAtEveryStepOfAScanLeavesALoadableSignedPair) {
  for (int step = 1; step < 200; ++step) {
    Write("etc/counter", std::to_string(step));
    CToolRun killed;
    if (!KilledAt("--config '" + config_ + "' scan t --replace", step, killed)) {
      ASSERT_EQ(killed.status, 0) << killed.out << killed.err;
      break;
    }
    CToolRun check = Tool("check t");
    ASSERT_LE(check.status, 1) << "killed at step " << step << ": " << check.out << check.err;
    CToolRun verify = Tool("verify '" + HdbPath() + "'");
    if (verify.status != 0) {
      // Killed between the two moves of a replacement: the check above used the complete pair,
      // and the next writer moves it into place.
      ASSERT_EQ(Tool("update t").status, 0) << step;
    }
  }
  EXPECT_EQ(Tool("verify '" + HdbPath() + "'").status, 0);
}

TEST_F(ToolReliabilityTest, APreviousPairCopiedOverTheCurrentOneIsRefusedAsOlder) {
  Write("etc/hosts", "10.0.0.1 changed\n");
  ASSERT_EQ(Tool("update t").status, 0);
  boost::filesystem::copy_file(Data("t.previous.hdb"), HdbPath(),
                               boost::filesystem::copy_options::overwrite_existing);
  boost::filesystem::copy_file(Data("t.previous.hdb.p7s"), HdbPath() + ".p7s",
                               boost::filesystem::copy_options::overwrite_existing);
  for (const char* command : {"check t", "update t", "ls t", "diff t"}) {
    CToolRun run = Tool(command);
    EXPECT_EQ(run.status, 2) << command;
    EXPECT_THAT(run.err, AllOf(HasSubstr("is older than the last saved one: revision"),
                               HasSubstr(", expected ")))
        << command;
  }
}

// Every file of another policy's last save put in this policy's place (database, signature,
// binding, revision file), or just its signed pair: each holds on its own, and is refused.
TEST_F(ToolTest, ADatabaseOfAnotherPolicyPutInPlaceIsRefusedWhateverCameWithIt) {
  Write("etc/hosts", "127.0.0.1 localhost\n");
  dir_.Write("other/etc/hosts", "10.0.0.9 attacker\n");
  ASSERT_EQ(Run("init --config '" + config_ + "' --policy t=tree --policy u=other").status, 0);
  ASSERT_EQ(Tool("scan t").status, 0);
  ASSERT_EQ(Tool("scan u").status, 0);
  auto put = [&](const std::vector<std::string>& suffixes) {
    for (const std::string& suffix : suffixes) {
      boost::filesystem::copy_file(Data("u.hdb" + suffix), Data("t.hdb" + suffix),
                                   boost::filesystem::copy_options::overwrite_existing);
    }
  };
  std::string saved = dir_ / "t-saved";
  ASSERT_EQ(std::system(("mkdir '" + saved + "' && cp -a '" + Data("") + "'t.hdb* '" + saved + "/'").c_str()), 0);

  put({"", ".p7s", ".bind", ".dff"});
  CToolRun all = Tool("check t");
  EXPECT_EQ(all.status, 2);
  EXPECT_THAT(all.err, AllOf(HasSubstr("is not the one of policy 't': it belongs to policy 'u'"),
                             HasSubstr("is never used")))
      << all.err;

  ASSERT_EQ(std::system(("cp -a '" + saved + "'/. '" + Data("") + "'").c_str()), 0);
  put({"", ".p7s"});
  CToolRun pair = Tool("check t");
  EXPECT_EQ(pair.status, 2);
  EXPECT_THAT(pair.err, HasSubstr("is never used")) << pair.err;

  ASSERT_EQ(std::system(("cp -a '" + saved + "'/. '" + Data("") + "'").c_str()), 0);
  put({"", ".p7s", ".dff"});  // the revision file agrees, the binding does not vouch for it
  CToolRun with_revision = Tool("check t");
  EXPECT_EQ(with_revision.status, 2);
  EXPECT_THAT(with_revision.err, HasSubstr("its binding does not vouch for its revision")) << with_revision.err;

  ASSERT_EQ(std::system(("cp -a '" + saved + "'/. '" + Data("") + "'").c_str()), 0);
  EXPECT_EQ(Tool("check t").status, 0);
}

TEST_F(ToolReliabilityTest, ABindingEditedByHandIsRefusedAsUntrusted) {
  std::string binding = CTempDir::Read(HdbPath() + ".bind");
  size_t policy = binding.find("\"policy\":\"t\"");
  ASSERT_NE(policy, std::string::npos) << binding;
  binding.replace(policy, 12, "\"policy\":\"u\"");
  ASSERT_EQ(::unlink((HdbPath() + ".bind").c_str()), 0);
  dir_.Write("cfg/data/t.hdb.bind", binding);
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err, HasSubstr("is not signed by a trusted signer")) << run.err;
}

// A database without its binding (removed, or saved by a version that wrote none) is refused,
// with the way to bind it once; after that, it is used as before.
TEST_F(ToolReliabilityTest, ADatabaseWithoutItsBindingIsRefusedUntilBoundOnPurpose) {
  ASSERT_EQ(::unlink((HdbPath() + ".bind").c_str()), 0);
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 2);
  EXPECT_THAT(check.err, AllOf(HasSubstr("is not bound to policy 't'"), HasSubstr("signdb update t --bind")))
      << check.err;
  CToolRun bind = Tool("update t --bind");
  EXPECT_EQ(bind.status, 0) << bind.err;
  EXPECT_TRUE(boost::filesystem::exists(HdbPath() + ".bind"));
  CToolRun after = Tool("check t");
  EXPECT_EQ(after.status, 0) << after.out << after.err;
}

TEST_F(ToolReliabilityTest, ADeletedDatabaseIsMissingNotNew) {
  boost::filesystem::remove(HdbPath());
  boost::filesystem::remove(HdbPath() + ".p7s");
  CToolRun run = Tool("check t");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err, AllOf(HasSubstr("the database of policy 't' is missing"),
                             Not(HasSubstr("no database yet"))));
}

// The standard advice, a database kept on read-only media: every command that only reads works,
// and one that would write says why it cannot.
TEST_F(ToolReliabilityTest, EveryReadingCommandWorksOnAReadOnlyDataFolder) {
  Write("etc/motd", "welcome\n");
  ASSERT_EQ(Tool("update t").status, 0);  // keeps a previous database for diff
  std::string data = dir_ / "cfg/data";
  CScopedMount read_only("mount --bind '" + data + "' '" + data + "' && mount -o remount,ro,bind '" + data + "'",
                         data);
  if (!read_only.reason().empty()) GTEST_SKIP() << read_only.reason();
  for (const std::string& command : {std::string("check t"), std::string("ls t -R"), std::string("show t etc/hosts"),
                                     "verify '" + HdbPath() + "'", std::string("diff t"),
                                     "lookup " + Sha256("127.0.0.1 localhost\n")}) {
    CToolRun run = Tool(command);
    EXPECT_LT(run.status, 2) << command << "\n" << run.out << run.err;  // diff finds etc/motd
    EXPECT_EQ(run.err, "") << command;
  }
  Write("etc/hosts", "changed\n");
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1) << check.err;
  EXPECT_THAT(LineAbout(check, "etc/hosts"), StartsWith("hash changed"));
  CToolRun update = Tool("update t");
  EXPECT_EQ(update.status, 2);
  EXPECT_THAT(update.err, HasSubstr("(EROFS)")) << update.err;
}

// A save on a full disk says so, leaves no partial file behind and keeps the saved pair, which
// the next check still uses.
TEST_F(ToolReliabilityTest, ASaveOnAFullDiskNamesTheCauseKeepsTheDatabaseAndLeavesNoPartialFile) {
  std::string data = dir_ / "cfg/data";
  std::string saved = dir_ / "saved-data";
  boost::filesystem::rename(data, saved);
  boost::filesystem::create_directories(data);
  CScopedMount small("mount -t tmpfs -o size=256k,mode=0700 tmpfs '" + data + "'", data);
  if (!small.reason().empty()) {
    boost::filesystem::remove(data);
    boost::filesystem::rename(saved, data);
    GTEST_SKIP() << small.reason();
  }
  ASSERT_EQ(std::system(("cp -a '" + saved + "/.' '" + data + "/'").c_str()), 0);
  std::string before = CTempDir::Read(HdbPath());
  for (int i = 0; i < 3000; ++i) Write("many/file-with-a-rather-long-name-" + std::to_string(i), std::to_string(i));
  CToolRun update = Tool("update t");
  EXPECT_EQ(update.status, 2);
  EXPECT_THAT(update.err, AllOf(HasSubstr("(ENOSPC)"), HasSubstr("the database was not saved"),
                                HasSubstr("stays as it was")))
      << update.err;
  EXPECT_EQ(CTempDir::Read(HdbPath()), before);
  for (const char* leftover : {"t.hdb.tmp", "t.hdb.tmp.p7s", "t.hdb.saving"}) {
    EXPECT_FALSE(boost::filesystem::exists(Data(leftover))) << leftover;
  }
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1) << check.err;
  EXPECT_THAT(LineAbout(check, "many/"), StartsWith("new")) << check.out;
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST_F(ToolTest, UnderUmaskZeroInitMakesOwnerOnlyFoldersAndFiles) {
  CToolRun init =
      RunShell("umask 000 && '" SIGNDB_TOOL_PATH "' init --config cfg/signdb.json --policy t=tree");
  ASSERT_EQ(init.status, 0) << init.err;
  for (const char* folder : {"cfg", "cfg/keys", "cfg/data"})
    EXPECT_EQ(ModeOf(dir_ / folder), 0700u) << folder;
  for (const char* file : {"cfg/signdb.json", "cfg/keys/signer.key", "cfg/keys/ca.pem"}) {
    EXPECT_EQ(ModeOf(dir_ / file) & 077, 0u) << file;
  }
  Write("etc/hosts", "x\n");
  ASSERT_EQ(RunShell("umask 000 && '" SIGNDB_TOOL_PATH "' --config cfg/signdb.json scan t").status,
            0);
  for (const char* file :
       {"cfg/data/t.hdb", "cfg/data/t.hdb.p7s", "cfg/data/t.hdb.dff", "cfg/data/signdb.log"}) {
    EXPECT_EQ(ModeOf(dir_ / file) & 077, 0u) << file;
  }
}

TEST_F(ToolTest, EachInitMakesItsOwnCustomerId) {
  Init();
  CToolRun first = Run("init --config other/signdb.json --policy t=tree");
  ASSERT_EQ(first.status, 0);
  std::string a = CTempDir::Read(dir_ / "cfg/signdb.json"),
              b = CTempDir::Read(dir_ / "other/signdb.json");
  auto cstm_id = [](const std::string& config) {
    size_t at = config.find("\"cstm_id\"");
    return config.substr(at, config.find(',', at) - at);
  };
  EXPECT_NE(cstm_id(a), cstm_id(b));
  EXPECT_THAT(cstm_id(a), ::testing::ContainsRegex("signdb [0-9a-f]{16}"));
  // Made anew with --force, the configuration keeps the customer id of the keys it keeps.
  ASSERT_EQ(Run("init --config cfg/signdb.json --policy t=tree --force").status, 0);
  EXPECT_EQ(cstm_id(CTempDir::Read(dir_ / "cfg/signdb.json")), cstm_id(a));
}

TEST_F(ToolReliabilityTest, FilesThatOthersCouldChangeAreRefusedByName) {
  struct CLoose {
    std::string path;
    mode_t mode;
    const char* says;
  };
  for (const CLoose& loose :
       {CLoose{dir_ / "cfg/signdb.json", 0664, "refusing the configuration"},
        CLoose{dir_ / "cfg/keys/ca.pem", 0646, "refusing the trust anchor"},
        CLoose{dir_ / "cfg/keys/signer.key", 0640, "refusing the signer's key"},
        CLoose{dir_ / "cfg/keys", 0777, "refusing the keys folder"},
        CLoose{dir_ / "cfg/data", 0777, "refusing the data folder"}}) {
    mode_t before = ModeOf(loose.path);
    ASSERT_EQ(::chmod(loose.path.c_str(), loose.mode), 0);
    CToolRun run = Tool("check t");
    EXPECT_EQ(run.status, 2) << loose.path;
    EXPECT_THAT(run.err, AllOf(HasSubstr(loose.says), HasSubstr(loose.path))) << run.err;
    ASSERT_EQ(::chmod(loose.path.c_str(), before), 0);
  }
  EXPECT_EQ(Tool("check t").status, 0);
}

TEST_F(ToolReliabilityTest, BadConfigurationValuesAreRefusedWithTheFileAndWhatIsWrong) {
  std::string good = CTempDir::Read(config_);
  struct CBad {
    std::string from, to;
    const char* says;
  };
  size_t list = good.find("\"policies\"");
  ASSERT_NE(list, std::string::npos);
  size_t list_start = good.find('[', list);
  std::string policies = good.substr(list_start, good.rfind(']') - list_start + 1);
  std::string entry =
      policies.substr(policies.find('{'), policies.find('}') - policies.find('{') + 1);
  for (const CBad& bad : {
           CBad{policies, entry, "\"policies\" must be a list"},
           CBad{"\"threads\": 0", "\"threads\": 4000000000", "\"threads\" is 4000000000"},
           CBad{"\"name\": \"t\"", "\"name\": \"../../x\"", "policy name '../../x'"},
           CBad{policies, "[" + entry + "," + entry + "]", "policy 't' is named twice"},
       }) {
    std::string text = good;
    size_t at = text.find(bad.from);
    ASSERT_NE(at, std::string::npos) << bad.from << " in " << good;
    text.replace(at, bad.from.size(), bad.to);
    dir_.Write("cfg/signdb.json", text);
    ::chmod(config_.c_str(), 0600);
    CToolRun run = RunShell("timeout 20 '" SIGNDB_TOOL_PATH "' --config '" + config_ + "' check t");
    EXPECT_EQ(run.status, 2) << bad.says;
    EXPECT_THAT(run.err, AllOf(HasSubstr(config_), HasSubstr(bad.says))) << run.err;
  }
}

}  // namespace
