#include "tool/session/watch_settings.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <array>
#include <utility>

#include "refhost/file_io.h"
#include "tool/common/exit_status.h"
#include "tool/session/config_location.h"

namespace {

constexpr std::array<std::pair<CChangeLines, const char*>, 3> kNames = {{
    {CChangeLines::kBoth, "both"},
    {CChangeLines::kJournal, "journal"},
    {CChangeLines::kSystemLog, "system-log"},
}};

}  // namespace

const char* ChangeLinesName(CChangeLines lines) {
  for (const auto& [known, name] : kNames) {
    if (known == lines) return name;
  }
  return "both";
}

CWatchSettings ReadWatchSettings(const std::string& config_path) {
  CWatchSettings settings;
  Poco::JSON::Object::Ptr watch = ConfigSection(config_path, "watch");
  if (!watch) return settings;
  const std::string what = config_path + ": \"watch\": {\"change_lines\": ...} takes \"both\" " +
                           "(standard output and the system log), \"journal\" (standard output, " +
                           "which the journal takes under systemd) or \"system-log\"";
  if (!watch->has("change_lines")) return settings;
  Poco::Dynamic::Var value = watch->get("change_lines");
  if (!value.isString()) throw CToolError(what);
  for (const auto& [known, name] : kNames) {
    if (value.extract<std::string>() == name) {
      settings.change_lines = known;
      return settings;
    }
  }
  throw CToolError(what + ", not \"" + value.extract<std::string>() + "\"");
}
