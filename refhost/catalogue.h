#pragma once

#include <map>
#include <string>

#include "host/locale_service.h"

// A message catalogue: key -> text. A key without an entry yields the key's own English text.
// Read-only after construction, so concurrent look-ups need no lock.
class CRefCatalogue : public CLocaleService {
 public:
  CRefCatalogue() = default;
  explicit CRefCatalogue(std::map<std::string, std::string> entries);
  // Reads a JSON object of "key": "text" pairs. Throws std::runtime_error when it cannot.
  static CRefCatalogue FromFile(const std::string& file);

  void Text(std::string& out, const char* key) override;

 private:
  std::map<std::string, std::string> entries_;
};
