// Package awareness on a real package database: a small .deb built and installed with dpkg into
// a system root of the test's own (dpkg --root), never the machine's.

#include <gmock/gmock.h>

#include <string>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "tests/tool_fixture.h"
#include "tests/tool_json.h"
#include "tests/watch_fixture.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ToolPackagesTest : public WatchFixture {
 protected:
  void SetUp() override {
    if (std::system("command -v dpkg >/dev/null && command -v dpkg-deb >/dev/null && command -v md5sum >/dev/null") != 0) {
      GTEST_SKIP() << "dpkg and dpkg-deb are not installed";
    }
    boost::filesystem::create_directories(Sys("var/lib/dpkg/info"));
    boost::filesystem::create_directories(Sys("var/lib/dpkg/updates"));
    dir_.Write("sys/var/lib/dpkg/status", "");
    ASSERT_EQ(Run("init --config '" + config_ + "' --policy t=sys").status, 0);
    EditFirstPolicy(config_, [&](Poco::JSON::Object::Ptr policy) {
      policy->set("dpkg", Sys(""));
      policy->set("rules", Poco::JSON::Parser().parse(R"([{"path": "var", "exclude": true}])").extract<Poco::JSON::Array::Ptr>());
    });
  }
  std::string Sys(const std::string& relative) const { return dir_ / ("sys/" + relative); }
  // Builds sdbtest VERSION with /usr/share/sdbtest/data and the conffile /etc/sdbtest.conf.
  std::string Package(const std::string& version, const std::string& data, const std::string& conf) {
    std::string build = "build-" + version;
    dir_.Write(build + "/usr/share/sdbtest/data", data);
    dir_.Write(build + "/etc/sdbtest.conf", conf);
    dir_.Write(build + "/DEBIAN/control", "Package: sdbtest\nVersion: " + version +
                                              "\nArchitecture: all\nMaintainer: t <t@example.org>\nDescription: test\n");
    dir_.Write(build + "/DEBIAN/conffiles", "/etc/sdbtest.conf\n");
    EXPECT_EQ(RunShell("sh -c 'cd " + build + " && md5sum usr/share/sdbtest/data > DEBIAN/md5sums'").status, 0);
    std::string deb = dir_ / ("sdbtest_" + version + ".deb");
    CToolRun built = RunShell("dpkg-deb --root-owner-group --build " + build + " '" + deb + "'");
    EXPECT_EQ(built.status, 0) << built.err;
    return deb;
  }
  void Dpkg(const std::string& arguments) {
    CToolRun run = RunShell("dpkg --root='" + Sys("") + "' " + arguments);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
  }
  // The report line that names "path", and its place among the lines.
  static size_t LineIndex(const CToolRun& run, const std::string& path) {
    std::vector<std::string> lines = run.OutLines();
    for (size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].find("  ") != std::string::npos && lines[i].find(" " + path + " ") != std::string::npos) return i;
    }
    return lines.size();
  }
};

TEST_F(ToolPackagesTest, WhatAPackageChangedIsToldApartFromWhatSomeoneElseDid) {
  ASSERT_EQ(Tool("scan t").status, 0);
  Dpkg("-i '" + Package("1.0", "v1\n", "conf v1\n") + "'");
  CToolRun installed = Tool("check t --json");
  EXPECT_EQ(installed.status, 1);
  Poco::JSON::Object::Ptr data = JsonAbout(installed, "usr/share/sdbtest/data");
  ASSERT_TRUE(data) << installed.out;
  EXPECT_EQ(Action(data), "installed by package");
  EXPECT_EQ(data->getObject("signdb")->getValue<std::string>("package"), "sdbtest 1.0");
  EXPECT_EQ(Action(JsonAbout(installed, "etc/sdbtest.conf")), "installed by package");
  Poco::JSON::Object::Ptr directory = JsonAbout(installed, "usr/share/sdbtest");
  ASSERT_TRUE(directory) << installed.out;
  EXPECT_EQ(Action(directory), "installed by package") << "the package lists its directories";

  CToolRun accepted = Tool("update t --packages");
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  CToolRun after = Tool("check t");
  EXPECT_EQ(LineAbout(after, "usr/share/sdbtest/data"), "");
  EXPECT_EQ(LineAbout(after, "etc/sdbtest.conf"), "");
  ASSERT_EQ(Tool("update t").status, 0);

  Dpkg("-i '" + Package("2.0", "v2\n", "conf v1\n") + "'");
  CToolRun upgraded = Tool("check t");
  EXPECT_THAT(LineAbout(upgraded, "usr/share/sdbtest/data"),
              AllOf(StartsWith("changed by package"), HasSubstr("package sdbtest 2.0")));
  ASSERT_EQ(Tool("update t --packages").status, 0);

  // By hand: an edited configuration file, and a package's file that no longer holds what the
  // package installed (the most serious: listed first).
  dir_.Write("sys/etc/sdbtest.conf", "conf edited by the administrator\n");
  dir_.Write("sys/usr/share/sdbtest/data", "trojaned\n");
  dir_.Write("sys/opt/unexplained", "x");
  CToolRun by_hand = Tool("check t");
  EXPECT_EQ(by_hand.status, 1);
  EXPECT_THAT(LineAbout(by_hand, "usr/share/sdbtest/data"), StartsWith("differs from package"));
  EXPECT_THAT(LineAbout(by_hand, "etc/sdbtest.conf"), StartsWith("conffile edited"));
  EXPECT_THAT(LineAbout(by_hand, "opt/unexplained"), StartsWith("new"));
  EXPECT_LT(LineIndex(by_hand, "usr/share/sdbtest/data"), LineIndex(by_hand, "opt/unexplained"));
  EXPECT_LT(LineIndex(by_hand, "opt/unexplained"), LineIndex(by_hand, "etc/sdbtest.conf"));
  CToolRun packages_only = Tool("update t --packages");
  EXPECT_EQ(packages_only.status, 0);
  EXPECT_THAT(LineAbout(Tool("check t"), "usr/share/sdbtest/data"), StartsWith("differs from package"))
      << "update --packages never accepts what the package does not explain";
}

// A package removed takes its lists with it; what it owned at the last save is still told to be
// its, and accepted with --packages.
TEST_F(ToolPackagesTest, WhatARemovedPackageTookWithItIsItsToo) {
  Dpkg("-i '" + Package("1.0", "v1\n", "conf v1\n") + "'");
  dir_.Write("sys/usr/share/sdbtest-unowned", "not a package's");
  ASSERT_EQ(Tool("scan t").status, 0);
  EXPECT_TRUE(boost::filesystem::exists(Data("t.hdb.owners")));
  Dpkg("-r sdbtest");
  boost::filesystem::remove(Sys("usr/share/sdbtest-unowned"));
  CToolRun check = Tool("check t");
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(LineAbout(check, "usr/share/sdbtest/data"),
              AllOf(StartsWith("removed with package"), HasSubstr("package sdbtest 1.0")));
  EXPECT_THAT(LineAbout(check, "usr/share/sdbtest/"), StartsWith("removed with package"));
  EXPECT_THAT(LineAbout(check, "usr/share/sdbtest-unowned"), StartsWith("gone"));
  EXPECT_EQ(Tool("update t --packages").status, 0);
  CToolRun after = Tool("check t");
  EXPECT_EQ(LineAbout(after, "usr/share/sdbtest/data"), "");
  EXPECT_THAT(LineAbout(after, "usr/share/sdbtest-unowned"), StartsWith("gone"));
}

// The watch service gives a change the package manager's word on it, as a check does.
TEST_F(ToolPackagesTest, TheWatchServiceSaysWhatThePackagesSayOfAChange) {
  Dpkg("-i '" + Package("1.0", "v1\n", "conf v1\n") + "'");
  ASSERT_EQ(Tool("scan t").status, 0);
  Start();
  dir_.Write("sys/usr/share/sdbtest/data", "trojaned\n");
  dir_.Write("sys/etc/sdbtest.conf", "conf edited by the administrator\n");
  ASSERT_TRUE(Eventually([&] { return Logged("usr/share/sdbtest/data") && Logged("etc/sdbtest.conf"); }));
  Poco::JSON::Object::Ptr data = Logged("usr/share/sdbtest/data");
  EXPECT_EQ(Action(data), "differs from package");
  EXPECT_EQ(data->getObject("signdb")->getValue<std::string>("package"), "sdbtest 1.0");
  EXPECT_EQ(Action(Logged("etc/sdbtest.conf")), "conffile edited");
}

}  // namespace
