#include "tool/watch/query_protocol.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Parser.h>

#include <array>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "tool/store/service_lock.h"
#include "tool/watch/query_server.h"
#include "util/json_line.h"

namespace {

constexpr std::array<std::pair<CQueryCode, const char*>, 6> kCodeNames = {{
    {CQueryCode::kBadRequest, "bad-request"},
    {CQueryCode::kUnknownRequest, "unknown-request"},
    {CQueryCode::kNotWatched, "not-watched"},
    {CQueryCode::kNotRecorded, "not-recorded"},
    {CQueryCode::kBusy, "busy"},
    {CQueryCode::kFailed, "failed"},
}};

const char* CodeName(CQueryCode code) {
  for (const auto& [known, name] : kCodeNames) {
    if (known == code) return name;
  }
  return "failed";
}

CQueryCode CodeNamed(const std::string& name) {
  for (const auto& [known, known_name] : kCodeNames) {
    if (name == known_name) return known;
  }
  return CQueryCode::kFailed;  // an answer from a service that names no code
}

constexpr const char* kShape = "a request is one line like {\"request\":\"status\"}";

}  // namespace

std::string ServiceSocketOf(const std::string& data_folder) { return data_folder + "/watch.sock"; }

CQueryRequest CQueryRequest::Status() { return CQueryRequest{"status", "", "", "", false}; }

CQueryRequest CQueryRequest::Lookup(const std::string& hash) {
  return CQueryRequest{"lookup", hash, "", "", false};
}

CQueryRequest CQueryRequest::Show(const std::string& policy, const std::string& path) {
  return CQueryRequest{"show", "", policy, path, false};
}

CQueryRequest CQueryRequest::List(const std::string& policy, const std::string& path,
                                  bool recursive) {
  return CQueryRequest{"list", "", policy, path, recursive};
}

CQueryRequest CQueryRequest::Pending(const std::string& policy) {
  return CQueryRequest{"pending", "", policy, "", false};
}

std::string CQueryRequest::Line() const {
  CJsonLine line;
  line.Open().String("request", kind);
  if (kind == "lookup") line.String("hash", hash);
  if (kind == "show" || kind == "list") line.String("policy", policy).String("path", path);
  if (kind == "pending") line.String("policy", policy);
  if (kind == "list") line.Bool("recursive", recursive);
  return line.Close().Take();
}

bool CQueryRequest::Read(const std::string& line, CQueryRequest& request, std::string& refusal) {
  Poco::JSON::Object::Ptr object;
  try {
    object = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
  } catch (const std::exception&) {
  }
  if (object.isNull()) {
    refusal = ErrorAnswer(CQueryCode::kBadRequest, std::string("not a JSON object: ") + kShape);
    return false;
  }
  // Members are taken as they are or refused: a number where a path goes is not a path.
  std::string wrong;
  auto text = [&](const char* key, std::string& into) {
    if (!object->has(key)) return;
    Poco::Dynamic::Var value = object->get(key);
    if (value.isString()) {
      into = value.extract<std::string>();
    } else if (wrong.empty()) {
      wrong = key;
    }
  };
  text("request", request.kind);
  text("hash", request.hash);
  text("policy", request.policy);
  text("path", request.path);
  if (object->has("recursive")) {
    Poco::Dynamic::Var value = object->get("recursive");
    if (value.type() == typeid(bool)) {
      request.recursive = value.extract<bool>();
    } else if (wrong.empty()) {
      wrong = "recursive";
    }
  }
  if (!wrong.empty()) {
    refusal =
        ErrorAnswer(CQueryCode::kBadRequest,
                    "\"" + wrong + "\" is not " +
                        (wrong == "recursive" ? "true or false" : "a string") + "; " + kShape);
    return false;
  }
  if (request.kind != "status" && request.kind != "lookup" && request.kind != "show" &&
      request.kind != "list" && request.kind != "pending") {
    refusal =
        ErrorAnswer(CQueryCode::kUnknownRequest, "unknown request '" + request.kind +
                                                     "': status, lookup, show, list or pending");
    return false;
  }
  if (request.kind == "lookup" && request.hash.empty()) {
    refusal = ErrorAnswer(CQueryCode::kBadRequest, "lookup needs a \"hash\"");
    return false;
  }
  return true;
}

std::string ErrorAnswer(CQueryCode code, const std::string& reason) {
  return CJsonLine()
      .Open()
      .Bool("ok", false)
      .String("code", CodeName(code))
      .String("error", reason)
      .Close()
      .Take();
}

CQueryAnswer CQueryAnswer::Read(const std::string& line) {
  CQueryAnswer answer;
  answer.line = line;
  try {
    answer.body = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
  } catch (const std::exception&) {
  }
  if (answer.body.isNull())
    throw std::runtime_error("an answer that is not a JSON object: " + line);
  if (!answer.body->optValue<bool>("ok", false)) {
    answer.code = CodeNamed(answer.body->optValue<std::string>("code", ""));
    answer.error = answer.body->optValue<std::string>("error", line);
  }
  return answer;
}

std::string CQueryAnswer::RawObject() const {
  // What a show answer is made of (see the service's answers): the object is its last member.
  const std::string head = "{\"ok\":true,\"object\":";
  if (line.compare(0, head.size(), head) != 0 || line.size() < head.size() + 1 ||
      line.back() != '}')
    throw std::runtime_error("an answer without an object: " + line);
  return line.substr(head.size(), line.size() - head.size() - 1);
}

std::optional<CQueryAnswer> AskRunningWatchService(const std::string& data_folder,
                                                   const CQueryRequest& request, int timeout_ms) {
  if (CServiceLock::Holder(data_folder) == 0) return std::nullopt;
  return AskWatchService(data_folder, request, timeout_ms);
}

CQueryAnswer AskWatchService(const std::string& data_folder, const CQueryRequest& request,
                             int timeout_ms) {
  return CQueryAnswer::Read(AskService(ServiceSocketOf(data_folder), request.Line(), timeout_ms));
}
