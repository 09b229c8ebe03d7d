#pragma once

#include <Poco/JSON/Object.h>

#include <optional>
#include <string>

// The watch service's queries, both ends: what a request is, how it is written and read, and
// what an answer says. One JSON object per line each way:
//
//   {"request":"status"}
//   {"request":"lookup","hash":H}
//   {"request":"show","policy":P,"path":R}      R relative to the policy's root, "" the root
//   {"request":"list","policy":P,"path":R,"recursive":B}
//   {"request":"pending","policy":P}            what differs from the baseline (pending_answer.h)
//
// An answer is {"ok":true,...} or {"ok":false,"code":C,"error":REASON}: clients decide by the
// code, people read the reason.

enum class CQueryCode {
  kNone,            // the request was answered
  kBadRequest,      // "bad-request": not a JSON object, a member missing, a line too long
  kUnknownRequest,  // "unknown-request"
  kNotWatched,      // "not-watched": the service does not keep that policy
  kNotRecorded,     // "not-recorded": the policy does not record that path
  kBusy,            // "busy": the service has as many clients as it takes; try again
  kFailed,          // "failed": the service could not answer
};

// The socket where the service of the data folder answers.
std::string ServiceSocketOf(const std::string& data_folder);

struct CQueryRequest {
  std::string kind;  // status, lookup, show, list or pending
  std::string hash;
  std::string policy;
  std::string path;
  bool recursive = false;

  static CQueryRequest Status();
  static CQueryRequest Lookup(const std::string& hash);
  static CQueryRequest Show(const std::string& policy, const std::string& path);
  static CQueryRequest List(const std::string& policy, const std::string& path, bool recursive);
  static CQueryRequest Pending(const std::string& policy);

  // The request as one line (no newline).
  std::string Line() const;
  // Reads a line a client sent; false (with the error answer in "refusal") when it is not a
  // request of a known kind with what that kind needs.
  static bool Read(const std::string& line, CQueryRequest& request, std::string& refusal);
};

// {"ok":false,"code":...,"error":REASON}.
std::string ErrorAnswer(CQueryCode code, const std::string& reason);

// An answer as a client reads it.
struct CQueryAnswer {
  std::string line;  // as the service sent it
  Poco::JSON::Object::Ptr body;
  CQueryCode code = CQueryCode::kNone;
  std::string error;  // the reason, when the code is not kNone

  bool ok() const { return code == CQueryCode::kNone; }
  // The answer's "object" member as the service wrote it, byte for byte (a show answer).
  std::string RawObject() const;
  // Throws std::runtime_error when "line" is not a JSON object.
  static CQueryAnswer Read(const std::string& line);
};

// Asks the service that keeps the data folder, when one runs (nothing when none does); throws
// std::runtime_error when it runs and does not answer within "timeout_ms".
std::optional<CQueryAnswer> AskRunningWatchService(const std::string& data_folder,
                                                   const CQueryRequest& request,
                                                   int timeout_ms = 5000);

// Asks the service of the data folder; throws std::runtime_error when it does not answer within
// "timeout_ms" or its answer cannot be read.
CQueryAnswer AskWatchService(const std::string& data_folder, const CQueryRequest& request,
                             int timeout_ms = 5000);
