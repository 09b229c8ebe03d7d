// signdb fleet COMMAND: the fleet store where every host publishes its records and changes.
//   init    makes the store's tables (safe to run again)
//   hosts   every host that published, when, with what

#include <iostream>
#include <sstream>
#include <string>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "tool/common/exit_status.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_schema.h"
#include "tool/fleet/fleet_settings.h"
#include "tool/session/config_location.h"
#include "util/json_line.h"
#include "util/safe_text.h"

namespace {

CFleetSettings SettingsOf(const CCommandLine& line) {
  std::string config =
      line.Value("--config").empty() ? DefaultConfigPath() : line.Value("--config");
  CFleetSettings settings = ReadFleetSettings(config);
  if (!settings.configured) {
    throw CToolError("the configuration " + config +
                     " has no \"fleet\" section: add {\"fleet\": {\"url\": "
                     "\"http://HOST:8123\"}} to publish to a fleet store");
  }
  return settings;
}

int Init(const CFleetSettings& settings) {
  CClickHouseClient client(settings.url, settings.user, settings.password);
  CreateFleetSchema(client, settings.database);
  std::cout << "the fleet store at " << settings.url << " holds the tables of schema version "
            << kFleetSchemaVersion << " in '" << settings.database << "'\n";
  return kExitOk;
}

int Hosts(const CFleetSettings& settings, bool json) {
  CClickHouseClient client(settings.url, settings.user, settings.password);
  RequireFleetSchema(client, settings.database);
  // The latest publication of each host and policy.
  std::string rows = client.Run(
      "SELECT host, policy, toString(max(published)), argMax(revision, published), "
      "argMax(objects, published) FROM " +
      settings.database + ".hosts GROUP BY host, policy ORDER BY host, policy FORMAT TabSeparated");
  std::istringstream in(rows);
  size_t count = 0;
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string host, policy, published, revision, objects;
    std::getline(fields, host, '\t');
    std::getline(fields, policy, '\t');
    std::getline(fields, published, '\t');
    std::getline(fields, revision, '\t');
    std::getline(fields, objects, '\t');
    ++count;
    if (json) {
      std::cout << CJsonLine()
                       .Open()
                       .String("host", host)
                       .String("policy", policy)
                       .String("published", published)
                       .String("revision", revision)
                       .String("objects", objects)
                       .Close()
                       .Take()
                << "\n";
    } else {
      std::cout << EscapedText(host) << "  " << EscapedText(policy) << "  published " << published
                << "  revision " << revision << "  " << objects << " objects\n";
    }
  }
  if (count == 0 && !json) std::cout << "no host has published to the fleet store yet\n";
  return kExitOk;
}

}  // namespace

int RunFleet(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 1);
  const std::string& command = line.arguments[0];
  CFleetSettings settings = SettingsOf(line);
  try {
    if (command == "init") return Init(settings);
    if (command == "hosts") return Hosts(settings, line.Has("--json"));
  } catch (const CToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
  throw CToolError("unknown fleet command '" + command + "': init or hosts");
}
