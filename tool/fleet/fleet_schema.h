#pragma once

#include <cstdint>
#include <string>

#include "tool/fleet/clickhouse_client.h"

struct CFleetSettings;

// The tables of the fleet store, in the database the configuration names:
//
//   records   every host's objects by (host, policy, path): each publication sends the rows that
//             changed (a tombstone, present = 0, for what is gone), versioned by its sequence
//   holders   the same by content hash first: a look-up by hash reads only its part
//   changes   every change line that a host reported, by (time, host, batch, line)
//   hosts     each host's publications: when, in which order (a sequence that only grows, per
//             host and policy: revisions are not ordered), generation, revision, objects, signer,
//             groups, version, period
//   schema    the version of these tables
//
// What a host holds now is, for each of its policies, the latest row of each path whose
// generation is its latest publication's. ReplacingMergeTree tables: a row sent again replaces
// itself (its key and version are the same), so that a batch delivered twice is counted once.
//
// On a cluster ("cluster" and "shards" in the configuration) each shard keeps its part in
// TABLE_shard, and TABLE is a Distributed table over the cluster, sharded by host: every row of a
// host is on one shard, so that each shard answers for its hosts whole.
inline constexpr uint32_t kFleetSchemaVersion = 1;

// Makes the database and the tables where they are missing (on every shard of a cluster) and
// records the schema's version; safe to run again. Refuses (std::runtime_error) a store whose
// schema is of another version.
void CreateFleetSchema(const CFleetSettings& settings);

// The schema's version in the store (0: none); every connection checks it before it publishes
// or asks.
uint32_t FleetSchemaVersion(const CClickHouseClient& client, const std::string& database);

// Throws std::runtime_error, saying what to do, unless the store holds this version's schema.
void RequireFleetSchema(const CClickHouseClient& client, const std::string& database);

// A client of the store that "settings" name, whose schema is checked (RequireFleetSchema); on a
// cluster, an insert returns once every shard took its rows.
CClickHouseClient ConnectToFleet(const CFleetSettings& settings);
