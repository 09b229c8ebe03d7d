// signdb lookup HASH: every recorded file that carries a content hash, across every policy.

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <iostream>
#include <set>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "host/crypto_service.h"
#include "refhost/ref_host.h"
#include "tool/common/exit_status.h"
#include "tool/report/hash_holders.h"
#include "tool/session/session.h"
#include "tool/store/service_lock.h"
#include "tool/watch/query_protocol.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

std::string NormalisedHash(const std::string& text, uint32_t policy_number) {
  size_t digits = policy_number / 4;
  std::string hash = AsciiLower(text);
  if (!IsHexDigits(hash) || hash.size() != digits) {
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

// A service's answer, refused unless it says ok.
Poco::JSON::Object::Ptr Answered(const CQueryAnswer& answer) {
  if (!answer.ok()) throw std::runtime_error(answer.error);
  return answer.body;
}

}  // namespace

int RunLookup(const CCommandLine& line) {
  RequireShape(line, {"--verify", "--json"}, 1, 1);
  CSession session(SessionOptionsOf(line));
  std::string hash = NormalisedHash(line.arguments[0], session.settings().policy_number);
  bool verify = line.Has("--verify");
  std::vector<CHolder> holders;
  std::vector<std::string> unsearched;  // policies whose database was refused
  bool any_database = false;
  // The running watch service answers for the policies it watches (it holds their databases).
  std::set<std::string> watched;
  if (CServiceLock::Holder(session.DataFolder()) != 0) {
    try {
      Poco::JSON::Object::Ptr status =
          Answered(AskWatchService(session.DataFolder(), CQueryRequest::Status()));
      Poco::JSON::Array::Ptr policies = status->getArray("policies");
      for (size_t i = 0; policies && i < policies->size(); ++i) {
        watched.insert(
            policies->getObject(static_cast<unsigned>(i))->optValue<std::string>("name", ""));
      }
      Poco::JSON::Object::Ptr answer =
          Answered(AskWatchService(session.DataFolder(), CQueryRequest::Lookup(hash)));
      Poco::JSON::Array::Ptr found = answer->getArray("holders");
      for (size_t i = 0; found && i < found->size(); ++i) {
        Poco::JSON::Object::Ptr holder = found->getObject(static_cast<unsigned>(i));
        holders.push_back(CHolder{holder->optValue<std::string>("policy", ""),
                                  holder->optValue<std::string>("path", ""), std::string()});
      }
      any_database = !watched.empty();
    } catch (const std::exception& e) {
      throw CToolError(std::string("the watch service did not answer: ") + e.what());
    }
  }
  for (const CRefPolicySettings& policy : session.settings().policies) {
    if (watched.count(policy.name) != 0) continue;
    if (!session.front().HdbFileExists(policy.name)) continue;
    std::shared_ptr<CHashDB> database;
    try {
      database = session.Store(policy).Load();
    } catch (const CToolError& e) {
      std::cerr << "signdb: policy '" << EscapedText(policy.name)
                << "' could not be searched: " << EscapedText(e.what()) << "\n";
      for (const std::string& hint : e.hints()) std::cerr << "  " << EscapedText(hint) << "\n";
      unsearched.push_back(policy.name);
      continue;
    }
    any_database = true;
    for (const std::wstring& path : HoldersOf(*database, hash, false)) {
      holders.push_back(CHolder{policy.name, session.Narrow(path), std::string()});
    }
  }
  // The check that the module's own verified look-up makes: the file still carries the hash.
  for (CHolder& holder : holders) {
    if (!verify) break;
    try {
      std::string now = session.host().Crypto()->HashFile(session.Wide(holder.path),
                                                          session.settings().policy_number);
      holder.verdict = boost::algorithm::iequals(now, hash)
                           ? "verified"
                           : "content changed since it was recorded";
    } catch (const std::exception& e) {
      holder.verdict = e.what();
    }
  }
  bool refused = !unsearched.empty();
  if (!any_database && !refused) {
    throw CToolError("no policy has a database yet; run 'signdb scan POLICY' first");
  }
  size_t found = 0;
  if (line.Has("--json")) {
    CJsonLine answer;
    answer.Open().String("hash", hash).OpenArray("unsearched");
    for (const std::string& name : unsearched) answer.Item(name);
    answer.Close().OpenArray("holders");
    for (const CHolder& holder : holders) {
      answer.Open().String("policy", holder.policy).String("path", holder.path);
      if (verify) {
        answer.Bool("verified", holder.verdict == "verified");
        if (holder.verdict != "verified") answer.String("reason", holder.verdict);
      }
      answer.Close();
    }
    std::cout << answer.Close().Close().Take() << "\n";
  }
  for (const CHolder& holder : holders) {
    bool good = !verify || holder.verdict == "verified";
    if (good) ++found;
    if (line.Has("--json")) continue;
    if (good) {
      std::cout << SafePath(holder.path) << "\n";
    } else {
      std::cerr << "signdb: " << SafePath(holder.path)
                << " no longer carries it: " << EscapedText(holder.verdict) << "\n";
    }
  }
  if (found == 0 && !line.Has("--json")) {
    if (!any_database) {
      std::cerr << "signdb: nothing was searched: no database could be used\n";
    } else {
      std::cerr << "signdb: no recorded file carries " << hash
                << (verify ? " (and still does)" : "")
                << (refused ? " in the policies that could be searched" : "") << "\n";
    }
  }
  if (found > 0) return kExitOk;
  return refused ? kExitError : kExitDifferences;
}
