#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class CHost;
class CLocaleService;

// Looks message keys up through the host's localisation service, fetching the service lazily.
//
// Thread safety: Text() may be called from any thread. "ready_" is written only under "lock_"
// and read without it; "language_" is set before "ready_" (release) and read after it (acquire),
// so the lock-free path sees a complete service pointer. Once set, "ready_" stays set.
class CLanguage {
 public:
  // Throws std::runtime_error "[cl]Bad global class!" when "host" is empty.
  explicit CLanguage(const std::shared_ptr<CHost>& host);

  CLanguage(const CLanguage&) = delete;
  CLanguage& operator=(const CLanguage&) = delete;

  // Writes the text to show for "key" into "out" and returns "out". While the host offers no
  // localisation service the text is the key itself, and the next call asks the host again.
  std::string& Text(std::string& out, const char* key);

 private:
  std::shared_ptr<CHost> host_;
  std::shared_ptr<CLocaleService> language_;  // guarded by lock_ until ready_ is set
  std::mutex lock_;
  std::atomic<bool> ready_{false};
};
