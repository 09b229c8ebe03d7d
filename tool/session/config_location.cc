#include "tool/session/config_location.h"

#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cstdlib>

namespace {

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

}  // namespace

std::string DefaultConfigPath() {
  std::string chosen = Environment("SIGNDB_CONFIG");
  if (!chosen.empty()) return chosen;
  std::string folder = Environment("XDG_CONFIG_HOME");
  if (folder.empty()) {
    std::string home = Environment("HOME");
    folder = (home.empty() ? std::string(".") : home) + "/.config";
  }
  std::string user_file = folder + "/signdb/signdb.json";
  const std::string system_file = "/etc/signdb/signdb.json";
  boost::system::error_code error;
  if (::geteuid() == 0 && !boost::filesystem::exists(user_file, error) &&
      boost::filesystem::exists(system_file, error)) {
    return system_file;
  }
  return user_file;
}
