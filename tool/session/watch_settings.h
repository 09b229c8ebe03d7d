#pragma once

#include <string>

// Where the watch service's change lines go, besides its change log in the data folder
// (configuration: "watch": {"change_lines": "both" | "journal" | "system-log"}).
enum class CChangeLines {
  kBoth,       // standard output and the system log (the default)
  kJournal,    // standard output only: the journal takes it under systemd
  kSystemLog,  // the system log only; standard output when nothing listens at /dev/log
};

// "both", "journal", "system-log".
const char* ChangeLinesName(CChangeLines lines);

struct CWatchSettings {
  CChangeLines change_lines = CChangeLines::kBoth;
};

// The "watch" section of a JSON configuration (defaults for any other form). Throws CToolError
// for a value it does not know, naming the file and what it takes.
CWatchSettings ReadWatchSettings(const std::string& config_path);
