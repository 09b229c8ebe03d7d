#include "tool/session/config_location.h"

#include <Poco/JSON/Parser.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <vector>

#include "refhost/file_io.h"
#include "tool/common/exit_status.h"

namespace {

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

constexpr const char* kSystemConfigFile = "/etc/signdb/signdb.json";

}  // namespace

std::string SystemConfigPath() {
  std::string chosen = Environment("SIGNDB_CONFIG");
  return chosen.empty() ? std::string(kSystemConfigFile) : chosen;
}

std::string DefaultConfigPath() {
  std::string chosen = Environment("SIGNDB_CONFIG");
  if (!chosen.empty()) return chosen;
  std::string folder = Environment("XDG_CONFIG_HOME");
  if (folder.empty()) {
    std::string home = Environment("HOME");
    folder = (home.empty() ? std::string(".") : home) + "/.config";
  }
  std::string user_file = folder + "/signdb/signdb.json";
  const std::string system_file = kSystemConfigFile;
  boost::system::error_code error;
  if (::geteuid() == 0 && !boost::filesystem::exists(user_file, error) &&
      boost::filesystem::exists(system_file, error)) {
    return system_file;
  }
  return user_file;
}

std::string ConfigPathOf(const std::string& given) {
  return given.empty() ? DefaultConfigPath() : given;
}

Poco::JSON::Object::Ptr ConfigSection(const std::string& config_path, const std::string& key) {
  if (config_path.size() < 5 || config_path.compare(config_path.size() - 5, 5, ".json") != 0)
    return nullptr;
  std::vector<uint8_t> bytes = ReadWholeFile(config_path, 16 << 20);
  Poco::JSON::Object::Ptr config;
  try {
    config = Poco::JSON::Parser()
                 .parse(std::string(bytes.begin(), bytes.end()))
                 .extract<Poco::JSON::Object::Ptr>();
  } catch (const Poco::Exception& e) {
    throw CToolError(config_path + ": " + e.displayText());
  }
  if (!config || !config->has(key)) return nullptr;
  Poco::JSON::Object::Ptr section = config->getObject(key);
  if (!section) throw CToolError(config_path + ": \"" + key + "\" is an object");
  return section;
}
