#pragma once

#include <Poco/JSON/Object.h>

#include <string>

// Where the tool looks for its configuration when --config is not given: $SIGNDB_CONFIG, else
// $XDG_CONFIG_HOME/signdb/signdb.json, else ~/.config/signdb/signdb.json; for root, when none of
// those exists, /etc/signdb/signdb.json if that does.
std::string DefaultConfigPath();
// Where the configuration of a whole installed system lives (signdb init --system writes it there
// unless told otherwise): $SIGNDB_CONFIG, else /etc/signdb/signdb.json, the file the systemd units
// and the cron job read.
std::string SystemConfigPath();
// The configuration a run reads: "given" (--config), else DefaultConfigPath().
std::string ConfigPathOf(const std::string& given);

// The configuration's top-level "key" section when the configuration is JSON and has one; null
// otherwise. Throws CToolError naming the file for JSON that does not parse.
Poco::JSON::Object::Ptr ConfigSection(const std::string& config_path, const std::string& key);
