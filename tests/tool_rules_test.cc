// A policy's rules on real folders: what is excluded, what is compared, logs that grow and rotate,
// directory times, mount points, and rules that are refused.

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <algorithm>
#include <fstream>
#include <string>

#include "refhost/file_descriptor.h"
#include "tool/report/change_log.h"
#include "tool/report/report_event.h"
#include "tool/report/report_sink.h"
#include "tests/scoped_mount.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"

namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ToolRulesTest : public ToolTest {
 protected:
  // Sets the policy's "rules" (a JSON list) and any other keys of its object, keeping the
  // configuration's owner and mode.
  void SetPolicy(const std::string& rules_json, const std::string& key = "", bool value = false) {
    EditFirstPolicy(config_, [&](Poco::JSON::Object::Ptr policy) {
      policy->set("rules", Poco::JSON::Parser().parse(rules_json).extract<Poco::JSON::Array::Ptr>());
      if (!key.empty()) policy->set(key, value);
    });
  }
  static int LineOf(const std::string& text, const std::string& needle) {
    size_t at = text.find(needle);
    return at == std::string::npos ? 0 : 1 + static_cast<int>(std::count(text.begin(), text.begin() + at, '\n'));
  }
};

TEST_F(ToolRulesTest, ExcludedPathsAreNeitherRecordedNorWalkedNorReported) {
  Write("cache/a", "1");
  Write("cache/deep/b", "2");
  Write("src/keep.c", "int main;");
  Write("src/x.swp", "swap");
  Write("src/sub/.y.swp", "hidden swap");
  ASSERT_EQ(::symlink("keep.c", Tree("src/link.swp").c_str()), 0);
  Init();
  SetPolicy(R"([{"path": "cache", "exclude": true},
                {"path": "**/*.swp", "kind": "file", "exclude": true}])");
  ASSERT_EQ(Tool("scan t").status, 0);
  CToolRun list = Tool("ls t -R");
  EXPECT_THAT(list.out, AllOf(HasSubstr("src/keep.c"), HasSubstr("src/link.swp")));
  EXPECT_THAT(list.out, AllOf(Not(HasSubstr("cache")), Not(HasSubstr("x.swp")), Not(HasSubstr(".y.swp"))));

  Write("cache/a", "changed");
  Write("cache/new", "new");
  Write("src/x.swp", "changed swap");
  Write("src/keep.c", "int main();");
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(LineAbout(check, "src/keep.c"), StartsWith("hash changed"));
  EXPECT_THAT(check.out, AllOf(Not(HasSubstr("cache")), Not(HasSubstr("x.swp"))));
}

TEST_F(ToolRulesTest, RulesAddedAfterTheScanLeaveWhatTheyExcludeUnreported) {
  Write("cache/a", "1");
  Write("etc/hosts", "h");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  SetPolicy(R"([{"path": "cache/**", "exclude": true}])");
  boost::filesystem::remove(Tree("cache/a"));
  Write("cache/b", "2");
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out;
}

TEST_F(ToolRulesTest, ALogMayGrowButNotShrinkNorChangeWhatItHeld) {
  Write("log/app.log", "one\n");
  Write("log/other.txt", "fixed\n");
  Init();
  SetPolicy(R"([{"path": "log/*.log", "check": "log"}])");
  ASSERT_EQ(Tool("scan t").status, 0);
  { std::ofstream(Tree("log/app.log"), std::ios::app) << "two\n"; }
  CToolRun grown = Tool("check t");
  EXPECT_EQ(grown.status, 0) << grown.out;

  Write("log/app.log", "ONE\ntwo\nthree\n");  // longer, but the old part changed
  CToolRun rewritten = Tool("check t");
  EXPECT_EQ(rewritten.status, 1);
  EXPECT_THAT(LineAbout(rewritten, "log/app.log"), StartsWith("hash changed"));

  Write("log/app.log", "o");  // cut short
  CToolRun shrunk = Tool("check t");
  EXPECT_EQ(shrunk.status, 1);
  EXPECT_THAT(LineAbout(shrunk, "log/app.log"), StartsWith("hash changed"));

  Write("log/other.txt", "fixed\nmore\n");  // not a log: growing is a change
  EXPECT_THAT(LineAbout(Tool("check t"), "log/other.txt"), StartsWith("hash changed"));
}

TEST_F(ToolRulesTest, ALogRotatedInPlaceIsNotAChange) {
  Write("log/syslog", "a\nb\n");
  Write("log/syslog.1", "older\n");
  Write("plain/syslog", "a\nb\n");
  Init();
  SetPolicy(R"([{"path": "log/**", "check": "log"}])");
  ASSERT_EQ(Tool("scan t").status, 0);
  for (const char* folder : {"log", "plain"}) {
    std::string dir = Tree(folder);
    if (boost::filesystem::exists(dir + "/syslog.1")) boost::filesystem::rename(dir + "/syslog.1", dir + "/syslog.2");
    boost::filesystem::rename(dir + "/syslog", dir + "/syslog.1");
    Write(std::string(folder) + "/syslog", "c\n");
  }
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, Not(HasSubstr("log/syslog"))) << check.out;
  EXPECT_THAT(check.out, HasSubstr("plain/syslog")) << "without the rule, the same moves are changes";
}

// The natural rule names the live log only: its rotated names, whatever their form, rotate with it.
TEST_F(ToolRulesTest, ALogRuleForTheLiveNameForgivesItsRotationWhateverTheRotatedName) {
  Write("app.log", "a\nb\n");
  Write("web.log", "x\ny\n");
  Init();
  SetPolicy(R"([{"path": "*.log", "check": "log"}])");
  ASSERT_EQ(Tool("scan t").status, 0);
  boost::filesystem::rename(Tree("app.log"), Tree("app.log.1"));
  Write("app.log", "c\n");
  ASSERT_EQ(0, RunShell("gzip -c tree/web.log > tree/web.log-20261124.gz").status);
  Write("web.log", "");
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_THAT(check.out, Not(HasSubstr("app.log"))) << check.out;
  EXPECT_THAT(check.out, Not(HasSubstr("web.log"))) << check.out;
}

TEST_F(ToolRulesTest, DirectoryTimesCanBeIgnoredAndAttributesChosen) {
  Write("d/f", "1");
  Write("etc/conf", "x");
  Init();
  SetPolicy(R"([{"path": "**", "check": "ignore directory times"},
                {"path": "etc/**", "check": ["hash", "owner"]}])");
  ASSERT_EQ(Tool("scan t").status, 0);
  Write("d/g", "new");
  ASSERT_EQ(::chmod(Tree("etc/conf").c_str(), 0600), 0);
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(LineAbout(check, "d/g"), StartsWith("new"));
  EXPECT_EQ(LineAbout(check, "d/"), "") << "the directory's times changed, and are not reported";
  EXPECT_EQ(LineAbout(check, "etc/conf"), "") << "its mode is not among the chosen attributes";
  Write("etc/conf", "changed");
  EXPECT_THAT(LineAbout(Tool("check t"), "etc/conf"), StartsWith("hash changed"));
}

TEST_F(ToolRulesTest, AMountPointInsideAPolicyIsNotCrossedUnlessItsRulesSaySo) {
  Write("etc/hosts", "h");
  boost::filesystem::create_directories(Tree("mnt"));
  CScopedMount tmpfs("mount -t tmpfs -o size=1m tmpfs '" + Tree("mnt") + "'", Tree("mnt"));
  if (!tmpfs.reason().empty()) GTEST_SKIP() << tmpfs.reason();
  Write("mnt/inside", "on another file system");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  EXPECT_THAT(Tool("ls t -R").out, AllOf(HasSubstr("etc/hosts"), Not(HasSubstr("inside"))));
  SetPolicy("[]", "cross_mounts", true);
  ASSERT_EQ(Tool("scan t --replace").status, 0);
  EXPECT_THAT(Tool("ls t -R").out, HasSubstr("mnt/inside"));
}

TEST_F(ToolRulesTest, BadRulesAreRefusedWithTheFileTheLineAndWhatIsWrong) {
  Write("etc/hosts", "h");
  Init();
  struct CCase {
    std::string rules;
    std::string needle;  // what marks the bad rule's line
    std::string what;
  };
  for (const CCase& bad : std::vector<CCase>{
           {R"([{"path": "ok/**", "exclude": true}, {"path": "a/[b", "exclude": true}])", "a/[b",
            "rule 2 of policy 't': the pattern \"a/[b\" has a '[' without its ']'"},
           {R"([{"path": "x", "check": "loud"}])", "\"x\"", "unknown group or attribute \"loud\""},
           {R"([{"path": "x", "check": "log", "exclude": true}])", "\"x\"", "either \"exclude\" or \"check\""},
           {R"([{"path": "/abs", "exclude": true}])", "/abs", "starts with '/'"},
           {R"([{"path": "x", "kind": "pipe", "exclude": true}])", "\"x\"", "unknown kind \"pipe\""},
           {R"([{"path": "x", "exclude": true, "why": "noise"}])", "\"x\"", "unknown key \"why\""},
       }) {
    SetPolicy(bad.rules);
    CToolRun run = Tool("check t");
    EXPECT_EQ(run.status, 2) << bad.rules;
    int line = LineOf(CTempDir::Read(config_), bad.needle);
    EXPECT_THAT(run.err, AllOf(HasSubstr(config_ + ":" + std::to_string(line) + ": rule "), HasSubstr(bad.what)))
        << bad.rules;
  }
}

TEST_F(ToolRulesTest, RulesExplainsWhichRuleAppliesAndWhy) {
  Write("var/log/syslog", "s");
  Write("var/cache/x", "c");
  Init();
  SetPolicy(R"([{"path": "var/**", "check": "read-only"},
                {"path": "var/log/**", "check": "log"},
                {"path": "var/cache", "exclude": true}])");
  CToolRun log = Tool("rules t var/log/syslog");
  EXPECT_EQ(log.status, 0) << log.err;
  EXPECT_THAT(log.out, AllOf(HasSubstr("rule 2"), HasSubstr("\"var/log/**\""), HasSubstr("checks log")));
  EXPECT_THAT(Tool("rules t var/cache/x").out, HasSubstr("below the excluded directory var/cache"));
  EXPECT_THAT(Tool("rules t " + Tree("var/other")).out, HasSubstr("rule 1"));
  EXPECT_THAT(Tool("rules t etc").out, HasSubstr("no rule matches"));
}

}  // namespace

namespace {

class ToolAllPoliciesTest : public ToolTest {
 protected:
  void SetUp() override {
    Write("etc/hosts", "h");
    Write("etc/motd", "m");
    dir_.Write("other/file", "o");
    ASSERT_EQ(Run("init --config '" + config_ + "' --policy t=tree --policy u=other").status, 0);
  }
};

TEST_F(ToolAllPoliciesTest, EveryPolicyAtOnceGivesOneReportAndOneExitStatus) {
  CToolRun scan = Tool("scan --all");
  EXPECT_EQ(scan.status, 0) << scan.err;
  EXPECT_THAT(scan.out, AllOf(HasSubstr("policy t ("), HasSubstr("policy u (")));
  CToolRun clean = Tool("check");  // no name: every policy
  EXPECT_EQ(clean.status, 0) << clean.out << clean.err;
  dir_.Write("other/file", "changed");
  CToolRun check = Tool("check --all");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(LineAbout(check, "file"), StartsWith("hash changed"));
  EXPECT_THAT(check.out, AllOf(HasSubstr("policy t ("), HasSubstr("policy u (")));
  // One policy that cannot be checked is an error; the others are still reported.
  boost::filesystem::remove(Data("u.hdb"));
  boost::filesystem::remove(Data("u.hdb.p7s"));
  CToolRun broken = Tool("check --all");
  EXPECT_EQ(broken.status, 2);
  EXPECT_THAT(broken.err, HasSubstr("policy 'u': the database of policy 'u' is missing"));
  EXPECT_THAT(broken.out, HasSubstr("policy t ("));
  EXPECT_EQ(Tool("check t --all").status, 2) << "a name and --all together are refused";
}

TEST_F(ToolAllPoliciesTest, AnUpdateAcceptsOnlyThePathsNamedOrAllButThoseExcepted) {
  ASSERT_EQ(Tool("scan t").status, 0);
  Write("etc/hosts", "h2");
  Write("etc/motd", "m2");
  Write("bin/new", "n");
  CToolRun one = Tool("update t etc/hosts");
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_THAT(one.out, HasSubstr("differences were not chosen and stay reported"));
  CToolRun after_one = Tool("check t");
  EXPECT_EQ(LineAbout(after_one, "etc/hosts"), "");
  EXPECT_THAT(LineAbout(after_one, "etc/motd"), StartsWith("hash changed"));
  EXPECT_THAT(LineAbout(after_one, "bin/new"), StartsWith("new"));

  CToolRun except = Tool("update t --except '" + Tree("etc/motd") + "'");
  EXPECT_EQ(except.status, 0) << except.err;
  CToolRun after_except = Tool("check t");
  EXPECT_EQ(after_except.status, 1);
  EXPECT_THAT(LineAbout(after_except, "etc/motd"), StartsWith("hash changed"));
  EXPECT_EQ(LineAbout(after_except, "bin/new"), "");
}

}  // namespace

namespace {

// A datagram socket standing for the system log.
class CSyslogSocket {
 public:
  explicit CSyslogSocket(const std::string& path) : path_(path), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    bound_ = ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  bool bound() const { return bound_; }
  std::vector<std::string> Received() const {
    std::vector<std::string> messages;
    char buffer[8192];
    for (ssize_t n; (n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) messages.emplace_back(buffer, n);
    return messages;
  }

 private:
  std::string path_;
  CFileDescriptor fd_;
  bool bound_ = false;
};

TEST(ChangeLogTest, EachChangeGoesToTheSystemLogTheWayAReportIsSentThere) {
  CTempDir dir;
  CSyslogSocket syslog(dir / "log.sock");
  ASSERT_TRUE(syslog.bound());
  CDifference difference;
  difference.change = CChange::kNew;
  difference.words = "new";
  difference.path = "etc/cron.daily/job";
  CReportContext context = CReportContext::Make("t", "/srv/tree", "watch", 256);
  {
    CChangeLog log(dir / "changes.ndjson", CChangeLog::kRotateAt, dir / "log.sock");
    log.Difference(difference, context, "create");
    log.Unreadable("etc/secret", "permission denied", context);  // counted by the service, not logged
  }
  std::string line = DifferenceJson(difference, context, "create");
  EXPECT_EQ(line + "\n", CTempDir::Read(dir / "changes.ndjson"));
  std::vector<std::string> messages = syslog.Received();
  ASSERT_EQ(1u, messages.size());
  EXPECT_THAT(messages[0], AllOf(StartsWith("<29>"), HasSubstr(" signdb[" + std::to_string(::getpid()) + "]: "),
                                 EndsWith("]: " + line)));
}

// Remembers every entry it is given, in order.
class CRecordingSink : public CReportSink {
 public:
  void Difference(const CDifference& difference, const CReportContext&, const char*) override {
    entries.push_back("difference " + difference.path);
  }
  void Unreadable(const std::string& path, const std::string& reason, const CReportContext&) override {
    entries.push_back("unreadable " + path + " " + reason);
  }
  void Summary(const CReportSummary& summary, const CReportContext&) override {
    std::string counts;
    for (const auto& [words, count] : summary.changes) counts += " " + words + "=" + std::to_string(count);
    entries.push_back("summary " + std::to_string(summary.differences) + "/" + std::to_string(summary.unreadable) +
                      (summary.accepted ? " accepted" : "") + counts);
  }
  void Flush() override { entries.push_back("flush"); }
  std::vector<std::string> entries;
};

TEST(ReportSinkTest, EverySinkGetsACheckEntryByEntryDifferencesUnreadableThenTheSummary) {
  CTreeCheckResult result;
  for (const char* path : {"a", "b", "c"}) {
    CDifference difference;
    difference.path = path;
    difference.words = std::string(path) == "b" ? "gone" : "new";
    result.differences.push_back(difference);
  }
  result.unreadable.emplace_back("d", "permission denied");
  CRecordingSink first;
  CRecordingSink second;
  CReportSinks both;
  both.Add(first);
  both.Add(second);
  SendCheckResult(both, result, CReportContext::Make("t", "/srv", "update", 256), true);
  both.Flush();
  std::vector<std::string> expected = {"difference a", "difference b", "difference c", "unreadable d permission denied",
                                       "summary 3/1 accepted gone=1 new=2", "flush"};
  EXPECT_EQ(expected, first.entries);
  EXPECT_EQ(expected, second.entries);
}

TEST_F(ToolTest, CheckSendsEachFindingAndTheSummaryToTheSystemLogAndToAFile) {
  Write("etc/hosts", "h");
  Write("etc/motd", "m");
  Init();
  ASSERT_EQ(Tool("scan t").status, 0);
  Write("etc/hosts", "changed");
  std::string socket_path = dir_ / "log.sock";
  CSyslogSocket syslog(socket_path);
  ASSERT_TRUE(syslog.bound());
  std::string file = dir_ / "report.log";
  CToolRun check = Tool("check t --report syslog:'" + socket_path + "' --report file:'" + file + "'");
  EXPECT_EQ(check.status, 1) << check.err;
  std::vector<std::string> messages = syslog.Received();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_THAT(messages[0], AllOf(StartsWith("<28>"), HasSubstr(" signdb["), HasSubstr("]: policy t: medium    hash changed"),
                                 HasSubstr("etc/hosts")));
  EXPECT_THAT(messages[1], AllOf(StartsWith("<29>"), HasSubstr("policy t: policy t (")));
  std::string appended = CTempDir::Read(file);
  EXPECT_THAT(appended, AllOf(HasSubstr(" policy t: medium    hash changed"), HasSubstr("1 difference (1 medium: ")));
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(Tool("check t --report mail").status, 2);
}

}  // namespace

namespace {

// The service and timer in contrib/ are units systemd takes as they are.
TEST_F(ToolTest, TheContribServiceAndTimerAreValidSystemdUnits) {
  if (std::system("command -v systemd-analyze >/dev/null 2>&1") != 0) GTEST_SKIP() << "systemd-analyze is not installed";
  std::string unit = CTempDir::Read(SIGNDB_SOURCE_DIR "/contrib/signdb-check.service");
  size_t exec = unit.find("/usr/local/bin/signdb");
  ASSERT_NE(exec, std::string::npos);
  unit.replace(exec, std::string("/usr/local/bin/signdb").size(), SIGNDB_TOOL_PATH);
  dir_.Write("units/signdb-check.service", unit);
  dir_.Write("units/signdb-check.timer", CTempDir::Read(SIGNDB_SOURCE_DIR "/contrib/signdb-check.timer"));
  // The units name their man pages, which systemd-analyze looks up as an install lays them out.
  dir_.Write("man/man1/signdb.1", CTempDir::Read(SIGNDB_SOURCE_DIR "/doc/man/signdb.1"));
  CToolRun verify =
      RunShell("MANPATH=man systemd-analyze verify units/signdb-check.service units/signdb-check.timer");
  EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
  EXPECT_EQ(verify.err, "") << verify.err;
}

}  // namespace

namespace {

// A policy rooted at "/" works, and never enters /proc even when its rules would keep it; the
// rules narrow it to this test's folder, so that the walk stays small.
TEST_F(ToolRulesTest, APolicyRootedAtTheSystemRootWorksAndNeverEntersProc) {
  Write("etc/hosts", "h");
  ASSERT_EQ(Run("init --config '" + config_ + "' --policy t=/").status, 0);
  std::string work = dir_.path().string().substr(1);  // "tmp/signdb-test-..."
  std::string top = work.substr(0, work.find('/'));
  SetPolicy(R"([{"path": "*", "exclude": true},
                {"path": ")" + top + R"(", "check": "everything"},
                {"path": ")" + top + R"(/*", "exclude": true},
                {"path": ")" + work + R"(", "check": "everything"},
                {"path": "proc", "check": "everything"}])",
            "cross_mounts", true);  // /tmp may be a file system of its own
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(scan.status, 0) << scan.err;
  CToolRun list = Tool("ls t -R");
  EXPECT_THAT(list.out, HasSubstr(work + "/tree/etc/hosts"));
  EXPECT_THAT(list.out, AllOf(Not(HasSubstr("proc/")), Not(HasSubstr("usr/"))));
  Write("etc/hosts", "changed");
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1) << check.err;
  EXPECT_THAT(LineAbout(check, work + "/tree/etc/hosts"), StartsWith("hash changed"));
}

}  // namespace

namespace {

// The configuration for a whole installed system: its rules say what a person expects of each
// place, and every rule it writes is one the tool takes.
TEST_F(ToolTest, InitForTheSystemWritesPoliciesWhoseRulesFitAnInstalledSystem) {
  CToolRun init = Run("init --system --config '" + config_ + "'");
  ASSERT_EQ(init.status, 0) << init.err;
  EXPECT_THAT(init.out, HasSubstr("policy system: /"));
  auto rule = [&](const std::string& path) { return Tool("rules system " + path).out; };
  EXPECT_THAT(rule("/usr/bin/ls"), HasSubstr("checks read-only, ignore directory times"));
  EXPECT_THAT(rule("/etc/passwd"), HasSubstr("checks read-only"));
  EXPECT_THAT(rule("/var/log/syslog"), HasSubstr("checks log"));
  EXPECT_THAT(rule("/var/lib/misc/state"), HasSubstr("checks permissions"));
  for (const char* excluded : {"/proc/1/status", "/tmp/x", "/var/tmp/x", "/var/cache/apt/pkgcache.bin",
                               "/var/spool/postfix/x", "/var/lib/apt/lists/x", "/home/ann/.config/chromium/x"}) {
    EXPECT_THAT(rule(excluded), HasSubstr("below the excluded directory")) << excluded;
  }
  // Users' own files stay out...
  for (const char* excluded : {"/home/ann/notes", "/root/secret.txt", "/home/ann/.cache"}) {
    EXPECT_THAT(rule(excluded), HasSubstr("excluded: not recorded")) << excluded;
  }
  // ... but not the places where an intruder leaves a way back in.
  for (const char* place :
       {"/root/.ssh/authorized_keys", "/home/ann/.ssh/authorized_keys", "/home/ann/.ssh/config", "/root/.bashrc",
        "/root/.profile", "/home/ann/.bashrc", "/home/ann/.profile", "/home/ann/.bash_profile", "/home/ann/.zshrc",
        "/home/ann/.config/systemd/user/x.service", "/root/.config/systemd/user/y.timer",
        "/home/ann/.config/autostart/x.desktop", "/var/spool/cron/crontabs/root", "/etc/crontab",
        "/etc/cron.d/job", "/etc/cron.daily/job", "/etc/systemd/system/evil.service", "/etc/ld.so.preload",
        "/etc/pam.d/sshd", "/etc/sudoers", "/etc/sudoers.d/90-local"}) {
    EXPECT_THAT(rule(place), AllOf(HasSubstr("checks read-only"), Not(HasSubstr("exclud")))) << place;
  }
  CToolRun both = Tool("init --system --policy x=/");
  EXPECT_EQ(both.status, 2);
  EXPECT_THAT(both.err, HasSubstr("--system writes its own policies"));
}

}  // namespace

namespace {

TEST_F(ToolAllPoliciesTest, AnInteractiveUpdateAsksForEachDifferenceOnATerminal) {
  if (std::system("command -v script >/dev/null") != 0) GTEST_SKIP() << "script(1) is not installed to give a terminal";
  ASSERT_EQ(Tool("scan t").status, 0);
  Write("etc/hosts", "h2");
  Write("etc/motd", "m2");
  EXPECT_EQ(Tool("update t -i").status, 2) << "without a terminal, -i is refused";
  // script(1) runs the update on a pseudo-terminal and types the answers: yes, then no.
  CToolRun run = RunShell("{ printf 'y\\nn\\n' | script -qec \"'" SIGNDB_TOOL_PATH "' --config '" + config_ +
                          "' update t -i\" /dev/null; }");
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_THAT(run.out, HasSubstr("accept? [y]es, [n]o"));
  EXPECT_THAT(run.out, HasSubstr("1 difference was not chosen and stays reported"));
  CToolRun check = Tool("check t");
  EXPECT_EQ(LineAbout(check, "etc/hosts"), "");
  EXPECT_THAT(LineAbout(check, "etc/motd"), StartsWith("hash changed"));
}

}  // namespace
