#pragma once

#include <signal.h>

#include <chrono>
#include <memory>
#include <vector>

#include "tool/report/change_log.h"
#include "tool/report/report_sink.h"
#include "tool/report/stream_sinks.h"
#include "tool/session/watch_settings.h"
#include "tool/store/accept_journal.h"

class CFleetChangeSink;
class CFleetCourier;
class CFleetPublisher;
class CHashDB;
class CPolicyWatch;
class CSession;
struct CRefPolicySettings;

// The watch service: its policies, its query socket, and the one loop that waits for all of them
// (the kernel's events, queued writes coming due, queries, saves on a period, shrinks, and the
// stop signals). Every change it applies goes to the change log in the data folder.
class CWatchService {
 public:
  // "change_lines": where each change's line goes besides the change log (never nowhere: without
  // a system log, standard output takes them).
  CWatchService(CSession& session, std::chrono::seconds save_period, bool force_inotify,
                CChangeLines change_lines);
  ~CWatchService();
  CWatchService(const CWatchService&) = delete;
  CWatchService& operator=(const CWatchService&) = delete;

  // A policy to keep, with its live record as loaded (or empty, to be recorded by the start-up
  // reconcile). "journal_entry" says who runs the service and how, for the entries it appends to
  // the policy's journal (its start and stop, events the kernel dropped).
  void Add(const CRefPolicySettings& policy, std::shared_ptr<CHashDB> database,
           CJournalEntry journal_entry);

  // Follows the events until SIGTERM or SIGINT; saves what changed, then returns.
  // "stop_signals" must be blocked in every thread of the process (block them before any thread
  // starts): they are taken from a descriptor, at a point where stopping loses nothing.
  void Run(const sigset_t& stop_signals);

 private:
  // Saves every policy that changed; without "wait", one whose saved files are being read is left
  // for later (returns false). What was saved is published to the fleet store when one is
  // configured.
  bool SaveAll(bool wait);
  // Spools the policy's records as just saved for the fleet store, and wakes the courier.
  void PublishToFleet(CPolicyWatch& watch);
  // Appends an entry for the i-th policy to its journal; a journal that cannot take it is said on
  // stderr and stops nothing.
  void Journal(size_t i, const std::string& event, const std::string& note);

  CSession& session_;
  std::chrono::seconds save_period_;
  bool force_inotify_;
  CChangeLog log_;
  CChangeLines change_lines_;
  CTextSink lines_;  // each change's line on standard output (the journal under systemd)
  bool to_standard_output_ = false;
  CReportSinks report_;  // both
  std::vector<std::unique_ptr<CPolicyWatch>> watches_;
  std::vector<CJournalEntry> journal_entries_;  // for each watch
  std::vector<uint64_t> lost_journalled_;       // for each watch: the drops journalled so far
  // With a "fleet" section: the publisher, the change lines' sink, and (while Run runs) the
  // courier that delivers the spool.
  std::shared_ptr<CFleetPublisher> fleet_;
  CFleetChangeSink* fleet_lines_ = nullptr;  // owned by report_
  std::unique_ptr<CFleetCourier> courier_;
};
