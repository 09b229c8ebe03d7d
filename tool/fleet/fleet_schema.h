#pragma once

#include <cstdint>
#include <string>

class CClickHouseClient;

// The tables of the fleet store, in the database the configuration names:
//
//   records   every host's records as of each publication, by (host, policy, path): the latest
//             revision of a path is what the host holds now ("present" 0: the path was removed)
//   holders   the same rows by content hash first: a look-up by hash reads only its part
//   changes   every change line that a host reported, by (host, batch, line): a batch delivered
//             twice is one batch
//   hosts     each host's last publication: when, revision, objects, signer, groups, version
//   schema    the version of these tables
//
// ReplacingMergeTree tables: a row sent again replaces itself, so that a batch delivered twice is
// counted once (queries read the latest version of each key).
inline constexpr uint32_t kFleetSchemaVersion = 1;

// Makes the database and the tables where they are missing and records the schema's version;
// safe to run again. Refuses (std::runtime_error) a store whose schema is of another version.
void CreateFleetSchema(const CClickHouseClient& client, const std::string& database);

// The schema's version in the store (0: none); every connection checks it before it publishes
// or asks.
uint32_t FleetSchemaVersion(const CClickHouseClient& client, const std::string& database);

// Throws std::runtime_error, saying what to do, unless the store holds this version's schema.
void RequireFleetSchema(const CClickHouseClient& client, const std::string& database);
