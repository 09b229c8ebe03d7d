#include "refhost/settings.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Path.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/JSONConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <cctype>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "util/json_position.h"

namespace {

using Poco::Util::AbstractConfiguration;

constexpr unsigned kMaxThreads = 1024;

// A file name from the configuration, made absolute against the configuration's folder.
std::string ResolveFile(const std::string& value, const Poco::Path& base) {
  if (value.empty()) return value;
  Poco::Path path(value);
  if (path.isAbsolute()) return value;
  return Poco::Path(base, path).toString();
}

CRefPolicySettings ReadPolicy(const AbstractConfiguration& config, const std::string& prefix,
                              const std::string& name, const Poco::Path& base) {
  CRefPolicySettings policy;
  policy.name = config.getString(prefix + ".name", name);
  policy.root = ResolveFile(config.getString(prefix + ".root"), base);
  policy.touch_period_s = config.getUInt64(prefix + ".touch_period", 0);
  policy.db_touch_period_s = config.getUInt64(prefix + ".db_touch_period", 0);
  policy.fold_case = config.getBool(prefix + ".case_fold", false);
  policy.index_enabled = config.getBool(prefix + ".index", true);
  if (policy.name.empty()) throw std::runtime_error("a policy has no name");
  // The name becomes a file name in the data folder: nothing that could lead out of it.
  bool plain = policy.name.size() <= 64 && policy.name[0] != '.' && policy.name[0] != '-';
  for (char c : policy.name) {
    plain =
        plain && (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-');
  }
  if (!plain) {
    throw std::runtime_error(
        "policy name '" + policy.name +
        "': a name holds up to 64 letters, digits, '.', '_' and '-', and does not "
        "begin with '.' or '-'");
  }
  return policy;
}

// How many policies a JSON configuration lists; throws unless "policies" is a list of objects.
int JsonPolicyCount(const std::string& file) {
  std::ifstream in(file);
  Poco::Dynamic::Var root = Poco::JSON::Parser().parse(in);
  if (root.type() != typeid(Poco::JSON::Object::Ptr))
    throw std::runtime_error("the file must hold one JSON object");
  Poco::JSON::Object::Ptr object = root.extract<Poco::JSON::Object::Ptr>();
  if (!object->has("policies")) return 0;
  Poco::JSON::Array::Ptr list = object->getArray("policies");
  if (!list)
    throw std::runtime_error("\"policies\" must be a list: [{\"name\": ..., \"root\": ...}, ...]");
  for (size_t i = 0; i < list->size(); ++i) {
    if (!list->getObject(static_cast<unsigned>(i))) {
      throw std::runtime_error("\"policies\" entry " + std::to_string(i + 1) +
                               " must be an object");
    }
  }
  return static_cast<int>(list->size());
}

}  // namespace

CRefSettings LoadSettings(const std::string& file) {
  if (!Poco::File(file).exists()) {
    throw std::runtime_error("configuration file not found: " + file);
  }
  Poco::Path path(file);
  path.makeAbsolute();
  Poco::Path base = path.parent();
  Poco::AutoPtr<AbstractConfiguration> config;
  try {
    std::string extension = path.getExtension();
    int json_policies = -1;
    if (extension == "json") {
      json_policies = JsonPolicyCount(file);
      config = new Poco::Util::JSONConfiguration(file);
    } else if (extension == "ini") {
      config = new Poco::Util::IniFileConfiguration(file);
    } else {
      config = new Poco::Util::PropertyFileConfiguration(file);
    }
    CRefSettings settings;
    settings.data_dir = ResolveFile(config->getString("data_dir", settings.data_dir), base);
    settings.policy_number = config->getUInt("policy_number", settings.policy_number);
    settings.restore_time_limit_ms =
        config->getUInt64("restore_time_limit_ms", settings.restore_time_limit_ms);
    settings.threads = config->getUInt("threads", settings.threads);
    if (settings.threads > kMaxThreads) {
      throw std::runtime_error("\"threads\" is " + std::to_string(settings.threads) +
                               "; give 0 (one per processor) to " + std::to_string(kMaxThreads));
    }
    settings.log_file = ResolveFile(config->getString("log.file", ""), base);
    settings.log_console = config->getBool("log.console", settings.log_console);
    settings.log_level = config->getString("log.level", settings.log_level);
    settings.catalogue = ResolveFile(config->getString("catalogue", ""), base);
    settings.signer_certificate = ResolveFile(config->getString("signer.certificate", ""), base);
    settings.signer_key = ResolveFile(config->getString("signer.key", ""), base);
    settings.signer_chain = ResolveFile(config->getString("signer.ca", ""), base);
    settings.local_cstm_id = config->getString("local.cstm_id", "");
    settings.local_lcs_id = config->getString("local.lcs_id", "");
    settings.sed_text = config->getString("sed_text", "");
    // JSON: "policies": [ {...}, ... ]; INI: one section "policy.NAME" per policy.
    for (int i = 0; i < json_policies; ++i) {
      settings.policies.push_back(
          ReadPolicy(*config, "policies[" + std::to_string(i) + "]", "", base));
    }
    AbstractConfiguration::Keys names;
    config->keys("policy", names);
    for (const std::string& name : names) {
      settings.policies.push_back(ReadPolicy(*config, "policy." + name, name, base));
    }
    for (size_t i = 0; i < settings.policies.size(); ++i) {
      for (size_t j = 0; j < i; ++j) {
        if (settings.policies[i].name == settings.policies[j].name) {
          throw std::runtime_error("policy '" + settings.policies[i].name +
                                   "' is named twice; each policy needs a name of its own");
        }
      }
    }
    return settings;
  } catch (const Poco::JSON::JSONException& e) {
    // Where the text breaks, said as editors count: the parser's own words do not say it.
    std::ifstream in(file, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::optional<CJsonPosition> at = JsonErrorPosition(text);
    std::string where =
        at ? ":" + std::to_string(at->line) + ":" + std::to_string(at->column) : std::string();
    throw std::runtime_error("configuration file " + file + where +
                             ": not valid JSON: " + e.message());
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("configuration file " + file + ": " + e.displayText());
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("configuration file " + file + ": " + e.what());
  }
}
