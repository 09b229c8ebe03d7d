#include "tool/watch/watched_baseline.h"

#include <malloc.h>
#include <sys/stat.h>

#include <string>

#include "hashdb/hash_db.h"
#include "tool/common/exit_status.h"
#include "tool/common/policy_files.h"
#include "tool/scan/record_check.h"
#include "tool/session/session.h"

CWatchedBaseline::CWatchedBaseline(CSession& session, const CRefPolicySettings& policy)
    : session_(session), policy_(policy) {}

CWatchedBaseline::~CWatchedBaseline() = default;

std::string CWatchedBaseline::Identity() const {
  CPolicyStore& store = session_.Store(policy_);
  const std::string& hdb = store.database_file();
  std::string identity;
  for (const std::string& path : {hdb, store.SignatureFileOf(hdb), BindingFileOf(hdb),
                                  JournalFileOf(hdb), SaveMarkerFileOf(hdb)}) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      identity += "-;";
      continue;
    }
    identity += std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":" +
                std::to_string(status.st_size) + ":" + std::to_string(status.st_mtim.tv_sec) + "." +
                std::to_string(status.st_mtim.tv_nsec) + ":" +
                std::to_string(status.st_ctim.tv_sec) + "." +
                std::to_string(status.st_ctim.tv_nsec) + ";";
  }
  return identity;
}

bool CWatchedBaseline::Refresh() {
  if (!identity_.empty() && Identity() == identity_) return true;
  CPolicyStore& store = session_.Store(policy_);
  // A writer of the baseline may be the very run that waits for the service's answer.
  if (!store.TryLock(CPolicyLock::CMode::kShared)) return false;
  struct CUnlock {
    CPolicyStore& store;
    ~CUnlock() { store.Unlock(); }
  } unlock{store};
  std::string identity = Identity();  // under the lock: what is loaded is what it names
  ++generation_;
  if (!store.HasRecord()) {
    database_.reset();
    refusal_.clear();
    identity_ = identity;
    return true;
  }
  try {
    database_ = store.Load();
  } catch (const CToolError& e) {
    database_.reset();
    refusal_ = e.what();
    identity_ = identity;
    throw;
  }
  refusal_.clear();
  identity_ = identity;
  // The load's buffers (the file read whole, the pieces each worker parsed) are free now: given
  // back, so that a long-running service does not keep a second file's worth of them.
  ::malloc_trim(0);
  return true;
}

CBaselineVerdict CWatchedBaseline::VerdictOf(const CJudge& judge, CHashDB& live,
                                             const std::string& relative) {
  if (!database_) return CBaselineVerdict::kPending;
  return DifferenceFromBaseline(session_, policy_, judge, *database_, live, relative)
             ? CBaselineVerdict::kPending
             : CBaselineVerdict::kAsBaseline;
}

CTreeCheckResult CWatchedBaseline::Pending(const std::shared_ptr<CHashDB>& live) {
  return CheckRecordAgainstBaseline(session_, policy_, database_, live);
}
