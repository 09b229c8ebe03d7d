// The tool under accident and attack: runs at once, kills at any moment, planted links, loose
// permissions, rollback, read-only media and bad configuration never lose or fake a database.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "refhost/policy_lock.h"
#include "tests/tool_fixture.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

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
      "{ for i in $(seq 1 15); do echo $i > tree/etc/counter; '" SIGNDB_TOOL_PATH "' --config '" +
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

}  // namespace
