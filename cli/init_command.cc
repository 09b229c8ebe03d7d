// signdb init: a configuration, development keys and a data folder, ready to scan.

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <boost/filesystem/operations.hpp>
#include <iostream>
#include <sstream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "refhost/file_io.h"
#include "tool/common/exit_status.h"
#include "tool/session/config_location.h"
#include "tool/session/system_profile.h"
#include "tool/store/dev_keys.h"
#include "tool/store/passphrase.h"

namespace {

namespace fs = boost::filesystem;

struct CPolicyArgument {
  std::string name;
  std::string root;
};

CPolicyArgument ParsePolicy(const std::string& text) {
  size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
    throw CToolError("--policy wants NAME=ROOT, e.g. --policy etc=/etc (got '" + text + "')");
  }
  CPolicyArgument policy{text.substr(0, equals), text.substr(equals + 1)};
  for (char c : policy.name) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '_' || c == '.';
    if (!plain)
      throw CToolError("a policy name is letters, digits, '-', '_' and '.' only (got '" +
                       policy.name + "')");
  }
  boost::system::error_code error;
  fs::path root = fs::absolute(policy.root);
  if (!fs::is_directory(root, error)) {
    throw CToolError("the root of policy '" + policy.name + "', " + root.string() +
                     ", is not a directory");
  }
  policy.root = root.lexically_normal().string();
  if (policy.root.size() > 1 && policy.root.back() == '/') policy.root.pop_back();
  return policy;
}

}  // namespace

int RunInit(const CCommandLine& line) {
  RequireShape(line, {"--dir", "--policy", "--force", "--ca-key-out", "--protect-key", "--system"},
               0, 0);
  if (line.Has("--system") && !line.Values("--policy").empty()) {
    throw CToolError("--system writes its own policies: give it or --policy, not both");
  }
  fs::path config = line.Value("--config");
  if (config.empty() && !line.Values("--dir").empty())
    config = fs::path(line.Value("--dir")) / "signdb.json";
  if (config.empty())
    config = line.Has("--system") ? fs::path(SystemConfigPath()) : fs::path(DefaultConfigPath());
  config = fs::absolute(config).lexically_normal();
  if (config.extension() != ".json")
    throw CToolError("the configuration that init writes is JSON: name it *.json");
  std::vector<CPolicyArgument> policies;
  for (const std::string& text : line.Values("--policy")) policies.push_back(ParsePolicy(text));
  if (policies.empty() && !line.Has("--system")) policies.push_back({"etc", "/etc"});
  boost::system::error_code error;
  if (fs::exists(config, error) && !line.Has("--force")) {
    throw CToolError(config.string() +
                     " already exists; use --force to write it anew (keys are kept)");
  }

  fs::path folder = config.parent_path();
  fs::path keys = folder / "keys";
  fs::path data = folder / "data";
  // Owner-only whatever the umask: the configuration names the trust anchor, and the data folder
  // holds the databases and what they say about folders that only root may enter.
  for (const fs::path& made : {folder, data}) {
    if (!fs::exists(made, error)) {
      fs::create_directories(made);
      fs::permissions(made, fs::perms::owner_all);
    }
  }
  if (fs::exists(keys, error)) fs::permissions(keys, fs::perms::owner_all);
  fs::permissions(data, fs::perms::owner_all);
  CDevKeyRequest request;
  bool have_keys = fs::exists(keys / "signer.key", error) &&
                   fs::exists(keys / "signer.pem", error) && fs::exists(keys / "ca.pem", error);
  if (have_keys) {
    try {
      request.cstm_id = CertificateOrganization((keys / "signer.pem").string());
    } catch (const std::exception& e) {
      throw CToolError(e.what(), {"remove " + keys.string() + " to make new keys"});
    }
  } else {
    request.cstm_id = RandomCstmId();
    if (!line.Value("--ca-key-out").empty()) {
      fs::path ca_key = fs::absolute(line.Value("--ca-key-out")).lexically_normal();
      if (!fs::exists(ca_key.parent_path(), error)) {
        fs::create_directories(ca_key.parent_path());
        fs::permissions(ca_key.parent_path(), fs::perms::owner_all);
      }
      request.ca_key_path = ca_key.string();
    }
    if (line.Has("--protect-key")) {
      request.signer_passphrase =
          ReadNewPassphrase("passphrase for the new signer key: ", line.Value("--passphrase-fd"));
    }
    try {
      MakeDevelopmentKeys(keys.string(), request);
    } catch (const std::exception& e) {
      throw CToolError(e.what(), {"remove " + keys.string() + " to make new keys"});
    }
  }

  Poco::JSON::Object::Ptr settings = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  settings->set("data_dir", "data");
  settings->set("policy_number", 256);
  settings->set("threads", 0);
  Poco::JSON::Object::Ptr log = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  log->set("file", "data/signdb.log");
  log->set("level", "information");
  settings->set("log", log);
  Poco::JSON::Object::Ptr signer = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  signer->set("certificate", "keys/signer.pem");
  signer->set("key", "keys/signer.key");
  signer->set("ca", "keys/ca.pem");
  settings->set("signer", signer);
  Poco::JSON::Object::Ptr local = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  local->set("cstm_id", request.cstm_id);
  local->set("lcs_id", request.local_lcs_id);
  settings->set("local", local);
  Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
  for (const CPolicyArgument& policy : policies) {
    Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    entry->set("name", policy.name);
    entry->set("root", policy.root);
    list->add(entry);
  }
  if (line.Has("--system")) {
    list = SystemPolicies();
    for (size_t i = 0; i < list->size(); ++i) {
      Poco::JSON::Object::Ptr entry = list->getObject(static_cast<unsigned>(i));
      policies.push_back(
          {entry->getValue<std::string>("name"), entry->getValue<std::string>("root")});
    }
  }
  settings->set("policies", list);
  std::ostringstream text;
  settings->stringify(text, 2);
  text << "\n";
  std::string bytes = text.str();
  WriteWholeFile(config.string(), bytes.data(), bytes.size());

  std::ostream& out = std::cout;
  out << "wrote " << config.string() << "\n";
  for (const CPolicyArgument& policy : policies)
    out << "  policy " << policy.name << ": " << policy.root << "\n";
  if (have_keys) {
    out << "kept the keys in " << keys.string() << "\n";
  } else {
    std::string ca_key =
        request.ca_key_path.empty() ? (keys / "ca.key").string() : request.ca_key_path;
    out << "made development keys in " << keys.string() << ": ca.pem, signer.pem, signer.key"
        << (request.signer_passphrase.empty() ? "" : " (protected by a passphrase)") << "\n"
        << "  signer: cstm_id '" << request.cstm_id << "', lcs_id " << request.signer_lcs_id
        << "; this installation: lcs_id " << request.local_lcs_id << "\n";
    // Whoever holds the CA key makes signers this host trusts: it must not stay where root can
    // read it, or root re-signs whatever it changed.
    if (request.ca_key_path.empty()) {
      out << "the CA key is " << ca_key
          << ": move it off this host now (offline storage); it is needed\n"
          << "  again only to renew the signer certificate (signdb renew --ca-key PATH)\n";
    } else {
      out << "the CA key went to " << ca_key
          << ": keep it off this host; it is needed again only to\n"
          << "  renew the signer certificate (signdb renew --ca-key PATH)\n";
    }
    ForgetPassphrase(request.signer_passphrase);
  }
  out << "databases and the log go to " << data.string() << "\n";
  // The next run finds this configuration by itself only where it looks by default.
  std::string config_option = fs::absolute(DefaultConfigPath()).lexically_normal() == config
                                  ? std::string()
                                  : " --config " + config.string();
  out << "next: signdb" << config_option << " scan " << policies.front().name << "\n";
  return kExitOk;
}
