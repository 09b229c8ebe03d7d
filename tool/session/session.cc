#include "tool/session/session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "refhost/module_loader.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "refhost/save_hooks.h"
#include "tool/common/exit_status.h"
#include "tool/packages/package_owners.h"
#include "tool/rules/policy_rules.h"
#include "tool/session/config_location.h"
#include "tool/store/signed_load.h"
#include "tool/store/signer_keys.h"
#include "util/relative_path.h"
#include "util/text_conversion.h"

namespace {

// Refuses a file or folder that someone other than its owner could change (as ssh refuses such
// keys): whoever can replace the configuration, the trust anchor, the signer's key or the data
// folder decides what a check says. A secret must not be readable by others either. The owner
// must be the user running the tool, or root.
void RequireOwnerOnly(const std::string& path, const std::string& what, bool secret) {
  if (path.empty()) return;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return;  // a missing file is reported where it is used
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
  if (status.st_uid != ::geteuid() && status.st_uid != 0) {
    throw CToolError("refusing " + what + " " + path + ": it belongs to user " +
                     std::to_string(status.st_uid) + ", neither to you nor to root");
  }
  mode_t forbidden = secret ? (S_IRWXG | S_IRWXO) : (S_IWGRP | S_IWOTH);
  if ((status.st_mode & forbidden) != 0) {
    throw CToolError("refusing " + what + " " + path + ": it is " +
                     (secret ? "open to" : "writable by") + " group or others (mode " + mode +
                     "); run 'chmod " + (secret ? "go-rwx" : "go-w") + " " + path + "'");
  }
}

}  // namespace

CSession::CSession(const CSessionOptions& options) {
  store_options_.wait_for_locks = options.wait_for_locks;
  // A person waits; a script's log stays quiet.
  store_options_.say_when_waiting = ::isatty(STDERR_FILENO) != 0;
  store_options_.accept_unbound = options.accept_unbound;
  store_options_.sign_later = options.sign_later;
  config_path_ = ConfigPathOf(options.config_path);
  if (!boost::filesystem::exists(config_path_)) {
    throw CToolError("no configuration at " + config_path_ +
                     "; run 'signdb init' to make one, or name one with --config FILE");
  }
  try {
    settings_ = LoadSettings(config_path_);
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"fix the file, or make a new one with 'signdb init --force'"});
  }
  // Bad rules are refused before anything is done, whatever the command.
  for (const CRefPolicySettings& policy : settings_.policies) {
    rules_.emplace(policy.name, CPolicyRules::Load(config_path_, policy.name));
  }
  RequireOwnerOnly(config_path_, "the configuration", false);
  RequireOwnerOnly(settings_.signer_chain, "the trust anchor", false);
  RequireOwnerOnly(settings_.signer_certificate, "the signer's certificate", false);
  RequireOwnerOnly(settings_.signer_key, "the signer's key", true);
  if (!settings_.signer_key.empty()) {
    RequireOwnerOnly(boost::filesystem::path(settings_.signer_key).parent_path().string(),
                     "the keys folder", false);
  }
  RequireOwnerOnly(settings_.data_dir, "the data folder", false);
  settings_.log_console = false;
  if (settings_.log_file.empty()) {
    boost::system::error_code ignored;
    boost::filesystem::create_directories(settings_.data_dir, ignored);
    settings_.log_file = settings_.data_dir + "/signdb.log";
  }
  try {
    host_ = std::make_shared<CRefHost>(settings_);
  } catch (const std::exception& e) {
    throw CToolError(std::string("configuration ") + config_path_ + ": " + e.what());
  }
  hooks_ = std::make_unique<CSaveHooks>(*host_);
  hooks_->KeepProblems();
  signer_ = std::make_unique<CSignerKeys>(settings_, *hooks_, options.passphrase_fd);
  std::string module =
      options.module_path.empty() ? CModuleLoader::DefaultModulePath() : options.module_path;
  try {
    loader_ = std::make_unique<CModuleLoader>(module, host_);
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"name the module with --module FILE or $SIGNDB_MODULE"});
  }
  front_ = loader_->Front();
}

// Everything from the module goes before the module is unloaded.
CSession::~CSession() {
  stores_.clear();
  live_stores_.clear();
  front_.reset();
  loader_.reset();
}

const CRefPolicySettings& CSession::Policy(const std::string& name) const {
  std::string names;
  for (const CRefPolicySettings& policy : settings_.policies) {
    if (policy.name == name) return policy;
    names += (names.empty() ? "" : ", ") + policy.name;
  }
  throw CToolError("no policy named '" + name + "' in " + config_path_ +
                   (names.empty() ? std::string("; it names none: add one to \"policies\"")
                                  : "; policies: " + names));
}

void CSession::RequireRoot(const CRefPolicySettings& policy) const {
  struct stat status {};
  if (::lstat(policy.root.c_str(), &status) != 0) {
    throw CToolError("the root of policy '" + policy.name + "', " + policy.root +
                     ", cannot be examined: " + std::strerror(errno));
  }
  if (S_ISLNK(status.st_mode)) {
    boost::system::error_code ignored;
    throw CToolError("the root of policy '" + policy.name + "', " + policy.root +
                     ", is a symbolic link; name the directory itself (" +
                     boost::filesystem::canonical(policy.root, ignored).string() + ") in " +
                     config_path_);
  }
  if (!S_ISDIR(status.st_mode)) {
    throw CToolError("the root of policy '" + policy.name + "', " + policy.root +
                     ", is not a directory");
  }
  if (::access(policy.root.c_str(), R_OK | X_OK) != 0) {
    throw CToolError("the root of policy '" + policy.name + "', " + policy.root +
                     ", cannot be read: " + std::strerror(errno));
  }
}

std::string CSession::DataFolder() const {
  return boost::filesystem::absolute(settings_.data_dir).lexically_normal().string();
}

std::shared_ptr<CHashDB> CSession::NewDatabase(const CRefPolicySettings& policy) {
  return front_->CreateHashDB(std::make_shared<CRefPolicy>(policy));
}

CPolicyStore& CSession::LiveStore(const CRefPolicySettings& policy) {
  std::unique_ptr<CPolicyStore>& store = live_stores_[policy.name];
  if (!store) {
    store = std::make_unique<CPolicyStore>(policy, *front_, *host_, *signer_, store_options_,
                                           CPolicyRecord::kLive);
  }
  return *store;
}

CPolicyStore& CSession::Store(const CRefPolicySettings& policy) {
  std::unique_ptr<CPolicyStore>& store = stores_[policy.name];
  if (!store) {
    store = std::make_unique<CPolicyStore>(policy, *front_, *host_, *signer_, store_options_);
    std::string dpkg_root = Rules(policy).dpkg_root();
    std::string root = policy.root;
    if (!dpkg_root.empty()) {
      store->NoteAfterSave([dpkg_root, root](const std::string& hdb_path) {
        try {
          WritePackageOwners(hdb_path, root, dpkg_root);
        } catch (const std::exception& e) {
          throw std::runtime_error(std::string("the packages' files could not be noted: ") +
                                   e.what());
        }
      });
    }
  }
  return *store;
}

void CSession::LockIfPolicyFile(const std::string& hdb_path) {
  boost::system::error_code error;
  for (const CRefPolicySettings& policy : settings_.policies) {
    std::string own = Narrow(front_->HdbFilePath(policy.name));
    std::string own_signature = SignatureFileOf(own);
    for (const std::string& file : {own, own_signature}) {
      if (boost::filesystem::equivalent(hdb_path, file, error) ||
          boost::filesystem::absolute(hdb_path).lexically_normal() ==
              boost::filesystem::absolute(file).lexically_normal()) {
        Store(policy).Lock(CPolicyLock::CMode::kShared);
        return;
      }
    }
  }
}

void CSession::LoadFile(const std::shared_ptr<CHashDB>& database, const std::string& hdb_path,
                        const std::string& signature_path, bool verify) {
  LoadSignedFile(*host_, *database, hdb_path, signature_path, verify);
}

std::string CSession::SignatureFileOf(const std::string& hdb_path) {
  return ::SignatureFileOf(*host_, hdb_path);
}

std::vector<std::string> CSession::TakeProblems() { return hooks_->TakeProblems(); }

std::string CSession::FullPath(const CRefPolicySettings& policy,
                               const std::string& relative) const {
  return JoinedPath(policy.root, relative);
}

std::wstring CSession::WideFullPath(const CRefPolicySettings& policy, const std::string& relative) {
  return Wide(FullPath(policy, relative));
}

std::wstring CSession::Wide(const std::string& text) { return Utf8ToWide(text); }
std::string CSession::Narrow(const std::wstring& text) { return WideToUtf8(text); }
