// signdb watch [POLICY...]: keeps the policies' databases up to date from the kernel's file events,
// answers queries on a local socket while it runs, and saves on a period and when it is stopped.

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/journal_entry.h"
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "tool/common/exit_status.h"
#include "tool/session/session.h"
#include "tool/session/watch_settings.h"
#include "tool/store/service_lock.h"
#include "tool/store/signer_keys.h"
#include "tool/watch/watch_service.h"
#include "util/safe_text.h"

namespace {

constexpr long kDefaultSavePeriodSeconds = 300;

// The service's live record of a policy as it starts: the one it saved last, or else a copy of the
// baseline (verified as every load verifies it), or else, for a policy that has no baseline yet,
// an empty one. The start-up reconcile then takes in what changed while no service ran; the
// baseline itself is never written by the service.
std::shared_ptr<CHashDB> LiveRecordAtStart(CSession& session, const CRefPolicySettings& policy,
                                           const CCommandLine& line) {
  CPolicyStore& live = session.LiveStore(policy);
  auto afresh = [&](const CToolError& e) {
    if (!line.Has("--rescan")) throw e;
    CJournalEntry refused = JournalEntryOf(line, "refused-load", policy);
    refused.note = std::string(e.what()) + "; the tree is recorded afresh (--rescan)";
    try {
      session.Store(policy).journal().Append(refused);
    } catch (const std::exception& failed) {
      std::cerr << "signdb watch: cannot journal the refused load: " << EscapedText(failed.what())
                << "\n";
    }
    std::cerr << "signdb watch: " << EscapedText(e.what()) << "; recording the tree of policy '"
              << policy.name << "' afresh (--rescan)\n";
    return live.New();
  };
  if (live.HasRecord()) {
    try {
      return live.Load();
    } catch (const CToolError& e) {
      return afresh(e);
    }
  }
  CPolicyStore& baseline = session.Store(policy);
  if (!baseline.HasRecord()) {
    std::cout << "policy " << EscapedText(policy.name)
              << " has no baseline yet: the service records the tree, and nothing is accepted "
                 "until 'signdb scan "
              << EscapedText(policy.name) << "'\n";
    return live.New();
  }
  std::shared_ptr<CHashDB> database;
  try {
    // The baseline read once, into the live record's database.
    database = baseline.Load(true, live.New());
  } catch (const CToolError& e) {
    baseline.Unlock();
    return afresh(e);
  }
  baseline.Unlock();  // update and scan take it while the service runs
  return database;
}

}  // namespace

int RunWatch(const CCommandLine& line) {
  RequireShape(line, {"--rescan", "--save-period", "--quiet", "--inotify"}, 0, SIZE_MAX);
  long save_period = kDefaultSavePeriodSeconds;
  if (!line.Value("--save-period").empty()) {
    try {
      size_t used = 0;
      save_period = std::stol(line.Value("--save-period"), &used);
      if (used != line.Value("--save-period").size() || save_period < 1)
        throw std::invalid_argument("");
    } catch (const std::exception&) {
      throw CToolError("--save-period takes a number of seconds, 1 or more: '" +
                       line.Value("--save-period") + "'");
    }
  }
  // Before any thread starts (the session's pool): every thread inherits the blocked signals, so
  // none is stopped by them; the service reads them from a descriptor instead.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  if (::pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr) != 0)
    throw CToolError("cannot block the stop signals");
  CSession session(SessionOptionsOf(line));
  std::unique_ptr<CServiceLock> service_lock;
  try {
    service_lock = std::make_unique<CServiceLock>(session.DataFolder());
  } catch (const std::runtime_error& e) {
    throw CToolError(e.what());
  }
  std::vector<const CRefPolicySettings*> policies;
  if (line.arguments.empty()) {
    for (const CRefPolicySettings& policy : session.settings().policies)
      policies.push_back(&policy);
    if (policies.empty())
      throw CToolError("the configuration " + session.config_path() + " names no policy");
  } else {
    for (const std::string& name : line.arguments) policies.push_back(&session.Policy(name));
  }
  session.signer().Prepare();
  // A check or scan that runs as the service starts (a daily timer, say) is waited for: a service
  // that gave up would not be started again.
  session.WaitForLocks();
  CWatchService service(session, std::chrono::seconds(save_period), line.Has("--inotify"),
                        ReadWatchSettings(session.config_path()).change_lines);
  for (const CRefPolicySettings* policy : policies) {
    session.RequireRoot(*policy);
    {
      // Nothing is loaded or changed yet: a stop while another run's lock is waited for ends the
      // process at once.
      ::pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);
      session.LiveStore(*policy).Lock(CPolicyLock::CMode::kExclusive);
      // A live record that starts from the baseline reads it: a scan or an update that writes it
      // is waited for here too.
      if (!session.LiveStore(*policy).HasRecord() && session.Store(*policy).HasRecord())
        session.Store(*policy).Lock(CPolicyLock::CMode::kShared);
      ::pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    }
    std::shared_ptr<CHashDB> database = LiveRecordAtStart(session, *policy, line);
    service.Add(*policy, database, JournalEntryOf(line, "", *policy));
  }
  service.Run(stop_signals);
  return kExitOk;
}
