#include "tool/watch/query_answers.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

#include "hashdb/hash_db.h"
#include "refhost/settings.h"
#include "tool/report/hash_holders.h"
#include "tool/report/recorded_listing.h"
#include "tool/report/recorded_object_json.h"
#include "tool/watch/pending_answer.h"
#include "tool/watch/policy_watch.h"
#include "tool/watch/query_protocol.h"
#include "util/json_line.h"
#include "util/relative_path.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

// The request's path relative to the policy's root; nothing when it lies outside the root.
std::optional<std::string> RelativePath(const CPolicyWatch& watch, const std::string& path) {
  return RelativeBelow(watch.policy().root, path);
}

std::string NotRecordedAnswer(const CPolicyWatch& watch, const std::string& relative) {
  return ErrorAnswer(CQueryCode::kNotRecorded, (relative.empty() ? std::string(".") : relative) +
                                                   " is not recorded in policy '" +
                                                   watch.policy().name + "'");
}

}  // namespace

std::string CQueryAnswers::Answer(const std::string& line) {
  CQueryRequest request;
  std::string refusal;
  if (!CQueryRequest::Read(line, request, refusal)) return refusal;
  try {
    if (request.kind == "status") return Status();
    if (request.kind == "lookup") return Lookup(request.hash);
    CPolicyWatch* watch = Find(request.policy);
    if (watch == nullptr) {
      return ErrorAnswer(CQueryCode::kNotWatched,
                         "no policy named '" + request.policy + "' is watched");
    }
    if (request.kind == "show") return Show(*watch, request.path);
    if (request.kind == "pending") return Pending(*watch);
    return List(*watch, request.path, request.recursive);
  } catch (const std::exception& e) {
    return ErrorAnswer(CQueryCode::kFailed, e.what());
  }
}

CPolicyWatch* CQueryAnswers::Find(const std::string& name) {
  for (const auto& watch : watches_) {
    if (watch->policy().name == name) return watch.get();
  }
  return nullptr;
}

std::string CQueryAnswers::Status() {
  CJsonLine answer;
  answer.Open()
      .Bool("ok", true)
      .Number("pid", static_cast<uint64_t>(::getpid()))
      .String("change_log", change_log_)
      .Bool("system_log", system_log_)
      .Bool("standard_output", standard_output_)
      .String("change_lines", change_lines_)
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
    answer.String("last_save", counters.last_save);
    const CPolicyWatch::CPendingSummary& pending = watch->PendingSummary();
    if (pending.known) {
      answer.Number("pending", pending.count);
      if (pending.since != 0) {
        answer.String("pending_since", IsoSecondsText(pending.since));
      } else {
        answer.Null("pending_since");
      }
      answer.String("pending_as_of", IsoSecondsText(pending.as_of));
    } else {
      answer.Null("pending").String("pending_error", pending.error);
    }
    answer.Close();
  }
  return answer.Close().Close().Take();
}

std::string CQueryAnswers::Lookup(const std::string& hash) {
  std::string lowered = AsciiLower(hash);
  CJsonLine answer;
  answer.Open().Bool("ok", true).OpenArray("holders");
  for (const auto& watch : watches_) {
    for (const std::wstring& path : HoldersOf(*watch->database(), lowered, true)) {
      answer.Open().String("policy", watch->policy().name).String("path", WideToUtf8(path)).Close();
    }
  }
  return answer.Close().Close().Take();
}

std::string CQueryAnswers::List(CPolicyWatch& watch, const std::string& path, bool recursive) {
  std::optional<std::string> relative = RelativePath(watch, path);
  if (!relative) return NotRecordedAnswer(watch, path);
  CJsonLine answer;
  answer.Open().Bool("ok", true).OpenArray("entries");
  for (const CListedObject& object :
       ListRecorded(watch.policy(), *watch.database(), *relative, recursive)) {
    answer.Raw({}, ListedJson(object));
  }
  return answer.Close().Close().Take();
}

std::string CQueryAnswers::Pending(CPolicyWatch& watch) {
  std::optional<CTreeCheckResult> pending = watch.Pending();
  if (!pending) {
    return ErrorAnswer(CQueryCode::kBusy, "the baseline of policy '" + watch.policy().name +
                                              "' is being written; ask again");
  }
  return PendingAnswer(*pending);
}

std::string CQueryAnswers::Show(CPolicyWatch& watch, const std::string& path) {
  std::optional<std::string> relative = RelativePath(watch, path);
  if (!relative) return NotRecordedAnswer(watch, path);
  std::string full_text = JoinedPath(watch.policy().root, *relative);
  std::wstring full = Utf8ToWide(full_text);
  CHashDB& database = *watch.database();
  if (!database.ExistsAs(full, database.IsDirectory(full)))
    return NotRecordedAnswer(watch, *relative);
  // The object is the answer's last member: a client takes it as it stands (RawObject).
  return CJsonLine()
      .Open()
      .Bool("ok", true)
      .Raw("object", RecordedObjectJson(database, full, full_text, *relative))
      .Close()
      .Take();
}
