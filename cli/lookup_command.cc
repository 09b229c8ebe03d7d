// signdb lookup HASH: which recorded file carries a content hash, across every policy.

#include <algorithm>
#include <iostream>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/session.h"
#include "cli/text_format.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"

namespace {

std::string NormalisedHash(const std::string& text, uint32_t policy_number) {
  size_t digits = policy_number / 4;
  std::string hash = text;
  std::transform(hash.begin(), hash.end(), hash.begin(), [](unsigned char c) { return std::tolower(c); });
  bool hex = std::all_of(hash.begin(), hash.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
  if (!hex || hash.size() != digits) {
    throw CToolError("'" + text + "' is not a hash of this installation: it records " +
                     std::to_string(policy_number) + "-bit hashes, " + std::to_string(digits) +
                     " hexadecimal digits");
  }
  return hash;
}

}  // namespace

int RunLookup(const CCommandLine& line) {
  RequireShape(line, {"--verify", "--json"}, 1, 1);
  CSession session(line);
  std::string hash = NormalisedHash(line.arguments[0], session.settings().policy_number);
  // The front searches the databases that are alive: load every policy's.
  std::vector<std::shared_ptr<CHashDB>> databases;
  bool refused = false;
  for (const CRefPolicySettings& policy : session.settings().policies) {
    if (!session.front().HdbFileExists(policy.name)) continue;
    try {
      databases.push_back(session.LoadDatabase(policy));
    } catch (const CToolError& e) {
      std::cerr << "signdb: " << e.what() << "\n";
      refused = true;
    }
  }
  if (databases.empty() && !refused) {
    throw CToolError("no policy has a database yet; run 'signdb scan POLICY' first");
  }
  std::string path = session.Narrow(session.front().FindFileByHash(hash, line.Has("--verify")));
  if (line.Has("--json")) {
    std::cout << "{\"hash\":" << JsonString(hash) << ",\"path\":" << (path.empty() ? "null" : JsonString(path))
              << "}\n";
  } else if (!path.empty()) {
    std::cout << path << "\n";
  } else {
    std::cerr << "signdb: no recorded file carries " << hash
              << (line.Has("--verify") ? " (and still does)" : "") << "\n";
  }
  if (!path.empty()) return kExitOk;
  return refused ? kExitError : kExitDifferences;
}
