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
