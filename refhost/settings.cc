#include "refhost/settings.h"

#include <stdexcept>

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <Poco/Util/JSONConfiguration.h>
#include <Poco/Util/PropertyFileConfiguration.h>

namespace {

using Poco::Util::AbstractConfiguration;

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
  return policy;
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
    if (extension == "json") {
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
    for (int i = 0; config->hasProperty("policies[" + std::to_string(i) + "].name"); ++i) {
      settings.policies.push_back(
          ReadPolicy(*config, "policies[" + std::to_string(i) + "]", "", base));
    }
    AbstractConfiguration::Keys names;
    config->keys("policy", names);
    for (const std::string& name : names) {
      settings.policies.push_back(ReadPolicy(*config, "policy." + name, name, base));
    }
    return settings;
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("configuration file " + file + ": " + e.displayText());
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("configuration file " + file + ": " + e.what());
  }
}
