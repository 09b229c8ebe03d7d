#include "tool/fleet/fleet_questions.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "tool/fleet/clickhouse_client.h"

namespace {

using CTable = CClickHouseClient::CTable;

// The rows of a TabSeparated answer, each with exactly "width" raw fields (escapes kept).
std::vector<std::vector<std::string>> Rows(const std::string& answer, size_t width,
                                           const char* what) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream in(answer);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields = CClickHouseClient::RawTabFields(line);
    if (fields.size() != width) {
      throw std::runtime_error(std::string("the fleet store answered a line that is not ") + what +
                               " (" + std::to_string(fields.size()) + " fields of " +
                               std::to_string(width) + ")");
    }
    rows.push_back(std::move(fields));
  }
  return rows;
}

std::string Text(const std::string& raw) { return CClickHouseClient::FromTabField(raw); }

uint64_t Number(const std::string& raw, const char* what) {
  uint64_t value = 0;
  auto [end, error] = std::from_chars(raw.data(), raw.data() + raw.size(), value);
  if (error != std::errc() || end != raw.data() + raw.size() || raw.empty()) {
    throw std::runtime_error(std::string("the fleet store answered '") + raw.substr(0, 40) +
                             "' for " + what + ", which is not a number");
  }
  return value;
}

// The texts of an Array(String) field.
std::vector<std::string> Texts(const std::string& raw) {
  std::vector<std::string> texts;
  for (const std::string& item : CClickHouseClient::ArrayItems(raw))
    texts.push_back(CClickHouseClient::UnquotedText(item));
  return texts;
}

std::string Lines(const std::vector<std::string>& texts) {
  std::string rows;
  for (const std::string& text : texts) rows += CClickHouseClient::TabField(text) + "\n";
  return rows;
}

// For each host and policy, the generation of its latest publication.
std::string LatestGenerations(const std::string& d) {
  return "SELECT host, policy, argMax(generation, sequence) FROM " + d +
         ".hosts GROUP BY host, policy";
}

// The hosts whose latest publication (of any policy) names the group in the external table
// "wanted_group".
std::string HostsOfGroup(const std::string& d) {
  return "SELECT host FROM (SELECT host, policy, argMax(groups, sequence) AS latest_groups FROM " +
         d + ".hosts GROUP BY host, policy) WHERE has(latest_groups, (SELECT name FROM " +
         "wanted_group))";
}

}  // namespace

std::string GlobAsLikePattern(const std::string& glob) {
  std::string pattern;
  for (size_t i = 0; i < glob.size(); ++i) {
    char c = glob[i];
    if (c == '\\' && i + 1 < glob.size()) {
      c = glob[++i];
      if (c == '%' || c == '_' || c == '\\') pattern += '\\';
      pattern += c;
    } else if (c == '*') {
      pattern += '%';
    } else if (c == '?') {
      pattern += '_';
    } else {
      if (c == '%' || c == '_' || c == '\\') pattern += '\\';
      pattern += c;
    }
  }
  return pattern;
}

std::vector<CFleetHolder> FleetHolders(const CClickHouseClient& client, const std::string& database,
                                       const std::vector<std::string>& hashes) {
  const std::string& d = database;
  std::string answer = client.Run(
      "SELECT hash, host, policy, path, tupleElement(latest, 3), tupleElement(latest, 4) FROM "
      "(SELECT hash, host, policy, path, argMax((present, generation, since_revision, since), "
      "sequence) AS latest FROM " +
          d +
          ".holders WHERE hash IN wanted GROUP BY hash, host, policy, path) "
          "WHERE tupleElement(latest, 1) = 1 AND (host, policy, tupleElement(latest, 2)) "
          "GLOBAL IN (" +
          LatestGenerations(d) + ") ORDER BY hash, host, policy, path FORMAT TabSeparated",
      std::string(), {CTable{"wanted", "hash String", Lines(hashes)}});
  return ReadFleetHolders(answer);
}

std::vector<CFleetHolder> ReadFleetHolders(const std::string& answer) {
  std::vector<CFleetHolder> holders;
  for (const auto& row : Rows(answer, 6, "a holder")) {
    holders.push_back(CFleetHolder{Text(row[0]), Text(row[1]), Text(row[2]), Text(row[3]),
                                   Number(row[4], "a revision"), Number(row[5], "a time")});
  }
  return holders;
}

std::vector<CFleetHost> FleetHosts(const CClickHouseClient& client, const std::string& database,
                                   uint64_t now) {
  std::string answer = client.Run(
      "SELECT host, policy, argMax(published, sequence), argMax(revision, sequence), "
      "argMax(objects, "
      "sequence), argMax(cstm_id, sequence), argMax(lcs_id, sequence), argMax(groups, sequence), "
      "argMax(version, sequence), argMax(period, sequence) FROM " +
      database + ".hosts GROUP BY host, policy ORDER BY host, policy FORMAT TabSeparated");
  return ReadFleetHosts(answer, now);
}

std::vector<CFleetHost> ReadFleetHosts(const std::string& answer, uint64_t now) {
  std::vector<CFleetHost> hosts;
  for (const auto& row : Rows(answer, 10, "a host")) {
    CFleetHost host;
    host.host = Text(row[0]);
    host.policy = Text(row[1]);
    host.published = Number(row[2], "a time");
    host.revision = Number(row[3], "a revision");
    host.objects = Number(row[4], "a count of objects");
    host.cstm_id = Text(row[5]);
    host.lcs_id = Text(row[6]);
    host.groups = Texts(row[7]);
    host.version = Text(row[8]);
    host.period = static_cast<uint32_t>(Number(row[9], "a period"));
    host.silent = now > host.published && now - host.published > 2ull * host.period;
    hosts.push_back(std::move(host));
  }
  return hosts;
}

std::vector<CFleetChangeLine> FleetChanges(const CClickHouseClient& client,
                                           const std::string& database,
                                           const CFleetChangeQuery& query) {
  const std::string& d = database;
  std::string where = "time >= " + std::to_string(query.since);
  std::vector<CTable> tables;
  if (!query.host.empty()) {
    where += " AND host IN wanted_host";
    tables.push_back(CTable{"wanted_host", "name String", Lines({query.host})});
  }
  if (!query.group.empty()) {
    where += " AND host GLOBAL IN (" + HostsOfGroup(d) + ")";
    tables.push_back(CTable{"wanted_group", "name String", Lines({query.group})});
  }
  if (!query.path_glob.empty()) {
    where += " AND like(path, (SELECT pattern FROM wanted_path))";
    tables.push_back(
        CTable{"wanted_path", "pattern String", Lines({GlobAsLikePattern(query.path_glob)})});
  }
  // A line delivered twice is one line (LIMIT 1 BY its key); the newest "limit", oldest first.
  std::string answer = client.Run(
      "SELECT host, time, dataset, policy, path, change, severity, event, text FROM (SELECT host, "
      "batch, line, time, dataset, policy, path, change, severity, event, text FROM " +
          d + ".changes WHERE " + where +
          " ORDER BY time DESC, host DESC, batch DESC, line DESC LIMIT 1 BY time, host, batch, "
          "line LIMIT " +
          std::to_string(query.limit) + ") ORDER BY time, host, batch, line FORMAT TabSeparated",
      std::string(), tables);
  return ReadFleetChanges(answer);
}

std::vector<CFleetChangeLine> ReadFleetChanges(const std::string& answer) {
  std::vector<CFleetChangeLine> lines;
  for (const auto& row : Rows(answer, 9, "a change line")) {
    lines.push_back(CFleetChangeLine{Text(row[0]), Number(row[1], "a time"), Text(row[2]),
                                     Text(row[3]), Text(row[4]), Text(row[5]), Text(row[6]),
                                     Text(row[7]), Text(row[8])});
  }
  return lines;
}

CDriftAnswer FleetDrift(const CClickHouseClient& store, const std::string& database,
                        const std::vector<std::string>& hosts, const std::string& group) {
  // A filter on a column that is not of the sorting key must not move below FINAL, where it
  // would choose among a key's versions before the latest is taken.
  CClickHouseClient client = store;
  client.Set("enable_optimize_predicate_expression", "0");
  const std::string& d = database;
  // The hosts of the set that published, and the policies each publishes.
  std::vector<CTable> chosen;
  std::string of_set;
  if (!group.empty()) {
    of_set = "host GLOBAL IN (" + HostsOfGroup(d) + ")";
    chosen.push_back(CTable{"wanted_group", "name String", Lines({group})});
  } else {
    of_set = "host IN wanted_host";
    chosen.push_back(CTable{"wanted_host", "name String", Lines(hosts)});
  }
  std::string published = client.Run("SELECT DISTINCT host, policy FROM " + d + ".hosts WHERE " +
                                         of_set + " ORDER BY host, policy FORMAT TabSeparated",
                                     std::string(), chosen);
  std::map<std::string, std::vector<std::string>> hosts_of_policy;
  std::set<std::string> compared;
  for (const auto& row : Rows(published, 2, "a host and a policy")) {
    hosts_of_policy[Text(row[1])].push_back(Text(row[0]));
    compared.insert(Text(row[0]));
  }
  CDriftAnswer drift;
  drift.hosts.assign(compared.begin(), compared.end());
  for (const auto& [policy, policy_hosts] : hosts_of_policy) {
    if (policy_hosts.size() < 2) continue;
    std::vector<CTable> tables = {CTable{"wanted_host", "name String", Lines(policy_hosts)},
                                  CTable{"wanted_policy", "name String", Lines({policy})}};
    // What each host holds now of the policy, one row per path: the latest version of each key
    // (FINAL, which merges by the sorting key; only key columns are filtered before it, the
    // rest after), in its host's latest generation. Then the values of each path, told apart by
    // a hash of them, with the hosts that have each; then the paths with more than one value, or
    // that some hosts lack.
    std::string now_held =
        "SELECT host, path, kind, hash, mode, uid, gid, cityHash64(kind, hash, mode, uid, gid) AS "
        "value FROM (SELECT host, policy, path, present, generation, kind, hash, mode, uid, gid "
        "FROM " +
        d +
        ".records FINAL WHERE host IN wanted_host AND policy = (SELECT name FROM "
        "wanted_policy)) WHERE present = 1 AND (host, policy, generation) GLOBAL IN (" +
        LatestGenerations(d) + ")";
    std::string answer = client.Run(
        "SELECT path, groupArray(kind), groupArray(hash), groupArray(mode), groupArray(uid), "
        "groupArray(gid), groupArray(holders) FROM (SELECT path, value, any(kind) AS kind, "
        "any(hash) AS hash, any(mode) AS mode, any(uid) AS uid, any(gid) AS gid, "
        "groupArray(host) AS holders FROM (" +
            now_held +
            ") GROUP BY path, value) GROUP BY path HAVING count() > 1 OR "
            "sum(length(holders)) < " +
            std::to_string(policy_hosts.size()) + " ORDER BY path FORMAT TabSeparated",
        std::string(), tables);
    std::vector<CDriftPath> paths = ReadFleetDrift(answer, policy, policy_hosts);
    drift.paths.insert(drift.paths.end(), std::make_move_iterator(paths.begin()),
                       std::make_move_iterator(paths.end()));
  }
  return drift;
}

std::vector<CDriftPath> ReadFleetDrift(const std::string& answer, const std::string& policy,
                                       const std::vector<std::string>& policy_hosts) {
  std::vector<CDriftPath> paths;
  for (const auto& row : Rows(answer, 7, "a path of a drift")) {
    CDriftPath path;
    path.policy = policy;
    path.path = Text(row[0]);
    std::vector<std::string> kinds = Texts(row[1]);
    std::vector<std::string> hashes = Texts(row[2]);
    std::vector<std::string> modes = CClickHouseClient::ArrayItems(row[3]);
    std::vector<std::string> uids = Texts(row[4]);
    std::vector<std::string> gids = Texts(row[5]);
    std::vector<std::string> holders = CClickHouseClient::ArrayItems(row[6]);
    size_t values = kinds.size();
    if (hashes.size() != values || modes.size() != values || uids.size() != values ||
        gids.size() != values || holders.size() != values) {
      throw std::runtime_error("the fleet store answered a path of a drift whose lists differ");
    }
    std::vector<CDriftValue> all;
    std::set<std::string> have(policy_hosts.begin(), policy_hosts.end());
    for (size_t i = 0; i < values; ++i) {
      CDriftValue value;
      value.kind = kinds[i];
      value.hash = hashes[i];
      value.mode = static_cast<uint32_t>(Number(modes[i], "a mode"));
      value.uid = uids[i];
      value.gid = gids[i];
      value.hosts = Texts(holders[i]);
      std::sort(value.hosts.begin(), value.hosts.end());
      for (const std::string& host : value.hosts) have.erase(host);
      all.push_back(std::move(value));
    }
    if (!have.empty()) {
      CDriftValue absent;
      absent.present = false;
      absent.hosts.assign(have.begin(), have.end());
      all.push_back(std::move(absent));
    }
    if (all.empty())
      throw std::runtime_error("the fleet store answered a path of a drift without values");
    // What most hosts have; of equally many, the one whose first host sorts first.
    auto most = std::min_element(all.begin(), all.end(), [](const auto& a, const auto& b) {
      if (a.hosts.size() != b.hosts.size()) return a.hosts.size() > b.hosts.size();
      return a.hosts < b.hosts;
    });
    path.most = *most;
    for (auto it = all.begin(); it != all.end(); ++it) {
      if (it != most) path.others.push_back(std::move(*it));
    }
    std::sort(path.others.begin(), path.others.end(),
              [](const auto& a, const auto& b) { return a.hosts < b.hosts; });
    paths.push_back(std::move(path));
  }
  return paths;
}
