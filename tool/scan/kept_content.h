#pragma once

#include <vector>

class CHashDB;
class CSession;
struct CDifference;
struct CRefPolicySettings;

// The accepted content of the files whose rules keep it (see CContentStore): kept at every
// acceptance, and read back to say what changed inside such a file.

// Keeps the content of every recorded file that the rules keep (after a scan): read from the disk
// and kept only when it is what the database recorded.
void KeepRecordedContent(CSession& session, const CRefPolicySettings& policy, CHashDB& database);

// Keeps the content of the accepted differences (after an update), when the disk still holds what
// was accepted.
void KeepAcceptedContent(CSession& session, const CRefPolicySettings& policy,
                         const std::vector<CDifference>& accepted);

// Says what changed inside each changed file whose content is kept: the lines taken out and put
// in (redacted for secrets, and for any content that looks like one), and for an account file each
// account added, removed or changed; an account added with uid 0 or without a password makes the
// difference critical.
void ExplainContent(std::vector<CDifference>& differences, CSession& session,
                    const CRefPolicySettings& policy);
