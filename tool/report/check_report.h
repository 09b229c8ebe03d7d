#pragma once

#include <ostream>
#include <string>

#include "tool/change/check_result.h"

struct CReportContext;
struct CRefPolicySettings;

// Prints what a check found: one line per difference in words (or one JSON object per line), one
// per object that could not be read, then a summary that counts each kind of change.
// "accepted" words the summary for an update, which took the differences into the database.
void PrintCheckReport(std::ostream& out, const CTreeCheckResult& result,
                      const CRefPolicySettings& policy, const CReportContext& context, bool json,
                      bool accepted);
