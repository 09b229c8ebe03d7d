#include "tool/fleet/fleet_settings.h"

#include <Poco/Environment.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>

#include "refhost/file_io.h"
#include "tool/common/exit_status.h"
#include "tool/session/config_location.h"

namespace {

// A name that may stand in a statement as it is: letters, digits and '_'.
bool IsPlainName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

}  // namespace

CFleetSettings ReadFleetSettings(const std::string& config_path) {
  CFleetSettings settings;
  Poco::JSON::Object::Ptr fleet = ConfigSection(config_path, "fleet");
  if (!fleet) return settings;
  const std::string where = config_path + ": \"fleet\": ";
  auto text = [&](const char* key, std::string& into, bool required) {
    if (!fleet->has(key)) {
      if (required) throw CToolError(where + "\"" + key + "\" is missing");
      return;
    }
    Poco::Dynamic::Var value = fleet->get(key);
    if (!value.isString() || value.extract<std::string>().empty())
      throw CToolError(where + "\"" + key + "\" is a text that is not empty");
    into = value.extract<std::string>();
  };
  settings.configured = true;
  text("url", settings.url, true);
  text("database", settings.database, false);
  if (!IsPlainName(settings.database)) {
    throw CToolError(where + "\"database\" is letters, digits and '_' only: '" + settings.database +
                     "'");
  }
  settings.host = Poco::Environment::nodeName();  // as reports name the host
  text("host", settings.host, false);
  auto texts = [&](const char* key, std::vector<std::string>& into, const char* what) {
    if (!fleet->has(key)) return;
    Poco::JSON::Array::Ptr list = fleet->getArray(key);
    if (!list) throw CToolError(where + "\"" + key + "\" is " + what);
    for (size_t i = 0; i < list->size(); ++i) {
      Poco::Dynamic::Var item = list->get(static_cast<unsigned>(i));
      if (!item.isString()) throw CToolError(where + "\"" + key + "\" is " + what);
      into.push_back(item.extract<std::string>());
    }
  };
  texts("groups", settings.groups, "a list of texts");
  if (fleet->has("period")) {
    Poco::Dynamic::Var period = fleet->get("period");
    if (!period.isInteger() || period.convert<int64_t>() < 60 ||
        period.convert<int64_t>() > 366 * 86400) {
      throw CToolError(where + "\"period\" is a number of seconds from 60 to a year");
    }
    settings.period = static_cast<uint32_t>(period.convert<int64_t>());
  }
  text("ca", settings.ca_file, false);
  text("cluster", settings.cluster, false);
  if (!settings.cluster.empty() && !IsPlainName(settings.cluster))
    throw CToolError(where + "\"cluster\" is letters, digits and '_' only: '" + settings.cluster +
                     "'");
  texts("shards", settings.shards, "a list of urls");
  if (settings.cluster.empty() != settings.shards.empty())
    throw CToolError(
        where + "\"cluster\" and \"shards\" go together: the cluster's name and every shard's url");
  std::string credentials;
  text("credentials", credentials, false);
  if (!credentials.empty()) {
    struct stat status {};
    if (::stat(credentials.c_str(), &status) != 0)
      throw CToolError(where + "cannot read the credentials file " + credentials);
    if ((status.st_mode & 077) != 0) {
      throw CToolError(where + "the credentials file " + credentials +
                       " may be read by others; make it the owner's alone (chmod 600)");
    }
    std::ifstream in(credentials);
    std::string line;
    std::getline(in, line);
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
      throw CToolError(where + "the credentials file " + credentials + " holds no USER:PASSWORD");
    settings.user = line.substr(0, colon);
    settings.password = line.substr(colon + 1);
  }
  return settings;
}
