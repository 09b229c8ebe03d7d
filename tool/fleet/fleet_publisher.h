#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool/fleet/fleet_settings.h"
#include "tool/fleet/fleet_spool.h"

class CHashDB;
struct CRefSettings;

// Who signs this host's databases, as the fleet names it: the signer certificate's cstm_id
// (organizationName) and lcs_id (serialNumber); this installation's cstm_id and no lcs_id where
// no signer certificate can be read (a host that only checks).
struct CFleetSigner {
  std::string cstm_id;
  std::string lcs_id;
};
CFleetSigner FleetSignerOf(const CRefSettings& settings);

// One change line as the fleet keeps it (see the changes table).
struct CFleetChange {
  uint64_t time = 0;    // seconds since the epoch
  std::string dataset;  // what reported it: "check", "update", "watch"
  std::string policy;
  std::string path;    // relative to the policy's root
  std::string change;  // the report's words: "new", "hash changed", ...
  std::string severity;
  std::string event;  // the report's JSON line
  std::string text;   // the line for people, whole
};

// Publishes this host's records and change lines to the fleet store.
//
// Records: after each save, the policy's objects (path, kind, hash, size, mode, owner) as of that
// revision, by path and by hash, and the host's publication (when, sequence, revision, signer,
// groups, period). Only what differs from the last publication is sent, with a tombstone
// (present = 0) for each object that is gone and each content an object no longer has; the first
// publication, and the one after the spool dropped a batch, are whole and start a generation:
// what an older generation held no longer counts. A question reads, for each host and policy,
// the rows of its latest publication's generation, the latest row of each path.
//
// Nothing is lost: a batch is written to the spool (CFleetSpool) before it is sent, and taken out
// once the store took it; what could not be sent is sent first by the next delivery. A batch sent
// twice is counted once: its rows replace themselves (same key, same sequence).
class CFleetPublisher {
 public:
  // At most this many snapshots wait in the spool; beyond it the oldest is dropped, said, and the
  // next publication is whole. Change lines are never dropped.
  static constexpr size_t kMostSpooledSnapshots = 16;

  // "tool_version": what the host's publication says this signdb is.
  CFleetPublisher(CFleetSettings settings, std::string data_folder, std::string tool_version);

  const CFleetSettings& settings() const { return settings_; }
  const CFleetSpool& spool() const { return spool_; }

  // Spools what differs in the policy's records since its last publication ("database" as saved
  // at "revision", signed by cstm_id and lcs_id). Throws std::runtime_error when the spool
  // cannot be written. Returns what it spooled, for people: "whole: 347,136 rows" or "12 rows".
  std::string SpoolRecords(const std::string& policy, CHashDB& database, uint64_t revision,
                           const std::string& cstm_id, const std::string& lcs_id);
  // Spools change lines as one batch, with the host's publication of each policy of "alive" as
  // of its last one (the host is alive and its records are as they were; nothing for a policy
  // never published).
  void SpoolChanges(const std::vector<CFleetChange>& changes,
                    const std::vector<std::string>& alive = {});

  // Sends every spooled batch, oldest first, and forgets each once the store took it. Returns how
  // many are left (without "wait", another process delivering leaves them all); throws
  // std::runtime_error with the store's failure when one could not be sent.
  size_t Deliver(bool wait = true);

  // SpoolRecords (or SpoolChanges), then Deliver: returns what to tell the person (published, or
  // kept in the spool and why); never throws.
  std::string Publish(const std::string& policy, CHashDB& database, uint64_t revision,
                      const std::string& cstm_id, const std::string& lcs_id);
  std::string PublishChanges(const std::vector<CFleetChange>& changes);

 private:
  // The next number of the policy's publications: greater than every one before.
  uint64_t NextSequence(const std::string& policy);
  std::string HostsRow(const std::string& policy, uint64_t published, uint64_t sequence,
                       uint64_t generation, uint64_t revision, uint64_t objects,
                       const std::string& cstm_id, const std::string& lcs_id) const;
  std::string Delivered(const std::string& what);

  CFleetSettings settings_;
  CFleetSpool spool_;
  std::string tool_version_;
};
