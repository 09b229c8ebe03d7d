// The fleet store on a real ClickHouse server: its tables made once and checked on every
// connection, its configuration read strictly, its failures said clearly.

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/NullStream.h>
#include <Poco/StreamCopier.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>

#include "tests/clickhouse_fixture.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"
#include "tests/watch_fixture.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_questions.h"
#include "tool/fleet/fleet_schema.h"
#include "tool/fleet/published_state.h"
#include "util/text_format.h"

namespace {

using ::testing::HasSubstr;

class FleetTest : public ToolTest {
 protected:
  void SetUp() override {
    if (!CClickHouseServer::Installed()) GTEST_SKIP() << "clickhouse-server is not installed (scripts/bootstrap.sh installs it)";
    std::string error;
    ASSERT_TRUE(server_.Start(error)) << error;
    Init();
    SetFleet(R"({"url":")" + server_.url() + R"(","host":"web-01","groups":["web"]})");
  }
  void SetFleet(const std::string& json) { SetConfigMember(config_, "fleet", json); }

  CClickHouseServer server_;
};

TEST_F(FleetTest, InitMakesTheTablesOnceAndEveryConnectionChecksTheirVersion) {
  CToolRun hosts_first = Tool("fleet hosts");
  EXPECT_EQ(2, hosts_first.status);
  EXPECT_THAT(hosts_first.err, HasSubstr("run 'signdb fleet init' first"));
  CToolRun init = Tool("fleet init");
  EXPECT_EQ(0, init.status) << init.err;
  EXPECT_THAT(init.out, HasSubstr("schema version 1 in 'signdb'"));
  EXPECT_EQ(0, Tool("fleet init").status) << "safe to run again";
  CClickHouseClient client(server_.url(), "", "");
  EXPECT_EQ("1\n", client.Run("SELECT count() FROM signdb.schema"));
  for (const char* table : {"records", "holders", "changes", "hosts"}) {
    EXPECT_EQ("1\n", client.Run(std::string("SELECT count() FROM system.tables WHERE database = 'signdb' AND name = '") +
                                table + "'"))
        << table;
  }
  CToolRun hosts = Tool("fleet hosts");
  EXPECT_EQ(0, hosts.status) << hosts.err;
  EXPECT_THAT(hosts.out, HasSubstr("no host has published to the fleet store yet"));
  // A store of another version is refused, by name.
  client.Run("INSERT INTO signdb.schema SELECT 2, now()");
  CToolRun newer = Tool("fleet hosts");
  EXPECT_EQ(2, newer.status);
  EXPECT_THAT(newer.err, HasSubstr("holds schema version 2; this signdb speaks version 1"));
  EXPECT_EQ(2, Tool("fleet init").status);
}

TEST_F(FleetTest, TheConfigurationIsReadStrictlyAndCredentialsAreTheOwnersAlone) {
  SetFleet(R"({"url":")" + server_.url() + R"(","database":"x; DROP TABLE y"})");
  CToolRun bad_name = Tool("fleet init");
  EXPECT_EQ(2, bad_name.status);
  EXPECT_THAT(bad_name.err, HasSubstr("\"database\" is letters, digits and '_' only"));
  std::string credentials = dir_.Write("fleet.credentials", "default:\n");
  ASSERT_EQ(0, ::chmod(credentials.c_str(), 0644));
  SetFleet(R"({"url":")" + server_.url() + R"(","credentials":")" + credentials + R"("})");
  CToolRun open = Tool("fleet init");
  EXPECT_EQ(2, open.status);
  EXPECT_THAT(open.err, HasSubstr("may be read by others; make it the owner's alone (chmod 600)"));
  ASSERT_EQ(0, ::chmod(credentials.c_str(), 0600));
  EXPECT_EQ(0, Tool("fleet init").status) << Tool("fleet init").err;
  SetConfigMember(config_, "fleet", R"({"url":"ftp://example"})");
  EXPECT_THAT(Tool("fleet init").err, HasSubstr("is not http://HOST:PORT"));
}

TEST_F(FleetTest, AStoreThatIsDownOrRefusesIsSaidClearly) {
  SetFleet(R"({"url":")" + server_.url() + R"(","credentials":")" + dir_.Write("c", "nobody:wrong\n") + R"("})");
  ASSERT_EQ(0, ::chmod((dir_ / "c").c_str(), 0600));
  CToolRun refused = Tool("fleet init");
  EXPECT_EQ(2, refused.status);
  EXPECT_THAT(refused.err, HasSubstr("the fleet store at " + server_.url() + " refused a request"));
  SetFleet(R"({"url":")" + server_.url() + R"("})");
  server_.Stop();
  CToolRun down = Tool("fleet init");
  EXPECT_EQ(2, down.status);
  EXPECT_THAT(down.err, HasSubstr("cannot reach the fleet store at " + server_.url()));
}

TEST_F(FleetTest, WithoutAFleetSectionTheFleetCommandSaysHowToAddOne) {
  EditFirstPolicy(config_, [](Poco::JSON::Object::Ptr) {});
  Poco::JSON::Object::Ptr config = ParseJson(CTempDir::Read(config_));
  config->remove("fleet");
  std::ostringstream text;
  config->stringify(text, 2);
  std::ofstream(config_, std::ios::trunc) << text.str();
  CToolRun run = Tool("fleet hosts");
  EXPECT_EQ(2, run.status);
  EXPECT_THAT(run.err, HasSubstr("has no \"fleet\" section"));
}

}  // namespace

namespace {

class FleetPublishTest : public FleetTest {
 protected:
  // Another host: its own configuration, keys, data folder and tree, named "host" in the fleet
  // ("fleet_json": more members of its "fleet" section).
  std::string OtherHost(const std::string& folder_name, const std::string& host_json, const std::string& tree,
                        const std::string& fleet_json = "") {
    std::string folder = dir_ / ("host-" + folder_name);
    EXPECT_EQ(0, Run("init --dir '" + folder + "' --policy t='" + tree + "'").status);
    std::string config = folder + "/signdb.json";
    SetConfigMember(config, "fleet",
                    R"({"url":")" + server_.url() + R"(","host":")" + host_json + "\"" + fleet_json + "}");
    return config;
  }
  CToolRun ToolOf(const std::string& config, const std::string& args) {
    return Run("--config '" + config + "' " + args);
  }
  std::string Spool() const { return dir_ / "cfg/data/fleet-spool"; }
  std::vector<std::string> SpooledBatches() const {
    std::vector<std::string> batches;
    if (!boost::filesystem::exists(Spool())) return batches;
    for (const auto& entry : boost::filesystem::directory_iterator(Spool())) {
      if (entry.path().extension() == ".batch") batches.push_back(entry.path().string());
    }
    std::sort(batches.begin(), batches.end());
    return batches;
  }
  // Each holder that a lookup names: "host|path".
  std::vector<std::string> Holders(const std::string& hash) {
    std::vector<std::string> holders;
    for (const std::string& line : Tool("fleet lookup " + hash + " --json").OutLines()) {
      Poco::JSON::Object::Ptr holder = ParseJson(line);
      holders.push_back(holder->getValue<std::string>("host") + "|" + holder->getValue<std::string>("path"));
    }
    return holders;
  }
  CClickHouseClient Client() const { return CClickHouseClient(server_.url(), "", ""); }
};

TEST_F(FleetPublishTest, EveryHostsRecordsArePublishedAndALookupFindsEveryHolderNowAndForgetsTheGone) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/shared.conf", "the same everywhere\n");
  Write("etc/only-a", "only on web-01\n");
  dir_.Write("tree-b/etc/shared.conf", "the same everywhere\n");
  dir_.Write("tree-c/etc/shared.conf", "the same everywhere\n");
  std::string b = OtherHost("b", "web-02", dir_ / "tree-b");
  std::string c = OtherHost("c", R"(db\"01\nx)", dir_ / "tree-c");  // a hostile host name
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(0, scan.status) << scan.err;
  EXPECT_THAT(scan.err, HasSubstr("records (whole: 6 rows) published to the fleet store at " + server_.url() +
                                  " as host web-01"));
  ASSERT_EQ(0, ToolOf(b, "scan t").status);
  ASSERT_EQ(0, ToolOf(c, "scan t").status);

  EXPECT_THAT(Holders(Sha256("the same everywhere\n")),
              ::testing::UnorderedElementsAre("web-01|etc/shared.conf", "web-02|etc/shared.conf",
                                              "db\"01\nx|etc/shared.conf"));
  // Deleted and accepted: the host no longer holds it.
  ASSERT_EQ(0, ::unlink(Tree("etc/only-a").c_str()));
  ASSERT_EQ(0, Tool("update t").status);
  CToolRun gone = Tool("fleet lookup " + Sha256("only on web-01\n"));
  EXPECT_EQ(1, gone.status) << gone.out;
  EXPECT_THAT(gone.err, HasSubstr("no host of the fleet holds it now"));
  CToolRun hosts = Tool("fleet hosts");
  EXPECT_THAT(hosts.out, HasSubstr("web-01  t  published "));
  EXPECT_THAT(hosts.out, HasSubstr("db\"01\\nx  t"));
}

TEST_F(FleetPublishTest, AContentThatChangesMovesItsHolderAndSaysSinceWhichRevision) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/a", "first\n");
  Write("etc/b", "stays\n");
  ASSERT_EQ(0, Tool("scan t").status);
  Poco::JSON::Object::Ptr first = ParseJson(Tool("fleet lookup " + Sha256("stays\n") + " --json").out);
  uint64_t scanned = first->getValue<uint64_t>("since_revision");
  Write("etc/a", "second\n");
  Write("etc/new", "new\n");
  CToolRun update = Tool("update t");
  ASSERT_EQ(0, update.status);
  // etc/a and etc/new by path; by hash: the new contents, and a tombstone for the old one.
  EXPECT_THAT(update.err, HasSubstr("records (5 rows) published"));
  EXPECT_TRUE(Holders(Sha256("first\n")).empty()) << "the old content is held no more";
  std::vector<std::string> lines = Tool("fleet lookup " + Sha256("second\n") + " " + Sha256("stays\n") + " --json").OutLines();
  ASSERT_EQ(2u, lines.size());
  std::map<std::string, uint64_t> since;
  for (const std::string& line : lines) {
    Poco::JSON::Object::Ptr holder = ParseJson(line);
    since[holder->getValue<std::string>("path")] = holder->getValue<uint64_t>("since_revision");
  }
  EXPECT_EQ(scanned, since["etc/b"]) << "unchanged since the scan";
  EXPECT_NE(scanned, since["etc/a"]) << "changed by the update";
  // Only what changed was sent the second time: the new content and the old one's tombstone.
  CClickHouseClient client = Client();
  EXPECT_EQ("1\n", client.Run("SELECT count() FROM signdb.holders WHERE path = 'etc/b'"));
  EXPECT_EQ("3\n", client.Run("SELECT count() FROM signdb.holders WHERE path = 'etc/a'"));
  EXPECT_EQ("1\n", client.Run("SELECT count() FROM signdb.holders WHERE path = 'etc/a' AND present = 0"));
}

TEST_F(FleetPublishTest, AStoreThatIsDownKeepsTheBatchInTheSpoolAndAfterItsRestartNothingIsLostOrDoubled) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/a", "a\n");
  server_.Stop();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(0, scan.status) << "the saved database stands whatever the store does: " << scan.err;
  EXPECT_THAT(scan.err, HasSubstr("records (whole: 4 rows) kept in the fleet spool"));
  Write("etc/a", "changed\n");
  CToolRun check = Tool("check t");
  EXPECT_EQ(1, check.status);
  EXPECT_THAT(check.err, HasSubstr("1 change line kept in the fleet spool"));
  ASSERT_EQ(2u, SpooledBatches().size());
  std::string error;
  ASSERT_TRUE(server_.Start(error)) << error;
  // The store took the first batch, and the publisher stopped before the spool forgot it.
  CClickHouseClient client = Client();
  std::string first = SpooledBatches()[0];
  for (const char* table : {"records", "holders", "hosts"})
    client.Run(std::string("INSERT INTO signdb.") + table + " FORMAT TabSeparated", CTempDir::Read(first + "/" + table + ".tsv"));
  ASSERT_EQ(0, Tool("update t").status);  // delivers both spooled batches again, then its own
  EXPECT_TRUE(SpooledBatches().empty());
  EXPECT_THAT(Holders(Sha256("changed\n")), ::testing::ElementsAre("web-01|etc/a"));
  EXPECT_TRUE(Holders(Sha256("a\n")).empty());
  CToolRun changes = Tool("fleet changes --json");
  EXPECT_EQ(2u, changes.OutLines().size()) << "the check's line once, the update's once: " << changes.out;
  CToolRun hosts = Tool("fleet hosts --json");
  EXPECT_EQ(1u, hosts.OutLines().size()) << hosts.out;
}

TEST_F(FleetPublishTest, TheSpoolIsBoundedDropsTheOldestSnapshotsNeverChangeLinesAndSendsTheNextWhole) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/keep", "keep\n");
  Write("etc/gone", "gone\n");
  ASSERT_EQ(0, Tool("scan t").status);
  server_.Stop();
  ASSERT_EQ(0, ::unlink(Tree("etc/gone").c_str()));
  ASSERT_EQ(1, Tool("check t").status);  // a change line, spooled
  for (int i = 0; i < 16; ++i) {
    Write("etc/n", "n" + std::to_string(i) + "\n");
    ASSERT_EQ(0, Tool("update t").status);
  }
  CToolRun over = Tool("update t");
  Write("etc/n", "last\n");
  over = Tool("update t");
  EXPECT_THAT(over.err, HasSubstr("the fleet spool holds 16 snapshots that the store has not taken; the oldest"));
  EXPECT_THAT(over.err, HasSubstr("is dropped and this publication is whole"));
  size_t change_batches = 0;
  for (const std::string& batch : SpooledBatches())
    change_batches += boost::filesystem::exists(batch + "/changes.tsv") && !boost::filesystem::exists(batch + "/records.tsv");
  EXPECT_EQ(18u, change_batches) << "the check's and every update's change lines stay";
  std::string error;
  ASSERT_TRUE(server_.Start(error)) << error;
  ASSERT_EQ(0, Tool("check t").status);
  EXPECT_TRUE(SpooledBatches().empty());
  EXPECT_TRUE(Holders(Sha256("gone\n")).empty()) << "what the dropped snapshots removed is removed";
  EXPECT_THAT(Holders(Sha256("last\n")), ::testing::ElementsAre("web-01|etc/n"));
  EXPECT_THAT(Holders(Sha256("keep\n")), ::testing::ElementsAre("web-01|etc/keep"));
  EXPECT_TRUE(Holders(Sha256("n3\n")).empty());
}

TEST_F(FleetPublishTest, ChangeLinesOfEveryHostArriveOnceAndAreAskedByHostGroupPathAndTime) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/app.conf", "v1\n");
  dir_.Write("tree-b/var/www/index.html", "hello\n");
  std::string b = OtherHost("b", "db-01", dir_ / "tree-b", R"(,"groups":["db"])");
  ASSERT_EQ(0, Tool("scan t").status);
  ASSERT_EQ(0, ToolOf(b, "scan t").status);
  Write("etc/app.conf", "v2\n");
  dir_.Write("tree-b/var/www/index.html", "defaced\n");
  CToolRun check = Tool("check t");
  EXPECT_EQ(1, check.status);
  EXPECT_THAT(check.err, HasSubstr("1 change line published to the fleet store"));
  ASSERT_EQ(1, ToolOf(b, "check t").status);
  CToolRun all = Tool("fleet changes");
  EXPECT_EQ(0, all.status) << all.err;
  ASSERT_EQ(2u, all.OutLines().size()) << all.out;
  EXPECT_THAT(all.out, HasSubstr("  web-01  check  "));
  EXPECT_THAT(all.out, HasSubstr("etc/app.conf"));
  EXPECT_THAT(Tool("fleet changes --host db-01").out, ::testing::Not(HasSubstr("etc/app.conf")));
  CToolRun web = Tool("fleet changes --group web --json");
  ASSERT_EQ(1u, web.OutLines().size()) << web.out;
  Poco::JSON::Object::Ptr line = ParseJson(web.OutLines()[0]);
  EXPECT_EQ("etc/app.conf", line->getValue<std::string>("path"));
  EXPECT_EQ("check", line->getValue<std::string>("dataset"));
  EXPECT_EQ("etc/app.conf", line->getObject("event")->getObject("signdb")->getValue<std::string>("relative_path"));
  EXPECT_EQ(1u, Tool("fleet changes --path 'var/*/index.*'").OutLines().size());
  EXPECT_EQ("no change line matches\n", Tool("fleet changes --path 'var/%'").out) << "% is no wildcard";
  EXPECT_EQ("no change line matches\n", Tool("fleet changes --since 2099-01-01").out);
  EXPECT_EQ(2u, Tool("fleet changes --since 1h").OutLines().size());
  EXPECT_THAT(Tool("fleet changes --since yesterday").err, HasSubstr("--since takes a time"));
  // Sent twice, shown once.
  CClickHouseClient client = Client();
  client.Run("INSERT INTO signdb.changes FORMAT TabSeparated", client.Run("SELECT * FROM signdb.changes FORMAT TabSeparated"));
  EXPECT_EQ(2u, Tool("fleet changes").OutLines().size());
}

TEST_F(FleetPublishTest, DriftNamesExactlyThePathsWhereHostsOfAGroupDifferAndWhatMostHave) {
  ASSERT_EQ(0, Tool("fleet init").status);
  SetFleet(R"({"url":")" + server_.url() + R"(","host":"web-01","groups":["web"]})");
  std::vector<std::string> configs = {config_};
  for (const char* tree : {"tree", "tree-b", "tree-c"}) {
    dir_.Write(std::string(tree) + "/etc/same.conf", "same\n");
    dir_.Write(std::string(tree) + "/etc/nginx.conf", "worker_processes 4;\n");
    dir_.Write(std::string(tree) + "/bin/tool", "tool\n");
    dir_.Write(std::string(tree) + "/etc/extra", "extra\n");
  }
  dir_.Write("tree-c/etc/nginx.conf", "worker_processes 1;\n");        // content
  ASSERT_EQ(0, ::chmod((dir_ / "tree-b/bin/tool").c_str(), 04755));   // mode
  ASSERT_EQ(0, ::unlink((dir_ / "tree-c/etc/extra").c_str()));         // absent
  configs.push_back(OtherHost("b", "web-02", dir_ / "tree-b", R"(,"groups":["web"])"));
  configs.push_back(OtherHost("c", "web-03", dir_ / "tree-c", R"(,"groups":["web","odd"])"));
  dir_.Write("tree-d/etc/whatever", "not compared\n");
  std::string d = OtherHost("d", "db-01", dir_ / "tree-d", R"(,"groups":["db"])");
  for (const std::string& config : configs) ASSERT_EQ(0, ToolOf(config, "scan t").status);
  ASSERT_EQ(0, ToolOf(d, "scan t").status);

  CToolRun drift = Tool("fleet drift --group web --json");
  EXPECT_EQ(1, drift.status) << drift.err;
  std::map<std::string, Poco::JSON::Object::Ptr> paths;
  for (const std::string& line : drift.OutLines()) {
    Poco::JSON::Object::Ptr path = ParseJson(line);
    paths[path->getValue<std::string>("path")] = path;
  }
  ASSERT_EQ(3u, paths.size()) << drift.out;
  auto others = [&](const std::string& path) {
    Poco::JSON::Array::Ptr list = paths[path]->getArray("others");
    EXPECT_EQ(1u, list->size());
    return list->getObject(0);
  };
  EXPECT_EQ(Sha256("worker_processes 4;\n"), paths["etc/nginx.conf"]->getObject("most")->getValue<std::string>("hash"));
  EXPECT_EQ("web-03", others("etc/nginx.conf")->getArray("hosts")->getElement<std::string>(0));
  EXPECT_EQ(Sha256("worker_processes 1;\n"), others("etc/nginx.conf")->getValue<std::string>("hash"));
  EXPECT_EQ("web-02", others("bin/tool")->getArray("hosts")->getElement<std::string>(0));
  EXPECT_EQ("104755", others("bin/tool")->getValue<std::string>("mode"));
  EXPECT_FALSE(others("etc/extra")->getValue<bool>("present"));
  EXPECT_EQ("web-03", others("etc/extra")->getArray("hosts")->getElement<std::string>(0));
  EXPECT_EQ(2u, paths["etc/extra"]->getObject("most")->getArray("hosts")->size());

  CToolRun text = Tool("fleet drift --hosts web-01,web-02");
  EXPECT_EQ(1, text.status);
  EXPECT_THAT(text.out, HasSubstr("t  bin/tool\n"));
  EXPECT_THAT(text.out, HasSubstr("  web-02: file "));
  EXPECT_THAT(text.out, HasSubstr("2 hosts compared (web-01, web-02): 1 path differs"));
  CToolRun alike = Tool("fleet drift --hosts web-01,web-03,nobody --json");
  EXPECT_EQ(2u, alike.OutLines().size()) << alike.out;
  EXPECT_THAT(Tool("fleet drift --group db").err, HasSubstr("fleet drift needs two hosts that published"));
  EXPECT_THAT(Tool("fleet drift").err, HasSubstr("compares a group (--group G) or hosts"));
}

TEST_F(FleetPublishTest, DriftSeesAPathThatOneHostRemovedSinceAsAbsentThere) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/kept", "kept\n");
  Write("etc/removed-on-b", "soon gone on b\n");
  dir_.Write("tree-b/etc/kept", "kept\n");
  dir_.Write("tree-b/etc/removed-on-b", "soon gone on b\n");
  std::string b = OtherHost("b", "web-02", dir_ / "tree-b");
  ASSERT_EQ(0, Tool("scan t").status);
  ASSERT_EQ(0, ToolOf(b, "scan t").status);
  EXPECT_EQ(0, Tool("fleet drift --hosts web-01,web-02").status);
  ASSERT_EQ(0, ::unlink((dir_ / "tree-b/etc/removed-on-b").c_str()));
  ASSERT_EQ(0, ToolOf(b, "update t").status);  // its tombstone is the latest row of the path
  CToolRun drift = Tool("fleet drift --hosts web-01,web-02 --json");
  EXPECT_EQ(1, drift.status);
  ASSERT_EQ(1u, drift.OutLines().size()) << drift.out;
  Poco::JSON::Object::Ptr path = ParseJson(drift.out);
  EXPECT_EQ("etc/removed-on-b", path->getValue<std::string>("path"));
  Poco::JSON::Object::Ptr other = path->getArray("others")->getObject(0);
  EXPECT_EQ(other->getValue<bool>("present") ? "web-01" : "web-02",
            other->getArray("hosts")->getElement<std::string>(0));
}

TEST_F(FleetPublishTest, HostsNamesTheSignerAndTheHostsThatFellSilent) {
  SetFleet(R"({"url":")" + server_.url() + R"(","host":"web-01","groups":["web","debian"],"period":3600})");
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/a", "a\n");
  ASSERT_EQ(0, Tool("scan t").status);
  CToolRun hosts = Tool("fleet hosts --json");
  EXPECT_EQ(0, hosts.status) << hosts.err;
  Poco::JSON::Object::Ptr host = ParseJson(hosts.out);
  EXPECT_THAT(host->getValue<std::string>("cstm_id"), ::testing::StartsWith("signdb "));
  EXPECT_EQ("1001", host->getValue<std::string>("lcs_id")) << "the signer's, not this installation's (1002)";
  EXPECT_EQ(3600u, host->getValue<uint32_t>("period"));
  EXPECT_EQ(2u, host->getArray("groups")->size());
  EXPECT_FALSE(host->getValue<bool>("silent"));
  // A host that published three hours ago with a period of an hour has been silent too long.
  CClickHouseClient client = Client();
  client.Run("INSERT INTO signdb.hosts SELECT 'old-01', 't', toUInt32(now()) - 3 * 3600, 1, 1, 1, 5, 'x', '7', ['web'], '0.1', 3600");
  CToolRun silent = Tool("fleet hosts");
  EXPECT_EQ(1, silent.status) << "a silent agent is an alarm";
  EXPECT_THAT(silent.out, HasSubstr("SILENT old-01  t  published "));
  EXPECT_THAT(silent.out, HasSubstr("(nothing for 3 hours; it publishes every 60 minutes)"));
  EXPECT_THAT(silent.err, HasSubstr("1 host has been silent for longer than twice their period: old-01 (t)"));
  // A check publishes nothing new, but says the host is alive.
  client.Run("INSERT INTO signdb.hosts SELECT host, policy, toUInt32(now()) - 3 * 3600, sequence + 1, generation, revision, objects, cstm_id, lcs_id, groups, version, period FROM signdb.hosts WHERE host = 'web-01'");
  EXPECT_THAT(Tool("fleet hosts").out, HasSubstr("\nSILENT web-01  t"));
  ASSERT_EQ(0, Tool("check t").status);
  EXPECT_THAT(Tool("fleet hosts").out, HasSubstr("\nweb-01  t  published ")) << "web-01 is not silent any more";
}

TEST_F(FleetPublishTest, HostileNamesRoundTripByteForByteAndArePrintedEscaped) {
  ASSERT_EQ(0, Tool("fleet init").status);
  std::string hostile = "a\nb'c\"d\\e\tf\xff\xfe g";
  Write("etc/" + hostile, "hostile\n");
  SetFleet(R"({"url":")" + server_.url() + R"(","host":"h'o\\st\u0001"})");
  ASSERT_EQ(0, Tool("scan t").status);
  CClickHouseClient client = Client();
  std::string stored = client.Run("SELECT path, host FROM signdb.holders FORMAT TabSeparated");
  std::vector<std::string> fields = CClickHouseClient::TabFields(stored.substr(0, stored.size() - 1));
  ASSERT_EQ(2u, fields.size());
  EXPECT_EQ("etc/" + hostile, fields[0]);
  EXPECT_EQ("h'o\\st\x01", fields[1]);
  CToolRun text = Tool("fleet lookup " + Sha256("hostile\n"));
  EXPECT_THAT(text.out, HasSubstr("h'o\\\\st\\x01  t  \"etc/a\\nb'c\\\"d\\\\e\\tf\\xff\\xfe g\"  since revision"));
  Write("etc/" + hostile, "changed\n");
  ASSERT_EQ(1, Tool("check t").status);
  CToolRun changes = Tool("fleet changes");
  EXPECT_EQ(1u, changes.OutLines().size()) << changes.out;
  EXPECT_THAT(changes.out, HasSubstr("h'o\\\\st\\x01  check  "));
}

TEST_F(FleetPublishTest, ALookupTakesAnIndicatorListFromAFile) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("bin/implant", "implant\n");
  Write("bin/clean", "clean\n");
  ASSERT_EQ(0, Tool("scan t").status);
  std::string list = dir_.Write("iocs.txt", "# indicators of the week\n\n" + Sha256("implant\n") + "  implant.bin\n" +
                                                Sha256("not anywhere\n") + "\n" + Sha256("clean\n") + "\n");
  CToolRun found = Tool("fleet lookup --from iocs.txt");
  EXPECT_EQ(0, found.status) << found.err;
  EXPECT_EQ(2u, found.OutLines().size()) << found.out;
  EXPECT_THAT(found.err, HasSubstr("2 of 3 hashes are held by a host of the fleet now"));
  dir_.Write("bad.txt", Sha256("clean\n") + "\nnot-a-hash\n");
  CToolRun bad = Tool("fleet lookup --from bad.txt");
  EXPECT_EQ(2, bad.status);
  EXPECT_THAT(bad.err, HasSubstr("bad.txt:2: 'not-a-hash' is not a hash in hexadecimal"));
}

TEST_F(FleetPublishTest, AcceptingACandidatePublishesIt) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/a", "a\n");
  ASSERT_EQ(0, Tool("scan t").status);
  Write("etc/a", "candidate\n");
  CToolRun later = Tool("update t --sign-later");
  ASSERT_EQ(0, later.status) << later.err;
  EXPECT_TRUE(Holders(Sha256("candidate\n")).empty()) << "a candidate is not what the host holds yet";
  CToolRun sign = Tool("sign '" + (dir_ / "cfg/data/t.hdb.candidate") + "'");
  ASSERT_EQ(0, sign.status) << sign.err;
  CToolRun accept = Tool("accept t");
  EXPECT_EQ(0, accept.status) << accept.err;
  EXPECT_THAT(Holders(Sha256("candidate\n")), ::testing::ElementsAre("web-01|etc/a"));
}

}  // namespace

namespace {

// Two shards on loopback, the hosts spread over them by name: every question answers as one
// server holding the same rows does.
class FleetClusterTest : public FleetPublishTest {
 protected:
  void SetUp() override {
    if (!CClickHouseServer::Installed()) GTEST_SKIP() << "clickhouse-server is not installed (scripts/bootstrap.sh installs it)";
    std::string cluster = CClickHouseServer::ClusterConfig("fleet", {first_.tcp_port(), second_.tcp_port()});
    std::string error;
    ASSERT_TRUE(first_.Start(error, cluster)) << error;
    ASSERT_TRUE(second_.Start(error, cluster)) << error;
    ASSERT_TRUE(server_.Start(error)) << error;  // the one server the answers are compared with
    Init();
  }
  std::string ClusterFleet(const std::string& host, const std::string& groups) const {
    return R"({"url":")" + first_.url() + R"(","cluster":"fleet","shards":[")" + first_.url() + R"(",")" +
           second_.url() + R"("],"host":")" + host + R"(","groups":)" + groups + "}";
  }

  CClickHouseServer first_;
  CClickHouseServer second_;
};

TEST_F(FleetClusterTest, TwoShardsAnswerAsOneServerWithTheSameRows) {
  SetFleet(ClusterFleet("web-01", R"(["web"])"));
  CToolRun init = Tool("fleet init");
  ASSERT_EQ(0, init.status) << init.err;
  EXPECT_THAT(init.out, HasSubstr("over the 2 shards of cluster 'fleet'"));
  std::vector<std::string> configs = {config_};
  const char* names[] = {"web-02", "web-03", "web-04", "web-05"};
  for (int i = 0; i < 4; ++i) {
    std::string tree = dir_ / ("tree-" + std::to_string(i));
    dir_.Write("tree-" + std::to_string(i) + "/etc/common", "common\n");
    dir_.Write("tree-" + std::to_string(i) + "/etc/own", std::string(names[i]) + "\n");
    std::string config = OtherHost(std::to_string(i), names[i], tree);
    SetConfigMember(config, "fleet", ClusterFleet(names[i], R"(["web"])"));
    configs.push_back(config);
  }
  Write("etc/common", "common\n");
  Write("etc/own", "mine\n");
  for (const std::string& config : configs) ASSERT_EQ(0, ToolOf(config, "scan t").status);
  Write("etc/common", "changed here\n");
  ASSERT_EQ(1, Tool("check t").status);
  ASSERT_EQ(0, Tool("update t").status);

  // Each host whole on one shard, and both shards used.
  std::set<std::string> on_first;
  std::set<std::string> on_second;
  for (auto [server, hosts] : {std::pair{&first_, &on_first}, std::pair{&second_, &on_second}}) {
    std::string rows = CClickHouseClient(server->url(), "", "").Run("SELECT DISTINCT host FROM signdb.records_shard FORMAT TabSeparated");
    std::istringstream in(rows);
    for (std::string host; std::getline(in, host);) hosts->insert(host);
  }
  EXPECT_EQ(5u, on_first.size() + on_second.size());
  EXPECT_FALSE(on_first.empty());
  EXPECT_FALSE(on_second.empty());

  // The same rows in one server.
  std::string cluster_config = CTempDir::Read(config_);
  SetFleet(R"({"url":")" + server_.url() + R"(","host":"web-01"})");
  ASSERT_EQ(0, Tool("fleet init").status);
  CClickHouseClient cluster(first_.url(), "", "");
  CClickHouseClient single = Client();
  for (const char* table : {"records", "holders", "changes", "hosts"}) {
    single.Run(std::string("INSERT INTO signdb.") + table + " FORMAT TabSeparated",
               cluster.Run(std::string("SELECT * FROM signdb.") + table + " FORMAT TabSeparated"));
  }
  std::string single_config = CTempDir::Read(config_);
  auto ask = [&](const std::string& config_text, const std::string& question) {
    std::ofstream(config_, std::ios::trunc) << config_text;
    CToolRun run = Tool(question);
    return std::to_string(run.status) + "\n" + run.out + run.err;
  };
  for (const std::string& question :
       {"fleet lookup " + Sha256("common\n") + " " + Sha256("changed here\n") + " --json", std::string("fleet hosts --json"),
        std::string("fleet changes --json"), std::string("fleet changes --group web --path 'etc/*'"),
        std::string("fleet drift --group web --json"), std::string("fleet drift --hosts web-01,web-03")}) {
    std::string from_cluster = ask(cluster_config, question);
    EXPECT_EQ(ask(single_config, question), from_cluster) << question;
    EXPECT_THAT(from_cluster, ::testing::StartsWith(question.find("drift") != std::string::npos ? "1\n" : "0\n")) << question << from_cluster;
  }
  EXPECT_THAT(ask(cluster_config, "fleet lookup " + Sha256("common\n")), HasSubstr("web-05"));
}

}  // namespace

namespace {

// The watch service publishes each save's records and every change line it reports, and delivers
// what it spooled while the store was away once the store is back.
class FleetWatchTest : public WatchFixture {
 protected:
  void SetUp() override {
    if (!CClickHouseServer::Installed()) GTEST_SKIP() << "clickhouse-server is not installed (scripts/bootstrap.sh installs it)";
    std::string error;
    ASSERT_TRUE(server_.Start(error)) << error;
    Init();
    SetConfigMember(config_, "fleet", R"({"url":")" + server_.url() + R"(","host":"web-01"})");
    ASSERT_EQ(0, Tool("fleet init").status);
  }
  bool Holds(const std::string& content, const std::string& path) {
    return Eventually(
        [&] {
          CToolRun lookup = Tool("fleet lookup " + Sha256(content) + " --json");
          return lookup.OutLines().size() == 1 && ParseJson(lookup.out)->getValue<std::string>("path") == path;
        },
        std::chrono::seconds(20));
  }

  CClickHouseServer server_;
};

TEST_F(FleetWatchTest, TheServicePublishesItsSavesAndChangeLinesAndDeliversWhatWaitedWhileTheStoreWasAway) {
  Write("etc/a", "a\n");
  ASSERT_EQ(0, Tool("scan t").status);
  Start("--save-period 1");
  Write("etc/dropped", "payload\n");
  EXPECT_TRUE(Holds("payload\n", "etc/dropped")) << CTempDir::Read(dir_ / "watch.err");
  EXPECT_TRUE(Eventually(
      [&] {
        CToolRun changes = Tool("fleet changes --json --path etc/dropped");
        return changes.OutLines().size() == 1 && ParseJson(changes.out)->getValue<std::string>("dataset") == "watch";
      },
      std::chrono::seconds(10)));
  server_.Stop();
  Write("etc/while-away", "away\n");
  std::string spool = dir_ / "cfg/data/fleet-spool";
  EXPECT_TRUE(Eventually(
      [&] {
        for (const auto& entry : boost::filesystem::directory_iterator(spool)) {
          if (entry.path().extension() == ".batch" && boost::filesystem::exists(entry.path() / "holders.tsv")) return true;
        }
        return false;
      },
      std::chrono::seconds(10)))
      << "the save is spooled while the store is away";
  std::string error;
  ASSERT_TRUE(server_.Start(error)) << error;
  EXPECT_TRUE(Holds("away\n", "etc/while-away")) << CTempDir::Read(dir_ / "watch.err");
  EXPECT_THAT(CTempDir::Read(dir_ / "watch.err"), HasSubstr("the fleet store did not take the spool"));
  EXPECT_EQ(0, Stop());
  EXPECT_EQ(1u, Tool("fleet changes --path etc/while-away").OutLines().size());
}

}  // namespace

namespace {

// A store that speaks https: its certificate is checked against the configured authority, and one
// that does not lead to a trusted authority is refused, by name.
TEST_F(FleetTest, AStoreOverHttpsIsReachedWithItsAuthorityAndRefusedWithoutIt) {
  std::string keys = dir_ / "tls";
  boost::filesystem::create_directories(keys);
  std::string make =
      "cd '" + keys + "' && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=fleet-ca "
      "&& openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj /CN=localhost "
      "&& printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\\n' > san.ext "
      "&& openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 2 -extfile san.ext";
  ASSERT_EQ(0, RunShell(make).status) << RunShell(make).err;
  int https_port = CClickHouseServer::FreePort();
  std::string tls_config = "  <https_port>" + std::to_string(https_port) + "</https_port>\n" +
                           "  <openSSL><server><certificateFile>" + keys + "/server.pem</certificateFile><privateKeyFile>" +
                           keys + "/server.key</privateKeyFile><verificationMode>none</verificationMode>"
                           "<loadDefaultCAFile>false</loadDefaultCAFile></server></openSSL>\n";
  CClickHouseServer secure;
  std::string error;
  ASSERT_TRUE(secure.Start(error, tls_config)) << error;
  std::string url = "https://localhost:" + std::to_string(https_port);
  SetFleet(R"({"url":")" + url + R"(","ca":")" + keys + R"(/ca.pem","host":"web-01"})");
  CToolRun init = Tool("fleet init");
  EXPECT_EQ(0, init.status) << init.err;
  Write("etc/a", "over tls\n");
  ASSERT_EQ(0, Tool("scan t").status);
  CToolRun lookup = Tool("fleet lookup " + Sha256("over tls\n"));
  EXPECT_EQ(0, lookup.status) << lookup.err;
  EXPECT_THAT(lookup.out, HasSubstr("web-01  t  etc/a"));
  SetFleet(R"({"url":")" + url + R"(","host":"web-01"})");  // the system's authorities do not know it
  CToolRun untrusted = Tool("fleet hosts");
  EXPECT_EQ(2, untrusted.status);
  EXPECT_THAT(untrusted.err, HasSubstr("cannot reach the fleet store at " + url));
  EXPECT_THAT(untrusted.err, ::testing::AnyOf(HasSubstr("certificate"), HasSubstr("Certificate")));
}

}  // namespace

namespace {

// What a store answers is read strictly: a line of the wrong shape, a number that is none, an array
// cut short are refused by name, never half read.
TEST(FleetAnswerTest, EscapedTextsRoundTripAndArraysAreReadItemByItem) {
  for (const std::string& text : {std::string("a\tb\nc\\d\re"), std::string("nul\0byte", 8), std::string("\xff\xfe"), std::string()})
    EXPECT_EQ(text, CClickHouseClient::FromTabField(CClickHouseClient::TabField(text)));
  EXPECT_EQ((std::vector<std::string>{"'a\\'b'", "[1,2]", "'c,d'"}), CClickHouseClient::ArrayItems("['a\\'b',[1,2],'c,d']"));
  EXPECT_TRUE(CClickHouseClient::ArrayItems("[]").empty());
  EXPECT_EQ("a'b\\", CClickHouseClient::UnquotedText("'a\\'b\\\\'"));
  EXPECT_THROW(CClickHouseClient::ArrayItems("['a',"), std::runtime_error);
  EXPECT_THROW(CClickHouseClient::ArrayItems("['unterminated]"), std::runtime_error);
  EXPECT_THROW(CClickHouseClient::UnquotedText("'a\\'"), std::runtime_error);
  EXPECT_THROW(CClickHouseClient::UnquotedText("'a'b'"), std::runtime_error);
}

TEST(FleetAnswerTest, AnAnswerOfTheWrongShapeIsRefusedByName) {
  try {
    ReadFleetHosts("web-01\tt\t1\n", 0);
    FAIL() << "a line of three fields read as a host";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("the fleet store answered a line that is not a host (3 fields of 10)"));
  }
  try {
    ReadFleetHolders("h\tweb\tt\tp\tseven\t1\n");
    FAIL() << "a revision that is no number";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("answered 'seven' for a revision, which is not a number"));
  }
  EXPECT_THROW(ReadFleetHosts("w\tt\t1\t1\t1\tc\tl\tnot-an-array\tv\t60\n", 0), std::runtime_error);
  std::vector<CFleetHost> hosts = ReadFleetHosts("w\tt\t1000\t1\t1\tc\tl\t['g']\tv\t60\nx\tt\t1000\t1\t1\tc\tl\t[]\tv\t600\n", 1200);
  ASSERT_EQ(2u, hosts.size());
  EXPECT_TRUE(hosts[0].silent) << "200 s without a word from a host that publishes each minute";
  EXPECT_FALSE(hosts[1].silent);
}

TEST(FleetAnswerTest, DriftTakesWhatMostHostsHaveAndNamesTheRestWithTheHostsThatLackThePath) {
  std::vector<CDriftPath> paths = ReadFleetDrift(
      "etc/x\t['file','file']\t['aa','bb']\t[33188,33188]\t['0','0']\t['0','0']\t[['a','b'],['c']]\n", "t",
      {"a", "b", "c", "d"});
  ASSERT_EQ(1u, paths.size());
  EXPECT_EQ("aa", paths[0].most.hash);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), paths[0].most.hosts);
  ASSERT_EQ(2u, paths[0].others.size());
  EXPECT_EQ("bb", paths[0].others[0].hash);
  EXPECT_FALSE(paths[0].others[1].present);
  EXPECT_EQ((std::vector<std::string>{"d"}), paths[0].others[1].hosts);
  EXPECT_THROW(ReadFleetDrift("etc/x\t['file']\t[]\t[1]\t['0']\t['0']\t[['a']]\n", "t", {"a"}), std::runtime_error);
  EXPECT_THROW(ReadFleetDrift("etc/x\t[]\t[]\t[]\t[]\t[]\t[]\n", "t", {}), std::runtime_error);
}

TEST(FleetAnswerTest, PathGlobsBecomeLikePatternsWithTheirOwnWildcardsOnly) {
  EXPECT_EQ("etc/%.conf", GlobAsLikePattern("etc/*.conf"));
  EXPECT_EQ("a\\%b\\_c_", GlobAsLikePattern("a%b_c?"));
  EXPECT_EQ("x*y\\\\", GlobAsLikePattern("x\\*y\\\\"));
}

TEST(FleetAnswerTest, TimesArePeopleTimesOrSpansBack) {
  int64_t seconds = 0;
  ASSERT_TRUE(SecondsOfTimeText("2026-11-24", 0, seconds));
  EXPECT_EQ(1795478400, seconds);
  ASSERT_TRUE(SecondsOfTimeText("2026-11-24T10:00:00Z", 0, seconds));
  EXPECT_EQ(1795514400, seconds);
  ASSERT_TRUE(SecondsOfTimeText("24h", 100000, seconds));
  EXPECT_EQ(100000 - 86400, seconds);
  EXPECT_FALSE(SecondsOfTimeText("yesterday", 0, seconds));
  EXPECT_FALSE(SecondsOfTimeText("24x", 0, seconds));
  EXPECT_FALSE(SecondsOfTimeText("2026-11-24 junk", 0, seconds));
}

TEST(FleetAnswerTest, APublishedStateThatCannotBeReadCountsAsNoneSoTheNextPublicationIsWhole) {
  CTempDir dir;
  CPublishedState state;
  state.generation = 7;
  state.revision = 9;
  state.cstm_id = "signdb x";
  state.lcs_id = "1001";
  state.objects["etc/a\\nb"] = CPublishedObject{"file\tab\t1\t33188\t0\t0", 9, 100};
  std::string path = dir / "t.state";
  state.Write(path);
  CPublishedState read = CPublishedState::Read(path);
  EXPECT_EQ(7u, read.generation);
  ASSERT_EQ(1u, read.objects.size());
  EXPECT_EQ("file\tab\t1\t33188\t0\t0", read.objects["etc/a\\nb"].row);
  EXPECT_EQ(1u, CPublishedState::Read(path, true).object_count);
  std::string text = CTempDir::Read(path);
  std::ofstream(path, std::ios::trunc) << text.substr(0, text.size() - 4);  // cut short
  EXPECT_EQ(0u, CPublishedState::Read(path).generation);
  std::ofstream(path, std::ios::trunc) << text << "etc/b\tfile\tcd\t1\t33188\t0\t0\t9\t100\n";  // one more than counted
  EXPECT_EQ(0u, CPublishedState::Read(path).generation);
}

}  // namespace

namespace {

// A server that answers every request with the same status and body: a store gone wrong.
class CGarbageServer {
 public:
  CGarbageServer(int status, std::string body) : socket_(Poco::Net::SocketAddress("127.0.0.1", 0)) {
    auto* params = new Poco::Net::HTTPServerParams;
    params->setMaxThreads(2);
    server_ = std::make_unique<Poco::Net::HTTPServer>(new CFactory(status, std::move(body)), socket_, params);
    server_->start();
  }
  ~CGarbageServer() { server_->stopAll(true); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(socket_.address().port()); }

 private:
  class CHandler : public Poco::Net::HTTPRequestHandler {
   public:
    CHandler(int status, const std::string& body) : status_(status), body_(body) {}
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override {
      Poco::NullOutputStream discard;
      Poco::StreamCopier::copyStream(request.stream(), discard);
      response.setStatus(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(status_));
      response.sendBuffer(body_.data(), body_.size());
    }

   private:
    int status_;
    std::string body_;
  };
  class CFactory : public Poco::Net::HTTPRequestHandlerFactory {
   public:
    CFactory(int status, std::string body) : status_(status), body_(std::move(body)) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
      return new CHandler(status_, body_);
    }

   private:
    int status_;
    std::string body_;
  };

  Poco::Net::ServerSocket socket_;
  std::unique_ptr<Poco::Net::HTTPServer> server_;
};

TEST_F(ToolTest, AStoreThatAnswersGarbageIsSaidClearlyAndTheLocalDatabaseStands) {
  Init();
  Write("etc/a", "a\n");
  CGarbageServer garbage(200, std::string("\x01\x02 not a number\n\xff", 17));
  SetConfigMember(config_, "fleet", R"({"url":")" + garbage.url() + R"(","host":"web-01"})");
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(0, scan.status) << scan.err;
  EXPECT_THAT(scan.err, HasSubstr("kept in the fleet spool"));
  EXPECT_THAT(scan.err, HasSubstr("answered its schema version with"));
  EXPECT_EQ(0, Tool("check t").status) << "the saved database is whole";
  CToolRun hosts = Tool("fleet hosts");
  EXPECT_EQ(2, hosts.status);
  EXPECT_THAT(hosts.err, HasSubstr("the fleet store at " + garbage.url() + " answered its schema version with '"));
  EXPECT_THAT(hosts.err, ::testing::Not(HasSubstr("\x01")));
  CGarbageServer failing(500, "Code: 60, e.displayText() = DB::Exception: Table signdb.hosts doesn't exist\nmore\n");
  SetConfigMember(config_, "fleet", R"({"url":")" + failing.url() + R"(","host":"web-01"})");
  CToolRun refused = Tool("fleet lookup " + Sha256("a\n"));
  EXPECT_EQ(2, refused.status);
  EXPECT_THAT(refused.err, HasSubstr("refused a request (HTTP 500): Code: 60, e.displayText() = DB::Exception: Table signdb.hosts doesn't exist"));
}

}  // namespace
