#pragma once

#include <cstdint>
#include <string>

class CClickHouseClient;

// The tables of the fleet store, in the database the configuration names:
//
//   records   every host's records as of each publication, by (host, policy, path, revision):
//             a host holds now what its latest publication holds
//   holders   the same rows by content hash first: a look-up by hash reads only its part
//   changes   every change line that a host reported, by (host, batch, line): a batch delivered
//             twice is one batch
//   hosts     each host's publications: when, in which order (a sequence that only grows, per
//             host and policy: revisions are not ordered), revision, objects, groups, version
//   schema    the version of these tables
//
// ReplacingMergeTree tables: a row sent again replaces itself (its whole key is the same), so that
// a batch delivered twice is counted once (questions read FINAL).
inline constexpr uint32_t kFleetSchemaVersion = 1;

// Makes the database and the tables where they are missing and records the schema's version;
// safe to run again. Refuses (std::runtime_error) a store whose schema is of another version.
void CreateFleetSchema(const CClickHouseClient& client, const std::string& database);

// The schema's version in the store (0: none); every connection checks it before it publishes
// or asks.
uint32_t FleetSchemaVersion(const CClickHouseClient& client, const std::string& database);

// Throws std::runtime_error, saying what to do, unless the store holds this version's schema.
void RequireFleetSchema(const CClickHouseClient& client, const std::string& database);
