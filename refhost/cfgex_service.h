#pragma once

#include "host/cfgex_service.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"

class CRefCfgExService : public CCfgExService {
 public:
  explicit CRefCfgExService(const CRefSettings& settings)
      : policy_number_(settings.policy_number),
        data_directory_(Utf8ToWide(settings.data_dir)),
        restore_time_limit_ms_(settings.restore_time_limit_ms) {}

  uint32_t PolicyNumber() override { return policy_number_; }
  const std::wstring& DataDirectory() override { return data_directory_; }
  uint64_t RestoreTimeLimitMs() override { return restore_time_limit_ms_; }

 private:
  uint32_t policy_number_;
  std::wstring data_directory_;
  uint64_t restore_time_limit_ms_;
};
