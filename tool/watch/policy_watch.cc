#include "tool/watch/policy_watch.h"

#include <atomic>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <utility>

#include "hashdb/hash_db.h"
#include "refhost/file_obj_info.h"
#include "refhost/ref_host.h"
#include "tool/change/difference.h"
#include "tool/change/object_state.h"
#include "tool/common/exit_status.h"
#include "tool/report/change_text.h"
#include "tool/report/report_event.h"
#include "tool/report/report_sink.h"
#include "tool/rules/policy_rules.h"
#include "tool/scan/difference_apply.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "util/relative_path.h"
#include "util/safe_text.h"
#include "util/text_format.h"

CPolicyWatch::CPolicyWatch(CSession& session, const CRefPolicySettings& policy,
                           std::shared_ptr<CHashDB> database, CReportSink* report)
    : session_(session),
      policy_(policy),
      database_(std::move(database)),
      report_(report),
      wide_root_(Wide("")),
      directories_(policy.root),
      judge_(session.Rules(policy), session.settings().policy_number, policy.root),
      rotations_(session.Rules(policy)),
      packages_(policy, session.Rules(policy).dpkg_root(),
                session.Narrow(database_->HdbFilePath(false))),
      baseline_(session, policy),
      started_(std::time(nullptr)) {
  std::string data = session_.DataFolder();
  std::string root = policy_.root;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root == "/" && data.size() > 1) {
    data_folder_relative_ = data.substr(1);
  } else if (data.size() > root.size() && data.compare(0, root.size(), root) == 0 &&
             data[root.size()] == '/') {
    data_folder_relative_ = data.substr(root.size() + 1);
  }
  saved_changes_ = database_->ChangeCounter();
}

CPolicyWatch::~CPolicyWatch() = default;

bool CPolicyWatch::Excluded(const std::string& relative, bool) const {
  if (!data_folder_relative_.empty() && IsBelowOrSame(relative, data_folder_relative_)) return true;
  return session_.Rules(policy_).VerdictBeforeKind(relative) == CPolicyRules::CVerdict::kExcluded;
}

std::wstring CPolicyWatch::Wide(const std::string& relative) {
  return session_.WideFullPath(policy_, relative);
}

void CPolicyWatch::RefreshBaseline() {
  try {
    baseline_.Refresh();
    baseline_refusal_said_.clear();
  } catch (const CToolError& e) {
    if (baseline_refusal_said_ == e.what()) return;
    baseline_refusal_said_ = e.what();
    std::cerr << "signdb watch: " << EscapedText(e.what())
              << "; every change stays pending until the baseline loads\n";
  }
  baseline_looked_at_ = CClock::now();
}

std::optional<CTreeCheckResult> CPolicyWatch::Pending() {
  if (!baseline_.Refresh()) return std::nullopt;
  if (!baseline_.refusal().empty()) throw CToolError(baseline_.refusal());
  if (!baseline_.held()) {
    throw CToolError("policy '" + policy_.name + "' has no baseline yet; run 'signdb scan " +
                     policy_.name + "' first");
  }
  uint64_t changes = database_->ChangeCounter();
  CTreeCheckResult result = baseline_.Pending(database_);
  result.checked = nodes();
  for (const auto& [path, reason] : unreadable_) result.unreadable.emplace_back(path, reason);
  summary_.known = true;
  summary_.error.clear();
  summary_.count = result.differences.size();
  summary_.since = PendingSince(result);
  summary_.as_of = std::time(nullptr);
  summary_changes_ = changes;
  summary_generation_ = baseline_.generation();
  summary_made_ = CClock::now();
  return result;
}

const CPolicyWatch::CPendingSummary& CPolicyWatch::PendingSummary() {
  RefreshBaseline();
  bool new_baseline = baseline_.generation() != summary_generation_;
  bool live_changed = database_->ChangeCounter() != summary_changes_;
  if (!new_baseline && (!live_changed || CClock::now() - summary_made_ < std::chrono::seconds(1)))
    return summary_;
  try {
    Pending();  // a writer holding the baseline leaves the last count
  } catch (const std::exception& e) {
    summary_ = CPendingSummary{};
    summary_.error = e.what();
    summary_generation_ = baseline_.generation();
    summary_changes_ = database_->ChangeCounter();
    summary_made_ = CClock::now();
  }
  return summary_;
}

std::time_t CPolicyWatch::PendingSince(const CTreeCheckResult& pending) {
  std::map<std::string, std::time_t> kept;
  std::time_t oldest = 0;
  auto note = [&](const std::string& path) {
    auto found = pending_since_.find(path);
    std::time_t since = found != pending_since_.end() ? found->second : started_;
    kept.emplace(path, since);
    if (oldest == 0 || since < oldest) oldest = since;
  };
  for (const CDifference& difference : pending.differences) {
    note(difference.path);
    if (difference.change == CChange::kRenamed) note(difference.from);
  }
  pending_since_ = std::move(kept);  // what was accepted or changed back is forgotten
  return oldest;
}

CBaselineVerdict CPolicyWatch::NoteVerdict(const std::string& relative) {
  // Without a baseline everything is pending, since the service started: nothing to remember.
  if (!baseline_.held()) return CBaselineVerdict::kPending;
  CBaselineVerdict verdict = baseline_.VerdictOf(judge_, *database_, relative);
  if (verdict == CBaselineVerdict::kPending) {
    pending_since_.emplace(relative, std::time(nullptr));
  } else {
    pending_since_.erase(relative);
  }
  return verdict;
}

void CPolicyWatch::NoteUnreadable(const std::string& relative, const std::string& reason) {
  ++counters_.failures;
  unreadable_[relative] = reason;
}

void CPolicyWatch::Start(bool force_inotify) {
  RefreshBaseline();
  watcher_ = MakeTreeWatcher(
      policy_.root,
      [this](const std::string& relative, bool directory) { return Excluded(relative, directory); },
      session_.Rules(policy_).cross_mounts(), force_inotify);
  if (watcher_->unwatched() > 0) {
    std::cerr << "signdb watch: " << policy_.name << ": " << watcher_->unwatched()
              << " directories could not be watched (see fs.inotify.max_user_watches): their "
                 "changes are found "
                 "only when the tree is reconciled\n";
  }
  Reconcile();
}

int CPolicyWatch::fd() const { return watcher_->fd(); }

uint64_t CPolicyWatch::unwatched() const { return watcher_ ? watcher_->unwatched() : 0; }

void CPolicyWatch::Reconcile() {
  ++counters_.reconciles;
  CTreeCheckResult result = CheckTree(session_, policy_, database_, true);
  ApplyDifferences(session_, policy_, *database_, result.differences);
  unreadable_.clear();
  for (const auto& [path, reason] : result.unreadable) unreadable_[path] = reason;
  // Judged, settled and explained by the walk already.
  for (const CDifference& difference : result.differences) Log(difference, "reconcile");
  counters_.applied += result.differences.size();
  counters_.failures += result.unreadable.size();
}

void CPolicyWatch::OnEvents() {
  directories_.Clear();
  packages_.Refresh();
  events_.clear();
  watcher_->Read(events_);
  counters_.events += events_.size();
  for (const CWatchEvent& event : events_) {
    try {
      Apply(event);
    } catch (const std::exception& e) {
      NoteUnreadable(event.path, e.what());
      std::cerr << "signdb watch: " << policy_.name << ": " << EventKindName(event.kind) << " "
                << EscapedText(event.path) << ": " << EscapedText(e.what()) << "\n";
    }
  }
}

void CPolicyWatch::Apply(const CWatchEvent& event) {
  CClock::time_point now = CClock::now();
  switch (event.kind) {
    case CWatchEvent::CKind::kLost:
      ++counters_.lost;
      std::cerr << "signdb watch: " << policy_.name
                << ": the kernel dropped file events; reconciling the tree\n";
      queued_.clear();
      Reconcile();
      return;
    case CWatchEvent::CKind::kWritten:
      queued_.Add(event.path, now, true);
      return;
    case CWatchEvent::CKind::kAttributes:
      queued_.Add(event.path, now, false);
      return;
    case CWatchEvent::CKind::kCreated:
      // A directory is recorded at once: what appears in it is recorded below it. A file waits
      // for its writing to settle. Either way its directory's times changed.
      // (What is queued below a directory stays queued: the directory is often reported again
      // when both its listing and its parent's watch saw it appear.)
      if (event.directory) {
        Record(event.path, true, "created");
      } else {
        queued_.Add(event.path, now, true, true);
      }
      QueueParent(event.path, now);
      return;
    case CWatchEvent::CKind::kRemoved:
      directories_.Clear();  // none is reached through a descriptor opened before the change
      queued_.Move(event.path, std::nullopt);
      Remove(event.path, "removed");
      QueueParent(event.path, now);
      return;
    case CWatchEvent::CKind::kMoved:
      directories_.Clear();
      queued_.Move(event.from, event.path);
      Move(event.from, event.path, event.directory);
      QueueParent(event.from, now);
      QueueParent(event.path, now);
      return;
  }
}

void CPolicyWatch::QueueParent(const std::string& path, CClock::time_point now) {
  if (!path.empty()) queued_.Add(ParentOf(path), now, false);
}

std::optional<CPolicyWatch::CClock::time_point> CPolicyWatch::NextDue() const {
  return queued_.NextDue();
}

void CPolicyWatch::ApplyDue(CClock::time_point now, size_t most) {
  packages_.Refresh();
  for (const CWriteQueue::CEntry& queued : queued_.TakeDue(now, most)) {
    const std::string& path = queued.path;
    try {
      // What was written is most likely a regular file still: opened first, examined through
      // that descriptor.
      Record(path, queued.content,
             queued.created   ? "created"
             : queued.content ? "written"
                              : "attributes",
             queued.content);
    } catch (const std::exception& e) {
      NoteUnreadable(path, e.what());
      std::cerr << "signdb watch: " << policy_.name << ": " << EscapedText(path) << ": "
                << EscapedText(e.what()) << "\n";
    }
  }
  directories_.Clear();
}

std::shared_ptr<CRefFileObjInfo> CPolicyWatch::Read(const std::string& relative,
                                                    const CKnownContent* known,
                                                    bool likely_regular) {
  CRefHost& host = session_.host();
  std::wstring full = Wide(relative);
  int directory = relative.empty() ? -1 : directories_.Open(ParentOf(relative));
  if (directory >= 0) {
    return CRefFileObjInfo::AtDirectory(*host.Utility(), *host.Cfg(), wide_root_, full,
                                        session_.settings().policy_number, directory,
                                        NameOf(relative), likely_regular, nullptr, known);
  }
  // the root itself, or a directory on the way is gone: FromDisk tells which
  return CRefFileObjInfo::FromDisk(*host.Utility(), *host.Cfg(), wide_root_, full,
                                   session_.settings().policy_number, likely_regular, known);
}

void CPolicyWatch::Record(const std::string& relative, bool content, const char* event,
                          bool likely_regular) {
  std::optional<CObjectState> recorded = RecordedStateIfAny(*database_, Wide(relative));
  std::optional<CKnownContent> known;
  if (!content && recorded && !recorded->is_dir)
    known = CKnownContent{recorded->size, recorded->time_2, recorded->hash};
  std::shared_ptr<CRefFileObjInfo> info = Read(relative, known ? &*known : nullptr, likely_regular);
  unreadable_.erase(relative);
  if (info->IsGone()) {
    if (recorded && !relative.empty())
      Removed(relative, *recorded, database_->CheckObject(info), event);
    return;
  }
  if (judge_.Excluded(relative, KindOfObject(*info))) {
    return;  // left out by its kind: neither recorded nor reported, as a walk leaves it
  }
  uint32_t status = database_->CheckObject(info);
  if (status == kCheckUnchanged) return;
  // The database follows the tree; what is reported is what the judge says a check would report.
  std::optional<CDifference> difference = judge_.Present(relative, recorded, info, status);
  std::shared_ptr<CObjInfo> immediate;
  database_->InsertObject(immediate, info);
  ++counters_.applied;
  if (difference) Report(std::move(*difference), event);
}

void CPolicyWatch::Remove(const std::string& relative, const char* event) {
  if (relative.empty()) return;  // the root stays recorded; a reconcile says what became of it
  // Read again: what is there now decides (it may be back already), and the module says how it
  // differs from the record.
  Record(relative, true, event);
}

void CPolicyWatch::Removed(const std::string& relative, const CObjectState& recorded,
                           uint32_t status, const char* event) {
  if (judge_.Excluded(relative, recorded.kind())) return;  // recorded before a rule left it out
  std::shared_ptr<CObjInfo> none;
  database_->RemoveObject(none, Wide(relative));
  ++counters_.applied;
  Report(judge_.Gone(relative, recorded, status), event);
}

void CPolicyWatch::Report(CDifference difference, const char* event) {
  if (rotations_.Forgives(difference)) return;
  try {
    packages_.Explain(difference);
  } catch (const std::exception& e) {  // reported without the packages' word rather than not at all
    std::cerr << "signdb watch: " << policy_.name << ": " << EscapedText(e.what()) << "\n";
  }
  Log(std::move(difference), event);
}

void CPolicyWatch::Log(CDifference difference, const char* event) {
  if (report_ == nullptr) return;
  // An acceptance made meanwhile is seen before the change is said pending or not.
  if (CClock::now() - baseline_looked_at_ > std::chrono::seconds(1)) RefreshBaseline();
  difference.baseline = NoteVerdict(difference.path);
  if (difference.change == CChange::kRenamed &&
      NoteVerdict(difference.from) == CBaselineVerdict::kPending)
    difference.baseline = CBaselineVerdict::kPending;
  CReportContext context =
      CReportContext::Make(policy_.name, policy_.root, "watch", session_.settings().policy_number);
  report_->Difference(difference, context, event);
}

bool CPolicyWatch::Recorded(const std::string& relative) {
  std::wstring full = Wide(relative);
  return database_->ExistsAs(full, false) || database_->ExistsAs(full, true);
}

void CPolicyWatch::MoveRecord(const std::string& from, const std::string& to) {
  ::MoveRecord(session_, policy_, *database_, from, to);
}

void CPolicyWatch::Move(const std::string& from, const std::string& to, bool directory) {
  if (!Recorded(from)) {
    // Never recorded (it moved before its writing settled): it is new where it is now.
    if (directory) {
      Reconcile();
    } else {
      queued_.Add(to, CClock::now(), true);
    }
    return;
  }
  if (!directory) {
    // A file that took a recorded file's place (an editor's save): the one is gone, the other
    // changed, as a walk finds them.
    if (Recorded(to)) {
      Record(from, true, "moved");
      Record(to, true, "moved");
      return;
    }
    std::shared_ptr<CRefFileObjInfo> info = Read(to, nullptr, true);
    if (info->IsGone() || judge_.Excluded(to, KindOfObject(*info))) {
      Record(from, true, "moved");  // gone from where it was; nothing (to record) where it went
      return;
    }
    CDifference gone = judge_.Gone(from, RecordedState(*database_, Wide(from)), 0);
    MoveRecord(from, to);
    std::optional<CDifference> arrived =
        judge_.Present(to, std::nullopt, info, database_->CheckObject(info));
    std::shared_ptr<CObjInfo> immediate;
    database_->InsertObject(immediate, info);  // its attributes as they are now, after the move
    ++counters_.applied;
    if (arrived) Report(judge_.Renamed(gone, std::move(*arrived)), "moved");
    return;
  }
  // Whatever the rename replaced at the destination is gone.
  if (Recorded(to)) Removed(to, RecordedState(*database_, Wide(to)), kCheckDirectoryGone, "moved");
  MoveRecord(from, to);
  ++counters_.applied;
  CObjectState state = RecordedState(*database_, Wide(to));
  CDifference renamed = DescribeRecorded(CChange::kRenamed, to, &state, &state);
  renamed.from = from;
  judge_.Grade(renamed);
  Report(std::move(renamed), "moved");
  // A rename changes the object's status change time: read its attributes again.
  queued_.Add(to, CClock::now(), false);
}

std::chrono::seconds CPolicyWatch::shrink_period() const {
  return std::chrono::seconds(static_cast<long long>(policy_.touch_period_s));
}

uint64_t CPolicyWatch::Shrink() {
  // The database stamps what it is told of with the monotonic clock that steady_clock reads.
  int64_t before =
      std::chrono::duration_cast<std::chrono::nanoseconds>(CClock::now().time_since_epoch())
          .count();
  queued_.clear();
  Reconcile();
  uint64_t dropped = database_->Shrink(before, L"");
  counters_.shrunk += dropped;
  return dropped;
}

uint64_t CPolicyWatch::nodes() const {
  auto count = std::make_shared<std::atomic<uint64_t>>(0);
  // The walk runs on the worker pool: the visitor counts from several threads.
  database_->Enumerate("", true,
                       std::make_shared<CNodeVisitor>([count](const std::shared_ptr<CHashNode>&) {
                         count->fetch_add(1, std::memory_order_relaxed);
                         return true;
                       }));
  return count->load();
}

bool CPolicyWatch::changed_since_save() const {
  return database_->ChangeCounter() != saved_changes_;
}

bool CPolicyWatch::Save(bool always, bool wait) {
  uint64_t changes = database_->ChangeCounter();
  if (!always && changes == saved_changes_) return true;
  // The policy's lock is shared between saves, so that readers of the saved files may run, and
  // exclusive while the files are written.
  CPolicyStore& live = session_.LiveStore(policy_);
  if (!live.ChangeLock(CPolicyLock::CMode::kExclusive, wait)) return false;
  try {
    live.Save(database_);
  } catch (...) {
    live.ChangeLock(CPolicyLock::CMode::kShared, true);
    throw;
  }
  live.ChangeLock(CPolicyLock::CMode::kShared, true);
  saved_changes_ = changes;
  counters_.last_save = IsoSecondsText(std::time(nullptr));
  return true;
}
