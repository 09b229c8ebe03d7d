#include "tool/store/policy_store.h"

#include <Poco/Environment.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <system_error>

#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "host/utility_service.h"
#include "refhost/file_io.h"
#include "refhost/pkcs7.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "refhost/save_hooks.h"
#include "tool/common/exit_status.h"
#include "tool/common/policy_files.h"
#include "tool/store/database_files.h"
#include "tool/store/signed_load.h"
#include "tool/store/signer_keys.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

CRefPolicySettings NamedFor(CRefPolicySettings policy, CPolicyRecord record) {
  if (record == CPolicyRecord::kLive) policy.name = LiveRecordName(policy.name);
  return policy;
}

}  // namespace

CPolicyStore::CPolicyStore(const CRefPolicySettings& policy, CSignDB& front, CRefHost& host,
                           CSignerKeys& signer, const CStoreOptions& options, CPolicyRecord record)
    : policy_(policy),
      record_(record),
      module_policy_(NamedFor(policy, record)),
      front_(front),
      host_(host),
      signer_(signer),
      options_(options),
      hdb_(WideToUtf8(front.HdbFilePath(module_policy_.name))),
      previous_(WideToUtf8(front.HdbFilePath(PreviousDatabaseName(module_policy_.name)))),
      candidate_(CandidateFileOf(hdb_)) {}

CPolicyStore::~CPolicyStore() = default;

CSignatureOf CPolicyStore::signature_of() const {
  return [this](const std::string& hdb) { return SignatureFileOf(hdb); };
}

// One journal per policy: the baseline's.
CAcceptJournal CPolicyStore::journal() const {
  return CAcceptJournal(JournalFileOf(WideToUtf8(front_.HdbFilePath(policy_.name))));
}

std::string CPolicyStore::SetBrokenJournalAside() {
  CAcceptJournal journal = this->journal();
  try {
    journal.Head();
    return std::string();
  } catch (const std::exception&) {
  }
  auto now = std::chrono::system_clock::now().time_since_epoch();
  std::string aside = journal.path() + ".broken-" +
                      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now).count());
  boost::system::error_code error;
  boost::filesystem::rename(journal.path(), aside, error);
  if (error) {
    throw CToolError("cannot set the broken journal " + journal.path() +
                     " aside: " + error.message());
  }
  return aside;
}

void CPolicyStore::RequireJournal(const CPolicyBinding& binding) const {
  std::string mismatch =
      journal().Mismatch(CJournalHead{binding.journal_entries, binding.journal_hash});
  if (mismatch.empty()) return;
  throw CToolError(
      "the baseline of policy '" + policy_.name + "' is not used: " + mismatch,
      {"the journal records who accepted what into the baseline; put it back from a backup, or "
       "find out who changed it",
       "to record the tree afresh with a new journal (the broken one is kept aside): signdb scan " +
           policy_.name + " --replace"});
}

bool CPolicyStore::HasRecord() const {
  boost::system::error_code missing;
  uint64_t revision = 0;
  return boost::filesystem::exists(hdb_, missing) || ReadRecordedRevision(hdb_, revision);
}

void CPolicyStore::Lock(CPolicyLock::CMode mode) {
  if (lock_) {
    // One lock per policy and process: closing a second descriptor would release the first.
    if (lock_->mode() == CPolicyLock::CMode::kExclusive || mode == CPolicyLock::CMode::kShared)
      return;
    throw std::logic_error("a writer must lock its policy before reading it");
  }
  try {
    try {
      lock_ = std::make_unique<CPolicyLock>(hdb_, policy_.name, mode, false);
    } catch (const CPolicyLockBusy& busy) {
      if (!options_.wait_for_locks) throw CToolError(busy.what());
      if (options_.say_when_waiting)
        std::cerr << "signdb: " << busy.holding() << "; waiting for it to finish\n";
      lock_ = std::make_unique<CPolicyLock>(hdb_, policy_.name, mode, true);
    }
  } catch (const CToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
}

bool CPolicyStore::TryLock(CPolicyLock::CMode mode) {
  if (lock_) {
    Lock(mode);
    return true;
  }
  try {
    lock_ = std::make_unique<CPolicyLock>(hdb_, policy_.name, mode, false);
  } catch (const CPolicyLockBusy&) {
    return false;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
  return true;
}

bool CPolicyStore::ChangeLock(CPolicyLock::CMode mode, bool wait) {
  if (!lock_) throw std::logic_error("a lock is changed only once it is held");
  try {
    return lock_->Change(mode, wait);
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
}

std::shared_ptr<CHashDB> CPolicyStore::New() {
  return front_.CreateHashDB(std::make_shared<CRefPolicy>(module_policy_));
}

std::vector<std::string> CPolicyStore::WithNextSteps(std::vector<std::string> reasons) const {
  const std::string& name = policy_.name;
  reasons.push_back(
      "What happened: the database or its signature is not what its signer signed "
      "(changed, damaged or swapped since), or its signer is not trusted here. "
      "Nothing was read from it.");
  reasons.push_back("If nobody here changed it, take it as an intrusion: restore " + hdb_ +
                    " and its signature from a backup, then run 'signdb check " + name +
                    "' and 'signdb journal " + name + "' (who accepted what, and when).");
  reasons.push_back("If the change was yours (a file copied or edited by hand), 'signdb verify " +
                    hdb_ + "' names its signer; to start again from the tree as it is now, " +
                    "make sure of the tree by other means first, then run 'signdb scan " + name +
                    " --replace' (the journal records it).");
  return reasons;
}

std::shared_ptr<CHashDB> CPolicyStore::Load(bool verify, std::shared_ptr<CHashDB> into) {
  Lock(CPolicyLock::CMode::kShared);
  CSignedPair pair = FindSignedPair(hdb_, signature_of());
  uint64_t recorded = 0;
  bool has_record = ReadRecordedRevision(hdb_, recorded);
  if (!boost::filesystem::exists(pair.hdb)) {
    if (has_record) {
      throw CToolError(
          "the database of policy '" + policy_.name + "' is missing: " + hdb_ +
          " was saved (revision " + RevisionText(recorded) +
          ") and is gone; put it back from a backup, or run 'signdb scan " + policy_.name +
          "' to record the tree as it is now (what changed meanwhile can then not be told)");
    }
    throw CToolError("policy '" + policy_.name + "' has no database yet (" + hdb_ +
                     "); run 'signdb scan " + policy_.name + "' first");
  }
  std::shared_ptr<CHashDB> database = into ? std::move(into) : New();
  try {
    LoadSignedFile(host_, *database, pair.hdb, pair.signature, verify);
  } catch (const CToolError& refused) {
    throw CToolError(refused.what(), WithNextSteps(refused.hints()));
  }
  bool writer = lock_->mode() == CPolicyLock::CMode::kExclusive;
  CSaveMarker marker;
  bool saving = ReadSaveMarker(hdb_, marker);
  // A save killed after its replacement and before its revision file: its result is complete.
  bool completed_save =
      saving && database->Revision() == marker.saving && (!has_record || recorded != marker.saving);
  // Whose database it is first, then whether it is the last one saved.
  std::optional<CPolicyBinding> binding;
  if (verify) binding = RequireBinding(pair.hdb);
  if (verify && has_record && recorded != database->Revision() && !completed_save) {
    throw CToolError("the database " + pair.hdb + " is older than the last saved one: revision " +
                     RevisionText(database->Revision()) + ", expected " + RevisionText(recorded) +
                     " (from " + hdb_ +
                     ".dff); a database put back from an earlier save is never used");
  }
  if (binding && record_ == CPolicyRecord::kBaseline) RequireJournal(*binding);
  if (binding && !binding->Vouches(database->Revision())) {
    throw CToolError("the database " + pair.hdb + " is not the one last saved for policy '" +
                     policy_.name + "': its binding does not vouch for its revision " +
                     RevisionText(database->Revision()) +
                     "; a database put back from another save is never used");
  }
  if (writer && (saving || pair.interrupted)) FinishInterruptedSave(hdb_, signature_of());
  if (pair.interrupted || completed_save) {
    if (writer) {
      std::cerr << "signdb: the last save of policy '" << policy_.name
                << "' was interrupted; it is completed now\n";
    } else {
      std::cerr
          << "signdb: the last save of policy '" << policy_.name
          << "' was interrupted; its complete result is used (the next scan or update tidies up)\n";
    }
  }
  return database;
}

void CPolicyStore::NoteSaved() {
  if (!note_after_save_) return;
  try {
    note_after_save_(hdb_);
  } catch (const std::exception& e) {
    // The database is saved; only what is kept beside it is lost.
    std::cerr << "signdb: warning: " << e.what() << "\n";
  }
}

std::string CPolicyStore::SaveCandidate(const std::shared_ptr<CHashDB>& database) {
  CSaveHooks hooks(host_);
  uint64_t before = 0;
  uint64_t stamp = 0;
  try {
    FinishInterruptedSave(hdb_, signature_of());
    for (const std::string& old :
         {candidate_, SignatureFileOf(candidate_), BindingFileOf(candidate_)}) {
      boost::filesystem::remove(old);
    }
    ReadRecordedRevision(hdb_, before);
    do {
      stamp = host_.Utility()->RandomStamp();
    } while (stamp == 0 || stamp == ~0ull || stamp == before || stamp == database->Revision());
    hooks.PresetNextRevision(stamp);
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"no candidate was written; " + hdb_ + " stays as it was"});
  }
  hooks.DeferSigningTo(candidate_);
  std::string declined;
  try {
    database->Save();  // declines at its signature, having kept the candidate
  } catch (const std::exception& e) {
    declined = e.what();
  }
  hooks.SignHere();
  uint64_t written = 0;
  try {
    CompleteReplacement(hdb_, signature_of());  // the module's temporary file goes
    if (!ReadHeaderRevision(candidate_, written) || written != stamp) {
      throw std::runtime_error(declined.empty() ? "the candidate was not written" : declined);
    }
    // The signing host signs this record with the candidate: it vouches for the candidate and,
    // until the candidate is in place, for the database it replaces.
    std::vector<uint64_t> revisions = {stamp};
    if (before != 0) revisions.push_back(before);
    WriteUnsignedPolicyBinding(candidate_, BindingOf(revisions, journal().Head()));
  } catch (const std::exception& e) {
    boost::system::error_code ignored;
    boost::filesystem::remove(candidate_, ignored);
    throw CToolError(e.what(), {"no candidate was written; " + hdb_ + " stays as it was"});
  }
  std::cout << "the candidate " << candidate_ << " (revision " << RevisionText(stamp)
            << ") waits for its signature: on the signing host, run 'signdb sign " << candidate_
            << "', bring back " << SignatureFileOf(candidate_) << " and "
            << BindingFileOf(candidate_) << ", then run 'signdb accept " << policy_.name
            << "' here\n";
  return candidate_;
}

uint64_t CPolicyStore::Accept(CJournalEntry* entry) {
  Lock(CPolicyLock::CMode::kExclusive);
  boost::system::error_code missing;
  if (!boost::filesystem::exists(candidate_, missing)) {
    throw CToolError("policy '" + policy_.name + "' has no candidate (" + candidate_ +
                     "); make one with 'signdb scan " + policy_.name +
                     " --sign-later' or 'signdb update " + policy_.name + " --sign-later'");
  }
  // What comes back from the signing host is checked as a load would check it, before it counts.
  std::shared_ptr<CHashDB> database = New();
  LoadSignedFile(host_, *database, candidate_, SignatureFileOf(candidate_), true);
  uint64_t revision = database->Revision();
  CRefPkcs7Verifier verifier(host_.settings().signer_chain, host_.settings().local_cstm_id);
  std::optional<CPolicyBinding> binding;
  try {
    binding = ReadPolicyBinding(candidate_, verifier);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; the candidate is not accepted");
  }
  if (!binding)
    throw CToolError("the candidate has no binding (" + BindingFileOf(candidate_) +
                     "); it is not accepted");
  auto forget_candidate = [&] {
    for (const std::string& done :
         {candidate_, SignatureFileOf(candidate_), BindingFileOf(candidate_)}) {
      boost::filesystem::remove(done, missing);
    }
  };
  // An accept killed after the candidate was put in place: only its last steps are left.
  CSignedPair in_place = FindSignedPair(hdb_, signature_of());
  uint64_t placed = 0;
  if (boost::filesystem::exists(in_place.hdb, missing) &&
      ReadHeaderRevision(in_place.hdb, placed) && placed == revision) {
    try {
      FinishInterruptedSave(hdb_, signature_of());
      uint64_t recorded = 0;
      if (!ReadRecordedRevision(hdb_, recorded) || recorded != revision)
        WriteRecordedRevision(hdb_, revision);
    } catch (const std::exception& e) {
      throw CToolError(e.what(), {"run 'signdb accept " + policy_.name + "' again"});
    }
    forget_candidate();
    return revision;
  }
  // The candidate's binding records the journal as it stood when the candidate was made; what was
  // journalled since is not vouched for by it.
  {
    std::string moved =
        journal().Mismatch(CJournalHead{binding->journal_entries, binding->journal_hash});
    if (!moved.empty()) {
      throw CToolError("the candidate " + candidate_ + " is not accepted: " + moved);
    }
  }
  std::string mismatch = PolicyBindingMismatch(*binding, BindingOf({}, {}));
  if (mismatch.empty() && !binding->Vouches(revision))
    mismatch = "its binding does not vouch for its revision";
  if (mismatch.empty()) {
    uint64_t recorded = 0;
    if (ReadRecordedRevision(hdb_, recorded) && recorded != 0 && !binding->Vouches(recorded)) {
      mismatch = "it was made from another database than the one now in place (revision " +
                 RevisionText(recorded) + ")";
    }
  }
  if (!mismatch.empty())
    throw CToolError("the candidate " + candidate_ + " is not accepted: " + mismatch);

  // The steps of a save: the marker first, then the binding (it vouches for both revisions), the
  // previous pair, the new pair, the revision file.
  CSaveMarker marker;
  try {
    FinishInterruptedSave(hdb_, signature_of());
    ReadRecordedRevision(hdb_, marker.before);
    marker.saving = revision;
    WriteSaveMarker(hdb_, marker);
    std::vector<uint8_t> bytes = ReadWholeFile(BindingFileOf(candidate_), 1 << 20);
    WriteWholeFile(BindingFileOf(hdb_), bytes.data(), bytes.size());
    if (boost::filesystem::exists(hdb_, missing) &&
        boost::filesystem::exists(SignatureFileOf(hdb_), missing)) {
      ReplacePairWithCopy(hdb_, previous_, signature_of());
    }
    ReplacePairWithCopy(candidate_, hdb_, signature_of());
    WriteRecordedRevision(hdb_, revision);
    RemoveSaveMarker(hdb_);
    NoteSaved();
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"the candidate was not put in place; run 'signdb accept " +
                                policy_.name + "' again"});
  }
  forget_candidate();
  if (entry != nullptr) {
    entry->revision = revision;
    try {
      journal().Append(*entry);
    } catch (const std::exception& e) {
      // The candidate is in place and vouched for; only the record of its acceptance is lost.
      std::cerr << "signdb: warning: the acceptance was not journalled: " << e.what() << "\n";
    }
  }
  return revision;
}

std::string CPolicyStore::Save(const std::shared_ptr<CHashDB>& database, CJournalEntry* entry) {
  Lock(CPolicyLock::CMode::kExclusive);
  if (options_.sign_later) return SaveCandidate(database);
  signer_.Prepare();
  boost::system::error_code missing;
  CSaveMarker marker;
  CJournalHead journal_head;
  bool journalled = false;  // the entry is in the journal
  auto not_saved = [&](const std::exception& e) {
    int error = errno;  // what the failed write said, read before anything else can change it
    if (const auto* failed = dynamic_cast<const std::system_error*>(&e))
      error = failed->code().value();
    // Looked at while what the failed save wrote still takes its room.
    std::string cause = StorageProblemOf(boost::filesystem::path(hdb_).parent_path().string());
    if (cause.empty() && (error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO)) {
      cause = "the write failed: " + ErrnoText(error);
    }
    // What the failed save wrote goes, or, when it failed between its moves, is finished.
    try {
      FinishInterruptedSave(hdb_, signature_of());
    } catch (const std::exception&) {
      // The folder may refuse the removal for the reason the save failed; said in the hints.
    }
    if (journalled) {
      // The journal already holds the acceptance: it says that the save did not land.
      CJournalEntry failed;
      failed.event = "not-saved";
      failed.policy = policy_.name;
      failed.who = entry->who;
      failed.command = entry->command;
      failed.note = "the save of revision " + RevisionText(marker.saving) + " (entry " +
                    std::to_string(entry->sequence) + ") failed: " + e.what();
      try {
        journal().Append(failed);
      } catch (const std::exception&) {
        // The binding in place still matches the journal; the failure is said below.
      }
    }
    std::vector<std::string> hints;
    if (!cause.empty()) hints.push_back(cause);
    hints.push_back(
        "the database was not saved; " + hdb_ +
        (boost::filesystem::exists(hdb_, missing) ? " stays as it was" : " does not exist yet"));
    return CToolError(e.what(), std::move(hints));
  };
  try {
    // What a killed run left is finished first, so that the pair kept as the previous one and the
    // revision file are those of the last complete save.
    FinishInterruptedSave(hdb_, signature_of());
    if (boost::filesystem::exists(hdb_, missing) &&
        boost::filesystem::exists(SignatureFileOf(hdb_), missing)) {
      ReplacePairWithCopy(hdb_, previous_, signature_of());
    }
    ReadRecordedRevision(hdb_, marker.before);
    do {
      marker.saving = host_.Utility()->RandomStamp();
    } while (marker.saving == ~0ull || marker.saving == database->Revision() ||
             marker.saving == marker.before);
    WriteSaveMarker(hdb_, marker);
    // What is accepted is journalled before the binding that records the journal's head.
    if (entry != nullptr) {
      entry->revision = marker.saving;
      journal_head = journal().Append(*entry);
      journalled = true;
    } else if (record_ == CPolicyRecord::kBaseline) {
      journal_head = journal().Head();
    }
    // Vouches for the database in place and the one about to replace it, whichever a kill leaves.
    std::vector<uint64_t> revisions = {marker.saving};
    if (marker.before != 0) revisions.push_back(marker.before);
    if (database->Revision() != 0 && database->Revision() != marker.before)
      revisions.push_back(database->Revision());
    WriteBinding(revisions, journal_head);
    CSaveHooks(host_).PresetNextRevision(marker.saving);
  } catch (const std::exception& e) {
    throw not_saved(e);
  }
  try {
    database->Save();
  } catch (const std::exception& e) {
    throw not_saved(e);
  }
  front_.WriteRevisionFile(module_policy_.name);
  try {
    WriteBinding({marker.saving}, journal_head);
  } catch (const std::exception& e) {  // the one written before the save vouches for it already
    std::cerr << "signdb: " << e.what() << "\n";
  }
  NoteSaved();
  RemoveSaveMarker(hdb_);
  return WideToUtf8(database->HdbFilePath(false));
}

CPolicyBinding CPolicyStore::BindingOf(std::vector<uint64_t> revisions,
                                       const CJournalHead& journal) const {
  return CPolicyBinding{policy_.name,         policy_.root,    Poco::Environment::nodeName(),
                        std::move(revisions), journal.entries, journal.hash};
}

void CPolicyStore::WriteBinding(std::vector<uint64_t> revisions, const CJournalHead& journal) {
  WritePolicyBinding(hdb_, BindingOf(std::move(revisions), journal), *signer_.Signer());
}

std::optional<CPolicyBinding> CPolicyStore::RequireBinding(const std::string& loaded_path) {
  CRefPkcs7Verifier verifier(host_.settings().signer_chain, host_.settings().local_cstm_id);
  std::optional<CPolicyBinding> binding;
  try {
    binding = ReadPolicyBinding(hdb_, verifier);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; the database of policy '" + policy_.name +
                     "' is not used");
  }
  if (!binding) {
    if (options_.accept_unbound) return binding;
    throw CToolError(
        "the database " + loaded_path + " is not bound to policy '" + policy_.name +
            "': " + BindingFileOf(hdb_) + " is missing",
        {"a database saved before bindings existed is bound once with 'signdb update " +
         policy_.name + " --bind'; otherwise, find out who removed it"});
  }
  std::string mismatch = PolicyBindingMismatch(*binding, BindingOf({}, {}));
  if (!mismatch.empty()) {
    throw CToolError("the database " + loaded_path + " is not the one of policy '" + policy_.name +
                     "': " + mismatch + "; a database of another policy or host is never used");
  }
  return binding;
}
