// The watch service run for real on real folders: every change to the tree reaches the database
// within a second, as its socket answers, and what it saves when stopped is what a check of the
// tree expects.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gmock/gmock.h>

#include "tool/watch/query_server.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"
#include "tests/watch_fixture.h"

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Run with each watcher: the default (fanotify where the process may use it) and inotify.
class WatchTest : public WatchFixture, public ::testing::WithParamInterface<std::string> {
 protected:
  WatchTest() { watcher_ = GetParam(); }
};

TEST_P(WatchTest, ANewFileIsRecordedWithinASecond) {
  Init();
  Start();
  Write("new.txt", "fresh\n");
  EXPECT_TRUE(EventuallyRecorded("new.txt", Sha256("fresh\n")));
  EXPECT_EQ("file", Shown("new.txt")->optValue<std::string>("kind", ""));
}

TEST_P(WatchTest, AContentChangeIsRecordedWithinASecond) {
  Write("f.txt", "one\n");
  Init();
  Start();
  ASSERT_TRUE(EventuallyRecorded("f.txt", Sha256("one\n")));
  Append("f.txt", "two\n");
  EXPECT_TRUE(EventuallyRecorded("f.txt", Sha256("one\ntwo\n")));
}

TEST_P(WatchTest, AModeAndAnOwnerChangeAreRecorded) {
  Write("f.txt", "x");
  Init();
  Start();
  ASSERT_EQ(0, ::chmod(Tree("f.txt").c_str(), 0600));
  EXPECT_TRUE(Eventually([&] { return Shown("f.txt")->getObject("file")->optValue<std::string>("mode", "") == "0600"; }));
  if (::geteuid() != 0) GTEST_SKIP() << "changing a file's owner needs root";
  ASSERT_EQ(0, ::chown(Tree("f.txt").c_str(), 65534, 65534));
  EXPECT_TRUE(Eventually([&] {
    return Shown("f.txt")->getObject("security_items")->optValue<std::string>("uid", "") == "65534";
  }));
}

// Bytes the service has read so far (its /proc io counter).
static uint64_t BytesRead(pid_t pid) {
  std::istringstream io(CTempDir::Read("/proc/" + std::to_string(pid) + "/io"));
  for (std::string key, value; io >> key >> value;) {
    if (key == "rchar:") return std::stoull(value);
  }
  return 0;
}

TEST_P(WatchTest, AnAttributeChangeOfALargeFileIsRecordedWithoutReadingItAgain) {
  std::string big(32 << 20, 'b');
  Write("big", big);
  Init();
  Start();
  ASSERT_FALSE(Shown("big").isNull());
  uint64_t before = BytesRead(pid_);
  ASSERT_EQ(0, ::chmod(Tree("big").c_str(), 0640));
  EXPECT_TRUE(Eventually([&] { return Shown("big")->getObject("file")->optValue<std::string>("mode", "") == "0640"; }));
  EXPECT_LT(BytesRead(pid_) - before, 4u << 20) << "the content was read again";
  EXPECT_EQ(Sha256(big), Shown("big")->optValue<std::string>("hash", ""));
  // Written in place (same size), it is read again, whatever time the writer gives it afterwards.
  ASSERT_EQ(0, RunShell("(printf c | dd of=tree/big bs=1 seek=5 conv=notrunc status=none && touch -d @1 tree/big)").status);
  std::string changed = big;
  changed[5] = 'c';
  EXPECT_TRUE(EventuallyRecorded("big", Sha256(changed), 3s));
}

TEST_P(WatchTest, ARenameWithinADirectoryKeepsTheRecordUnderTheNewName) {
  Write("d/old.txt", "content");
  Init();
  Start();
  ASSERT_EQ(0, ::rename(Tree("d/old.txt").c_str(), Tree("d/new.txt").c_str()));
  EXPECT_TRUE(EventuallyRecorded("d/new.txt", Sha256("content")));
  EXPECT_TRUE(EventuallyGone("d/old.txt"));
}

TEST_P(WatchTest, AMoveAcrossDirectoriesUnderANewNameLandsWhereTheFileNowIs) {
  Write("a/x", "moving");
  Write("b/x", "stays in b");
  Write("a/y", "stays in a");
  Init();
  Start();
  // Both directories hold other objects under the two names: none of them is taken for the moved one.
  ASSERT_EQ(0, ::rename(Tree("a/x").c_str(), Tree("b/y").c_str()));
  EXPECT_TRUE(EventuallyRecorded("b/y", Sha256("moving")));
  EXPECT_TRUE(EventuallyGone("a/x"));
  EXPECT_EQ(Sha256("stays in b"), Shown("b/x")->optValue<std::string>("hash", ""));
  EXPECT_EQ(Sha256("stays in a"), Shown("a/y")->optValue<std::string>("hash", ""));
}

TEST_P(WatchTest, ARenamedDirectoryCarriesEveryFileBelowIt) {
  for (int i = 0; i < 200; ++i) Write("big/sub/f" + std::to_string(i), "file " + std::to_string(i));
  Init();
  Start();
  auto applied = [&] {
    return Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0)->optValue<uint64_t>("applied", 0);
  };
  uint64_t before = applied();
  ASSERT_EQ(0, ::rename(Tree("big").c_str(), Tree("renamed").c_str()));
  EXPECT_TRUE(EventuallyRecorded("renamed/sub/f199", Sha256("file 199")));
  EXPECT_TRUE(EventuallyGone("big"));
  for (int i = 0; i < 200; i += 37) {
    EXPECT_EQ(Sha256("file " + std::to_string(i)), Shown("renamed/sub/f" + std::to_string(i))->optValue<std::string>("hash", ""));
  }
  // One move (and a new look at the directories involved), not 200 removals and insertions.
  EXPECT_LT(applied() - before, 10u);
}

TEST_P(WatchTest, ADeepPathMadeAtOnceIsRecordedWholeWithItsFile) {
  Init();
  Start();
  ASSERT_EQ(0, RunShell("(mkdir -p tree/p/q/r/s/t && echo deep > tree/p/q/r/s/t/leaf)").status);
  EXPECT_TRUE(EventuallyRecorded("p/q/r/s/t/leaf", Sha256("deep\n")));
  EXPECT_EQ("directory", Shown("p/q/r/s")->optValue<std::string>("kind", ""));
}

TEST_P(WatchTest, ADirectoryMadeAndFilledBeforeItsWatchIsInPlaceMissesNothing) {
  Init();
  Start();
  // Made and filled by one shell as fast as it can: most files exist before the watch does.
  ASSERT_EQ(0, RunShell("mkdir tree/burst && for i in $(seq 1 300); do echo $i > tree/burst/f$i; done").status);
  EXPECT_TRUE(Eventually([&] {
    for (int i = 1; i <= 300; ++i) {
      if (Shown("burst/f" + std::to_string(i)).isNull()) return false;
    }
    return true;
  }, 3s));
  EXPECT_EQ(Sha256("300\n"), Shown("burst/f300")->optValue<std::string>("hash", ""));
}

TEST_P(WatchTest, ARemovedSubtreeLeavesTheDatabase) {
  Write("gone/a/b/c", "c");
  Write("gone/d", "d");
  Write("kept", "k");
  Init();
  Start();
  ASSERT_EQ(0, RunShell("rm -rf tree/gone").status);
  EXPECT_TRUE(EventuallyGone("gone"));
  EXPECT_TRUE(Shown("gone/a/b/c").isNull());
  EXPECT_FALSE(Shown("kept").isNull());
}

TEST_P(WatchTest, ASymbolicLinkMadeAndRetargetedIsRecordedWithItsTarget) {
  Init();
  Start();
  Symlink("first", "link");
  EXPECT_TRUE(Eventually([&] {
    Poco::JSON::Object::Ptr link = Shown("link");
    return link && link->optValue<std::string>("target", "") == "first";
  }));
  ASSERT_EQ(0, RunShell("ln -sfn second tree/link").status);
  EXPECT_TRUE(Eventually([&] {
    Poco::JSON::Object::Ptr link = Shown("link");
    return link && link->optValue<std::string>("target", "") == "second";
  }));
}

TEST_P(WatchTest, AFileReplacedByADirectoryIsRecordedAsADirectory) {
  Write("thing", "a file");
  Init();
  Start();
  ASSERT_EQ(0, RunShell("(rm tree/thing && mkdir tree/thing && echo inside > tree/thing/in)").status);
  EXPECT_TRUE(EventuallyRecorded("thing/in", Sha256("inside\n")));
  EXPECT_EQ("directory", Shown("thing")->optValue<std::string>("kind", ""));
}

TEST_P(WatchTest, AFileWrittenThousandsOfTimesIsReadAFewTimes) {
  Write("busy", "");
  Init();
  Start();
  ASSERT_EQ(0, RunShell("for i in $(seq 1 2000); do echo $i >> tree/busy; done").status);
  std::string content;
  for (int i = 1; i <= 2000; ++i) content += std::to_string(i) + "\n";
  EXPECT_TRUE(EventuallyRecorded("busy", Sha256(content), 3s));
  Poco::JSON::Object::Ptr policy = Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0);
  EXPECT_LT(policy->optValue<uint64_t>("applied", 0), 200u) << "each write read on its own";
}

TEST_P(WatchTest, AfterSigtermTheLiveRecordHoldsTheTreeAndTheBaselineIsUntouched) {
  ScanSample();
  std::string baseline = CTempDir::Read(Data("t.hdb"));
  Start();
  Write("etc/new.conf", "x=1\n");
  ASSERT_EQ(0, ::rename(Tree("etc/motd").c_str(), Tree("docs/motd").c_str()));
  ASSERT_EQ(0, ::unlink(Tree("bin/tool").c_str()));
  ASSERT_EQ(0, ::chmod(Tree("etc/passwd").c_str(), 0600));
  ASSERT_EQ(0, RunShell("mkdir -p tree/var/lib && echo state > tree/var/lib/s && ln -sfn etc tree/hosts-link").status);
  ASSERT_TRUE(EventuallyRecorded("var/lib/s", Sha256("state\n")));
  EXPECT_EQ(0, Stop(SIGTERM));
  EXPECT_EQ(baseline, CTempDir::Read(Data("t.hdb")));
  EXPECT_EQ(0, Tool("verify '" + Data("t.live.hdb") + "'").status);
  // Nothing was accepted: every change is still there to be looked at.
  CToolRun check = Tool("check t");
  EXPECT_EQ(1, check.status) << check.out << check.err;
  EXPECT_THAT(LineAbout(check, "etc/new.conf"), StartsWith("new"));
  EXPECT_THAT(LineAbout(check, "bin/tool"), StartsWith("gone"));
  // Started again, it goes on from its live record: a new file is recorded once, as new.
  Start();
  EXPECT_EQ(Sha256("x=1\n"), Shown("etc/new.conf")->optValue<std::string>("hash", ""));
}

TEST_P(WatchTest, ChangesMadeWhileTheServiceWasKilledAreFoundWhenItStartsAgain) {
  Write("a", "before");
  Write("b", "b");
  Init();
  Start();
  ASSERT_EQ(137, Stop(SIGKILL));
  Write("a", "while down");
  ASSERT_EQ(0, ::unlink(Tree("b").c_str()));
  Write("c", "new while down");
  Start();
  EXPECT_EQ(Sha256("while down"), Shown("a")->optValue<std::string>("hash", ""));
  EXPECT_TRUE(Shown("b").isNull());
  EXPECT_EQ(Sha256("new while down"), Shown("c")->optValue<std::string>("hash", ""));
}

TEST_P(WatchTest, WhatChangedBeforeTheServiceStartedIsReportedAndNeverAccepted) {
  ScanSample();
  std::string baseline = CTempDir::Read(Data("t.hdb"));
  Write("etc/cron.daily/job", "#!/bin/sh\n");
  ASSERT_EQ(0, ::chmod(Tree("etc/cron.daily/job").c_str(), 04755));
  Write("etc/passwd", "root:x:0:0::/root:/bin/sh\ntoor::0:0::/:/bin/sh\n");
  Start();
  // The start-up reconcile logs them...
  EXPECT_TRUE(Eventually([&] { return !Logged("etc/cron.daily/job").isNull() && !Logged("etc/passwd").isNull(); }));
  // ... and takes them into the live record only: the baseline is as it was, and check finds them.
  EXPECT_EQ(baseline, CTempDir::Read(Data("t.hdb")));
  CToolRun check = Tool("check t");
  EXPECT_EQ(1, check.status) << check.out << check.err;
  EXPECT_THAT(LineAbout(check, "etc/cron.daily/job"), StartsWith("new"));
  EXPECT_THAT(LineAbout(check, "etc/passwd"), StartsWith("hash changed"));
  // Killed, with another change meanwhile, and started again: still nothing accepted.
  ASSERT_EQ(137, Stop(SIGKILL));
  Write("etc/motd", "changed while down\n");
  Start();
  EXPECT_EQ(Sha256("changed while down\n"), Shown("etc/motd")->optValue<std::string>("hash", ""));
  EXPECT_EQ(baseline, CTempDir::Read(Data("t.hdb")));
  // Accepting one leaves exactly the others pending.
  CToolRun update = Tool("update t etc/passwd");
  EXPECT_EQ(0, update.status) << update.err;
  CToolRun after = Tool("check t");
  EXPECT_EQ(1, after.status);
  EXPECT_EQ(LineAbout(after, "etc/passwd"), "");
  EXPECT_THAT(LineAbout(after, "etc/cron.daily/job"), StartsWith("new"));
  EXPECT_THAT(LineAbout(after, "etc/motd"), StartsWith("hash changed"));
}

TEST_P(WatchTest, WhereTheChangesGoIsSaidAtStartAndInTheStatusNeverSilentlyNowhere) {
  Init();
  Start();
  Poco::JSON::Object::Ptr status = Ask("{\"request\":\"status\"}");
  EXPECT_EQ(Data("watch-changes.ndjson"), status->optValue<std::string>("change_log", ""));
  bool listened = ::access("/dev/log", W_OK) == 0;
  ASSERT_TRUE(status->has("system_log"));
  EXPECT_EQ(listened, status->getValue<bool>("system_log"));
  CToolRun said = Tool("status");
  EXPECT_THAT(said.out, HasSubstr("changes logged to " + Data("watch-changes.ndjson") +
                                  (listened ? " and the system log" : " only (no system log listens at /dev/log)")));
  std::string out = CTempDir::Read(dir_ / "watch.out");
  EXPECT_EQ(!listened, out.find("no system log listens at /dev/log") != std::string::npos) << out;
}

// The configuration says where change lines go besides the change log: the journal (standard
// output, under systemd), the system log, or both; a system log asked for and absent is said,
// and standard output takes the lines instead.
TEST_P(WatchTest, WhereChangeLinesGoIsTheConfigurationsChoiceAndNeverNowhere) {
  ScanSample();
  SetConfigMember(config_, "watch", R"({"change_lines":"journal"})");
  Start();
  Poco::JSON::Object::Ptr status = Ask("{\"request\":\"status\"}");
  EXPECT_EQ("journal", status->optValue<std::string>("change_lines", ""));
  EXPECT_FALSE(status->optValue<bool>("system_log", true)) << "not asked for";
  EXPECT_TRUE(status->optValue<bool>("standard_output", false));
  EXPECT_THAT(Tool("status").out, HasSubstr(" and standard output (the journal under systemd)"));
  Write("etc/hosts", "10.6.6.6 intruder\n");
  EXPECT_TRUE(Eventually([&] {
    return CTempDir::Read(dir_ / "watch.out").find("etc/hosts") != std::string::npos;
  }));
  EXPECT_EQ(0, Stop());

  SetConfigMember(config_, "watch", R"({"change_lines":"system-log"})");
  Start();
  status = Ask("{\"request\":\"status\"}");
  bool listened = ::access("/dev/log", W_OK) == 0;
  EXPECT_EQ(listened, status->optValue<bool>("system_log", !listened));
  EXPECT_EQ(!listened, status->optValue<bool>("standard_output", listened)) << "never nowhere";
  EXPECT_EQ(0, Stop());

  SetConfigMember(config_, "watch", R"({"change_lines":"syslog"})");
  CToolRun refused = Tool("watch");
  EXPECT_EQ(2, refused.status) << refused.out << refused.err;
  EXPECT_THAT(refused.err, HasSubstr("\"change_lines\""));
  EXPECT_THAT(refused.err, HasSubstr("not \"syslog\""));
}

TEST_P(WatchTest, TheServicesStartAndStopAreJournalledBesideTheAcceptancesAndTheBaselineStillLoads) {
  ScanSample();
  Write("etc/motd", "changed before the start\n");
  Start();
  CToolRun update = Tool("update t etc/motd");
  EXPECT_EQ(0, update.status) << update.err;
  EXPECT_EQ(0, Stop());
  std::vector<std::string> events;
  for (const std::string& line : Tool("journal t --json").OutLines())
    events.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>()->getValue<std::string>("event"));
  EXPECT_EQ((std::vector<std::string>{"scan", "service-start", "accept", "service-stop"}), events);
  EXPECT_THAT(Tool("journal t").out, HasSubstr("the start-up reconcile took in 1 change, none accepted"));
  // Entries after the one the baseline was saved with are the service's: the baseline loads.
  EXPECT_EQ(0, Tool("check t").status);
}

TEST_P(WatchTest, EventsTheKernelDroppedLeadToAReconcileThatFindsWhatWasMissed) {
  Write("many/seed", "s");
  Init();
  Start();
  // Stopped, the service reads nothing while more events than the kernel keeps are queued.
  // inotify queues an event per change, fanotify merges the changes of one file into one event.
  long most = std::stol(CTempDir::Read("/proc/sys/fs/inotify/max_queued_events")) / 2;
  std::string fanotify_most = CTempDir::Read("/proc/sys/fs/fanotify/max_queued_events");
  if (!fanotify_most.empty()) most = std::max(most, std::stol(fanotify_most));
  long files = most + 1000;
  ASSERT_EQ(0, ::kill(pid_, SIGSTOP));
  CToolRun made = RunShell("(cd tree/many && seq -f 'f%.0f' 1 " + std::to_string(files) + " | xargs touch && echo last > f1)");
  ::kill(pid_, SIGCONT);
  ASSERT_EQ(0, made.status) << made.err;
  EXPECT_TRUE(Eventually([&] {
    Poco::JSON::Object::Ptr policy = Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0);
    return policy->optValue<uint64_t>("lost", 0) >= 1 && policy->optValue<uint64_t>("reconciles", 0) >= 2;
  }, 60s));
  EXPECT_TRUE(EventuallyRecorded("many/f1", Sha256("last\n"), 30s));
  EXPECT_FALSE(Shown("many/f" + std::to_string(files)).isNull());
  EXPECT_FALSE(Shown("many/f" + std::to_string(files / 2)).isNull());
}

TEST_P(WatchTest, EveryChangeAppliedIsWrittenToTheChangeLogAsItHappens) {
  Write("d/old", "content");
  Init();
  Start();
  Write("fresh", "new file");
  ASSERT_EQ(0, ::rename(Tree("d/old").c_str(), Tree("moved").c_str()));
  std::vector<Poco::JSON::Object::Ptr> lines;
  auto find = [&](const std::string& path, const std::string& change) -> Poco::JSON::Object::Ptr {
    std::istringstream in(CTempDir::Read(Data("watch-changes.ndjson")));
    for (std::string line; std::getline(in, line);) {
      Poco::JSON::Object::Ptr event = Parse(line);
      Poco::JSON::Object::Ptr signdb = event->getObject("signdb");
      if (signdb->optValue<std::string>("relative_path", "") == path && signdb->optValue<std::string>("change", "") == change) {
        return event;
      }
    }
    return nullptr;
  };
  EXPECT_TRUE(Eventually([&] { return !find("fresh", "new").isNull() && !find("moved", "renamed").isNull(); }));
  Poco::JSON::Object::Ptr created = find("fresh", "new");
  ASSERT_FALSE(created.isNull());
  EXPECT_EQ("created", created->getObject("watch")->optValue<std::string>("event", ""));
  EXPECT_EQ(Sha256("new file"), created->getObject("file")->getObject("hash")->optValue<std::string>("sha256", ""));
  EXPECT_FALSE(created->optValue<std::string>("@timestamp", "").empty());
  Poco::JSON::Object::Ptr moved = find("moved", "renamed");
  ASSERT_FALSE(moved.isNull());
  EXPECT_EQ("d/old", moved->getObject("signdb")->optValue<std::string>("from", ""));
  EXPECT_EQ("moved", moved->getObject("watch")->optValue<std::string>("event", ""));
}

TEST_P(WatchTest, WithATouchPeriodRecordsThatNothingSeesAnyMoreAreShrunkAway) {
  Write("cache/a", "a");
  Write("kept", "k");
  Init();
  ASSERT_EQ(0, Tool("scan t").status);
  // Recorded before the rules left it out: no event and no reconcile reaches it any more.
  EditFirstPolicy(config_, [](Poco::JSON::Object::Ptr policy) {
    Poco::JSON::Array::Ptr rules = new Poco::JSON::Array;
    Poco::JSON::Object::Ptr rule = new Poco::JSON::Object;
    rule->set("path", "cache");
    rule->set("exclude", true);
    rules->add(rule);
    policy->set("rules", rules);
    policy->set("touch_period", 1);
  });
  Start();
  EXPECT_FALSE(Shown("cache/a").isNull());
  EXPECT_TRUE(Eventually([&] { return Shown("cache/a").isNull(); }, 5s));
  EXPECT_FALSE(Shown("kept").isNull());
  EXPECT_GE(Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0)->optValue<uint64_t>("shrunk", 0), 1u);
}

TEST_P(WatchTest, ShowAndLookupAskTheRunningServiceForWhatItWatches) {
  Write("one", "same content");
  Init();
  Start();
  Write("two", "same content");
  ASSERT_TRUE(EventuallyRecorded("two", Sha256("same content")));
  // The service holds the database; the tool asks it rather than the saved file (which lacks "two").
  CToolRun shown = Tool("show t two");
  EXPECT_EQ(0, shown.status) << shown.err;
  EXPECT_NE(std::string::npos, shown.out.find(Sha256("same content"))) << shown.out;
  CToolRun json = Tool("show t two --json");
  EXPECT_EQ(0, json.status) << json.err;
  EXPECT_EQ("two", ParseJson(json.out)->optValue<std::string>("relative", ""));
  CToolRun missing = Tool("show t nothing-here");
  EXPECT_EQ(1, missing.status);
  EXPECT_NE(std::string::npos, missing.err.find("nothing-here is not recorded in policy 't'")) << missing.err;
  CToolRun found = Tool("lookup " + Sha256("same content"));
  EXPECT_EQ(0, found.status) << found.err;
  EXPECT_NE(std::string::npos, found.out.find(Tree("one"))) << found.out;
  EXPECT_NE(std::string::npos, found.out.find(Tree("two"))) << found.out;
  // Asked twice, the service still finds both (its look-up leaves no marks behind).
  CToolRun again = Tool("lookup --verify " + Sha256("same content"));
  EXPECT_EQ(0, again.status) << again.err;
  EXPECT_NE(std::string::npos, again.out.find(Tree("one"))) << again.out;
  EXPECT_NE(std::string::npos, again.out.find(Tree("two"))) << again.out;
}

TEST_P(WatchTest, LsListsWhatTheServiceRecordsNowAndTheBaselineOnceItStops) {
  ScanSample();
  Start();
  Write("etc/fresh", "new\n");
  ASSERT_TRUE(EventuallyRecorded("etc/fresh", Sha256("new\n")));
  CToolRun listed = Tool("ls t etc");
  EXPECT_EQ(0, listed.status) << listed.err;
  EXPECT_NE(std::string::npos, listed.out.find(Sha256("new\n") + "  etc/fresh\n")) << listed.out;
  CToolRun live = Tool("ls t --recursive --json");
  EXPECT_EQ(0, live.status) << live.err;
  CToolRun missing = Tool("ls t nowhere");
  EXPECT_EQ(2, missing.status);
  EXPECT_NE(std::string::npos, missing.err.find("no directory nowhere is recorded in policy 't'")) << missing.err;
  ASSERT_EQ(0, Stop());
  CToolRun saved = Tool("ls t --recursive --json");
  EXPECT_EQ(0, saved.status) << saved.err;
  EXPECT_EQ(std::string::npos, saved.out.find("etc/fresh")) << "the baseline took in nothing";
  EXPECT_NE(std::string::npos, live.out.find("etc/fresh"));
}

TEST_P(WatchTest, ALongAnswerGoesOutAsItsClientReadsItAndOthersAreAnsweredMeanwhile) {
  // A listing of 4,000 files is a long answer (~700 KB).
  for (int i = 0; i < 4000; ++i) Write("many/a-rather-long-name-for-file-" + std::to_string(i), std::to_string(i));
  Init();
  Start();
  int slow = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(slow, 0);
  sockaddr_un address {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, Socket().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, ::connect(slow, reinterpret_cast<sockaddr*>(&address), sizeof address));
  std::string request = "{\"request\":\"list\",\"policy\":\"t\",\"path\":\"many\"}\n";
  ASSERT_EQ(static_cast<ssize_t>(request.size()), ::send(slow, request.data(), request.size(), MSG_NOSIGNAL));
  std::this_thread::sleep_for(200ms);  // the client reads nothing yet
  auto asked = std::chrono::steady_clock::now();
  EXPECT_TRUE(Ask("{\"request\":\"status\"}")->optValue<bool>("ok", false));
  // Were the service to wait for the slow client, the answer would come only once the client reads
  // (never, while this waits): the bound leaves a loaded machine time to build the listing.
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 1500ms) << "the service waited for the slow client";
  std::this_thread::sleep_for(200ms);
  std::string answer;
  char buffer[65536];
  while (answer.empty() || answer.back() != '\n') {
    ssize_t length = ::recv(slow, buffer, sizeof buffer, 0);
    if (length <= 0) break;
    answer.append(buffer, static_cast<size_t>(length));
  }
  ::close(slow);
  ASSERT_FALSE(answer.empty());
  Poco::JSON::Object::Ptr parsed = Parse(answer);
  ASSERT_TRUE(parsed->optValue<bool>("ok", false)) << answer.substr(0, 200);
  EXPECT_EQ(4000u, parsed->getArray("entries")->size());
}

TEST_P(WatchTest, BadRequestsGetAClearErrorAndTheServiceGoesOn) {
  Init();
  Start();
  EXPECT_EQ("not a JSON object: a request is one line like {\"request\":\"status\"}",
            Ask("this is not json")->optValue<std::string>("error", ""));
  EXPECT_EQ("no policy named 'nope' is watched",
            Ask("{\"request\":\"show\",\"policy\":\"nope\",\"path\":\"x\"}")->optValue<std::string>("error", ""));
  EXPECT_EQ("unknown request 'drop': status, lookup, show, list or pending", Ask("{\"request\":\"drop\"}")->optValue<std::string>("error", ""));
  std::string huge = "{\"request\":\"" + std::string(CQueryServer::kLongestRequest + 10, 'x');
  EXPECT_EQ("request too long: at most 65536 bytes per line", Parse(AskService(Socket(), huge))->optValue<std::string>("error", ""));
  EXPECT_TRUE(Ask("{\"request\":\"status\"}")->optValue<bool>("ok", false));
}

TEST_P(WatchTest, EveryRefusalCarriesACodeThatClientsDecideBy) {
  Write("kept.conf", "kept");
  Init();
  Start();
  auto code = [&](const std::string& request) { return Ask(request)->optValue<std::string>("code", ""); };
  EXPECT_EQ("bad-request", code("this is not json"));
  EXPECT_EQ("bad-request", code("[1,2]"));
  EXPECT_EQ("bad-request", code("{\"request\":\"lookup\"}"));
  EXPECT_EQ("bad-request", code("{\"request\":\"list\",\"policy\":\"t\",\"path\":\"\",\"recursive\":[1]}"));
  EXPECT_EQ("unknown-request", code("{\"request\":\"drop\"}"));
  EXPECT_EQ("not-watched", code("{\"request\":\"show\",\"policy\":\"nope\",\"path\":\"x\"}"));
  EXPECT_EQ("not-watched", code("{\"request\":\"list\",\"policy\":\"nope\",\"path\":\"\"}"));
  EXPECT_EQ("not-recorded", code("{\"request\":\"show\",\"policy\":\"t\",\"path\":\"missing.conf\"}"));
  EXPECT_EQ("not-recorded", code("{\"request\":\"show\",\"policy\":\"t\",\"path\":\"/elsewhere/kept.conf\"}"));
  std::string huge = "{\"request\":\"" + std::string(CQueryServer::kLongestRequest + 10, 'x');
  EXPECT_EQ("bad-request", Parse(AskService(Socket(), huge))->optValue<std::string>("code", ""));
  // An answer names no code; a full path below the root is taken as the relative one.
  Poco::JSON::Object::Ptr shown = Ask("{\"request\":\"show\",\"policy\":\"t\",\"path\":\"" + Tree("kept.conf") + "\"}");
  EXPECT_TRUE(shown->optValue<bool>("ok", false));
  EXPECT_FALSE(shown->has("code"));
}

TEST_P(WatchTest, TheSocketIsTheOwnersAlone) {
  Init();
  Start();
  struct stat status {};
  ASSERT_EQ(0, ::stat(Socket().c_str(), &status));
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(0u, status.st_mode & 077u);
}

TEST_P(WatchTest, ASecondServiceOnTheSameDataFolderRefusesAndNamesTheFirst) {
  Init();
  Start();
  CToolRun second = Tool("watch");
  EXPECT_EQ(2, second.status) << second.err;
  EXPECT_NE(std::string::npos, second.err.find("signdb watch already runs on")) << second.err;
  EXPECT_NE(std::string::npos, second.err.find("(process " + std::to_string(pid_) + ")")) << second.err;
}

TEST_P(WatchTest, AChangeIsPendingUntilAcceptedWhileTheServiceRunsAndNotOnceChangedBack) {
  ScanSample();
  Start();
  Write("etc/hosts", "10.6.6.6 intruder\n");
  ASSERT_TRUE(EventuallyRecorded("etc/hosts", Sha256("10.6.6.6 intruder\n")));
  CToolRun pending = Tool("check t");
  EXPECT_EQ(1, pending.status) << pending.out << pending.err;
  EXPECT_THAT(LineAbout(pending, "etc/hosts"), StartsWith("hash changed"));
  Write("etc/hosts", "127.0.0.1 localhost\n");
  ASSERT_TRUE(EventuallyRecorded("etc/hosts", Sha256("127.0.0.1 localhost\n")));
  // The content is back to what the baseline holds (its times tell that it was rewritten).
  CToolRun back = Tool("check t");
  EXPECT_THAT(LineAbout(back, "etc/hosts"), Not(HasSubstr("hash"))) << back.out;
  // Accepted while the service runs: update no longer waits for it to stop.
  Write("etc/hosts", "10.0.0.2 moved\n");
  Write("etc/motd", "new motd\n");
  ASSERT_TRUE(EventuallyRecorded("etc/motd", Sha256("new motd\n")));
  CToolRun update = RunShell("timeout 60 '" SIGNDB_TOOL_PATH "' --config '" + config_ + "' update t etc/hosts");
  EXPECT_EQ(0, update.status) << update.err;
  CToolRun after = Tool("check t");
  EXPECT_EQ(1, after.status) << after.out;
  EXPECT_EQ(LineAbout(after, "etc/hosts"), "");
  EXPECT_THAT(LineAbout(after, "etc/motd"), StartsWith("hash changed"));
}

// While the service runs, check reads what is pending from it (the same lines a walk gives, at
// once); --walk walks the disk as without a service.
TEST_P(WatchTest, WhileItRunsCheckAnswersFromTheLiveRecordAndWalkStillWalksTheDisk) {
  ScanSample();
  Start();
  Write("etc/hosts", "10.6.6.6 intruder\n");
  ASSERT_TRUE(EventuallyRecorded("etc/hosts", Sha256("10.6.6.6 intruder\n")));
  CToolRun live = Tool("check t");
  EXPECT_EQ(1, live.status) << live.out << live.err;
  EXPECT_THAT(LineAbout(live, "etc/hosts"), StartsWith("hash changed"));
  EXPECT_THAT(live.out, HasSubstr("compared the watch service's live record ("));
  CToolRun walked = Tool("check t --walk");
  EXPECT_EQ(1, walked.status);
  EXPECT_EQ(LineAbout(walked, "etc/hosts"), LineAbout(live, "etc/hosts"));
  EXPECT_THAT(walked.out, Not(HasSubstr("live record")));
  CToolRun json = Tool("check t --json");
  Poco::JSON::Object::Ptr summary = Parse(json.OutLines().back())->getObject("summary");
  ASSERT_TRUE(summary) << json.out;
  EXPECT_EQ("live-record", summary->optValue<std::string>("source", ""));
  EXPECT_EQ("walk", Parse(Tool("check t --walk --json").OutLines().back())
                        ->getObject("summary")
                        ->optValue<std::string>("source", ""));
}

// A file changed and changed back (its rules look at its content only) is pending, then not:
// the service says so on each line it logs, its status counts it, and check finds nothing.
TEST_P(WatchTest, AChangeChangedBackIsNoLongerPendingAndTheServiceSaysSo) {
  ScanSample();
  EditFirstPolicy(config_, [](Poco::JSON::Object::Ptr policy) {
    policy->set("rules", Poco::JSON::Parser()
                             .parse(R"([{"path":"etc/hosts","check":"content"}])")
                             .extract<Poco::JSON::Array::Ptr>());
  });
  Start();
  auto pending = [&] { return Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0); };
  EXPECT_EQ(0u, pending()->optValue<uint64_t>("pending", 99));
  EXPECT_TRUE(pending()->isNull("pending_since"));
  Write("etc/hosts", "10.6.6.6 intruder\n");
  ASSERT_TRUE(Eventually([&] { return !Logged("etc/hosts").isNull(); }));
  EXPECT_TRUE(Logged("etc/hosts")->getObject("signdb")->getValue<bool>("pending"));
  EXPECT_TRUE(Eventually([&] { return pending()->optValue<uint64_t>("pending", 0) == 1; }, 3s));
  EXPECT_FALSE(pending()->isNull("pending_since"));
  Write("etc/hosts", "127.0.0.1 localhost\n");
  ASSERT_TRUE(Eventually([&] { return !Logged("etc/hosts")->getObject("signdb")->getValue<bool>("pending"); }));
  EXPECT_THAT(CTempDir::Read(dir_ / "watch.out"), HasSubstr("(as the baseline holds it: not pending)"));
  EXPECT_TRUE(Eventually([&] { return pending()->optValue<uint64_t>("pending", 99) == 0; }, 3s));
  CToolRun check = Tool("check t");
  EXPECT_EQ(0, check.status) << check.out << check.err;
}

// What was pending when the service started is counted in its status; an update accepts exactly
// what it names, and the count and check shrink by exactly that, at once.
TEST_P(WatchTest, AnUpdateWhileItRunsShrinksWhatIsPendingByExactlyWhatItAccepted) {
  ScanSample();
  Write("etc/motd", "changed before the start\n");
  Write("etc/new.conf", "x=1\n");
  ASSERT_EQ(0, ::chmod(Tree("bin/tool").c_str(), 04755));
  Start();
  CToolRun before = Tool("check t");
  EXPECT_EQ(1, before.status) << before.out << before.err;
  size_t listed = before.OutLines().size() - 1;  // without the summary
  Poco::JSON::Object::Ptr status = Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0);
  EXPECT_EQ(listed, status->optValue<uint64_t>("pending", 0)) << before.out;
  EXPECT_FALSE(status->isNull("pending_since"));
  EXPECT_THAT(Tool("status").out, HasSubstr(std::to_string(listed) + " changes pending since "));
  CToolRun update = Tool("update t bin/tool");
  EXPECT_EQ(0, update.status) << update.out << update.err;
  // Said at once, without waiting for the service to look again.
  status = Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0);
  EXPECT_EQ(listed - 1, status->optValue<uint64_t>("pending", 0));
  CToolRun after = Tool("check t");
  EXPECT_EQ(listed - 1, after.OutLines().size() - 1) << after.out;
  EXPECT_EQ("", LineAbout(after, "bin/tool"));
  EXPECT_THAT(LineAbout(after, "etc/motd"), StartsWith("hash changed"));
  EXPECT_THAT(LineAbout(after, "etc/new.conf"), StartsWith("new"));
  // The baseline now holds the mode the service showed.
  CToolRun walked = Tool("check t --walk");
  EXPECT_EQ("", LineAbout(walked, "bin/tool")) << walked.out;
}

TEST_P(WatchTest, AtStartItWaitsForAWriterOfTheBaselineInsteadOfGivingUp) {
  ScanSample();
  int lock_fd = HoldLock("t.hdb", true);
  ASSERT_GE(lock_fd, 0);
  // A daily check that reads the database as the service starts: it ends after a while.
  std::thread reader([lock_fd] {
    std::this_thread::sleep_for(1500ms);
    ::close(lock_fd);
  });
  Start();
  reader.join();
  EXPECT_NE(std::string::npos, CTempDir::Read(dir_ / "watch.err").find("is being written by process " +
                                                                          std::to_string(::getpid()) +
                                                                          "; waiting for it to finish"));
  EXPECT_EQ(Sha256("welcome\n"), Shown("etc/motd")->optValue<std::string>("hash", ""));
}

TEST_P(WatchTest, AStopWhileItWaitsAtStartForALockEndsItAtOnce) {
  ScanSample();
  int lock_fd = HoldLock("t.hdb", true);
  ASSERT_GE(lock_fd, 0);
  std::string command = "exec '" SIGNDB_TOOL_PATH "' --config '" + config_ + "' watch " + watcher_ + " 2>'" +
                        (dir_ / "watch.err") + "'";
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  ASSERT_EQ(0, ::posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ));
  ASSERT_TRUE(Eventually([&] { return CTempDir::Read(dir_ / "watch.err").find("waiting") != std::string::npos; },
                         10s));
  auto stopped = std::chrono::steady_clock::now();
  ::kill(pid_, SIGTERM);
  int status = 0;
  bool ended = Eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, 5s);
  EXPECT_TRUE(ended) << "still waiting for the lock";
  if (ended) pid_ = -1;  // else the fixture kills it
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, 2s);
  ::close(lock_fd);
}

TEST_P(WatchTest, ASaveWaitsWhileTheSavedFilesAreReadAndTheServiceKeepsAnsweringMeanwhile) {
  ScanSample();
  Start("--save-period 1");
  struct stat before {};
  ASSERT_EQ(0, ::stat(Data("t.live.hdb").c_str(), &before));
  // A reader of the saved live record.
  int lock_fd = HoldLock("t.live.hdb", false);
  ASSERT_GE(lock_fd, 0) << "the service keeps readers out: " << std::strerror(errno);
  Write("new.txt", "during the read\n");
  ASSERT_TRUE(EventuallyRecorded("new.txt", Sha256("during the read\n")));
  std::this_thread::sleep_for(2500ms);  // the save was due after 1 s
  EXPECT_TRUE(Ask("{\"request\":\"status\"}")->optValue<bool>("ok", false));
  struct stat during {};
  ASSERT_EQ(0, ::stat(Data("t.live.hdb").c_str(), &during));
  EXPECT_EQ(before.st_ino, during.st_ino);
  EXPECT_EQ(before.st_mtim.tv_nsec, during.st_mtim.tv_nsec);
  ::close(lock_fd);  // the read ends: the save follows
  EXPECT_TRUE(Eventually(
      [&] {
        struct stat after {};
        return ::stat(Data("t.live.hdb").c_str(), &after) == 0 &&
               (after.st_ino != before.st_ino || after.st_mtim.tv_nsec != before.st_mtim.tv_nsec);
      },
      3s));
  EXPECT_EQ(0, Stop());
  CToolRun check = Tool("check t");
  EXPECT_EQ(1, check.status) << check.out << check.err;
  EXPECT_THAT(LineAbout(check, "new.txt"), StartsWith("new"));
}

TEST_P(WatchTest, ATamperedDatabaseStopsTheServiceUnlessItIsToRecordTheTreeAfresh) {
  ScanSample();
  {
    std::fstream hdb(Data("t.hdb"), std::ios::in | std::ios::out | std::ios::binary);
    hdb.seekp(-3, std::ios::end);
    hdb.put('\x7f');
  }
  CToolRun refused = Tool("watch");
  EXPECT_EQ(2, refused.status);
  EXPECT_NE(std::string::npos, refused.err.find("signature")) << refused.err;
  Start("--rescan");
  EXPECT_EQ(Sha256("welcome\n"), Shown("etc/motd")->optValue<std::string>("hash", ""));
  EXPECT_NE(std::string::npos, CTempDir::Read(dir_ / "watch.err").find("afresh"));
}

TEST_P(WatchTest, StatusTellsWhetherAServiceRuns) {
  ScanSample();
  CToolRun idle = Tool("status");
  EXPECT_EQ(0, idle.status) << idle.err;
  EXPECT_NE(std::string::npos, idle.out.find("no watch service runs")) << idle.out;
  Start();
  CToolRun running = Tool("status");
  EXPECT_EQ(0, running.status) << running.err;
  EXPECT_NE(std::string::npos, running.out.find("watched with ")) << running.out;
  CToolRun json = Tool("status --json");
  EXPECT_EQ(pid_, Parse(json.out)->optValue<int>("pid", 0));
  // The root, etc, bin, docs, three files in etc, the tool, the document and the link.
  auto nodes = [&] { return Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0)->optValue<uint64_t>("nodes", 0); };
  EXPECT_EQ(10u, nodes());
  EXPECT_NE(std::string::npos, running.out.find(": 10 objects recorded, watched with ")) << running.out;
  Write("etc/new", "x");
  EXPECT_TRUE(Eventually([&] { return nodes() == 11u; }));
}

TEST_P(WatchTest, LookupThroughTheServiceFindsANewFileByItsHash) {
  Init();
  Start();
  Write("found/me", "look me up");
  ASSERT_TRUE(EventuallyRecorded("found/me", Sha256("look me up")));
  Poco::JSON::Object::Ptr answer = Ask("{\"request\":\"lookup\",\"hash\":\"" + Sha256("look me up") + "\"}");
  Poco::JSON::Array::Ptr holders = answer->getArray("holders");
  ASSERT_EQ(1u, holders->size());
  EXPECT_EQ(Tree("found/me"), holders->getObject(0)->optValue<std::string>("path", ""));
  EXPECT_EQ("t", holders->getObject(0)->optValue<std::string>("policy", ""));
}

TEST_P(WatchTest, TheWatcherInUseIsSaidAtStartAndInTheStatus) {
  Init();
  Start();
  std::string watcher = Ask("{\"request\":\"status\"}")->getArray("policies")->getObject(0)->optValue<std::string>("watcher", "");
  if (GetParam() == "--inotify") {
    EXPECT_EQ("inotify", watcher);
  } else {
    EXPECT_TRUE(watcher == "fanotify" || watcher == "inotify") << watcher;
  }
  EXPECT_NE(std::string::npos, CTempDir::Read(dir_ / "watch.out").find("with " + watcher)) << CTempDir::Read(dir_ / "watch.out");
}

INSTANTIATE_TEST_SUITE_P(Watchers, WatchTest, ::testing::Values(std::string(), std::string("--inotify")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return info.param.empty() ? std::string("Default") : std::string("Inotify");
                         });
