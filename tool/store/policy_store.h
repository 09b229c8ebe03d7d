#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "refhost/settings.h"
#include "tool/store/accept_journal.h"
#include "tool/store/database_files.h"
#include "tool/store/policy_binding.h"
#include "tool/store/policy_lock.h"
#include "tool/store/signed_load.h"

class CHashDB;
class CRefHost;
class CSignDB;
class CSignerKeys;

// Which of a policy's two records a store keeps: the baseline (NAME.hdb), which only a person's
// acceptance changes, or the watch service's live record (NAME.live.hdb), which follows the tree.
enum class CPolicyRecord { kBaseline, kLive };

// How the runs of the tool treat a policy's files.
struct CStoreOptions {
  bool wait_for_locks = false;    // a policy lock held elsewhere is waited for (--wait)
  bool say_when_waiting = false;  // and each wait is said on stderr
  bool accept_unbound = false;    // a database without a policy binding is loaded (--bind)
  bool sign_later = false;        // saves are kept as candidates to be signed elsewhere
};

// One policy's files in the data folder and everything done with them: the lock that readers and
// writers take, the load that verifies the signature and the binding and finishes what a killed
// save left, the save that keeps the previous pair and never leaves the policy without a loadable
// signed pair, the candidate that waits for a signature from another host, and its acceptance.
//
// Its files are NAME.hdb and its signature, the revision file, the binding, the package owners,
// the save marker, the lock, the candidate (see tool/common/policy_files.h) and NAME.previous.hdb.
class CPolicyStore {
 public:
  // "options" is read at every use: it belongs to the run and outlives the store.
  CPolicyStore(const CRefPolicySettings& policy, CSignDB& front, CRefHost& host,
               CSignerKeys& signer, const CStoreOptions& options,
               CPolicyRecord record = CPolicyRecord::kBaseline);
  ~CPolicyStore();
  CPolicyStore(const CPolicyStore&) = delete;
  CPolicyStore& operator=(const CPolicyStore&) = delete;

  const CRefPolicySettings& policy() const { return policy_; }
  // What else is kept beside the database once a save or an accept has put it in place (the
  // package owners): "note" is given the database's path; what it throws is a warning.
  void NoteAfterSave(std::function<void(const std::string& hdb_path)> note) {
    note_after_save_ = std::move(note);
  }
  // NAME.hdb, the signed database.
  const std::string& database_file() const { return hdb_; }
  // NAME.previous.hdb: the database the last save replaced, with its signature.
  const std::string& previous_file() const { return previous_; }
  // NAME.hdb.candidate: a database saved here that waits for its signature from another host.
  const std::string& candidate_file() const { return candidate_; }
  // Whether the record was ever saved: its database, or the revision file a save leaves (a record
  // that was saved and has gone since still counts).
  bool HasRecord() const;
  // NAME.hdb.journal: who accepted what into the baseline, and when.
  CAcceptJournal journal() const;
  // Moves a journal whose chain is broken aside (NAME.hdb.journal.broken-TIME), so that a new
  // baseline starts a new journal; returns where it went, or "" when it holds (or there is none).
  std::string SetBrokenJournalAside();
  // The signature file that belongs to an HDB file (as the host names it).
  std::string SignatureFileOf(const std::string& hdb_path) const {
    return ::SignatureFileOf(host_, hdb_path);
  }

  // Takes the policy's lock for the store's life: exclusive before a run writes the database,
  // shared (which Load takes by itself) when it only reads it. A lock held elsewhere is waited
  // for with options.wait_for_locks; otherwise CToolError names the holder. The watch service
  // locks its live record only, so the baseline is read and accepted into while it runs.
  void Lock(CPolicyLock::CMode mode);
  // The same without ever waiting, whatever the options say: false when another process holds
  // the lock in the way (a long-running reader that must not wait on a writer who asks it).
  bool TryLock(CPolicyLock::CMode mode);
  // Turns the lock held into "mode"; without "wait", false when another process's lock stands in
  // the way (see CPolicyLock::Change).
  bool ChangeLock(CPolicyLock::CMode mode, bool wait);
  // Lets the lock go (a long-running reader that has what it needs).
  void Unlock() { lock_.reset(); }

  // An empty database of the policy, created by the module.
  std::shared_ptr<CHashDB> New();
  // The saved database, loaded (its signature, its binding and the journal the binding records
  // verified unless "verify" is false). Throws CToolError when there is none yet or when it is
  // refused, with the module's reasons. "into", when given, is the (empty) database to load it
  // into: another record's, which starts as a copy of this one.
  std::shared_ptr<CHashDB> Load(bool verify = true, std::shared_ptr<CHashDB> into = nullptr);
  // Saves the database, writes the revision file and returns the HDB file's path. The database
  // it replaces, if any, is kept with its signature as previous_file(). "entry", when given, is
  // appended to the journal first (with the revision the save writes), and the signed binding
  // records the journal's head. With sign_later, nothing is signed here and the database in place
  // stays: the new one is kept as the candidate with its unsigned binding, and the candidate's
  // path is returned; the entry waits for the candidate's acceptance.
  std::string Save(const std::shared_ptr<CHashDB>& database, CJournalEntry* entry = nullptr);
  // Puts the candidate signed elsewhere (its signature and signed binding beside it) in place of
  // the database, with the steps of a save, and appends "entry" to the journal once it is in
  // place; throws CToolError when anything does not hold. Returns the candidate's revision.
  uint64_t Accept(CJournalEntry* entry = nullptr);

 private:
  // How the host names each HDB file's signature, for the steps of a save.
  CSignatureOf signature_of() const;
  // The signed record that ties the database to the policy, root, host and revisions.
  CPolicyBinding BindingOf(std::vector<uint64_t> revisions, const CJournalHead& journal) const;
  void WriteBinding(std::vector<uint64_t> revisions, const CJournalHead& journal);
  // Refuses (CToolError) a journal that is not the one "binding" was made with.
  void RequireJournal(const CPolicyBinding& binding) const;
  // The binding of the database; refuses (CToolError) one that is missing (unless --bind), not
  // trusted, or of another policy, root or host. Which revisions it vouches for is the caller's
  // to check.
  std::optional<CPolicyBinding> RequireBinding(const std::string& loaded_path);
  std::string SaveCandidate(const std::shared_ptr<CHashDB>& database);
  void NoteSaved();
  // A refused load's reasons, followed by what happened and what to do about it.
  std::vector<std::string> WithNextSteps(std::vector<std::string> reasons) const;

  CRefPolicySettings policy_;
  CPolicyRecord record_;
  CRefPolicySettings module_policy_;  // the policy as the module names the record's file
  CSignDB& front_;
  CRefHost& host_;
  CSignerKeys& signer_;
  const CStoreOptions& options_;
  std::string hdb_;
  std::string previous_;
  std::string candidate_;
  std::unique_ptr<CPolicyLock> lock_;
  std::function<void(const std::string& hdb_path)> note_after_save_;
};
