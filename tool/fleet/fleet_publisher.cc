#include "tool/fleet/fleet_publisher.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "hashdb/hash_db.h"
#include "refhost/security_text.h"
#include "refhost/settings.h"
#include "tool/change/object_state.h"
#include "tool/fleet/clickhouse_client.h"
#include "tool/fleet/fleet_schema.h"
#include "tool/fleet/published_state.h"
#include "tool/store/dev_keys.h"
#include "util/safe_text.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

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

uint64_t Now() { return static_cast<uint64_t>(std::time(nullptr)); }

uint64_t NowNanoseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

// The objects of "database" as the records table takes them, by escaped relative path. Each
// object is asked of the database by its path; the asking is shared among the processor's cores
// (the database answers readers at once).
std::unordered_map<std::string, CPublishedObject> RecordedObjects(CHashDB& database) {
  std::shared_ptr<CPathEntryList> listed = database.SubNodes(L"");
  std::vector<const CPathEntry*> nodes;
  nodes.reserve(listed->size());
  for (const CPathEntry& node : *listed) nodes.push_back(&node);
  const std::wstring& root = database.RootPath();
  size_t workers = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 8);
  std::vector<std::vector<std::pair<std::string, CPublishedObject>>> parts(workers);
  auto ask = [&](size_t part) {
    for (size_t i = part; i < nodes.size(); i += workers) {
      const CPathEntry& node = *nodes[i];
      std::wstring full = root;
      if (!node.second.empty()) {
        if (!full.empty() && full.back() != L'/') full += L'/';
        full += node.second;
      }
      std::optional<CObjectState> state = RecordedStateIfAny(database, full);
      if (!state) continue;
      security_text::CSecurityItems items = security_text::Parse(state->security);
      auto item = [&](const char* key) {
        auto found = items.find(key);
        return found == items.end() ? std::string() : found->second;
      };
      CPublishedObject object;
      object.row = std::string(KindType(state->kind())) + "\t" + Field(state->hash) + "\t" +
                   std::to_string(state->size) + "\t" +
                   std::to_string(state->attributes == kUnknownAttributes ? 0 : state->attributes) +
                   "\t" + Field(item(security_text::kUid)) + "\t" +
                   Field(item(security_text::kGid));
      parts[part].emplace_back(Field(WideToUtf8(node.second)), std::move(object));
    }
  };
  std::vector<std::thread> threads;
  for (size_t part = 1; part < workers; ++part) threads.emplace_back(ask, part);
  ask(0);
  for (std::thread& thread : threads) thread.join();
  std::unordered_map<std::string, CPublishedObject> objects;
  objects.reserve(nodes.size());
  for (auto& part : parts) {
    for (auto& [path, object] : part) objects.emplace(std::move(path), std::move(object));
  }
  return objects;
}

}  // namespace

CFleetSigner FleetSignerOf(const CRefSettings& settings) {
  try {
    return CFleetSigner{CertificateOrganization(settings.signer_certificate),
                        CertificateSerialNumber(settings.signer_certificate)};
  } catch (const std::exception&) {
    return CFleetSigner{settings.local_cstm_id, std::string()};
  }
}

CFleetPublisher::CFleetPublisher(CFleetSettings settings, std::string data_folder,
                                 std::string tool_version)
    : settings_(std::move(settings)),
      spool_(std::move(data_folder)),
      tool_version_(std::move(tool_version)) {}

uint64_t CFleetPublisher::NextSequence(const std::string& policy) {
  // Greater than the last one's, and than the clock's nanoseconds (so that it keeps growing when
  // the spool is lost), whatever the clock does.
  std::string path = spool_.PathOf(policy + ".sequence");
  uint64_t last = 0;
  {
    std::ifstream in(path);
    in >> last;
  }
  uint64_t next = std::max(last + 1, NowNanoseconds());
  std::ofstream(path, std::ios::trunc) << next << "\n";
  return next;
}

std::string CFleetPublisher::HostsRow(const std::string& policy, uint64_t published,
                                      uint64_t sequence, uint64_t generation, uint64_t revision,
                                      uint64_t objects, const std::string& cstm_id,
                                      const std::string& lcs_id) const {
  std::string groups = "[";
  for (size_t i = 0; i < settings_.groups.size(); ++i)
    groups += (i ? "," : "") + Field(Quoted(settings_.groups[i]));
  groups += "]";
  return Field(settings_.host) + "\t" + Field(policy) + "\t" + std::to_string(published) + "\t" +
         std::to_string(sequence) + "\t" + std::to_string(generation) + "\t" +
         std::to_string(revision) + "\t" + std::to_string(objects) + "\t" + cstm_id + "\t" +
         lcs_id + "\t" + groups + "\t" + Field(tool_version_) + "\t" +
         std::to_string(settings_.period) + "\n";
}

std::string CFleetPublisher::SpoolRecords(const std::string& policy, CHashDB& database,
                                          uint64_t revision, const std::string& cstm_id,
                                          const std::string& lcs_id) {
  CFleetSpoolLock lock(spool_, CFleetSpoolLock::CKind::kWrite);
  std::string state_path = spool_.PathOf(policy + ".state");
  // The last publication is read while the database is asked what it holds now.
  CPublishedState state;
  std::thread reader([&] { state = CPublishedState::Read(state_path); });
  std::unordered_map<std::string, CPublishedObject> now_held;
  try {
    now_held = RecordedObjects(database);
  } catch (...) {
    reader.join();
    throw;
  }
  reader.join();
  bool whole = state.generation == 0;
  // Bounded: the oldest snapshot goes (a later one holds what it held), and since the store
  // then misses what it changed, this publication is whole.
  std::vector<std::string> snapshots;
  for (const std::string& batch : spool_.Batches()) {
    if (spool_.HoldsRecords(batch)) snapshots.push_back(batch);
  }
  for (size_t i = 0; snapshots.size() - i >= kMostSpooledSnapshots; ++i) {
    std::cerr << "signdb: the fleet spool holds " << kMostSpooledSnapshots
              << " snapshots that the store has not taken; the oldest (" << snapshots[i]
              << ") is dropped and this publication is whole\n";
    spool_.Remove(snapshots[i]);
    whole = true;
  }
  uint64_t published = Now();
  uint64_t sequence = NextSequence(policy);
  uint64_t generation = whole ? sequence : state.generation;
  std::string host = Field(settings_.host);
  std::string prefix = host + "\t" + Field(policy) + "\t";
  std::string seq = std::to_string(sequence) + "\t" + std::to_string(generation) + "\t";
  std::string tail = "\t" + std::to_string(revision) + "\t" + std::to_string(published) + "\n";
  std::string records;
  std::string holders;
  auto record = [&](const std::string& path, const CPublishedObject& object, bool present) {
    records += prefix + path + "\t" + seq + (present ? "1\t" : "0\t") + object.row + tail;
  };
  auto holder = [&](const std::string& path, const CPublishedObject& object, bool present) {
    std::string_view hash = object.hash();
    if (hash.empty()) return;
    holders.append(hash);
    holders += "\t" + prefix + path + "\t" + seq + (present ? "1\t" : "0\t") +
               std::to_string(object.since_revision) + "\t" + std::to_string(object.since) + "\n";
  };
  for (auto& [path, object] : now_held) {
    auto before = state.objects.find(path);
    bool same_content = before != state.objects.end() && before->second.hash() == object.hash();
    object.since_revision = same_content ? before->second.since_revision : revision;
    object.since = same_content ? before->second.since : published;
    if (whole) {
      record(path, object, true);
      holder(path, object, true);
      continue;
    }
    if (before == state.objects.end() || before->second.row != object.row)
      record(path, object, true);
    if (!same_content) {
      if (before != state.objects.end()) holder(path, before->second, false);
      holder(path, object, true);
    }
  }
  if (!whole) {
    for (const auto& [path, object] : state.objects) {
      if (now_held.count(path) != 0) continue;
      record(path, object, false);
      holder(path, object, false);
    }
  }
  std::string cstm = Field(cstm_id);
  std::string lcs = Field(lcs_id);
  spool_.Write({{"records", records},
                {"holders", holders},
                {"hosts", HostsRow(policy, published, sequence, generation, revision,
                                   now_held.size(), cstm, lcs)}});
  // After the batch: a stop in between sends the same differences again next time, never less.
  state.generation = generation;
  state.revision = revision;
  state.cstm_id = cstm;
  state.lcs_id = lcs;
  state.objects = std::move(now_held);
  state.Write(state_path);
  size_t rows = static_cast<size_t>(std::count(records.begin(), records.end(), '\n') +
                                    std::count(holders.begin(), holders.end(), '\n'));
  return (whole ? "whole: " : "") + GroupedNumber(rows) + (rows == 1 ? " row" : " rows");
}

void CFleetPublisher::SpoolChanges(const std::vector<CFleetChange>& changes,
                                   const std::vector<std::string>& alive) {
  // A batch's name in the store: this host's, told apart from every other of its batches.
  static std::atomic<uint64_t> counter{0};
  std::string batch = std::to_string(NowNanoseconds()) + "-" + std::to_string(::getpid()) + "-" +
                      std::to_string(counter.fetch_add(1));
  std::string host = Field(settings_.host);
  std::string rows;
  for (size_t i = 0; i < changes.size(); ++i) {
    const CFleetChange& change = changes[i];
    rows += std::to_string(change.time) + "\t" + host + "\t" + batch + "\t" + std::to_string(i) +
            "\t" + Field(change.dataset) + "\t" + Field(change.policy) + "\t" + Field(change.path) +
            "\t" + Field(change.change) + "\t" + Field(change.severity) + "\t" +
            Field(change.event) + "\t" + Field(change.text) + "\n";
  }
  CFleetSpoolLock lock(spool_, CFleetSpoolLock::CKind::kWrite);
  std::string hosts;
  for (const std::string& policy : alive) {
    CPublishedState state = CPublishedState::Read(spool_.PathOf(policy + ".state"), true);
    if (state.generation == 0) continue;
    hosts += HostsRow(policy, Now(), NextSequence(policy), state.generation, state.revision,
                      state.object_count, state.cstm_id, state.lcs_id);
  }
  if (rows.empty() && hosts.empty()) return;
  spool_.Write({{"changes", rows}, {"hosts", hosts}});
}

size_t CFleetPublisher::Deliver(bool wait) {
  CFleetSpoolLock lock(spool_, CFleetSpoolLock::CKind::kDelivery, wait);
  std::vector<std::string> batches = spool_.Batches();
  if (!lock.Held() || batches.empty()) return batches.size();
  CClickHouseClient client = ConnectToFleet(settings_);
  size_t left = batches.size();
  for (const std::string& batch : batches) {
    for (const std::string& table : CFleetSpool::Tables()) {
      std::string body = spool_.Body(batch, table);
      if (body.empty()) continue;
      client.Run("INSERT INTO " + settings_.database + "." + table + " FORMAT TabSeparated", body);
    }
    spool_.Remove(batch);  // a stop before this sends it again: its rows replace themselves
    --left;
  }
  return left;
}

std::string CFleetPublisher::Delivered(const std::string& what) {
  try {
    Deliver();
  } catch (const std::exception& e) {
    return what + " kept in the fleet spool " + spool_.folder() + " until the store takes it (" +
           EscapedText(e.what()) + ")";
  }
  return what + " published to the fleet store at " + settings_.url + " as host " +
         EscapedText(settings_.host);
}

std::string CFleetPublisher::Publish(const std::string& policy, CHashDB& database,
                                     uint64_t revision, const std::string& cstm_id,
                                     const std::string& lcs_id) {
  std::string spooled;
  try {
    spooled = SpoolRecords(policy, database, revision, cstm_id, lcs_id);
  } catch (const std::exception& e) {
    return std::string("records not published to the fleet store: ") + EscapedText(e.what());
  }
  return Delivered("records (" + spooled + ")");
}

std::string CFleetPublisher::PublishChanges(const std::vector<CFleetChange>& changes) {
  try {
    SpoolChanges(changes);
  } catch (const std::exception& e) {
    return std::string("change lines not published to the fleet store: ") + EscapedText(e.what());
  }
  return Delivered(changes.size() == 1 ? "1 change line"
                                       : std::to_string(changes.size()) + " change lines");
}
