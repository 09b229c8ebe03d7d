#pragma once

#include "host/policy.h"
#include "refhost/settings.h"
#include "util/text_conversion.h"

// A policy as the configuration names it.
class CRefPolicy : public CPolicy {
 public:
  explicit CRefPolicy(CRefPolicySettings settings) : settings_(std::move(settings)) {}

  std::string Name() override { return settings_.name; }
  std::wstring RootPath() override { return Utf8ToWide(settings_.root); }
  uint64_t Setting(uint32_t which) override {
    switch (which) {
      case kTouchPeriodSeconds: return settings_.touch_period_s;
      case kDbTouchPeriodSeconds: return settings_.db_touch_period_s;
      case kIndexEnabled: return settings_.index_enabled ? 1 : 0;
      case kFoldCase: return settings_.fold_case ? 1 : 0;
      default: return 0;  // kSecuritySetting: the reference host has only one form
    }
  }
  const CRefPolicySettings& settings() const { return settings_; }

 private:
  CRefPolicySettings settings_;
};
