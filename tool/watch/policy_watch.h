#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/judge/judge.h"
#include "tool/packages/package_changes.h"
#include "tool/watch/batch_directories.h"
#include "tool/watch/tree_watcher.h"
#include "tool/watch/watch_event.h"
#include "tool/watch/watched_baseline.h"
#include "tool/watch/write_queue.h"

class CReportSink;
struct CKnownContent;
class CRefFileObjInfo;
class CHashDB;
class CSession;
struct CDifference;
struct CRefPolicySettings;

// One policy's database kept up to date from its tree's file events, by the operations the
// database has for it: a new or rewritten object is inserted (once its writing has settled), a
// rename or move moves the recorded object with everything below it, a removal removes it, and
// a lost event (the kernel's queue overflowed) reconciles the whole tree with the database.
//
// Writes are coalesced (CWriteQueue): an object written many times in a row is read once.
//
// Not thread-safe: the service's one thread drives it.
class CPolicyWatch {
 public:
  using CClock = CWriteQueue::CClock;

  // What a status request reports of the policy.
  struct CCounters {
    uint64_t events = 0;      // events received
    uint64_t applied = 0;     // database operations made for them
    uint64_t reconciles = 0;  // whole-tree reconciles (at start and after lost events)
    uint64_t lost = 0;        // times the kernel dropped events
    uint64_t failures = 0;    // objects that could not be read or recorded
    uint64_t shrunk = 0;      // records dropped by shrinks
    std::string last_save;    // UTC time of the last save, or empty
  };

  // Every change applied is reported to "report" (when given), with the file event behind it.
  CPolicyWatch(CSession& session, const CRefPolicySettings& policy,
               std::shared_ptr<CHashDB> database, CReportSink* report = nullptr);
  ~CPolicyWatch();

  // Starts following the tree's events (fanotify where it may, inotify otherwise or with
  // "force_inotify"), then reconciles the database with the tree once, so that nothing that
  // changed before (or while the watches were being placed) is missed.
  void Start(bool force_inotify);
  // The descriptor that becomes readable when events wait.
  int fd() const;
  // Takes the waiting events and applies them (writes are queued until they settle).
  void OnEvents();
  // Reads and records the queued writes whose time has come, at most "most" of them (the service
  // goes back to the kernel's events in between, so that its queue does not overflow while a burst
  // of writes is taken in).
  void ApplyDue(CClock::time_point now, size_t most = SIZE_MAX);
  // When the next queued write is due, if any is queued.
  std::optional<CClock::time_point> NextDue() const;
  // Compares the whole tree with the database and takes what differs into it.
  void Reconcile();
  // Sees every object again (a reconcile stamps each one it meets), then drops from the database
  // what was not seen: records that no event and no reconcile can reach any more (below a path
  // the rules now exclude, say). Returns how many records were dropped.
  uint64_t Shrink();
  // How often to shrink (the policy's touch period), or zero for never.
  std::chrono::seconds shrink_period() const;
  // Saves the database when it changed since the last save (or when "always"). Without "wait",
  // returns false when a reader of the saved files holds them (try again later).
  bool Save(bool always = false, bool wait = true);

  // What differs between the live record and the baseline, as a check reports it, with the
  // objects the service could not read; nothing while a writer holds the baseline (ask again).
  // Throws CToolError when the baseline is refused or there is none.
  std::optional<CTreeCheckResult> Pending();
  // How many differences are pending, as of when, and since when the oldest of them is (the
  // service's start for what it found pending as it started): for a status, counted again when
  // the baseline changed, or the live record did and the count is a second old.
  struct CPendingSummary {
    bool known = false;
    size_t count = 0;
    std::time_t since = 0;  // 0: nothing pending
    std::time_t as_of = 0;
    std::string error;  // why it is not known (no baseline, or a refused one)
  };
  const CPendingSummary& PendingSummary();
  // Loads the baseline again if an acceptance changed it; says on stderr when it is refused.
  void RefreshBaseline();

  const CRefPolicySettings& policy() const { return policy_; }
  const std::shared_ptr<CHashDB>& database() const { return database_; }
  const CCounters& counters() const { return counters_; }
  size_t queued() const { return queued_.size(); }
  // How many objects the database records (the root included): a walk of the whole tree.
  uint64_t nodes() const;
  // Whether the database changed since it was last saved.
  bool changed_since_save() const;
  const char* watcher_kind() const { return watcher_ ? watcher_->kind() : "none"; }
  // Directories the watcher could not watch (the per-user limit of watches reached, say): their
  // changes are found by reconciles only.
  uint64_t unwatched() const;

 private:
  void Apply(const CWatchEvent& event);
  // The directory that holds "path": its times changed when an entry came, went or moved.
  void QueueParent(const std::string& path, CClock::time_point now);
  // Reads the object at "relative" from disk (through the batch's open directories when it can).
  // "likely_regular": open it first as a regular file (see CRefFileObjInfo::FromDisk).
  std::shared_ptr<CRefFileObjInfo> Read(const std::string& relative, const CKnownContent* known,
                                        bool likely_regular);
  // Reads the object at "relative" and records it (or removes it when it is gone), reporting
  // what the judge says changed.
  void Record(const std::string& relative, bool content, const char* event,
              bool likely_regular = false);
  void Remove(const std::string& relative, const char* event);
  // Removes the record of an object that is gone ("status": the module's word on it).
  void Removed(const std::string& relative, const CObjectState& recorded, uint32_t status,
               const char* event);
  // Reports a change applied, unless it is part of a log's rotation, with its package's word.
  void Report(CDifference difference, const char* event);
  // Writes a change applied: its line on standard output, and to the change log with the event
  // that led to it.
  void Log(CDifference difference, const char* event);
  // The time the oldest of "pending" was first seen by this service; 0 when nothing is pending.
  std::time_t PendingSince(const CTreeCheckResult& pending);
  // Whether the object at "relative" is pending now, and since when.
  CBaselineVerdict NoteVerdict(const std::string& relative);
  // An object that could not be read, until it is read again.
  void NoteUnreadable(const std::string& relative, const std::string& reason);
  void Move(const std::string& from, const std::string& to, bool directory);
  // Moves the record at "from", with everything below it, to "to".
  void MoveRecord(const std::string& from, const std::string& to);
  bool Recorded(const std::string& relative);
  bool Excluded(const std::string& relative, bool directory) const;
  std::wstring Wide(const std::string& relative);

  CSession& session_;
  const CRefPolicySettings& policy_;
  std::shared_ptr<CHashDB> database_;
  CReportSink* report_;
  std::wstring wide_root_;  // the root in the module's form, as every object read names it
  std::unique_ptr<CTreeWatcher> watcher_;
  std::string data_folder_relative_;  // the tool's own folder when it lies in the tree, else empty
  // Objects to read again once their writing settles. Without "content", a file whose size and
  // modification time are what the database records keeps its recorded hash.
  CWriteQueue queued_;
  // Directories kept open while a batch of queued objects is read (see CBatchDirectories).
  CBatchDirectories directories_;
  CJudge judge_;
  CLiveRotations rotations_;
  CPackageExplainer packages_;
  CWatchedBaseline baseline_;
  std::string baseline_refusal_said_;  // the refusal said last on stderr
  CClock::time_point baseline_looked_at_{};
  std::map<std::string, std::time_t> pending_since_;  // by path: first seen differing
  std::time_t started_ = 0;
  CPendingSummary summary_;
  uint64_t summary_changes_ = ~0ull;     // the live record's change count it was made at
  uint64_t summary_generation_ = ~0ull;  // and the baseline's
  CClock::time_point summary_made_{};
  std::map<std::string, std::string> unreadable_;  // by path: why it could not be read
  uint64_t saved_changes_ = 0;                     // the database's change count at the last save
  CCounters counters_;
  std::vector<CWatchEvent> events_;  // reused between reads
};
