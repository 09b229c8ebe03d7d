#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/report/report_sink.h"
#include "tool/session/session.h"

class CFleetPublisher;
class CHashDB;
class CToolError;
struct CCommandLine;
struct CRefPolicySettings;

// What the options every command shares (--config, --module, --wait, --bind, --passphrase-fd,
// --sign-later) ask of the run's session.
CSessionOptions SessionOptionsOf(const CCommandLine& line);

// The policies a command works on: the one named by its first argument, or every policy with
// --all or without a name.
std::vector<const CRefPolicySettings*> PoliciesOf(CSession& session, const CCommandLine& line);

// A path as the user gave it, relative to the policy's root (a full path below it is taken too;
// the root itself is ""); CToolError for a full path outside the root.
std::string RelativeToRoot(const CRefPolicySettings& policy, const std::string& path);

// Says on the standard error that one policy of several could not be worked on, and why.
void ReportPolicyError(const CRefPolicySettings& policy, const CToolError& error);

// The exit status of several policies: an error over differences over nothing to report.
int WorstStatus(int a, int b);

// What the running watch service says is pending in the policy, when it keeps the policy; nothing
// otherwise, or when it cannot answer (said on the standard error: the caller walks the tree).
std::optional<CTreeCheckResult> PendingFromService(CSession& session,
                                                   const CRefPolicySettings& policy);

// Publishes the policy's database, as just saved, to the fleet store when the configuration has
// a "fleet" section (see CFleetPublisher); says on standard error what became of it. Never fails
// the command: the saved database stands whatever the store does.
void PublishToFleet(CSession& session, const CRefPolicySettings& policy, CHashDB& database);
// The same with the publisher already made (FleetPublisherOf).
void PublishToFleet(CFleetPublisher& publisher, CSession& session, const CRefPolicySettings& policy,
                    CHashDB& database);

// Where a check's or an update's report goes: standard output (lines for people, or JSON lines
// with --json), every --report destination, and the fleet store when one is configured. Throws
// CToolError for a destination it does not know or cannot reach, before anything is checked.
std::unique_ptr<CReportSinks> ReportSinksOf(const CCommandLine& line, CSession& session);

// The fleet publisher of the configuration's "fleet" section; null without one (or with one that
// is not well formed, said on the standard error: nothing local depends on the fleet).
std::shared_ptr<CFleetPublisher> FleetPublisherOf(CSession& session);
