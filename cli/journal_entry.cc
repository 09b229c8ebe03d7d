#include "cli/journal_entry.h"

#include "cli/command_line.h"
#include "refhost/settings.h"
#include "tool/change/difference.h"

CJournalEntry JournalEntryOf(const CCommandLine& line, const std::string& event,
                             const CRefPolicySettings& policy) {
  CJournalEntry entry;
  entry.event = event;
  entry.policy = policy.name;
  entry.who = CJournalActor::Current();
  entry.command = "signdb";
  for (const std::string& word : line.words) entry.command += " " + word;
  return entry;
}

std::vector<CJournalChange> JournalChangesOf(const std::vector<CDifference>& differences) {
  std::vector<CJournalChange> changes;
  changes.reserve(differences.size());
  for (const CDifference& difference : differences) {
    changes.push_back(CJournalChange{difference.path, difference.words, difference.from,
                                     difference.recorded.hash, difference.current.hash});
  }
  return changes;
}
