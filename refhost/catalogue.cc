#include "refhost/catalogue.h"

#include <fstream>
#include <stdexcept>

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

CRefCatalogue::CRefCatalogue(std::map<std::string, std::string> entries)
    : entries_(std::move(entries)) {}

CRefCatalogue CRefCatalogue::FromFile(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("message catalogue not readable: " + file);
  try {
    Poco::JSON::Parser parser;
    Poco::JSON::Object::Ptr object = parser.parse(in).extract<Poco::JSON::Object::Ptr>();
    std::map<std::string, std::string> entries;
    for (const auto& [key, value] : *object) entries[key] = value.convert<std::string>();
    return CRefCatalogue(std::move(entries));
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("message catalogue " + file + ": " + e.displayText());
  }
}

void CRefCatalogue::Text(std::string& out, const char* key) {
  auto it = entries_.find(key);
  out = it == entries_.end() ? std::string(key) : it->second;
}
