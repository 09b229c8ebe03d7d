#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "refhost/settings.h"
#include "tool/rules/policy_rules.h"
#include "tool/store/policy_binding.h"
#include "tool/store/policy_lock.h"

class CHashDB;
class CModuleLoader;
class CRefHost;
class CRefSigner;
class CSignDB;

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

  // Takes the policy's lock for the rest of the session: exclusive before a run writes the
  // database, shared (which LoadDatabase takes by itself) when it only reads it. With --wait a
  // lock held elsewhere is waited for; without it, CToolError names the holder.
  // While a watch service keeps the policy, a writer is refused at once (it would wait forever)
  // and a reader waits for the service's save to end.
  void LockPolicy(const CRefPolicySettings& policy, CPolicyLock::CMode mode);
  // Turns the policy's lock, which the session holds, into "mode"; without "wait", false when
  // another process's lock stands in the way (see CPolicyLock::Change).
  bool ChangePolicyLock(const CRefPolicySettings& policy, CPolicyLock::CMode mode, bool wait);
  // Policy locks held elsewhere are waited for from now on, as with --wait, and each wait is
  // said on stderr (a service's log tells why its start took long).
  void WaitForLocks() {
    wait_for_locks_ = true;
    say_when_waiting_ = true;
  }

  // The shared lock of the policy whose database "hdb_path" is, if it is one (verify, dump).
  void LockIfPolicyFile(const std::string& hdb_path);

  // An empty database of the policy, created by the module.
  std::shared_ptr<CHashDB> NewDatabase(const CRefPolicySettings& policy);
  // The policy's saved database, loaded (and its signature verified unless "verify" is false).
  // Throws CToolError when there is none yet or when it is refused, with the module's reasons.
  std::shared_ptr<CHashDB> LoadDatabase(const CRefPolicySettings& policy, bool verify = true);
  // Loads "hdb_path" (its signature beside it, or "signature_path") into "database".
  void LoadFile(const std::shared_ptr<CHashDB>& database, const std::string& hdb_path,
                const std::string& signature_path, bool verify);
  // Saves the database and writes the policy's revision file; returns the HDB file's path. The
  // database it replaces, if any, is kept with its signature as PreviousFileOf(policy).
  // With --sign-later, nothing is signed here and the database in place stays: the new one is
  // kept as a candidate (CandidateOf) with its unsigned binding, and its path is returned.
  std::string Save(const std::shared_ptr<CHashDB>& database, const CRefPolicySettings& policy);
  // Where a database waits for its signature from another host: NAME.hdb.candidate.
  std::string CandidateOf(const CRefPolicySettings& policy);
  // Before the first signature of a run: refuses an expired signer certificate, warns when it
  // expires within 30 days, and reads the passphrase of a protected signer key.
  void PrepareSigner();
  // The passphrase of a protected signer key, asked once (terminal or --passphrase-fd); empty
  // for a key that has none.
  const std::string& SignerPassphrase();
  // The configured signer, prepared so (throws CToolError with OpenSSL's reason).
  std::unique_ptr<CRefSigner> Signer();
  // Puts a candidate signed elsewhere (its .p7s and signed binding beside it) in place of the
  // policy's database, with the steps of a save; throws CToolError when anything does not hold.
  // Returns the candidate's revision.
  uint64_t AcceptCandidate(const CRefPolicySettings& policy);

  // Where the database that the last save replaced is kept: NAME.previous.hdb in the data folder.
  std::string PreviousFileOf(const CRefPolicySettings& policy);
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
  // The signed record that ties a policy's database to the policy, root, host and revisions.
  CPolicyBinding BindingOf(const CRefPolicySettings& policy, std::vector<uint64_t> revisions) const;
  std::string SaveCandidate(const std::shared_ptr<CHashDB>& database,
                            const CRefPolicySettings& policy);
  // For a policy with package awareness: which package owns each path, beside the database.
  void RememberPackageOwners(const CRefPolicySettings& policy, const std::string& hdb_path);
  void WriteBinding(const CRefPolicySettings& policy, const std::string& hdb_path,
                    std::vector<uint64_t> revisions);
  // The binding of the policy's database; refuses (CToolError) one that is missing (unless --bind),
  // not trusted, or of another policy, root or host. Which revisions it vouches for is the
  // caller's to check.
  std::optional<CPolicyBinding> RequireBinding(const CRefPolicySettings& policy,
                                               const std::string& hdb_path);

  std::string config_path_;
  CRefSettings settings_;
  std::shared_ptr<CRefHost> host_;
  std::unique_ptr<CModuleLoader> loader_;
  std::shared_ptr<CSignDB> front_;
  bool wait_for_locks_ = false;
  bool say_when_waiting_ = false;  // a lock waited for is said on stderr
  bool accept_unbound_ = false;    // --bind: a database without a policy binding is loaded
  std::string
      passphrase_fd_;  // --passphrase-fd N: where a protected signer key's passphrase comes from
  std::string passphrase_;  // read once, when the first save needs it
  bool signer_ready_ = false;
  bool sign_later_ = false;                                    // --sign-later
  std::map<std::string, std::unique_ptr<CPolicyLock>> locks_;  // by policy name
  std::map<std::string, CPolicyRules> rules_;                  // by policy name
};
