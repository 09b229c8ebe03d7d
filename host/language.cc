#include "host/language.h"

#include <stdexcept>

#include "host/host.h"
#include "host/locale_service.h"

CLanguage::CLanguage(const std::shared_ptr<CHost>& host) : host_(host) {
  if (!host_) throw std::runtime_error("[cl]Bad global class!");
}

std::string& CLanguage::Text(std::string& out, const char* key) {
  if (ready_.load(std::memory_order_acquire)) {
    language_->Text(out, key);
    return out;
  }
  std::lock_guard<std::mutex> guard(lock_);
  if (!language_) language_ = host_->Locale();
  if (language_) {
    ready_.store(true, std::memory_order_release);
    language_->Text(out, key);
  } else {
    out = key;
  }
  return out;
}
