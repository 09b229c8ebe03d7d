// signdb journal POLICY: who accepted what into the policy's baseline, and when.

#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "tool/common/exit_status.h"
#include "tool/session/session.h"
#include "tool/store/accept_journal.h"
#include "tool/store/database_files.h"
#include "util/json_line.h"
#include "util/safe_text.h"

namespace {

void PrintEntryText(const CJournalEntry& entry) {
  std::cout << "#" << entry.sequence << " " << entry.time << " " << EscapedText(entry.event);
  if (entry.revision != 0) std::cout << " revision " << RevisionText(entry.revision);
  std::cout << " by " << (entry.who.user.empty() ? std::string("uid") : EscapedText(entry.who.user))
            << " (" << entry.who.uid << ")";
  if (!entry.who.login.empty()) std::cout << " for " << EscapedText(entry.who.login);
  if (!entry.who.terminal.empty()) std::cout << " on " << EscapedText(entry.who.terminal);
  std::cout << "\n  " << EscapedText(entry.command) << "\n";
  if (!entry.note.empty()) std::cout << "  " << EscapedText(entry.note) << "\n";
  for (const CJournalChange& change : entry.changes) {
    std::cout << "  " << EscapedText(change.change) << " "
              << SafePath(change.path.empty() ? "." : change.path);
    if (!change.from.empty()) std::cout << " from " << SafePath(change.from);
    if (change.old_hash != change.new_hash) {
      std::cout << "  " << (change.old_hash.empty() ? "-" : change.old_hash) << " -> "
                << (change.new_hash.empty() ? "-" : change.new_hash);
    }
    std::cout << "\n";
  }
}

std::string EntryJson(const CJournalEntry& entry, const std::string& policy) {
  CJsonLine line;
  line.Open().Number("seq", entry.sequence).String("time", entry.time).String("event", entry.event);
  line.String("policy", policy);
  line.String("revision", entry.revision == 0 ? std::string() : RevisionText(entry.revision));
  line.Open("who").Number("uid", entry.who.uid).String("user", entry.who.user);
  line.String("login", entry.who.login).String("terminal", entry.who.terminal).Close();
  line.String("command", entry.command).String("note", entry.note).OpenArray("changes");
  for (const CJournalChange& change : entry.changes) {
    line.Open().String("path", change.path).String("change", change.change);
    if (!change.from.empty()) line.String("from", change.from);
    line.String("old_hash", change.old_hash).String("new_hash", change.new_hash).Close();
  }
  return line.Close().Close().Take();
}

}  // namespace

int RunJournal(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 1);
  CSession session(SessionOptionsOf(line));
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  CPolicyStore& store = session.Store(policy);
  store.Lock(CPolicyLock::CMode::kShared);
  std::vector<CJournalEntry> entries;
  try {
    entries = store.journal().Read();
  } catch (const std::exception& e) {
    throw CToolError(e.what(), {"the entries before the break are shown by no command; the file is "
                                "JSON lines a person can read"});
  }
  for (const CJournalEntry& entry : entries) {
    if (line.Has("--json")) {
      std::cout << EntryJson(entry, policy.name) << "\n";
    } else {
      PrintEntryText(entry);
    }
  }
  if (entries.empty() && !line.Has("--json"))
    std::cout << "the journal of policy " << EscapedText(policy.name) << " has no entries yet ("
              << store.journal().path() << ")\n";
  return kExitOk;
}
