#include "tool/fleet/fleet_schema.h"

#include <stdexcept>

#include "tool/fleet/clickhouse_client.h"

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

void CreateFleetSchema(const CClickHouseClient& client, const std::string& database) {
  uint32_t version = FleetSchemaVersion(client, database);
  if (version != 0 && version != kFleetSchemaVersion) RequireFleetSchema(client, database);
  // The database name is checked to be [A-Za-z0-9_]+ where it is read (fleet_settings).
  const std::string& d = database;
  client.Run("CREATE DATABASE IF NOT EXISTS " + d);
  client.Run(
      "CREATE TABLE IF NOT EXISTS " + d +
      ".records (host String, policy String, path String, revision UInt64, present UInt8, "
      "kind String, hash String, size UInt64, mode UInt32, uid String, gid String, "
      "published UInt32) ENGINE = ReplacingMergeTree ORDER BY (host, policy, path, revision)");
  client.Run(
      "CREATE TABLE IF NOT EXISTS " + d +
      ".holders (hash String, host String, policy String, path String, revision UInt64, "
      "present UInt8) ENGINE = ReplacingMergeTree ORDER BY (hash, host, policy, path, revision)");
  client.Run("CREATE TABLE IF NOT EXISTS " + d +
             ".changes (host String, batch String, line UInt32, time UInt32, policy String, "
             "path String, change String, severity String, event String) "
             "ENGINE = ReplacingMergeTree ORDER BY (host, batch, line)");
  client.Run(
      "CREATE TABLE IF NOT EXISTS " + d +
      ".hosts (host String, published UInt32, sequence UInt64, policy String, revision UInt64, "
      "objects UInt64, cstm_id String, lcs_id String, groups Array(String), "
      "version String, period UInt32) ENGINE = ReplacingMergeTree(sequence) "
      "ORDER BY (host, policy)");
  client.Run("CREATE TABLE IF NOT EXISTS " + d +
             ".schema (version UInt32, made DateTime) ENGINE = ReplacingMergeTree(made) "
             "ORDER BY version");
  if (version == 0) {
    client.Run("INSERT INTO " + d + ".schema SELECT " + std::to_string(kFleetSchemaVersion) +
               ", now()");
  }
}
