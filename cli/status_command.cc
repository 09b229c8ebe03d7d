// signdb status: what the running watch service says of each policy it follows, or, when none runs,
// what is saved.

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <sys/stat.h>

#include <iostream>
#include <optional>
#include <string>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/policy_arguments.h"
#include "front/sign_db.h"
#include "tool/common/exit_status.h"
#include "tool/session/session.h"
#include "tool/store/service_lock.h"
#include "tool/watch/query_protocol.h"
#include "util/json_line.h"
#include "util/safe_text.h"
#include "util/text_format.h"

namespace {

// When the file was last written, or "" when it cannot be examined.
std::string FileTimeText(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::string();
  return IsoSecondsText(status.st_mtime);
}

// How many changes are pending in a policy the service keeps, and since when.
std::string PendingText(const Poco::JSON::Object& policy) {
  if (policy.isNull("pending")) {
    return "pending: not known (" + EscapedText(policy.optValue<std::string>("pending_error", "")) +
           ")";
  }
  uint64_t count = policy.optValue<uint64_t>("pending", 0);
  std::string as_of = policy.optValue<std::string>("pending_as_of", "");
  if (count == 0)
    return "nothing pending: the live record is what the baseline holds (" + as_of + ")";
  return GroupedNumber(count) + (count == 1 ? " change" : " changes") + " pending since " +
         policy.optValue<std::string>("pending_since", "") + " (as of " + as_of +
         "): 'signdb check' lists them, 'signdb update' accepts them";
}

int PrintServiceStatus(const CQueryAnswer& answer, bool json) {
  if (json) {
    std::cout << answer.line << "\n";
    return kExitOk;
  }
  if (!answer.ok()) throw CToolError("the watch service answered: " + answer.error);
  const Poco::JSON::Object::Ptr& status = answer.body;
  std::cout << "watch service: process " << status->optValue<int>("pid", 0)
            << "; changes logged to "
            << EscapedText(status->optValue<std::string>("change_log", ""))
            << (status->optValue<bool>("system_log", false) ? " and the system log"
                : status->optValue<std::string>("change_lines", "") == "journal"
                    ? " and standard output (the journal under systemd)"
                    : " only (no system log listens at /dev/log)")
            << "\n";
  Poco::JSON::Array::Ptr policies = status->getArray("policies");
  for (size_t i = 0; policies && i < policies->size(); ++i) {
    Poco::JSON::Object::Ptr policy = policies->getObject(static_cast<unsigned>(i));
    std::string saved = policy->optValue<std::string>("last_save", "");
    std::cout << "policy " << EscapedText(policy->optValue<std::string>("name", "")) << " ("
              << EscapedText(policy->optValue<std::string>("root", ""))
              << "): " << GroupedNumber(policy->optValue<uint64_t>("nodes", 0))
              << " objects recorded, watched with " << policy->optValue<std::string>("watcher", "")
              << "; " << policy->optValue<uint64_t>("events", 0) << " events, "
              << policy->optValue<uint64_t>("applied", 0) << " applied, "
              << policy->optValue<uint64_t>("queued", 0) << " queued, "
              << policy->optValue<uint64_t>("reconciles", 0) << " reconciles, "
              << policy->optValue<uint64_t>("lost", 0) << " lost, "
              << policy->optValue<uint64_t>("failures", 0) << " failures; last saved "
              << (saved.empty() ? std::string("never") : saved) << "\n";
    std::cout << "  " << PendingText(*policy) << "\n";
  }
  return kExitOk;
}

}  // namespace

int RunStatus(const CCommandLine& line) {
  RequireShape(line, {"--json"}, 0, 0);
  CSession session(SessionOptionsOf(line));
  bool json = line.Has("--json");
  if (CServiceLock::Holder(session.DataFolder()) != 0) {
    std::optional<CQueryAnswer> answer;
    try {
      answer = AskWatchService(session.DataFolder(), CQueryRequest::Status());
    } catch (const std::runtime_error& e) {
      throw CToolError(e.what());
    }
    return PrintServiceStatus(*answer, json);
  }
  CJsonLine answer;
  answer.Open().Bool("ok", true).Null("pid").OpenArray("policies");
  for (const CRefPolicySettings& policy : session.settings().policies) {
    bool saved = session.front().HdbFileExists(policy.name);
    std::string path = session.Narrow(session.front().HdbFilePath(policy.name));
    std::string when = saved ? FileTimeText(path) : std::string();
    // A file's time is no save time when its signature does not hold: it is loaded to tell.
    std::string refusal;
    if (saved) {
      try {
        session.Store(policy).Load();
        session.Store(policy).Unlock();
      } catch (const CToolError& e) {
        refusal = e.what();
        if (!refusal.empty() && refusal.back() == ':') refusal.pop_back();
        if (!e.hints().empty()) refusal += ": " + e.hints().front();
      }
    }
    if (json) {
      answer.Open().String("name", policy.name).String("root", policy.root).Null("watcher");
      if (saved) {
        answer.String("database", path);
      } else {
        answer.Null("database");
      }
      if (refusal.empty()) {
        answer.String("last_save", when).Null("refused");
      } else {
        answer.Null("last_save").String("refused", refusal);
      }
      answer.Close();
    } else {
      std::cout << "policy " << EscapedText(policy.name) << " (" << EscapedText(policy.root)
                << "): not watched; "
                << (!saved ? std::string("no database yet")
                    : refusal.empty()
                        ? "saved " + when + " in " + EscapedText(path)
                        : "its database is refused (" + EscapedText(refusal) + "); 'signdb check " +
                              EscapedText(policy.name) + "' says why and what to do")
                << "\n";
    }
  }
  if (json) {
    std::cout << answer.Close().Close().Take() << "\n";
  } else {
    std::cout << "no watch service runs on " << EscapedText(session.DataFolder()) << "\n";
  }
  return kExitOk;
}
