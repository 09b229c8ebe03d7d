#pragma once

#include <string>

#include "host/crypto_service.h"

// Signing done on another host: instead of signing the finished HDB file, keeps a copy of it as
// the candidate (a new file, never written through a link) and declines, so the module keeps the
// database in place. The candidate is signed elsewhere and put in place from there.
class CDeferredSigner : public CSigner {
 public:
  explicit CDeferredSigner(std::string candidate_path) : candidate_path_(std::move(candidate_path)) {}
  bool Sign(const std::wstring& path, std::string& result, uint32_t a, uint32_t b) override;

 private:
  std::string candidate_path_;
};
