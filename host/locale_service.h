#pragma once

#include <string>

// The host's localisation: the text to show for a message key. Safe for concurrent use.
class CLocaleService {
 public:
  virtual ~CLocaleService() = default;
  // slot 0: fills "out" with the text for the zero-terminated narrow "key".
  virtual void Text(std::string& out, const char* key) = 0;
};
