#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tool/change/check_result.h"
#include "tool/change/difference.h"

class CHashDB;
class CJudge;
class CSession;
struct CRefPolicySettings;

// The baseline of a watched policy as the watch service holds it beside its live record: loaded
// (signature, binding and journal verified, as every load verifies them) and loaded again when
// its files change, which is how an acceptance made while the service runs reaches it. With it
// the service says of each change whether it is pending, and answers what is pending in all.
//
// The database is the service's private copy: comparisons and checks stamp it, nothing saves it.
//
// Not thread-safe: the service's one thread asks it.
class CWatchedBaseline {
 public:
  // "session" and "policy" must outlive this.
  CWatchedBaseline(CSession& session, const CRefPolicySettings& policy);
  ~CWatchedBaseline();

  // Loads the baseline again when its files changed since it was last loaded. Never waits for a
  // writer of the baseline: false when one holds it (the copy held stays; ask again later).
  // Throws CToolError when the baseline is refused (the copy held is dropped: nothing is taken
  // for accepted until it loads again).
  bool Refresh();
  // Whether a baseline is held (the policy has one, and it loaded).
  bool held() const { return database_ != nullptr; }
  // How many times the baseline was loaded: a new number is a new baseline.
  uint64_t generation() const { return generation_; }
  // Why the last load was refused, or "".
  const std::string& refusal() const { return refusal_; }

  // Whether the object at "relative" in "live" is as the baseline holds it; without a baseline,
  // every change is pending.
  CBaselineVerdict VerdictOf(const CJudge& judge, CHashDB& live, const std::string& relative);
  // Everything that differs between "live" and the baseline, as a check would report it.
  // Requires held().
  CTreeCheckResult Pending(const std::shared_ptr<CHashDB>& live);

 private:
  // What tells one state of the baseline's files from another: their identities, sizes and times.
  std::string Identity() const;

  CSession& session_;
  const CRefPolicySettings& policy_;
  std::shared_ptr<CHashDB> database_;
  std::string identity_;  // of the files the copy was loaded from; "" before the first load
  std::string refusal_;
  uint64_t generation_ = 0;
};
