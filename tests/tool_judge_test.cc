// A change reads the same whether the batch check found it on a walk or the watch service found
// it from a file event: both ask one judge, with the policy's rules.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "hashdb/hash_db.h"
#include "util/text_format.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"
#include "tests/watch_fixture.h"

namespace {

class JudgeTest : public WatchFixture, public ::testing::WithParamInterface<std::string> {
 protected:
  JudgeTest() { watcher_ = GetParam(); }

  void SetRules(const std::string& rules_json) {
    EditFirstPolicy(config_, [&](Poco::JSON::Object::Ptr policy) {
      policy->set("rules", Poco::JSON::Parser().parse(rules_json).extract<Poco::JSON::Array::Ptr>());
    });
  }
  void Scan() {
    CToolRun run = Tool("scan t");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }
  uint64_t ModifiedNanoseconds(const std::string& relative) const {
    struct stat status {};
    EXPECT_EQ(0, ::lstat(Tree(relative).c_str(), &status));
    return static_cast<uint64_t>(status.st_mtim.tv_sec) * 1000000000u + static_cast<uint64_t>(status.st_mtim.tv_nsec);
  }
  // The service's change lines about paths below "folder".
  std::vector<std::string> LoggedBelow(const std::string& folder) const {
    std::vector<std::string> found;
    for (const Poco::JSON::Object::Ptr& line : ChangeLog()) {
      std::string path = line->getObject("signdb")->optValue<std::string>("relative_path", "");
      if (path.compare(0, folder.size() + 1, folder + "/") == 0) found.push_back(path + ": " + Action(line));
    }
    return found;
  }
  // A report line's JSON without what differs by nature between a check and the service: the
  // time it was written, the report it belongs to and the event that led to it.
  static std::string Comparable(Poco::JSON::Object::Ptr line) {
    line->remove("@timestamp");
    line->remove("watch");
    line->getObject("signdb")->remove("pending");  // the service says it; a check is all pending
    line->getObject("event")->remove("dataset");
    std::ostringstream text;
    line->stringify(text);
    return text.str();
  }
};

TEST_P(JudgeTest, ALogThatGrowsOrRotatesIsNotLoggedButOneRewrittenIs) {
  Write("log/app.log", "one\n");
  Write("log/syslog", "a\nb\n");
  Init();
  SetRules(R"([{"path": "log/**", "check": "log"}])");
  Scan();
  Start();
  Append("log/app.log", "two\n");
  ASSERT_EQ(0, ::rename(Tree("log/syslog").c_str(), Tree("log/syslog.1").c_str()));
  Write("log/syslog", "c\n");
  // The database follows the tree; the report says nothing of it.
  ASSERT_TRUE(EventuallyRecorded("log/app.log", Sha256("one\ntwo\n")));
  ASSERT_TRUE(EventuallyRecorded("log/syslog", Sha256("c\n")));
  ASSERT_TRUE(EventuallyRecorded("log/syslog.1", Sha256("a\nb\n")));
  EXPECT_EQ(std::vector<std::string>(), LoggedBelow("log"));
  CToolRun check = Tool("check t");
  EXPECT_EQ(0, check.status) << "and a check forgives the same: " << check.out;

  Write("log/app.log", "ONE\ntwo\nthree\n");  // longer, but what it held changed
  ASSERT_TRUE(Eventually([&] { return !Logged("log/app.log").isNull(); }));
  EXPECT_EQ("hash changed", Action(Logged("log/app.log")));
}

TEST_P(JudgeTest, DirectoryTimesTheRulesIgnoreAreRecordedButNotLogged) {
  Write("d/a", "1");
  Init();
  SetRules(R"([{"path": "**", "check": "ignore directory times"}])");
  Scan();
  Start();
  Write("d/b", "2");
  ASSERT_TRUE(EventuallyRecorded("d/b", Sha256("2")));
  uint64_t modified = ModifiedNanoseconds("d");
  ASSERT_TRUE(Eventually([&] { return Shown("d")->getObject("file")->optValue<std::string>("mtime", "") == IsoTimeText(modified); }));
  EXPECT_FALSE(Logged("d/b").isNull());
  EXPECT_TRUE(Logged("d").isNull()) << Comparable(Logged("d"));
}

TEST_P(JudgeTest, WhatTheRulesExcludeByItsKindIsNeitherRecordedNorLogged) {
  Init();
  SetRules(R"([{"path": "**/*.swp", "kind": "file", "exclude": true}])");
  Scan();
  Start();
  Write("src/x.swp", "swap");
  ASSERT_EQ(0, ::mkdir(Tree("src/dir.swp").c_str(), 0755));
  Write("src/keep.c", "int main;");
  ASSERT_TRUE(EventuallyRecorded("src/keep.c", Sha256("int main;")));
  ASSERT_TRUE(Eventually([&] { return !Shown("src/dir.swp").isNull(); })) << "a directory is not a file";
  EXPECT_TRUE(Shown("src/x.swp").isNull());
  EXPECT_TRUE(Logged("src/x.swp").isNull());
  ASSERT_EQ(0, ::rename(Tree("src/keep.c").c_str(), Tree("src/keep.swp").c_str()));
  ASSERT_TRUE(EventuallyGone("src/keep.c"));
  EXPECT_TRUE(Shown("src/keep.swp").isNull()) << "renamed to an excluded name, it is only gone";
  EXPECT_EQ("gone", Action(Logged("src/keep.c")));
}

TEST_P(JudgeTest, EveryChangeLineCarriesTheModulesStatus) {
  Write("f", "1");
  Write("g", "g");
  Init();
  Scan();
  Start();
  Write("n", "new");
  Write("f", "changed");
  ASSERT_EQ(0, ::unlink(Tree("g").c_str()));
  ASSERT_TRUE(Eventually([&] { return !Logged("n").isNull() && !Logged("f").isNull() && !Logged("g").isNull(); }));
  EXPECT_EQ(kCheckFileNew, Status(Logged("n")));
  EXPECT_EQ(kCheckHashChanged, Status(Logged("f")));
  EXPECT_EQ(kCheckFileGone, Status(Logged("g")));
  EXPECT_EQ(std::to_string(kCheckFileGone), Logged("g")->getObject("event")->getValue<std::string>("code"));
}

// The same changes, made while the service runs: a check of the saved database (which the service
// has not saved since it started) reports each object as the service's last line about it does,
// in words and in JSON.
TEST_P(JudgeTest, TheSameChangesReadTheSameFromACheckAndFromTheService) {
  ScanSample();
  Write("var/keep", "k");
  ASSERT_EQ(0, Tool("update t").status);
  Start();
  // Made in one go, each object once, so that neither side sees a step the other does not.
  Write("etc/new.conf", "x=1\n");
  Write("etc/hosts", "changed\n");
  ASSERT_EQ(0, ::chmod(Tree("etc/passwd").c_str(), 0600));
  ASSERT_EQ(0, ::unlink(Tree("bin/tool").c_str()));
  ASSERT_EQ(0, ::rename(Tree("etc/motd").c_str(), Tree("etc/motd.old").c_str()));
  ASSERT_EQ(0, ::symlink("etc/passwd", Tree("link.tmp").c_str()));
  ASSERT_EQ(0, ::rename(Tree("link.tmp").c_str(), Tree("hosts-link").c_str()));
  ASSERT_EQ(0, ::mkdir(Tree("empty").c_str(), 0700));

  // Walked at once, before the service has read every change.
  CToolRun text = Tool("check t --walk");
  CToolRun json = Tool("check t --walk --json");
  ASSERT_EQ(1, text.status) << text.out << text.err;
  std::map<std::string, std::string> checked;  // relative path -> JSON
  for (const std::string& line : json.OutLines()) {
    Poco::JSON::Object::Ptr object = ParseJson(line);
    if (object->has("signdb")) checked[object->getObject("signdb")->getValue<std::string>("relative_path")] = line;
  }
  ASSERT_GE(checked.size(), 7u) << json.out;
  ASSERT_TRUE(Eventually([&] {
    for (const auto& [path, line] : checked) {
      if (Logged(path).isNull()) return false;
    }
    return true;
  }, 5s)) << CTempDir::Read(dir_ / "watch.out");
  std::this_thread::sleep_for(300ms);  // any later line about the same objects

  for (const auto& [path, line] : checked) {
    EXPECT_EQ(Comparable(ParseJson(line)), Comparable(Logged(path))) << path;
  }
  // In words: each line of the check's report is the service's last line about that object.
  CToolRun service;
  service.out = CTempDir::Read(dir_ / "watch.out");
  std::vector<std::string> lines = text.OutLines();
  lines.pop_back();  // the summary
  ASSERT_EQ(checked.size(), lines.size());
  for (const std::string& line : lines) {
    std::string path = line.substr(38, line.find(' ', 38) - 38);
    std::string last;
    for (std::string said : service.OutLines()) {
      const std::string pending = "  (pending)";
      if (said.size() > pending.size() && said.compare(said.size() - pending.size(), pending.size(), pending) == 0)
        said.resize(said.size() - pending.size());
      if (said.size() > 38 && said.compare(38, path.size() + 1, path + " ") == 0) last = said;
      if (said.size() > 38 && said.compare(38, std::string::npos, path) == 0) last = said;
    }
    EXPECT_EQ(line, last);
  }
}

INSTANTIATE_TEST_SUITE_P(Watchers, JudgeTest, ::testing::Values(std::string(), std::string("--inotify")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return info.param.empty() ? std::string("Default") : std::string("Inotify");
                         });

}  // namespace
