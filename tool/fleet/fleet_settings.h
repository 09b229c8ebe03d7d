#pragma once

#include <string>
#include <vector>

// The configuration's "fleet" section: where this host publishes its records and changes, and
// how it names itself there.
//
//   "fleet": {"url": "http://127.0.0.1:8123", "database": "signdb",
//             "host": "web-01", "groups": ["web", "debian12"],
//             "credentials": "/etc/signdb/fleet.credentials"}
//
// "credentials" names a file that holds "USER:PASSWORD" on its first line and that only its owner
// may read; without it the server's default user is used.
struct CFleetSettings {
  bool configured = false;  // a "fleet" section is there
  std::string url;
  std::string database = "signdb";
  std::string host;  // this host's name in the fleet (its host name by default)
  std::vector<std::string> groups;
  std::string user;
  std::string password;
};

// Reads the "fleet" section of a JSON configuration (none for any other form). Throws CToolError
// for a section that is not well formed, a database name that is not [A-Za-z0-9_]+, or a
// credentials file that others may read.
CFleetSettings ReadFleetSettings(const std::string& config_path);
