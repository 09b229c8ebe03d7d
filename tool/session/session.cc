#include "tool/session/session.h"

#include <Poco/Environment.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "host/buffer.h"
#include "host/crypto_service.h"
#include "host/utility_service.h"
#include "refhost/crypto_service.h"
#include "refhost/file_io.h"
#include "refhost/log_service.h"
#include "refhost/module_loader.h"
#include "refhost/pkcs7.h"
#include "refhost/policy.h"
#include "refhost/ref_host.h"
#include "refhost/utility_service.h"
#include "tool/common/exit_status.h"
#include "tool/packages/package_owners.h"
#include "tool/rules/policy_rules.h"
#include "tool/session/config_location.h"
#include "tool/store/database_files.h"
#include "tool/store/passphrase.h"
#include "tool/store/policy_binding.h"
#include "tool/store/service_lock.h"
#include "util/relative_path.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

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
  wait_for_locks_ = options.wait_for_locks;
  say_when_waiting_ = ::isatty(STDERR_FILENO) != 0;  // a person waits; a script's log stays quiet
  accept_unbound_ = options.accept_unbound;
  passphrase_fd_ = options.passphrase_fd;
  sign_later_ = options.sign_later;
  config_path_ = options.config_path.empty() ? DefaultConfigPath() : options.config_path;
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
  host_->log().KeepRecords(true, Poco::Message::PRIO_WARNING);
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
  ForgetPassphrase(passphrase_);
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

void CSession::LockPolicy(const CRefPolicySettings& policy, CPolicyLock::CMode mode) {
  auto held = locks_.find(policy.name);
  if (held != locks_.end()) {
    // One lock per policy and process: closing a second descriptor would release the first.
    if (held->second->mode() == CPolicyLock::CMode::kExclusive ||
        mode == CPolicyLock::CMode::kShared)
      return;
    throw std::logic_error("a writer must lock its policy before reading it");
  }
  std::string hdb = Narrow(front_->HdbFilePath(policy.name));
  try {
    try {
      locks_[policy.name] = std::make_unique<CPolicyLock>(hdb, policy.name, mode, false);
    } catch (const CPolicyLockBusy& busy) {
      // A watch service keeps the policy's lock shared while it runs (and exclusive while it
      // saves): it never finishes, so a writer is told so at once, --wait or not, and a reader
      // waits for the save to end.
      int service = busy.holder() != 0 ? CServiceLock::Holder(DataFolder()) : 0;
      bool by_service = service != 0 && service == busy.holder();
      if (by_service && mode == CPolicyLock::CMode::kExclusive) {
        throw CToolError("policy '" + policy.name +
                         "' is kept up to date by signdb watch (process " +
                         std::to_string(service) +
                         "), which takes in every change as it happens; stop the service " +
                         "to scan or update the policy ('signdb status' shows what it watches)");
      }
      if (!by_service && !wait_for_locks_) throw CToolError(busy.what());
      if (!by_service && say_when_waiting_)
        std::cerr << "signdb: " << busy.holding() << "; waiting for it to finish\n";
      locks_[policy.name] = std::make_unique<CPolicyLock>(hdb, policy.name, mode, true);
    }
  } catch (const CToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
}

bool CSession::ChangePolicyLock(const CRefPolicySettings& policy, CPolicyLock::CMode mode,
                                bool wait) {
  auto held = locks_.find(policy.name);
  if (held == locks_.end()) throw std::logic_error("a lock is changed only once it is held");
  try {
    return held->second->Change(mode, wait);
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
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
        LockPolicy(policy, CPolicyLock::CMode::kShared);
        return;
      }
    }
  }
}

std::shared_ptr<CHashDB> CSession::LoadDatabase(const CRefPolicySettings& policy, bool verify) {
  LockPolicy(policy, CPolicyLock::CMode::kShared);
  std::string path = Narrow(front_->HdbFilePath(policy.name));
  CSignatureOf signature_of = [this](const std::string& hdb) { return SignatureFileOf(hdb); };
  CSignedPair pair = FindSignedPair(path, signature_of);
  uint64_t recorded = 0;
  bool has_record = ReadRecordedRevision(path, recorded);
  if (!boost::filesystem::exists(pair.hdb)) {
    if (has_record) {
      throw CToolError(
          "the database of policy '" + policy.name + "' is missing: " + path +
          " was saved (revision " + RevisionText(recorded) +
          ") and is gone; put it back from a backup, or run 'signdb scan " + policy.name +
          "' to record the tree as it is now (what changed meanwhile can then not be told)");
    }
    throw CToolError("policy '" + policy.name + "' has no database yet (" + path +
                     "); run 'signdb scan " + policy.name + "' first");
  }
  std::shared_ptr<CHashDB> database = NewDatabase(policy);
  LoadFile(database, pair.hdb, pair.signature, verify);
  bool writer = locks_.at(policy.name)->mode() == CPolicyLock::CMode::kExclusive;
  CSaveMarker marker;
  bool saving = ReadSaveMarker(path, marker);
  // A save killed after its replacement and before its revision file: its result is complete.
  bool completed_save =
      saving && database->Revision() == marker.saving && (!has_record || recorded != marker.saving);
  // Whose database it is first, then whether it is the last one saved.
  std::optional<CPolicyBinding> binding;
  if (verify) binding = RequireBinding(policy, pair.hdb);
  if (verify && has_record && recorded != database->Revision() && !completed_save) {
    throw CToolError("the database " + pair.hdb + " is older than the last saved one: revision " +
                     RevisionText(database->Revision()) + ", expected " + RevisionText(recorded) +
                     " (from " + path +
                     ".dff); a database put back from an earlier save is never used");
  }
  if (binding && !binding->Vouches(database->Revision())) {
    throw CToolError("the database " + pair.hdb + " is not the one last saved for policy '" +
                     policy.name + "': its binding does not vouch for its revision " +
                     RevisionText(database->Revision()) +
                     "; a database put back from another save is never used");
  }
  if (writer && (saving || pair.interrupted)) FinishInterruptedSave(path, signature_of);
  if (pair.interrupted || completed_save) {
    if (writer) {
      std::cerr << "signdb: the last save of policy '" << policy.name
                << "' was interrupted; it is completed now\n";
    } else {
      std::cerr
          << "signdb: the last save of policy '" << policy.name
          << "' was interrupted; its complete result is used (the next scan or update tidies up)\n";
    }
  }
  return database;
}

void CSession::LoadFile(const std::shared_ptr<CHashDB>& database, const std::string& hdb_path,
                        const std::string& signature_path, bool verify) {
  CUtilityService& utility = *host_->Utility();
  TakeProblems();
  std::shared_ptr<CBuffer> hdb;
  try {
    hdb = utility.ReadFile(Wide(hdb_path), 0);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
  std::shared_ptr<CBuffer> signature;
  boost::system::error_code missing;
  if (boost::filesystem::exists(signature_path, missing)) {
    try {
      signature = utility.ReadFile(Wide(signature_path), 0);
    } catch (const std::exception& e) {
      throw CToolError(e.what());
    }
  } else {
    throw CToolError("the database " + hdb_path + " has no signature file (" + signature_path +
                     "); an unsigned database is never used");
  }
  if (!database->Load(nullptr, verify, hdb_path, hdb, signature)) {
    std::vector<std::string> problems = TakeProblems();
    // The module says that the signature failed; OpenSSL says why (an expired certificate, say).
    CRefPkcs7Verifier verifier(settings_.signer_chain, settings_.local_cstm_id);
    if (verify && (!verifier.ReadSignerInfo(signature->Data(), signature->Size()) ||
                   !verifier.Verify(hdb->Data(), hdb->Size()))) {
      problems.push_back("OpenSSL: " + verifier.reason());
    }
    throw CToolError("the database " + hdb_path + " was refused:", problems);
  }
}

void CSession::PrepareSigner() {
  if (signer_ready_) return;
  const std::string& certificate = settings_.signer_certificate;
  time_t not_after = 0;
  try {
    not_after = CertificateNotAfter(certificate);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; nothing was saved");
  }
  time_t now = ::time(nullptr);
  std::string until = TimeText(static_cast<uint64_t>(not_after) * 1000000000ull);
  if (not_after <= now) {
    throw CToolError("the signer certificate " + certificate + " expired on " + until +
                         "; nothing is signed with it, and nothing was saved",
                     {"issue a new one with the CA key: signdb renew --ca-key PATH"});
  }
  constexpr time_t kWarnAhead = 30 * 24 * 3600;
  if (not_after - now < kWarnAhead) {
    std::cerr << "signdb: warning: the signer certificate " << certificate << " expires on "
              << until << " (in " << (not_after - now) / 86400
              << " days); issue a new one before then: signdb renew --ca-key PATH\n";
  }
  SignerPassphrase();
  signer_ready_ = true;
}

const std::string& CSession::SignerPassphrase() {
  if (passphrase_.empty() && KeyNeedsPassphrase(settings_.signer_key)) {
    passphrase_ = ReadPassphrase("passphrase of the signer key " + settings_.signer_key + ": ",
                                 passphrase_fd_);
    host_->ref_crypto().SetSignerPassphrase(passphrase_);
  }
  return passphrase_;
}

std::unique_ptr<CRefSigner> CSession::Signer() {
  PrepareSigner();
  try {
    return std::make_unique<CRefSigner>(settings_.signer_certificate, settings_.signer_key,
                                        settings_.signer_chain, passphrase_);
  } catch (const std::exception& e) {
    throw CToolError(e.what());
  }
}

void CSession::RememberPackageOwners(const CRefPolicySettings& policy,
                                     const std::string& hdb_path) {
  const std::string& dpkg_root = Rules(policy).dpkg_root();
  if (dpkg_root.empty()) return;
  try {
    WritePackageOwners(hdb_path, policy.root, dpkg_root);
  } catch (
      const std::exception& e) {  // the database is saved; only the explanation of removals is lost
    std::cerr << "signdb: warning: the packages' files could not be noted: " << e.what() << "\n";
  }
}

std::string CSession::CandidateOf(const CRefPolicySettings& policy) {
  return Narrow(front_->HdbFilePath(policy.name)) + ".candidate";
}

std::string CSession::SaveCandidate(const std::shared_ptr<CHashDB>& database,
                                    const CRefPolicySettings& policy) {
  std::string current = Narrow(front_->HdbFilePath(policy.name));
  std::string candidate = CandidateOf(policy);
  CSignatureOf signature_of = [this](const std::string& hdb) { return SignatureFileOf(hdb); };
  uint64_t before = 0;
  uint64_t stamp = 0;
  try {
    FinishInterruptedSave(current, signature_of);
    for (const std::string& old :
         {candidate, SignatureFileOf(candidate), PolicyBindingPathOf(candidate)}) {
      boost::filesystem::remove(old);
    }
    ReadRecordedRevision(current, before);
    do {
      stamp = host_->Utility()->RandomStamp();
    } while (stamp == 0 || stamp == ~0ull || stamp == before || stamp == database->Revision());
    host_->ref_utility().PresetNextStamp(stamp);
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"no candidate was written; " + current + " stays as it was"});
  }
  host_->ref_crypto().DeferSigningTo(candidate);
  std::string declined;
  try {
    database->Save();  // declines at its signature, having kept the candidate
  } catch (const std::exception& e) {
    declined = e.what();
  }
  host_->ref_crypto().DeferSigningTo(std::string());
  uint64_t written = 0;
  try {
    CompleteReplacement(current, signature_of);  // the module's temporary file goes
    if (!ReadHeaderRevision(candidate, written) || written != stamp) {
      throw std::runtime_error(declined.empty() ? "the candidate was not written" : declined);
    }
    // The signing host signs this record with the candidate: it vouches for the candidate and,
    // until the candidate is in place, for the database it replaces.
    std::vector<uint64_t> revisions = {stamp};
    if (before != 0) revisions.push_back(before);
    WriteUnsignedPolicyBinding(candidate, BindingOf(policy, revisions));
  } catch (const std::exception& e) {
    boost::system::error_code ignored;
    boost::filesystem::remove(candidate, ignored);
    throw CToolError(e.what(), {"no candidate was written; " + current + " stays as it was"});
  }
  std::cout << "the candidate " << candidate << " (revision " << RevisionText(stamp)
            << ") waits for its signature: on the signing host, run 'signdb sign " << candidate
            << "', bring back " << SignatureFileOf(candidate) << " and "
            << PolicyBindingPathOf(candidate) << ", then run 'signdb accept " << policy.name
            << "' here\n";
  return candidate;
}

uint64_t CSession::AcceptCandidate(const CRefPolicySettings& policy) {
  LockPolicy(policy, CPolicyLock::CMode::kExclusive);
  std::string current = Narrow(front_->HdbFilePath(policy.name));
  std::string candidate = CandidateOf(policy);
  CSignatureOf signature_of = [this](const std::string& hdb) { return SignatureFileOf(hdb); };
  boost::system::error_code missing;
  if (!boost::filesystem::exists(candidate, missing)) {
    throw CToolError("policy '" + policy.name + "' has no candidate (" + candidate +
                     "); make one with 'signdb scan " + policy.name +
                     " --sign-later' or 'signdb update " + policy.name + " --sign-later'");
  }
  // What comes back from the signing host is checked as a load would check it, before it counts.
  std::shared_ptr<CHashDB> database = NewDatabase(policy);
  LoadFile(database, candidate, SignatureFileOf(candidate), true);
  uint64_t revision = database->Revision();
  CRefPkcs7Verifier verifier(settings_.signer_chain, settings_.local_cstm_id);
  std::optional<CPolicyBinding> binding;
  try {
    binding = ReadPolicyBinding(candidate, verifier);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; the candidate is not accepted");
  }
  if (!binding)
    throw CToolError("the candidate has no binding (" + PolicyBindingPathOf(candidate) +
                     "); it is not accepted");
  auto forget_candidate = [&] {
    for (const std::string& done :
         {candidate, SignatureFileOf(candidate), PolicyBindingPathOf(candidate)}) {
      boost::filesystem::remove(done, missing);
    }
  };
  // An accept killed after the candidate was put in place: only its last steps are left.
  CSignedPair in_place = FindSignedPair(current, signature_of);
  uint64_t placed = 0;
  if (boost::filesystem::exists(in_place.hdb, missing) &&
      ReadHeaderRevision(in_place.hdb, placed) && placed == revision) {
    try {
      FinishInterruptedSave(current, signature_of);
      uint64_t recorded = 0;
      if (!ReadRecordedRevision(current, recorded) || recorded != revision)
        WriteRecordedRevision(current, revision);
    } catch (const std::exception& e) {
      throw CToolError(e.what(), {"run 'signdb accept " + policy.name + "' again"});
    }
    forget_candidate();
    return revision;
  }
  std::string mismatch = PolicyBindingMismatch(*binding, BindingOf(policy, {}));
  if (mismatch.empty() && !binding->Vouches(revision))
    mismatch = "its binding does not vouch for its revision";
  if (mismatch.empty()) {
    uint64_t recorded = 0;
    if (ReadRecordedRevision(current, recorded) && recorded != 0 && !binding->Vouches(recorded)) {
      mismatch = "it was made from another database than the one now in place (revision " +
                 RevisionText(recorded) + ")";
    }
  }
  if (!mismatch.empty())
    throw CToolError("the candidate " + candidate + " is not accepted: " + mismatch);

  // The steps of a save: the marker first, then the binding (it vouches for both revisions), the
  // previous pair, the new pair, the revision file.
  CSaveMarker marker;
  try {
    FinishInterruptedSave(current, signature_of);
    ReadRecordedRevision(current, marker.before);
    marker.saving = revision;
    WriteSaveMarker(current, marker);
    std::vector<uint8_t> bytes = ReadWholeFile(PolicyBindingPathOf(candidate), 1 << 20);
    WriteWholeFile(PolicyBindingPathOf(current), bytes.data(), bytes.size());
    if (boost::filesystem::exists(current, missing) &&
        boost::filesystem::exists(SignatureFileOf(current), missing)) {
      ReplacePairWithCopy(current, PreviousFileOf(policy), signature_of);
    }
    ReplacePairWithCopy(candidate, current, signature_of);
    WriteRecordedRevision(current, revision);
    RemoveSaveMarker(current);
    RememberPackageOwners(policy, current);
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"the candidate was not put in place; run 'signdb accept " +
                                policy.name + "' again"});
  }
  forget_candidate();
  return revision;
}

std::string CSession::Save(const std::shared_ptr<CHashDB>& database,
                           const CRefPolicySettings& policy) {
  LockPolicy(policy, CPolicyLock::CMode::kExclusive);
  if (sign_later_) return SaveCandidate(database, policy);
  PrepareSigner();
  std::string current = Narrow(front_->HdbFilePath(policy.name));
  CSignatureOf signature_of = [this](const std::string& hdb) { return SignatureFileOf(hdb); };
  boost::system::error_code missing;
  auto not_saved = [&](const std::exception& e) {
    int error = errno;  // what the failed write said, read before anything else can change it
    // Looked at while what the failed save wrote still takes its room.
    std::string cause = StorageProblemOf(boost::filesystem::path(current).parent_path().string());
    if (cause.empty() && (error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO)) {
      cause = "the write failed: " + ErrnoText(error);
    }
    // What the failed save wrote goes, or, when it failed between its moves, is finished.
    try {
      FinishInterruptedSave(current, signature_of);
    } catch (const std::exception&) {
      // The folder may refuse the removal for the reason the save failed; said in the hints.
    }
    std::vector<std::string> hints;
    if (!cause.empty()) hints.push_back(cause);
    hints.push_back(
        "the database was not saved; " + current +
        (boost::filesystem::exists(current, missing) ? " stays as it was" : " does not exist yet"));
    return CToolError(e.what(), std::move(hints));
  };
  CSaveMarker marker;
  try {
    // What a killed run left is finished first, so that the pair kept as the previous one and the
    // revision file are those of the last complete save.
    FinishInterruptedSave(current, signature_of);
    if (boost::filesystem::exists(current, missing) &&
        boost::filesystem::exists(SignatureFileOf(current), missing)) {
      ReplacePairWithCopy(current, PreviousFileOf(policy), signature_of);
    }
    ReadRecordedRevision(current, marker.before);
    do {
      marker.saving = host_->Utility()->RandomStamp();
    } while (marker.saving == ~0ull || marker.saving == database->Revision() ||
             marker.saving == marker.before);
    WriteSaveMarker(current, marker);
    // Vouches for the database in place and the one about to replace it, whichever a kill leaves.
    std::vector<uint64_t> revisions = {marker.saving};
    if (marker.before != 0) revisions.push_back(marker.before);
    if (database->Revision() != 0 && database->Revision() != marker.before)
      revisions.push_back(database->Revision());
    WriteBinding(policy, current, revisions);
    host_->ref_utility().PresetNextStamp(marker.saving);
  } catch (const std::exception& e) {
    throw not_saved(e);
  }
  try {
    database->Save();
  } catch (const std::exception& e) {
    throw not_saved(e);
  }
  front_->WriteRevisionFile(policy.name);
  try {
    WriteBinding(policy, current, {marker.saving});
  } catch (const std::exception& e) {  // the one written before the save vouches for it already
    std::cerr << "signdb: " << e.what() << "\n";
  }
  RememberPackageOwners(policy, current);
  RemoveSaveMarker(current);
  return Narrow(database->HdbFilePath(false));
}

CPolicyBinding CSession::BindingOf(const CRefPolicySettings& policy,
                                   std::vector<uint64_t> revisions) const {
  return CPolicyBinding{policy.name, policy.root, Poco::Environment::nodeName(),
                        std::move(revisions)};
}

void CSession::WriteBinding(const CRefPolicySettings& policy, const std::string& hdb_path,
                            std::vector<uint64_t> revisions) {
  CRefSigner signer(settings_.signer_certificate, settings_.signer_key, settings_.signer_chain,
                    passphrase_);
  WritePolicyBinding(hdb_path, BindingOf(policy, std::move(revisions)), signer);
}

std::optional<CPolicyBinding> CSession::RequireBinding(const CRefPolicySettings& policy,
                                                       const std::string& hdb_path) {
  std::string path = Narrow(front_->HdbFilePath(policy.name));
  CRefPkcs7Verifier verifier(settings_.signer_chain, settings_.local_cstm_id);
  std::optional<CPolicyBinding> binding;
  try {
    binding = ReadPolicyBinding(path, verifier);
  } catch (const std::exception& e) {
    throw CToolError(std::string(e.what()) + "; the database of policy '" + policy.name +
                     "' is not used");
  }
  if (!binding) {
    if (accept_unbound_) return binding;
    throw CToolError(
        "the database " + hdb_path + " is not bound to policy '" + policy.name +
            "': " + PolicyBindingPathOf(path) + " is missing",
        {"a database saved before bindings existed is bound once with 'signdb update " +
         policy.name + " --bind'; otherwise, find out who removed it"});
  }
  std::string mismatch = PolicyBindingMismatch(*binding, BindingOf(policy, {}));
  if (!mismatch.empty()) {
    throw CToolError("the database " + hdb_path + " is not the one of policy '" + policy.name +
                     "': " + mismatch + "; a database of another policy or host is never used");
  }
  return binding;
}

std::string CSession::PreviousFileOf(const CRefPolicySettings& policy) {
  return Narrow(front_->HdbFilePath(policy.name + ".previous"));
}

std::string CSession::SignatureFileOf(const std::string& hdb_path) {
  return Narrow(host_->Crypto()->SignatureFilePath(Wide(hdb_path)));
}

std::vector<std::string> CSession::TakeProblems() {
  std::vector<std::string> lines;
  for (const CLogRecord& record : host_->log().Records()) lines.push_back(record.text);
  host_->log().ClearRecords();
  return lines;
}

std::string CSession::FullPath(const CRefPolicySettings& policy,
                               const std::string& relative) const {
  return JoinedPath(policy.root, relative);
}

std::wstring CSession::WideFullPath(const CRefPolicySettings& policy, const std::string& relative) {
  return Wide(FullPath(policy, relative));
}

std::wstring CSession::Wide(const std::string& text) { return Utf8ToWide(text); }
std::string CSession::Narrow(const std::wstring& text) { return WideToUtf8(text); }
