#include "tool/fleet/fleet_schema.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_settings.h"

uint32_t FleetSchemaVersion(const CClickHouseClient& client, const std::string& database) {
  std::string exists = client.Run("SELECT count() FROM system.tables WHERE database = '" +
                                  database + "' AND name = 'schema'");
  if (exists.empty() || exists[0] == '0') return 0;
  std::string version = client.Run("SELECT max(version) FROM " + database + ".schema");
  try {
    return static_cast<uint32_t>(std::stoul(version));
  } catch (const std::exception&) {
    throw std::runtime_error("the fleet store at " + client.url() +
                             " answered its schema version with '" + version.substr(0, 80) + "'");
  }
}

void RequireFleetSchema(const CClickHouseClient& client, const std::string& database) {
  uint32_t version = FleetSchemaVersion(client, database);
  if (version == kFleetSchemaVersion) return;
  if (version == 0) {
    throw std::runtime_error("the fleet store at " + client.url() + " has no signdb tables in '" +
                             database + "'; run 'signdb fleet init' first");
  }
  throw std::runtime_error("the fleet store at " + client.url() + " holds schema version " +
                           std::to_string(version) + "; this signdb speaks version " +
                           std::to_string(kFleetSchemaVersion));
}

namespace {

struct CTable {
  const char* name;
  const char* columns;
  const char* engine;  // of the table that keeps the rows
};

const CTable kTables[] = {
    {"records",
     "host String, policy String, path String, sequence UInt64, generation UInt64, "
     "present UInt8, kind String, hash String, size UInt64, mode UInt32, uid String, "
     "gid String, revision UInt64, published UInt32",
     "ReplacingMergeTree(sequence) ORDER BY (host, policy, path)"},
    {"holders",
     "hash String, host String, policy String, path String, sequence UInt64, "
     "generation UInt64, present UInt8, since_revision UInt64, since UInt32",
     "ReplacingMergeTree(sequence) ORDER BY (hash, host, policy, path)"},
    {"changes",
     "time UInt32, host String, batch String, line UInt32, dataset String, policy String, "
     "path String, change String, severity String, event String, text String",
     "ReplacingMergeTree ORDER BY (time, host, batch, line)"},
    {"hosts",
     "host String, policy String, published UInt32, sequence UInt64, generation UInt64, "
     "revision UInt64, objects UInt64, cstm_id String, lcs_id String, groups Array(String), "
     "version String, period UInt32",
     "ReplacingMergeTree(sequence) ORDER BY (host, policy)"},
};

void CreateOn(const CClickHouseClient& client, const CFleetSettings& settings) {
  // The database and cluster names are checked to be [A-Za-z0-9_]+ where they are read.
  const std::string& d = settings.database;
  uint32_t version = FleetSchemaVersion(client, d);
  if (version != 0 && version != kFleetSchemaVersion) RequireFleetSchema(client, d);
  client.Run("CREATE DATABASE IF NOT EXISTS " + d);
  for (const CTable& table : kTables) {
    std::string name = table.name;
    if (settings.cluster.empty()) {
      client.Run("CREATE TABLE IF NOT EXISTS " + d + "." + name + " (" + table.columns +
                 ") ENGINE = " + table.engine);
      continue;
    }
    client.Run("CREATE TABLE IF NOT EXISTS " + d + "." + name + "_shard (" + table.columns +
               ") ENGINE = " + table.engine);
    client.Run("CREATE TABLE IF NOT EXISTS " + d + "." + name + " (" + table.columns +
               ") ENGINE = Distributed(" + settings.cluster + ", " + d + ", " + name +
               "_shard, cityHash64(host))");
  }
  client.Run("CREATE TABLE IF NOT EXISTS " + d +
             ".schema (version UInt32, made DateTime) ENGINE = ReplacingMergeTree(made) "
             "ORDER BY version");
  if (version == 0) {
    client.Run("INSERT INTO " + d + ".schema SELECT " + std::to_string(kFleetSchemaVersion) +
               ", now()");
  }
}

}  // namespace

void CreateFleetSchema(const CFleetSettings& settings) {
  std::vector<std::string> servers = settings.shards;
  if (std::find(servers.begin(), servers.end(), settings.url) == servers.end())
    servers.push_back(settings.url);
  for (const std::string& url : servers)
    CreateOn(CClickHouseClient(url, settings.user, settings.password, settings.ca_file), settings);
}

CClickHouseClient ConnectToFleet(const CFleetSettings& settings) {
  CClickHouseClient client(settings.url, settings.user, settings.password, settings.ca_file);
  if (!settings.cluster.empty()) client.Set("insert_distributed_sync", "1");
  RequireFleetSchema(client, settings.database);
  return client;
}
