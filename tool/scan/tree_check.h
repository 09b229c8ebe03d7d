#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tool/change/check_result.h"
#include "tool/common/exit_status.h"

class CHashDB;
class CJudge;
class CSession;
struct CRefPolicySettings;

// What a check found, made a report: settled by the judge (renames, rotations, hard links),
// explained by the packages (owners recorded beside "baseline") and by the kept contents, the
// most severe first. A walk of the disk and a comparison of two records both end here.
void SettleAndExplain(const CJudge& judge, std::vector<CDifference>& differences, CSession& session,
                      const CRefPolicySettings& policy, CHashDB& baseline);

// Checks every object below the policy's root against the loaded database, on several threads,
// then asks the database about each recorded object that the walk did not meet: those are gone,
// unless they lie in or below something that could not be read. The database keeps what it
// recorded; only its per-node check stamps change.
CTreeCheckResult CheckTree(CSession& session, const CRefPolicySettings& policy,
                           const std::shared_ptr<CHashDB>& database, bool quiet);

// A policy's root, its database, and what differs.
struct CPolicyCheck {
  const CRefPolicySettings& policy;
  std::shared_ptr<CHashDB> database;
  CTreeCheckResult result;
};

// Requires the policy's root, loads its database (refused unless the signature is good) and
// checks its tree; with "will_write", the policy's lock is taken for writing first. Throws
// CToolError.
CPolicyCheck CheckPolicy(CSession& session, const CRefPolicySettings& policy, bool quiet,
                         bool will_write);
