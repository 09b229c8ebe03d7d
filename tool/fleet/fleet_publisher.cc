#include "tool/fleet/fleet_publisher.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "hashdb/hash_db.h"
#include "refhost/file_io.h"
#include "refhost/security_text.h"
#include "tool/change/object_state.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_schema.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"

namespace {

// The three tables a batch fills, in the order they are sent (the host's publication last: a
// question never sees a publication whose records are not all there).
constexpr const char* kTables[] = {"records", "holders", "hosts"};

std::string Field(const std::string& text) { return CClickHouseClient::TabField(text); }

// A text inside a TabSeparated array: single-quoted, quote and backslash escaped.
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "'";
}

std::vector<std::string> BatchesIn(const std::string& spool) {
  std::vector<std::string> batches;
  DIR* directory = ::opendir(spool.c_str());
  if (directory == nullptr) return batches;
  while (dirent* entry = ::readdir(directory)) {
    std::string name = entry->d_name;
    if (name.size() > 6 && name.compare(name.size() - 6, 6, ".batch") == 0) batches.push_back(name);
  }
  ::closedir(directory);
  std::sort(batches.begin(), batches.end());  // named by time: oldest first
  return batches;
}

void RemoveBatch(const std::string& path) {
  for (const char* table : kTables) ::unlink((path + "/" + table + ".tsv").c_str());
  ::rmdir(path.c_str());
}

}  // namespace

CFleetPublisher::CFleetPublisher(CFleetSettings settings, std::string data_folder,
                                 std::string tool_version)
    : settings_(std::move(settings)),
      spool_(std::move(data_folder) + "/fleet-spool"),
      tool_version_(std::move(tool_version)) {}

uint64_t CFleetPublisher::NextSequence(const std::string& policy) {
  // The order of a policy's publications: greater than the last one's, and than the clock's
  // nanoseconds (so that it keeps growing when the spool is lost), whatever the clock does.
  std::string path = spool_ + "/" + policy + ".sequence";
  uint64_t last = 0;
  {
    std::ifstream in(path);
    in >> last;
  }
  uint64_t now = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count());
  uint64_t next = std::max(last + 1, now);
  std::ofstream(path, std::ios::trunc) << next << "\n";
  return next;
}

std::string CFleetPublisher::Spool(const std::string& policy, CHashDB& database, uint64_t revision,
                                   const std::string& cstm_id, const std::string& lcs_id) {
  if (::mkdir(spool_.c_str(), 0700) != 0 && errno != EEXIST)
    throw std::runtime_error("cannot make the fleet spool " + spool_ + ": " + std::strerror(errno));
  std::string host = Field(settings_.host);
  std::string policy_field = Field(policy);
  std::string rev = std::to_string(revision);
  std::string published = std::to_string(static_cast<uint64_t>(std::time(nullptr)));
  std::string records;
  std::string holders;
  uint64_t objects = 0;
  std::shared_ptr<CPathEntryList> nodes = database.SubNodes(L"");
  const std::wstring& root = database.RootPath();
  for (const CPathEntry& node : *nodes) {
    std::string relative = WideToUtf8(node.second);
    std::wstring full = root;
    if (!relative.empty()) {
      if (!full.empty() && full.back() != L'/') full += L'/';
      full += node.second;
    }
    std::optional<CObjectState> state = RecordedStateIfAny(database, full);
    if (!state) continue;
    ++objects;
    security_text::CSecurityItems items = security_text::Parse(state->security);
    auto item = [&](const char* key) {
      auto found = items.find(key);
      return found == items.end() ? std::string() : found->second;
    };
    std::string path = Field(relative);
    records += host + "\t" + policy_field + "\t" + path + "\t" + rev + "\t1\t" +
               KindType(state->kind()) + "\t" + Field(state->hash) + "\t" +
               std::to_string(state->size) + "\t" +
               std::to_string(state->attributes == kUnknownAttributes ? 0 : state->attributes) +
               "\t" + Field(item(security_text::kUid)) + "\t" + Field(item(security_text::kGid)) +
               "\t" + published + "\n";
    if (!state->hash.empty())
      holders += Field(state->hash) + "\t" + host + "\t" + policy_field + "\t" + path + "\t" + rev +
                 "\t1\n";
  }
  std::string groups = "[";
  for (size_t i = 0; i < settings_.groups.size(); ++i)
    groups += (i ? "," : "") + Field(Quoted(settings_.groups[i]));
  groups += "]";
  std::string hosts = host + "\t" + published + "\t" + std::to_string(NextSequence(policy)) + "\t" +
                      policy_field + "\t" + rev + "\t" + std::to_string(objects) + "\t" +
                      Field(cstm_id) + "\t" + Field(lcs_id) + "\t" + groups + "\t" +
                      Field(tool_version_) + "\t0\n";
  // Written aside, moved in whole: a batch in the spool is always complete.
  auto now = std::chrono::system_clock::now().time_since_epoch();
  std::string name =
      std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()) + "-" +
      std::to_string(::getpid());
  std::string partial = spool_ + "/" + name + ".partial";
  std::string batch = spool_ + "/" + name + ".batch";
  if (::mkdir(partial.c_str(), 0700) != 0)
    throw std::runtime_error("cannot write to the fleet spool " + spool_ + ": " +
                             std::strerror(errno));
  const std::string* bodies[] = {&records, &holders, &hosts};
  for (size_t i = 0; i < 3; ++i) {
    std::ofstream out(partial + "/" + kTables[i] + ".tsv", std::ios::binary | std::ios::trunc);
    out << *bodies[i];
    out.flush();
    if (!out) {
      RemoveBatch(partial);
      throw std::runtime_error("cannot write to the fleet spool " + spool_);
    }
  }
  if (::rename(partial.c_str(), batch.c_str()) != 0) {
    RemoveBatch(partial);
    throw std::runtime_error("cannot write to the fleet spool " + spool_ + ": " +
                             std::strerror(errno));
  }
  // Bounded: the oldest snapshots go first (a later one of the same policy holds what they held).
  std::vector<std::string> batches = BatchesIn(spool_);
  for (size_t i = 0; batches.size() - i > kMostSpooled; ++i) {
    std::cerr << "signdb: the fleet spool holds more than " << kMostSpooled
              << " batches; the oldest snapshot (" << batches[i] << ") is dropped\n";
    RemoveBatch(spool_ + "/" + batches[i]);
  }
  return batch;
}

size_t CFleetPublisher::Deliver() {
  std::vector<std::string> batches = BatchesIn(spool_);
  if (batches.empty()) return 0;
  CClickHouseClient client(settings_.url, settings_.user, settings_.password);
  RequireFleetSchema(client, settings_.database);
  size_t left = batches.size();
  for (const std::string& name : batches) {
    std::string path = spool_ + "/" + name;
    for (const char* table : kTables) {
      std::vector<uint8_t> bytes = ReadWholeFile(path + "/" + table + ".tsv");
      std::string body(bytes.begin(), bytes.end());
      if (body.empty()) continue;
      client.Run("INSERT INTO " + settings_.database + "." + table + " FORMAT TabSeparated", body);
    }
    RemoveBatch(path);  // a stop before this sends it again: its rows replace themselves
    --left;
  }
  return left;
}

std::string CFleetPublisher::Publish(const std::string& policy, CHashDB& database,
                                     uint64_t revision, const std::string& cstm_id,
                                     const std::string& lcs_id) {
  try {
    Spool(policy, database, revision, cstm_id, lcs_id);
  } catch (const std::exception& e) {
    return std::string("not published to the fleet store: ") + e.what();
  }
  try {
    Deliver();
  } catch (const std::exception& e) {
    return "kept in the fleet spool " + spool_ + " until the store takes it (" +
           EscapedText(e.what()) + ")";
  }
  return "published to the fleet store at " + settings_.url + " as host " +
         EscapedText(settings_.host);
}
