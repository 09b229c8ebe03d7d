#pragma once

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "tests/tool_fixture.h"

// Reading the tool's JSON lines in tests.

inline Poco::JSON::Object::Ptr ParseJson(const std::string& line) {
  return Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
}

// The JSON object of the check report about "path" (relative to the root), or null.
inline Poco::JSON::Object::Ptr JsonAbout(const CToolRun& run, const std::string& path) {
  for (const std::string& line : run.OutLines()) {
    Poco::JSON::Object::Ptr object = ParseJson(line);
    if (object->has("signdb") &&
        object->getObject("signdb")->getValue<std::string>("relative_path") == path) {
      return object;
    }
  }
  return nullptr;
}

// Changes the first policy of a JSON configuration in place, keeping the file's owner and mode:
// "edit" is called with the policy's object.
template <typename CEdit>
void EditFirstPolicy(const std::string& config_path, const CEdit& edit) {
  Poco::JSON::Object::Ptr config = ParseJson(CTempDir::Read(config_path));
  edit(config->getArray("policies")->getObject(0));
  std::ostringstream text;
  config->stringify(text, 2);
  std::ofstream(config_path, std::ios::trunc) << text.str() << "\n";
}

// Sets a member of a JSON configuration's top level in place.
inline void SetConfigMember(const std::string& config_path, const std::string& key, const std::string& json) {
  Poco::JSON::Object::Ptr config = ParseJson(CTempDir::Read(config_path));
  config->set(key, Poco::JSON::Parser().parse(json));
  std::ostringstream text;
  config->stringify(text, 2);
  std::ofstream(config_path, std::ios::trunc) << text.str() << "\n";
}

inline std::string Action(const Poco::JSON::Object::Ptr& line) {
  return line->getObject("event")->getValue<std::string>("action");
}
inline int Status(const Poco::JSON::Object::Ptr& line) {
  return line->getObject("signdb")->getValue<int>("status");
}

// The old and new value of one changed attribute in a JSON line ("<none>" for an absent value).
inline std::pair<std::string, std::string> OldAndNew(const Poco::JSON::Object::Ptr& line,
                                                     const std::string& attribute) {
  Poco::JSON::Array::Ptr changes = line->getObject("signdb")->getArray("changes");
  for (size_t i = 0; i < changes->size(); ++i) {
    Poco::JSON::Object::Ptr change = changes->getObject(static_cast<unsigned>(i));
    if (change->getValue<std::string>("attribute") != attribute) continue;
    auto value = [&](const char* name) {
      return change->isNull(name) ? std::string("<none>") : change->getValue<std::string>(name);
    };
    return {value("old"), value("new")};
  }
  return {"<unchanged>", "<unchanged>"};
}
