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
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "tool/common/exit_status.h"
#include "tool/session/session.h"
#include "tool/store/service_lock.h"
#include "tool/store/signer_keys.h"
#include "tool/watch/watch_service.h"
#include "util/safe_text.h"

namespace {

constexpr long kDefaultSavePeriodSeconds = 300;

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
  CWatchService service(session, std::chrono::seconds(save_period), line.Has("--inotify"));
  for (const CRefPolicySettings* policy : policies) {
    session.RequireRoot(*policy);
    {
      // Nothing is loaded or changed yet: a stop while another run's lock is waited for ends the
      // process at once.
      ::pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);
      session.Store(*policy).Lock(CPolicyLock::CMode::kExclusive);
      ::pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    }
    std::shared_ptr<CHashDB> database;
    if (!session.front().HdbFileExists(policy->name)) {
      database = session.NewDatabase(*policy);  // recorded afresh by the start-up reconcile
    } else {
      try {
        database = session.Store(*policy).Load();
      } catch (const CToolError& e) {
        if (!line.Has("--rescan")) throw;
        std::cerr << "signdb watch: " << EscapedText(e.what()) << "; recording the tree of policy '"
                  << policy->name << "' afresh (--rescan)\n";
        database = session.NewDatabase(*policy);
      }
    }
    service.Add(*policy, database);
  }
  service.Run(stop_signals);
  return kExitOk;
}
