#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "refhost/settings.h"
#include "tool/rules/policy_rules.h"
#include "tool/store/policy_store.h"

class CHashDB;
class CModuleLoader;
class CRefHost;
class CSaveHooks;
class CSignDB;
class CSignerKeys;

// How a run wants its session: from the command line's options.
struct CSessionOptions {
  std::string config_path;      // empty: the default configuration (see config_location.h)
  std::string module_path;      // empty: the module beside the tool, or $SIGNDB_MODULE
  bool wait_for_locks = false;  // a policy lock held elsewhere is waited for
  bool accept_unbound = false;  // a database without a policy binding is loaded (to bind it)
  std::string passphrase_fd;    // where a protected signer key's passphrase comes from
  bool sign_later = false;      // saves are kept as candidates to be signed elsewhere
};

// One run of the tool: the configuration, the reference host and the module loaded as a plug-in.
// The module's log goes to the configured file only (data_dir/signdb.log by default), never to
// the terminal; its warnings and errors are kept so that a failed load can say why.
class CSession {
 public:
  // Throws CToolError when the configuration is missing or broken, or the module cannot be loaded.
  explicit CSession(const CSessionOptions& options);
  ~CSession();
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  const CRefSettings& settings() const { return settings_; }
  // A policy's rules, read from the configuration once, when the session began.
  const CPolicyRules& Rules(const CRefPolicySettings& policy) const {
    return rules_.at(policy.name);
  }
  const std::string& config_path() const { return config_path_; }
  CRefHost& host() { return *host_; }
  CSignDB& front() { return *front_; }

  // The policy of that name; throws CToolError naming the policies there are.
  const CRefPolicySettings& Policy(const std::string& name) const;
  // Throws CToolError unless the policy's root is a directory that can be listed.
  void RequireRoot(const CRefPolicySettings& policy) const;

  // The tool's own folder (the data folder, databases and log), which a scan leaves out when it
  // lies inside a policy's tree.
  std::string DataFolder() const;

  // The store of the policy's files (its lock, load, save, candidate and accept), one per
  // policy for the whole session.
  CPolicyStore& Store(const CRefPolicySettings& policy);
  // The store of the watch service's live record of the policy.
  CPolicyStore& LiveStore(const CRefPolicySettings& policy);
  // Policy locks held elsewhere are waited for from now on, as with --wait, and each wait is
  // said on stderr (a service's log tells why its start took long).
  void WaitForLocks() {
    store_options_.wait_for_locks = true;
    store_options_.say_when_waiting = true;
  }
  // The shared lock of the policy whose database "hdb_path" is, if it is one (verify, dump).
  void LockIfPolicyFile(const std::string& hdb_path);
  // The configured signer, its certificate and passphrase.
  CSignerKeys& signer() { return *signer_; }

  // An empty database of the policy (or of a scratch policy), created by the module.
  std::shared_ptr<CHashDB> NewDatabase(const CRefPolicySettings& policy);
  // Loads "hdb_path" (its signature beside it, or "signature_path") into "database".
  void LoadFile(const std::shared_ptr<CHashDB>& database, const std::string& hdb_path,
                const std::string& signature_path, bool verify);
  // The signature file that belongs to an HDB file.
  std::string SignatureFileOf(const std::string& hdb_path);
  // The module's warnings and errors since the last call, one per line.
  std::vector<std::string> TakeProblems();

  // The full path of an object given relative to the policy's root ("" is the root itself).
  std::string FullPath(const CRefPolicySettings& policy, const std::string& relative) const;
  std::wstring WideFullPath(const CRefPolicySettings& policy, const std::string& relative);

  // The objects' paths in the module's form, and back.
  std::wstring Wide(const std::string& text);
  std::string Narrow(const std::wstring& text);

 private:
  std::string config_path_;
  CRefSettings settings_;
  std::shared_ptr<CRefHost> host_;
  std::unique_ptr<CModuleLoader> loader_;
  std::shared_ptr<CSignDB> front_;
  std::unique_ptr<CSaveHooks> hooks_;
  std::unique_ptr<CSignerKeys> signer_;
  CStoreOptions store_options_;
  std::map<std::string, std::unique_ptr<CPolicyStore>> stores_;       // by policy name
  std::map<std::string, std::unique_ptr<CPolicyStore>> live_stores_;  // by policy name
  std::map<std::string, CPolicyRules> rules_;                         // by policy name
};
