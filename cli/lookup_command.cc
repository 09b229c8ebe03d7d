// signdb lookup HASH: every recorded file that carries a content hash, across every policy.

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <iostream>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/session.h"
#include "cli/text_format.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "host/crypto_service.h"
#include "refhost/ref_host.h"
#include "refhost/safe_text.h"

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

// One recorded file that carries the hash.
struct CHolder {
  std::string policy;
  std::string path;
  std::string verdict;  // with --verify: "verified", or why not
};

// Every unmarked file of the database that carries "hash": the module answers one at a time, so
// each answer is marked until none is left. The database is this run's own copy, never saved.
std::vector<std::string> HoldersIn(CSession& session, CHashDB& database, const std::string& hash) {
  std::vector<std::string> paths;
  for (;;) {
    std::wstring path = database.PathByHash(hash, false);
    if (path.empty()) break;
    std::string narrow = session.Narrow(path);
    if (std::find(paths.begin(), paths.end(), narrow) != paths.end()) break;  // could not be marked
    paths.push_back(narrow);
    database.Mark(true, path, true);
  }
  return paths;
}

}  // namespace

int RunLookup(const CCommandLine& line) {
  RequireShape(line, {"--verify", "--json"}, 1, 1);
  CSession session(line);
  std::string hash = NormalisedHash(line.arguments[0], session.settings().policy_number);
  bool verify = line.Has("--verify");
  std::vector<CHolder> holders;
  bool refused = false;
  bool any_database = false;
  for (const CRefPolicySettings& policy : session.settings().policies) {
    if (!session.front().HdbFileExists(policy.name)) continue;
    std::shared_ptr<CHashDB> database;
    try {
      database = session.LoadDatabase(policy);
    } catch (const CToolError& e) {
      std::cerr << "signdb: " << EscapedText(e.what()) << "\n";
      refused = true;
      continue;
    }
    any_database = true;
    for (std::string& path : HoldersIn(session, *database, hash)) {
      CHolder holder{policy.name, std::move(path), std::string()};
      if (verify) {
        // The check that the module's own verified look-up makes: the file still carries the hash.
        try {
          std::string now = session.host().Crypto()->HashFile(session.Wide(holder.path), session.settings().policy_number);
          holder.verdict = boost::algorithm::iequals(now, hash) ? "verified" : "content changed since it was recorded";
        } catch (const std::exception& e) {
          holder.verdict = e.what();
        }
      }
      holders.push_back(std::move(holder));
    }
  }
  if (!any_database && !refused) {
    throw CToolError("no policy has a database yet; run 'signdb scan POLICY' first");
  }
  size_t found = 0;
  if (line.Has("--json")) {
    std::cout << "{\"hash\":" << JsonString(hash) << ",\"holders\":[";
    for (size_t i = 0; i < holders.size(); ++i) {
      std::cout << (i ? "," : "") << "{\"policy\":" << JsonString(holders[i].policy)
                << ",\"path\":" << JsonString(holders[i].path);
      if (verify) {
        std::cout << ",\"verified\":" << (holders[i].verdict == "verified" ? "true" : "false");
        if (holders[i].verdict != "verified") std::cout << ",\"reason\":" << JsonString(holders[i].verdict);
      }
      std::cout << "}";
    }
    std::cout << "]}\n";
  }
  for (const CHolder& holder : holders) {
    bool good = !verify || holder.verdict == "verified";
    if (good) ++found;
    if (line.Has("--json")) continue;
    if (good) {
      std::cout << SafePath(holder.path) << "\n";
    } else {
      std::cerr << "signdb: " << SafePath(holder.path) << " no longer carries it: " << EscapedText(holder.verdict) << "\n";
    }
  }
  if (found == 0 && !line.Has("--json")) {
    std::cerr << "signdb: no recorded file carries " << hash << (verify ? " (and still does)" : "") << "\n";
  }
  if (found > 0) return kExitOk;
  return refused ? kExitError : kExitDifferences;
}
