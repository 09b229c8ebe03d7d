#pragma once

#include <string>

// Where the tool looks for its configuration when --config is not given: $SIGNDB_CONFIG, else
// $XDG_CONFIG_HOME/signdb/signdb.json, else ~/.config/signdb/signdb.json; for root, when none of
// those exists, /etc/signdb/signdb.json if that does.
std::string DefaultConfigPath();
