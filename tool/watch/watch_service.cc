#include "tool/watch/watch_service.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "hashdb/hash_db.h"
#include "tool/common/exit_status.h"
#include "tool/common/tool_version.h"
#include "tool/fleet/fleet_change_sink.h"
#include "tool/fleet/fleet_courier.h"
#include "tool/fleet/fleet_publisher.h"
#include "tool/fleet/fleet_settings.h"
#include "tool/session/session.h"
#include "tool/watch/policy_watch.h"
#include "tool/watch/query_answers.h"
#include "tool/watch/query_protocol.h"
#include "tool/watch/query_server.h"
#include "util/safe_text.h"

namespace {

using CClock = std::chrono::steady_clock;

// Objects read between two looks at the kernel's events: a few milliseconds of work.
constexpr size_t kMostReadsPerTurn = 128;
// A save that found the saved files being read is tried again this much later.
constexpr std::chrono::milliseconds kSaveRetry{200};

}  // namespace

CWatchService::CWatchService(CSession& session, std::chrono::seconds save_period,
                             bool force_inotify, CChangeLines change_lines)
    : session_(session),
      save_period_(save_period),
      force_inotify_(force_inotify),
      log_(session.DataFolder() + "/watch-changes.ndjson", CChangeLog::kRotateAt,
           change_lines == CChangeLines::kJournal ? std::string() : CChangeLog::kSystemLog),
      change_lines_(change_lines),
      lines_(std::cout) {
  // Standard output when asked for, and whenever the system log asked for is not there.
  to_standard_output_ = change_lines != CChangeLines::kSystemLog || !log_.reaches_system_log();
  if (to_standard_output_) report_.Add(lines_);
  report_.Add(log_);
  CFleetSettings fleet;
  try {
    fleet = ReadFleetSettings(session.config_path());
  } catch (const std::exception& e) {  // the files are watched whatever the fleet's settings
    std::cerr << "signdb watch: nothing is published to the fleet store: " << EscapedText(e.what())
              << "\n";
  }
  if (fleet.configured) {
    fleet_ = std::make_shared<CFleetPublisher>(fleet, session.DataFolder(), kToolVersion);
    auto sink = std::make_unique<CFleetChangeSink>(fleet_, false);
    fleet_lines_ = sink.get();
    report_.Add(std::move(sink));
  }
}

CWatchService::~CWatchService() = default;

void CWatchService::PublishToFleet(CPolicyWatch& watch) {
  if (!fleet_) return;
  CFleetSigner signer = FleetSignerOf(session_.settings());
  try {
    fleet_->SpoolRecords(watch.policy().name, *watch.database(), watch.database()->Revision(),
                         signer.cstm_id, signer.lcs_id);
  } catch (const std::exception& e) {
    std::cerr << "signdb watch: " << watch.policy().name
              << ": records not published to the fleet store: " << EscapedText(e.what()) << "\n";
  }
  if (courier_) courier_->Wake();
}

void CWatchService::Add(const CRefPolicySettings& policy, std::shared_ptr<CHashDB> database,
                        CJournalEntry journal_entry) {
  watches_.push_back(
      std::make_unique<CPolicyWatch>(session_, policy, std::move(database), &report_));
  journal_entries_.push_back(std::move(journal_entry));
  lost_journalled_.push_back(0);
}

void CWatchService::Journal(size_t i, const std::string& event, const std::string& note) {
  CJournalEntry entry = journal_entries_[i];
  entry.event = event;
  entry.note = note;
  try {
    session_.Store(watches_[i]->policy()).journal().Append(entry);
  } catch (const std::exception& e) {
    std::cerr << "signdb watch: " << watches_[i]->policy().name << ": cannot journal the service's "
              << event << ": " << EscapedText(e.what()) << "\n";
  }
}

void CWatchService::Run(const sigset_t& stop_signals) {
  int signal_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
  int epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
  if (signal_fd < 0 || epoll_fd < 0)
    throw CToolError(std::string("cannot wait for events: ") + std::strerror(errno));

  if (fleet_) {
    std::vector<std::string> policies;
    for (const auto& watch : watches_) policies.push_back(watch->policy().name);
    courier_ = std::make_unique<CFleetCourier>(fleet_, std::move(policies));
  }
  for (size_t i = 0; i < watches_.size(); ++i) {
    watches_[i]->Start(force_inotify_);
    watches_[i]->Save(true);  // what the start-up reconcile found is kept at once
    PublishToFleet(*watches_[i]);
    // What the start-up reconcile took in changed while no service ran; none of it is accepted.
    uint64_t taken_in = watches_[i]->counters().applied;
    Journal(i, "service-start",
            std::string("watching with ") + watches_[i]->watcher_kind() +
                "; the start-up reconcile took in " + std::to_string(taken_in) +
                (taken_in == 1 ? " change" : " changes") + ", none accepted");
  }
  CQueryAnswers answers(watches_, log_.path(), log_.reaches_system_log(), to_standard_output_,
                        ChangeLinesName(change_lines_));
  CQueryServer server(ServiceSocketOf(session_.DataFolder()),
                      [&answers](const std::string& request) { return answers.Answer(request); });
  auto add = [epoll_fd](int fd, uint64_t tag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    if (::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
      throw CToolError(std::string("cannot wait for events: ") + std::strerror(errno));
    }
  };
  constexpr uint64_t kSignalTag = ~0ull;
  constexpr uint64_t kServerTag = ~0ull - 1;
  add(signal_fd, kSignalTag);
  add(server.fd(), kServerTag);
  for (size_t i = 0; i < watches_.size(); ++i) add(watches_[i]->fd(), i);
  for (auto& watch : watches_) {
    std::cout << "watching policy " << watch->policy().name << " ("
              << EscapedText(watch->policy().root) << ") with " << watch->watcher_kind() << "\n";
  }
  // Where the change lines go is said once, at start: never silently nowhere.
  if (change_lines_ != CChangeLines::kJournal && !log_.reaches_system_log()) {
    std::cout << "no system log listens at /dev/log: changes go to " << log_.path()
              << " and to standard output only\n";
  } else {
    std::cout << "changes go to " << log_.path() << (to_standard_output_ ? ", standard output" : "")
              << (log_.reaches_system_log() ? " and the system log" : "") << " (change_lines "
              << ChangeLinesName(change_lines_) << ")\n";
  }
  std::cout << "queries at " << server.path() << std::endl;

  std::optional<CClock::time_point> save_due;
  std::vector<std::optional<CClock::time_point>> shrink_due(watches_.size());
  for (size_t i = 0; i < watches_.size(); ++i) {
    if (watches_[i]->shrink_period().count() > 0)
      shrink_due[i] = CClock::now() + watches_[i]->shrink_period();
  }
  for (;;) {
    // Asleep until something happens: a queued write to read, unsaved changes to save, or a
    // policy's shrink (only for policies with a touch period).
    std::optional<CClock::time_point> wake = save_due;
    for (const auto& due : shrink_due) {
      if (due && (!wake || *due < *wake)) wake = due;
    }
    for (auto& watch : watches_) {
      std::optional<CClock::time_point> due = watch->NextDue();
      if (due && (!wake || *due < *wake)) wake = due;
    }
    int timeout = -1;
    if (wake) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(*wake - CClock::now()).count();
      timeout = static_cast<int>(std::clamp<long long>(left, 0, 24LL * 3600 * 1000));
    }
    // Changes are logged as they happen: what is gathered goes out before the service sleeps.
    if (timeout != 0) {
      report_.Flush();
      if (fleet_lines_ && fleet_lines_->TakeSpooled()) courier_->Wake();
    }
    epoll_event ready[16];
    int count = ::epoll_wait(epoll_fd, ready, 16, timeout);
    if (count < 0 && errno != EINTR)
      throw CToolError(std::string("cannot wait for events: ") + std::strerror(errno));
    bool stop = false;
    for (int i = 0; i < count; ++i) {
      uint64_t tag = ready[i].data.u64;
      if (tag == kSignalTag) {
        stop = true;
      } else if (tag == kServerTag) {
        report_.Flush();  // an answer never runs ahead of the change log
        server.Process();
      } else {
        watches_[tag]->OnEvents();
      }
    }
    CClock::time_point now = CClock::now();
    for (auto& watch : watches_) watch->ApplyDue(now, kMostReadsPerTurn);
    for (size_t i = 0; i < watches_.size(); ++i) {
      uint64_t lost = watches_[i]->counters().lost;
      if (lost == lost_journalled_[i]) continue;
      lost_journalled_[i] = lost;
      Journal(i, "lost-events",
              "the kernel dropped file events; the tree was reconciled with the live record");
    }
    if (stop) break;
    for (size_t i = 0; i < watches_.size(); ++i) {
      if (!shrink_due[i] || *shrink_due[i] > now) continue;
      try {
        watches_[i]->Shrink();
      } catch (const std::exception& e) {
        std::cerr << "signdb watch: " << watches_[i]->policy().name
                  << ": cannot shrink: " << EscapedText(e.what()) << "\n";
      }
      shrink_due[i] = CClock::now() + watches_[i]->shrink_period();
    }
    bool changed = std::any_of(watches_.begin(), watches_.end(),
                               [](const auto& watch) { return watch->changed_since_save(); });
    if (!changed) {
      save_due.reset();
    } else if (!save_due) {
      save_due = now + save_period_;
    } else if (*save_due <= now) {
      // A reader of the saved files holds them: the loop goes on, and tries again shortly.
      save_due = SaveAll(false) ? std::nullopt : std::optional(now + kSaveRetry);
    }
  }
  // Stopped: what is still queued is read now, and everything saved.
  for (auto& watch : watches_) watch->ApplyDue(CClock::time_point::max());
  SaveAll(true);
  report_.Flush();
  if (courier_) {
    courier_.reset();
    try {  // one last delivery of what the last save spooled; what fails stays for the next run
      fleet_->Deliver(false);
    } catch (const std::exception& e) {
      std::cerr << "signdb watch: the fleet spool waits for the next run: " << EscapedText(e.what())
                << "\n";
    }
  }
  for (size_t i = 0; i < watches_.size(); ++i) Journal(i, "service-stop", "");
  ::close(epoll_fd);
  ::close(signal_fd);
}

bool CWatchService::SaveAll(bool wait) {
  bool all = true;
  for (auto& watch : watches_) {
    try {
      bool changed = watch->changed_since_save();
      bool saved = watch->Save(false, wait);
      if (changed && saved) PublishToFleet(*watch);
      all = saved && all;
    } catch (const std::exception& e) {
      std::cerr << "signdb watch: " << watch->policy().name
                << ": cannot save: " << EscapedText(e.what()) << "\n";
    }
  }
  return all;
}
