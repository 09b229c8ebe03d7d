#pragma once

#include <string>

#include "tool/change/check_result.h"

struct CReportContext;
struct CRefPolicySettings;

// Sends what a check or update found to a destination besides standard output, one message per
// difference and per unreadable object, then the summary, the same lines as the text report:
//   "syslog"        the system log socket /dev/log (journald reads it too; "journal" is the same)
//   "syslog:SOCKET" another system log socket (a chroot's, say)
//   "file:PATH"     appended to PATH (made owner-only, never through a link), time-stamped
// Differences go as warnings, unreadable objects as errors, the summary as a notice; facility
// daemon, tag "signdb". Throws CToolError for a destination it does not know or cannot reach.
void SendReport(const std::string& destination, const CTreeCheckResult& result,
                const CRefPolicySettings& policy, const CReportContext& context, bool accepted);
