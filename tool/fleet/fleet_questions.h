#pragma once

#include <cstdint>
#include <string>
#include <vector>

class CClickHouseClient;

// The questions asked of the whole fleet. What a person gives (hashes, host and group names, a
// path pattern) travels as external data that the statement reads, never as statement text.
// Every answer is of what each host holds now: for each host and policy, the latest row of each
// path in its latest publication's generation. Throws std::runtime_error when the store fails or
// answers what is not the rows asked for.

// Who holds a hash now, and since when.
struct CFleetHolder {
  std::string hash;
  std::string host;
  std::string policy;
  std::string path;
  uint64_t since_revision = 0;  // the host's revision in which the path got this content
  uint64_t since = 0;           // when that was published (seconds since the epoch)
};
std::vector<CFleetHolder> FleetHolders(const CClickHouseClient& client, const std::string& database,
                                       const std::vector<std::string>& hashes);

// A host's latest publication of a policy.
struct CFleetHost {
  std::string host;
  std::string policy;
  uint64_t published = 0;  // seconds since the epoch
  uint64_t revision = 0;
  uint64_t objects = 0;
  std::string cstm_id;  // the signer's
  std::string lcs_id;
  std::vector<std::string> groups;
  std::string version;
  uint32_t period = 0;  // how often it said it publishes at least
  bool silent = false;  // not heard from for longer than twice its period
};
std::vector<CFleetHost> FleetHosts(const CClickHouseClient& client, const std::string& database,
                                   uint64_t now);

// The change lines of the fleet, newest last; each filter is left out when empty.
struct CFleetChangeQuery {
  uint64_t since = 0;  // seconds since the epoch
  std::string host;
  std::string group;       // hosts whose latest publication names the group
  std::string path_glob;   // '*' any run of characters (slashes too), '?' one character
  uint64_t limit = 10000;  // the newest this many
};
struct CFleetChangeLine {
  std::string host;
  uint64_t time = 0;
  std::string dataset;  // "check", "update" (accepted) or "watch"
  std::string policy;
  std::string path;
  std::string change;
  std::string severity;
  std::string event;  // the host's JSON line
  std::string text;   // the host's line for people
};
std::vector<CFleetChangeLine> FleetChanges(const CClickHouseClient& client,
                                           const std::string& database,
                                           const CFleetChangeQuery& query);

// Where hosts that should be alike differ: each path of a policy whose kind, hash, mode or owner
// is not the same on every host of the set that publishes the policy (or that some lack).
struct CDriftValue {
  bool present = true;  // false: the hosts do not have the path
  std::string kind;
  std::string hash;
  uint32_t mode = 0;
  std::string uid;
  std::string gid;
  std::vector<std::string> hosts;
};
struct CDriftPath {
  std::string policy;
  std::string path;
  CDriftValue most;                 // what most hosts have
  std::vector<CDriftValue> others;  // every other value, with the hosts that have it
};
struct CDriftAnswer {
  std::vector<std::string> hosts;  // the hosts compared (those of the set that published)
  std::vector<CDriftPath> paths;   // by policy and path
};
// "hosts": the set by name; or "group": every host whose latest publication names it.
CDriftAnswer FleetDrift(const CClickHouseClient& client, const std::string& database,
                        const std::vector<std::string>& hosts, const std::string& group);

// A glob ('*', '?'; a backslash takes the next character as it is) as a LIKE pattern.
std::string GlobAsLikePattern(const std::string& glob);

// The readers of the store's answers to the questions above (TabSeparated rows); each throws
// std::runtime_error for an answer that is not the rows asked for.
std::vector<CFleetHolder> ReadFleetHolders(const std::string& answer);
std::vector<CFleetHost> ReadFleetHosts(const std::string& answer, uint64_t now);
std::vector<CFleetChangeLine> ReadFleetChanges(const std::string& answer);
// The paths of one policy where "policy_hosts" differ.
std::vector<CDriftPath> ReadFleetDrift(const std::string& answer, const std::string& policy,
                                       const std::vector<std::string>& policy_hosts);
