// The fleet store on a real ClickHouse server: its tables made once and checked on every
// connection, its configuration read strictly, its failures said clearly.

#include <sys/stat.h>

#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>

#include "tests/clickhouse_fixture.h"
#include "tests/tool_fixture.h"
#include "tests/tool_json.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_schema.h"

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
  // ("host_json": the name as a JSON text writes it).
  std::string OtherHost(const std::string& folder_name, const std::string& host_json, const std::string& tree) {
    std::string folder = dir_ / ("host-" + folder_name);
    EXPECT_EQ(0, Run("init --dir '" + folder + "' --policy t='" + tree + "'").status);
    std::string config = folder + "/signdb.json";
    SetConfigMember(config, "fleet", R"({"url":")" + server_.url() + R"(","host":")" + host_json + R"("})");
    return config;
  }
  CToolRun ToolOf(const std::string& config, const std::string& args) {
    return Run("--config '" + config + "' " + args);
  }
};

TEST_F(FleetPublishTest, EveryHostsRecordsArePublishedAndALookupFindsEveryHolderNowAndForgetsTheGone) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/shared.conf", "the same everywhere\n");
  Write("etc/only-a", "only on web-01\n");
  std::string tree_b = dir_.Write("tree-b/etc/shared.conf", "the same everywhere\n");
  std::string tree_c = dir_.Write("tree-c/etc/shared.conf", "the same everywhere\n");
  std::string b = OtherHost("b", "web-02", dir_ / "tree-b");
  std::string c = OtherHost("c", R"(db\"01\nx)", dir_ / "tree-c");  // a hostile host name
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(0, scan.status) << scan.err;
  EXPECT_THAT(scan.err, HasSubstr("published to the fleet store at " + server_.url() + " as host web-01"));
  ASSERT_EQ(0, ToolOf(b, "scan t").status);
  ASSERT_EQ(0, ToolOf(c, "scan t").status);

  CToolRun shared = Tool("fleet lookup " + Sha256("the same everywhere\n") + " --json");
  EXPECT_EQ(0, shared.status) << shared.err;
  std::vector<std::string> holders;
  for (const std::string& line : shared.OutLines()) {
    Poco::JSON::Object::Ptr holder = ParseJson(line);
    holders.push_back(holder->getValue<std::string>("host") + "|" + holder->getValue<std::string>("path"));
  }
  EXPECT_THAT(holders, ::testing::UnorderedElementsAre("web-01|etc/shared.conf", "web-02|etc/shared.conf",
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

TEST_F(FleetPublishTest, AStoreThatIsDownKeepsTheBatchInTheSpoolAndTheNextRunDeliversItOnce) {
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/a", "a\n");
  server_.Stop();
  CToolRun scan = Tool("scan t");
  EXPECT_EQ(0, scan.status) << "the saved database stands whatever the store does: " << scan.err;
  EXPECT_THAT(scan.err, HasSubstr("kept in the fleet spool"));
  std::string error;
  // Started again on its data folder is not possible here: a new server, initialised afresh.
  CClickHouseServer again;
  ASSERT_TRUE(again.Start(error)) << error;
  SetFleet(R"({"url":")" + again.url() + R"(","host":"web-01"})");
  ASSERT_EQ(0, Tool("fleet init").status);
  Write("etc/b", "b\n");
  ASSERT_EQ(0, Tool("update t").status);  // delivers the spooled scan, then its own batch
  CClickHouseClient client(again.url(), "", "");
  EXPECT_EQ("2\n", client.Run("SELECT count() FROM (SELECT DISTINCT revision FROM signdb.holders)"))
      << "both the spooled and the new publication arrived";
  // Sent twice (a stop between the store's answer and the spool's forgetting), counted once.
  std::string once = client.Run("SELECT count() FROM signdb.holders FINAL WHERE path = 'etc/a'");
  std::string body = client.Run("SELECT * FROM signdb.holders WHERE path = 'etc/a' FORMAT TabSeparated");
  client.Run("INSERT INTO signdb.holders FORMAT TabSeparated", body);
  EXPECT_EQ(once, client.Run("SELECT count() FROM signdb.holders FINAL WHERE path = 'etc/a'"));
  CToolRun lookup = Tool("fleet lookup " + Sha256("a\n") + " --json");
  EXPECT_EQ(1u, lookup.OutLines().size()) << lookup.out;
}

}  // namespace
