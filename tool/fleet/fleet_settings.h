#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The configuration's "fleet" section: where this host publishes its records and changes, and
// how it names itself there.
//
//   "fleet": {"url": "http://127.0.0.1:8123", "database": "signdb",
//             "host": "web-01", "groups": ["web", "debian12"],
//             "credentials": "/etc/signdb/fleet.credentials", "period": 86400,
//             "cluster": "signdb", "shards": ["http://ch-1:8123", "http://ch-2:8123"]}
//
// "credentials" names a file that holds "USER:PASSWORD" on its first line and that only its owner
// may read; without it the server's default user is used. "period" says how often this host
// publishes at least, in seconds (a day by default, as the check timer runs; the watch service
// publishes this often even when nothing changed): a host silent for twice its period is named by
// 'fleet hosts'. Over https, "ca" names the PEM file of the authority that signs the store's
// certificate (the system's authorities without it). "cluster" names the store's cluster of shards
// ("shards": every shard's url, where 'fleet init' makes the tables); the url is where the host
// publishes and asks.
struct CFleetSettings {
  bool configured = false;  // a "fleet" section is there
  std::string url;
  std::string database = "signdb";
  std::string host;  // this host's name in the fleet (its host name by default)
  std::vector<std::string> groups;
  std::string user;
  std::string password;
  std::string ca_file;  // over https: the authority that signs the store's certificate
  uint32_t period = 86400;
  std::string cluster;              // empty: one server
  std::vector<std::string> shards;  // with a cluster: every shard's url
};

// Reads the "fleet" section of a JSON configuration (none for any other form). Throws CToolError
// for a section that is not well formed, a database name that is not [A-Za-z0-9_]+, or a
// credentials file that others may read.
CFleetSettings ReadFleetSettings(const std::string& config_path);
