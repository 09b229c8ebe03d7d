#pragma once

#include <vector>

#include "tool/change/difference.h"

class CHashDB;
class CSession;
struct CRefPolicySettings;

// Takes differences that a check found into the database: what is gone (and the old path of a
// rename) is removed first, since a path that is gone can only have come back as something new in
// another place; then what is new or changed is recorded as it is now. Nothing is saved.
void ApplyDifferences(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                      const std::vector<CDifference>& differences);
