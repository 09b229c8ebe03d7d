// signdb watch [POLICY...]: keeps the policies' databases up to date from the kernel's file events,
// answers queries on a local socket while it runs, and saves on a period and when it is stopped.

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "hashdb/hash_db.h"
#include "tool/common/exit_status.h"
#include "tool/report/change_log.h"
#include "tool/report/hash_holders.h"
#include "tool/report/recorded_listing.h"
#include "tool/report/recorded_object_json.h"
#include "tool/scan/tree_check.h"
#include "tool/session/session.h"
#include "tool/store/service_lock.h"
#include "tool/store/signer_keys.h"
#include "tool/watch/policy_watch.h"
#include "tool/watch/query_server.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

using CClock = std::chrono::steady_clock;

constexpr long kDefaultSavePeriodSeconds = 300;
// Objects read between two looks at the kernel's events: a few milliseconds of work.
constexpr size_t kMostReadsPerTurn = 128;
// A save that found the saved files being read is tried again this much later.
constexpr std::chrono::milliseconds kSaveRetry{200};

// The service: its policies, its socket, and the loop that waits for all of them.
class CWatchService {
 public:
  CWatchService(CSession& session, std::chrono::seconds save_period, bool force_inotify)
      : session_(session),
        save_period_(save_period),
        force_inotify_(force_inotify),
        log_(session.DataFolder() + "/watch-changes.ndjson") {}

  void Add(const CRefPolicySettings& policy, std::shared_ptr<CHashDB> database) {
    watches_.push_back(
        std::make_unique<CPolicyWatch>(session_, policy, std::move(database), &log_));
  }

  // Follows the events until SIGTERM or SIGINT; saves what changed, then returns.
  // "stop_signals" must be blocked in every thread of the process (block them before any thread
  // starts): they are taken from a descriptor, at a point where stopping loses nothing.
  void Run(const sigset_t& stop_signals) {
    int signal_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    int epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (signal_fd < 0 || epoll_fd < 0)
      throw CToolError(std::string("cannot wait for events: ") + std::strerror(errno));

    for (auto& watch : watches_) {
      watch->Start(force_inotify_);
      watch->Save(true);  // what the start-up reconcile found is kept at once
    }
    CQueryServer server(session_.DataFolder() + "/watch.sock",
                        [this](const std::string& request) { return Answer(request); });
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
        log_.Flush();
        std::cout.flush();
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
          log_.Flush();  // an answer never runs ahead of the change log
          server.Process();
        } else {
          watches_[tag]->OnEvents();
        }
      }
      CClock::time_point now = CClock::now();
      for (auto& watch : watches_) watch->ApplyDue(now, kMostReadsPerTurn);
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
    ::close(epoll_fd);
    ::close(signal_fd);
  }

 private:
  // Saves every policy that changed; without "wait", one whose saved files are being read is left
  // for later (returns false).
  bool SaveAll(bool wait) {
    bool all = true;
    for (auto& watch : watches_) {
      try {
        all = watch->Save(false, wait) && all;
      } catch (const std::exception& e) {
        std::cerr << "signdb watch: " << watch->policy().name
                  << ": cannot save: " << EscapedText(e.what()) << "\n";
      }
    }
    return all;
  }

  CPolicyWatch* Find(const std::string& name) {
    for (auto& watch : watches_) {
      if (watch->policy().name == name) return watch.get();
    }
    return nullptr;
  }

  // One query: {"request":"status"}, {"request":"lookup","hash":H},
  // {"request":"show","policy":P,"path":R}.
  std::string Answer(const std::string& line) {
    Poco::JSON::Object::Ptr request;
    try {
      Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(line);
      request = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const std::exception&) {
      return ErrorAnswer("not a JSON object: a request is one line like {\"request\":\"status\"}");
    }
    if (request.isNull())
      return ErrorAnswer("not a JSON object: a request is one line like {\"request\":\"status\"}");
    std::string kind = request->optValue<std::string>("request", "");
    try {
      if (kind == "status") return Status();
      if (kind == "lookup") return Lookup(request->optValue<std::string>("hash", ""));
      if (kind == "show") {
        return Show(request->optValue<std::string>("policy", ""),
                    request->optValue<std::string>("path", ""));
      }
      if (kind == "list") {
        return List(request->optValue<std::string>("policy", ""),
                    request->optValue<std::string>("path", ""),
                    request->optValue<bool>("recursive", false));
      }
    } catch (const std::exception& e) {
      return ErrorAnswer(e.what());
    }
    return ErrorAnswer("unknown request '" + kind + "': status, lookup, show or list");
  }

  std::string Status() {
    CJsonLine answer;
    answer.Open()
        .Bool("ok", true)
        .Number("pid", static_cast<uint64_t>(::getpid()))
        .OpenArray("policies");
    for (const auto& watch : watches_) {
      const CPolicyWatch::CCounters& counters = watch->counters();
      answer.Open().String("name", watch->policy().name).String("root", watch->policy().root);
      answer.String("watcher", watch->watcher_kind()).Number("nodes", watch->nodes());
      answer.Number("events", counters.events)
          .Number("applied", counters.applied)
          .Number("queued", watch->queued());
      answer.Number("reconciles", counters.reconciles).Number("lost", counters.lost);
      answer.Number("failures", counters.failures).Number("shrunk", counters.shrunk);
      answer.Number("unwatched", watch->unwatched())
          .Number("changes", watch->database()->ChangeCounter());
      answer.String("last_save", counters.last_save).Close();
    }
    return answer.Close().Close().Take();
  }

  // Every file of the watched policies that carries the hash.
  std::string Lookup(const std::string& hash) {
    if (hash.empty()) return ErrorAnswer("lookup needs a \"hash\"");
    std::string lowered = hash;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    CJsonLine answer;
    answer.Open().Bool("ok", true).OpenArray("holders");
    for (auto& watch : watches_) {
      for (const std::wstring& path : HoldersOf(*watch->database(), lowered, true)) {
        answer.Open()
            .String("policy", watch->policy().name)
            .String("path", session_.Narrow(path))
            .Close();
      }
    }
    return answer.Close().Close().Take();
  }

  std::string List(const std::string& policy_name, const std::string& path, bool recursive) {
    CPolicyWatch* watch = Find(policy_name);
    if (watch == nullptr) return ErrorAnswer("no policy named '" + policy_name + "' is watched");
    CJsonLine answer;
    answer.Open().Bool("ok", true).OpenArray("entries");
    for (const CListedObject& object :
         ListRecorded(watch->policy(), *watch->database(), RelativeToRoot(watch->policy(), path),
                      recursive)) {
      answer.Raw({}, ListedJson(object));
    }
    return answer.Close().Close().Take();
  }
  std::string Show(const std::string& policy_name, const std::string& path) {
    CPolicyWatch* watch = Find(policy_name);
    if (watch == nullptr) return ErrorAnswer("no policy named '" + policy_name + "' is watched");
    std::string relative = RelativeToRoot(watch->policy(), path);
    std::wstring full = session_.WideFullPath(watch->policy(), relative);
    CHashDB& database = *watch->database();
    if (!database.ExistsAs(full, database.IsDirectory(full))) {
      return ErrorAnswer((relative.empty() ? std::string(".") : relative) +
                         " is not recorded in policy '" + policy_name + "'");
    }
    return "{\"ok\":true,\"object\":" +
           RecordedObjectJson(database, full, session_.Narrow(full), relative) + "}";
  }

  CSession& session_;
  std::chrono::seconds save_period_;
  bool force_inotify_;
  CChangeLog log_;
  std::vector<std::unique_ptr<CPolicyWatch>> watches_;
};

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
