#pragma once

#include <string>
#include <vector>

#include "tool/store/accept_journal.h"

struct CCommandLine;
struct CDifference;
struct CRefPolicySettings;

// The journal entry a command writes: the event, the policy, the person running it and the
// command as it was given.
CJournalEntry JournalEntryOf(const CCommandLine& line, const std::string& event,
                             const CRefPolicySettings& policy);

// The accepted differences as the journal keeps them: path, change, and old and new hash.
std::vector<CJournalChange> JournalChangesOf(const std::vector<CDifference>& differences);
