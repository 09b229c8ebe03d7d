// signdb fleet COMMAND: the fleet store where every host publishes its records and changes.
//   init     makes the store's tables (safe to run again)
//   hosts    every host that published, when, with what; the silent ones
//   lookup   every host, policy and path that holds each hash now
//   changes  the change lines of the fleet
//   drift    where hosts that should be alike differ

#include <Poco/JSON/Parser.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "tool/common/exit_status.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_questions.h"
#include "tool/fleet/fleet_schema.h"
#include "tool/fleet/fleet_settings.h"
#include "tool/session/config_location.h"
#include "tool/store/database_files.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

CFleetSettings SettingsOf(const CCommandLine& line) {
  std::string config = ConfigPathOf(line.Value("--config"));
  CFleetSettings settings = ReadFleetSettings(config);
  if (!settings.configured) {
    throw CToolError("the configuration " + config +
                     " has no \"fleet\" section: add {\"fleet\": {\"url\": "
                     "\"http://HOST:8123\"}} to publish to a fleet store");
  }
  return settings;
}

std::string Time(uint64_t seconds) { return IsoSecondsText(static_cast<int64_t>(seconds)); }

// A line a host made for people: shown as it is unless it holds what a terminal would act on
// (a host that is not trusted could send anything).
std::string HostLine(const std::string& text) {
  bool plain = IsValidUtf8(text) && std::none_of(text.begin(), text.end(), [](unsigned char c) {
                 return c < 0x20 || c == 0x7f;
               });
  return plain ? text : EscapedText(text);
}

std::string SpanText(uint64_t seconds) {
  if (seconds >= 2 * 86400) return std::to_string(seconds / 86400) + " days";
  if (seconds >= 2 * 3600) return std::to_string(seconds / 3600) + " hours";
  if (seconds >= 120) return std::to_string(seconds / 60) + " minutes";
  return std::to_string(seconds) + " s";
}

int Init(const CFleetSettings& settings) {
  CreateFleetSchema(settings);
  std::cout << "the fleet store at " << settings.url << " holds the tables of schema version "
            << kFleetSchemaVersion << " in '" << settings.database << "'";
  if (!settings.cluster.empty()) {
    std::cout << ", over the " << settings.shards.size() << " shards of cluster '"
              << settings.cluster << "'";
  }
  std::cout << "\n";
  return kExitOk;
}

int Hosts(const CFleetSettings& settings, bool json) {
  uint64_t now = static_cast<uint64_t>(std::time(nullptr));
  std::vector<CFleetHost> hosts = FleetHosts(ConnectToFleet(settings), settings.database, now);
  std::vector<std::string> silent;
  for (const CFleetHost& host : hosts) {
    if (host.silent)
      silent.push_back(EscapedText(host.host) + " (" + EscapedText(host.policy) + ")");
    if (json) {
      CJsonLine out;
      out.Open()
          .String("host", host.host)
          .String("policy", host.policy)
          .String("published", Time(host.published))
          .Number("revision", host.revision)
          .Number("objects", host.objects)
          .String("cstm_id", host.cstm_id)
          .String("lcs_id", host.lcs_id)
          .OpenArray("groups");
      for (const std::string& group : host.groups) out.Item(group);
      out.Close()
          .String("version", host.version)
          .Number("period", host.period)
          .Bool("silent", host.silent)
          .Close();
      std::cout << out.Take() << "\n";
      continue;
    }
    std::string groups;
    for (const std::string& group : host.groups)
      groups += (groups.empty() ? "" : ",") + EscapedText(group);
    std::cout << (host.silent ? "SILENT " : "") << EscapedText(host.host) << "  "
              << EscapedText(host.policy) << "  published " << Time(host.published) << "  revision "
              << RevisionText(host.revision) << "  " << GroupedNumber(host.objects)
              << (host.objects == 1 ? " object" : " objects") << "  signer "
              << EscapedText(host.cstm_id) << "/" << EscapedText(host.lcs_id)
              << (groups.empty() ? "" : "  groups " + groups) << "  signdb "
              << EscapedText(host.version);
    if (host.silent) {
      std::cout << "  (nothing for " << SpanText(now - host.published) << "; it publishes every "
                << SpanText(host.period) << ")";
    }
    std::cout << "\n";
  }
  if (hosts.empty() && !json) std::cout << "no host has published to the fleet store yet\n";
  if (!silent.empty()) {
    std::cerr << "signdb: " << silent.size() << (silent.size() == 1 ? " host has" : " hosts have")
              << " been silent for longer than twice their period:";
    for (const std::string& name : silent) std::cerr << " " << name;
    std::cerr << "\n";
    return kExitDifferences;  // a silent agent is an alarm of its own
  }
  return kExitOk;
}

// The hashes of an indicator list: one per line (the first word of a line, as sha256sum writes
// them), blank lines and lines that begin with '#' left out.
std::vector<std::string> HashesOfFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw CToolError("cannot read the hash list " + path);
  std::vector<std::string> hashes;
  size_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#') continue;
    std::string hash = line.substr(start, line.find_first_of(" \t\r", start) - start);
    if (!IsHexDigits(hash) || hash.size() < 32 || hash.size() % 2 != 0) {
      throw CToolError(path + ":" + std::to_string(number) + ": '" +
                       EscapedText(hash.substr(0, 80)) + "' is not a hash in hexadecimal");
    }
    hashes.push_back(hash);
  }
  return hashes;
}

int Lookup(const CFleetSettings& settings, std::vector<std::string> hashes, bool json) {
  for (std::string& hash : hashes) hash = AsciiLower(hash);
  std::vector<CFleetHolder> holders =
      FleetHolders(ConnectToFleet(settings), settings.database, hashes);
  std::set<std::string> held;
  for (const CFleetHolder& holder : holders) {
    held.insert(holder.hash);
    if (json) {
      std::cout << CJsonLine()
                       .Open()
                       .String("hash", holder.hash)
                       .String("host", holder.host)
                       .String("policy", holder.policy)
                       .String("path", holder.path)
                       .Number("since_revision", holder.since_revision)
                       .String("since", Time(holder.since))
                       .Close()
                       .Take()
                << "\n";
    } else {
      std::cout << holder.hash << "  " << EscapedText(holder.host) << "  "
                << EscapedText(holder.policy) << "  " << SafePath(holder.path)
                << "  since revision " << RevisionText(holder.since_revision) << " ("
                << Time(holder.since) << ")\n";
    }
  }
  std::set<std::string> asked(hashes.begin(), hashes.end());
  if (held.empty()) {
    std::cerr << "signdb: no host of the fleet holds " << (asked.size() == 1 ? "it" : "any of them")
              << " now\n";
  } else if (asked.size() > 1) {
    std::cerr << "signdb: " << held.size() << " of " << asked.size()
              << " hashes are held by a host of the fleet now\n";
  }
  return held.empty() ? kExitDifferences : kExitOk;
}

int Changes(const CFleetSettings& settings, const CCommandLine& line) {
  CFleetChangeQuery query;
  if (!line.Value("--since").empty()) {
    int64_t since = 0;
    if (!SecondsOfTimeText(line.Value("--since"), std::time(nullptr), since) || since < 0) {
      throw CToolError(
          "--since takes a time (2026-11-24, 2026-11-24T08:00) or a span back "
          "(30m, 24h, 7d): '" +
          line.Value("--since") + "'");
    }
    query.since = static_cast<uint64_t>(since);
  }
  query.host = line.Value("--host");
  query.group = line.Value("--group");
  query.path_glob = line.Value("--path");
  if (!line.Value("--limit").empty()) {
    try {
      query.limit = std::stoull(line.Value("--limit"));
    } catch (const std::exception&) {
      throw CToolError("--limit takes a number of lines: '" + line.Value("--limit") + "'");
    }
  }
  std::vector<CFleetChangeLine> lines =
      FleetChanges(ConnectToFleet(settings), settings.database, query);
  for (const CFleetChangeLine& change : lines) {
    if (line.Has("--json")) {
      CJsonLine out;
      out.Open()
          .String("time", Time(change.time))
          .String("host", change.host)
          .String("dataset", change.dataset)
          .String("policy", change.policy)
          .String("path", change.path)
          .String("change", change.change)
          .String("severity", change.severity)
          .String("text", change.text);
      bool event_is_json = false;
      try {
        event_is_json = !Poco::JSON::Parser().parse(change.event).isEmpty();
      } catch (const std::exception&) {
      }
      if (event_is_json) {
        out.Raw("event", change.event);
      } else {
        out.String("event", change.event);
      }
      std::cout << out.Close().Take() << "\n";
    } else {
      std::cout << Time(change.time) << "  " << EscapedText(change.host) << "  "
                << EscapedText(change.dataset) << "  " << HostLine(change.text) << "\n";
    }
  }
  if (lines.empty() && !line.Has("--json")) std::cout << "no change line matches\n";
  if (lines.size() == query.limit) {
    std::cerr << "signdb: the newest " << query.limit
              << " lines are shown; --limit shows more, --since fewer\n";
  }
  return kExitOk;
}

std::string ValueText(const CDriftValue& value) {
  if (!value.present) return "absent";
  std::string text = value.kind;
  if (!value.hash.empty()) text += " " + value.hash.substr(0, 12);
  return text + " " + AttributesText(value.mode) + " uid " + EscapedText(value.uid) + " gid " +
         EscapedText(value.gid);
}

std::string HostsText(const std::vector<std::string>& hosts) {
  std::string text;
  for (const std::string& host : hosts) text += (text.empty() ? "" : ", ") + EscapedText(host);
  return text;
}

void AddDriftValue(CJsonLine& out, const CDriftValue& value) {
  out.Bool("present", value.present);
  if (value.present) {
    out.String("kind", value.kind)
        .String("hash", value.hash)
        .String("mode", AttributesText(value.mode))
        .String("uid", value.uid)
        .String("gid", value.gid);
  }
  out.OpenArray("hosts");
  for (const std::string& host : value.hosts) out.Item(host);
  out.Close();
}

int Drift(const CFleetSettings& settings, const CCommandLine& line) {
  std::string group = line.Value("--group");
  std::vector<std::string> hosts;
  std::string list = line.Value("--hosts");
  for (size_t start = 0; !list.empty() && start <= list.size();) {
    size_t comma = list.find(',', start);
    std::string name = list.substr(start, comma == std::string::npos ? comma : comma - start);
    if (!name.empty()) hosts.push_back(name);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  if (group.empty() == hosts.empty())
    throw CToolError("fleet drift compares a group (--group G) or hosts (--hosts A,B,...)");
  CDriftAnswer drift = FleetDrift(ConnectToFleet(settings), settings.database, hosts, group);
  if (drift.hosts.size() < 2) {
    throw CToolError("fleet drift needs two hosts that published, and " +
                     std::string(group.empty() ? "the hosts named" : "group '" + group + "'") +
                     " has " + std::to_string(drift.hosts.size()));
  }
  for (const CDriftPath& path : drift.paths) {
    if (line.Has("--json")) {
      CJsonLine out;
      out.Open().String("policy", path.policy).String("path", path.path).Open("most");
      AddDriftValue(out, path.most);
      out.Close().OpenArray("others");
      for (const CDriftValue& other : path.others) {
        out.Open();
        AddDriftValue(out, other);
        out.Close();
      }
      std::cout << out.Close().Close().Take() << "\n";
      continue;
    }
    std::cout << EscapedText(path.policy) << "  " << SafePath(path.path) << "\n"
              << "  " << path.most.hosts.size()
              << (path.most.hosts.size() == 1 ? " host: " : " hosts: ") << ValueText(path.most)
              << "\n";
    for (const CDriftValue& other : path.others)
      std::cout << "  " << HostsText(other.hosts) << ": " << ValueText(other) << "\n";
  }
  if (!line.Has("--json")) {
    std::cout << drift.hosts.size() << " hosts compared (" << HostsText(drift.hosts) << "): "
              << (drift.paths.empty()
                      ? std::string("every path is alike")
                      : GroupedNumber(drift.paths.size()) +
                            (drift.paths.size() == 1 ? " path differs" : " paths differ"))
              << "\n";
  }
  return drift.paths.empty() ? kExitOk : kExitDifferences;
}

}  // namespace

int RunFleet(const CCommandLine& line) {
  RequireShape(line,
               {"--json", "--from", "--since", "--host", "--group", "--path", "--hosts", "--limit"},
               1, SIZE_MAX);
  const std::string& command = line.arguments[0];
  CFleetSettings settings = SettingsOf(line);
  try {
    if (command == "init") return Init(settings);
    if (command == "hosts") return Hosts(settings, line.Has("--json"));
    if (command == "lookup") {
      std::vector<std::string> hashes(line.arguments.begin() + 1, line.arguments.end());
      for (const std::string& file : line.Values("--from")) {
        std::vector<std::string> listed = HashesOfFile(file);
        hashes.insert(hashes.end(), listed.begin(), listed.end());
      }
      if (hashes.empty()) throw CToolError("fleet lookup takes one hash or more, or --from FILE");
      return Lookup(settings, hashes, line.Has("--json"));
    }
    if (command == "changes") return Changes(settings, line);
    if (command == "drift") return Drift(settings, line);
  } catch (const CToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
  throw CToolError("unknown fleet command '" + command +
                   "': init, hosts, lookup, changes or drift");
}
