#pragma once

#include <string>
#include <vector>

#include "tool/change/difference.h"

class CHashDB;
class CSession;
struct CRefPolicySettings;

// Takes differences that a check found into the database: what is gone (and the old path of a
// renamed file) is removed first, since a path that is gone can only have come back as something
// new in another place; a renamed directory is moved with what is recorded below it; then what is
// new or changed is recorded as it is now. Nothing is saved.
// Moves the record at "from", with everything below it, to "to" (paths relative to the root).
void MoveRecord(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                const std::string& from, const std::string& to);

void ApplyDifferences(CSession& session, const CRefPolicySettings& policy, CHashDB& database,
                      const std::vector<CDifference>& differences);
