// signdb diff POLICY [PREVIOUS.hdb]: what changed, is new and was removed between a previous
// database of the policy and its current one.

#include <iostream>

#include <boost/filesystem/operations.hpp>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/session.h"
#include "cli/text_format.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "refhost/text_conversion.h"

namespace {

void PrintEntries(std::ostream& out, const char* words, CPathEntryList& entries, bool json) {
  entries.sort([](const CPathEntry& a, const CPathEntry& b) { return a.second < b.second; });
  for (const CPathEntry& entry : entries) {
    std::string path = WideToUtf8(entry.second);
    if (json) {
      out << "{\"change\":" << JsonString(words) << ",\"path\":" << JsonString(path)
          << ",\"kind\":" << (entry.first ? "\"directory\"" : "\"file\"") << "}\n";
    } else {
      char column[16];
      std::snprintf(column, sizeof column, "%-10s", words);
      out << column << (path.empty() ? "." : path) << (entry.first ? "/" : "") << "\n";
    }
  }
}

}  // namespace

int RunDiff(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 1, 2);
  CSession session(line);
  const CRefPolicySettings& policy = session.Policy(line.arguments[0]);
  std::string previous_path = line.arguments.size() > 1 ? line.arguments[1] : session.PreviousFileOf(policy);
  if (!boost::filesystem::exists(previous_path)) {
    throw CToolError("no previous database at " + previous_path +
                     (line.arguments.size() > 1 ? std::string()
                                                : "; one is kept each time 'signdb scan' or 'signdb update' "
                                                  "replaces a database, or name one: signdb diff " +
                                                      policy.name + " FILE.hdb"));
  }
  // The previous database first: the front finds a policy's database by name, and the current one
  // is the one it should find.
  std::shared_ptr<CHashDB> previous = session.NewDatabase(policy);
  session.LoadFile(previous, previous_path, session.SignatureFileOf(previous_path), true);
  std::shared_ptr<CHashDB> current = session.LoadDatabase(policy);
  CPathEntryList changed, added, removed;
  current->CompareWithPrevious(previous, changed, added, removed);
  bool json = line.Has("--json");
  PrintEntries(std::cout, "changed", changed, json);
  PrintEntries(std::cout, "new", added, json);
  PrintEntries(std::cout, "removed", removed, json);
  if (json) {
    std::cout << "{\"summary\":{\"policy\":" << JsonString(policy.name) << ",\"previous\":" << JsonString(previous_path)
              << ",\"changed\":" << changed.size() << ",\"new\":" << added.size() << ",\"removed\":" << removed.size()
              << "}}\n";
  } else {
    std::cout << "policy " << policy.name << " since " << previous_path << ": " << GroupedNumber(changed.size())
              << " changed, " << GroupedNumber(added.size()) << " new, " << GroupedNumber(removed.size())
              << " removed\n";
  }
  return changed.empty() && added.empty() && removed.empty() ? kExitOk : kExitDifferences;
}
