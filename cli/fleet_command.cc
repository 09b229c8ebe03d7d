// signdb fleet COMMAND: the fleet store where every host publishes its records and changes.
//   init    makes the store's tables (safe to run again)
//   hosts   every host that published, when, with what

#include <algorithm>
#include <cctype>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "tool/common/exit_status.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_schema.h"
#include "tool/fleet/fleet_settings.h"
#include "tool/session/config_location.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_format.h"

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
      "SELECT host, policy, toString(max(published)), argMax(revision, sequence), "
      "argMax(objects, sequence) FROM " +
      settings.database + ".hosts GROUP BY host, policy ORDER BY host, policy FORMAT TabSeparated");
  std::istringstream in(rows);
  size_t count = 0;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields = CClickHouseClient::TabFields(line);
    if (fields.size() != 5) throw CToolError("the fleet store answered a line that is no host");
    const std::string& host = fields[0];
    const std::string& policy = fields[1];
    std::string published = IsoSecondsText(static_cast<int64_t>(std::stoll(fields[2])));
    const std::string& revision = fields[3];
    const std::string& objects = fields[4];
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

// Every host, policy and path that holds each hash now: in the latest publication of its host.
int Lookup(const CFleetSettings& settings, const std::vector<std::string>& hashes, bool json) {
  CClickHouseClient client(settings.url, settings.user, settings.password);
  RequireFleetSchema(client, settings.database);
  std::string wanted;
  for (const std::string& hash : hashes) wanted += CClickHouseClient::TabField(hash) + "\n";
  const std::string& d = settings.database;
  std::string rows = client.Run(
      "SELECT hash, host, policy, path, revision FROM " + d + ".holders FINAL WHERE hash IN " +
          "wanted AND (host, policy, revision) IN (SELECT host, policy, argMax(revision, " +
          "sequence) FROM " + d + ".hosts GROUP BY host, policy) AND present = 1 " +
          "ORDER BY hash, host, policy, path FORMAT TabSeparated",
      std::string(), {CClickHouseClient::CTable{"wanted", "hash String", wanted}});
  std::istringstream in(rows);
  size_t found = 0;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields = CClickHouseClient::TabFields(line);
    if (fields.size() != 5) throw CToolError("the fleet store answered a line that is no holder");
    ++found;
    if (json) {
      std::cout << CJsonLine()
                       .Open()
                       .String("hash", fields[0])
                       .String("host", fields[1])
                       .String("policy", fields[2])
                       .String("path", fields[3])
                       .String("revision", fields[4])
                       .Close()
                       .Take()
                << "\n";
    } else {
      std::cout << fields[0] << "  " << EscapedText(fields[1]) << "  " << EscapedText(fields[2])
                << "  " << SafePath(fields[3]) << "\n";
    }
  }
  if (found == 0 && !json) std::cerr << "signdb: no host of the fleet holds it now\n";
  return found > 0 ? kExitOk : kExitDifferences;
}

}  // namespace

int RunFleet(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, SIZE_MAX);
  const std::string& command = line.arguments[0];
  CFleetSettings settings = SettingsOf(line);
  try {
    if (command == "init") return Init(settings);
    if (command == "hosts") return Hosts(settings, line.Has("--json"));
    if (command == "lookup") {
      if (line.arguments.size() < 2) throw CToolError("fleet lookup takes one hash or more");
      std::vector<std::string> hashes(line.arguments.begin() + 1, line.arguments.end());
      for (std::string& hash : hashes) {
        std::transform(hash.begin(), hash.end(), hash.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      }
      return Lookup(settings, hashes, line.Has("--json"));
    }
  } catch (const CToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
  throw CToolError("unknown fleet command '" + command + "': init, hosts or lookup");
}
