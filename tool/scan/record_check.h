#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tool/change/check_result.h"

class CHashDB;
class CJudge;
struct CDifference;
class CSession;
struct CRefPolicySettings;

// What differs between a policy's baseline and another record of the same tree (the watch
// service's live record, which follows the disk), judged exactly as a walk of the disk is judged:
// the module's comparison of the two databases says which paths differ, the module's check of the
// baseline and the judge say how, and what is found is settled (renames, rotations) and explained
// by the packages as after a walk. Nothing is read from the disk; "checked" is left to the caller.
//
// The baseline database is the caller's own copy: the comparison stamps its nodes and carries the
// other record's hashes onto them, which this undoes for every node it then checks. The other
// record is only read.
CTreeCheckResult CheckRecordAgainstBaseline(CSession& session, const CRefPolicySettings& policy,
                                            const std::shared_ptr<CHashDB>& baseline,
                                            const std::shared_ptr<CHashDB>& record);

// How the object at "relative" in "record" differs from what "baseline" holds there, as the judge
// says (its rules' exclusions included); nothing when it does not. One path of the above: the
// watch service asks it of each change it applies, to say whether the change is pending.
std::optional<CDifference> DifferenceFromBaseline(CSession& session,
                                                  const CRefPolicySettings& policy,
                                                  const CJudge& judge, CHashDB& baseline,
                                                  CHashDB& record, const std::string& relative);
