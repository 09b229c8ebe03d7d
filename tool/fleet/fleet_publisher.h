#pragma once

#include <cstdint>
#include <string>

#include "tool/fleet/fleet_settings.h"

class CHashDB;

// Publishes a policy's records to the fleet store after each save, as a whole snapshot of that
// revision: every recorded object (path, kind, hash, size, mode, owner) under this host's name,
// by path and by hash, and the host's publication (when, revision, objects, signer, groups). The
// fleet's view of a host is its latest revision: a path that is no longer recorded is no longer
// there, and no longer a holder of its hash.
//
// Nothing is lost: a batch is written to the spool in the data folder (DATA/fleet-spool, owner-
// only) before it is sent, and taken out only once the store has taken it; what could not be sent
// is sent first by the next publication. A batch sent twice (a stop after the store took it and
// before the spool forgot it) is counted once: its rows replace themselves.
class CFleetPublisher {
 public:
  // At most this many batches wait in the spool; the oldest is dropped (and said) beyond it.
  static constexpr size_t kMostSpooled = 16;

  // "tool_version": what the host's publication says this signdb is.
  CFleetPublisher(CFleetSettings settings, std::string data_folder, std::string tool_version);

  // Spools the policy's snapshot of "database" (saved at "revision"), then delivers the spool.
  // Returns what to tell the person (delivered, or kept in the spool and why); never throws for
  // the store's failures.
  std::string Publish(const std::string& policy, CHashDB& database, uint64_t revision,
                      const std::string& cstm_id, const std::string& lcs_id);

  // Sends every spooled batch, oldest first, and forgets each once the store took it. Returns how
  // many are left; throws std::runtime_error with the store's failure when one could not be sent.
  size_t Deliver();

 private:
  // The next number of the policy's publications (see the hosts table).
  uint64_t NextSequence(const std::string& policy);
  std::string Spool(const std::string& policy, CHashDB& database, uint64_t revision,
                    const std::string& cstm_id, const std::string& lcs_id);

  CFleetSettings settings_;
  std::string spool_;
  std::string tool_version_;
};
