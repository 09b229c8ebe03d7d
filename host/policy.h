#pragma once

#include <cstdint>
#include <string>

// The host's description of one policy: a named, monitored root directory.
class CPolicy {
 public:
  virtual ~CPolicy() = default;
  virtual std::string Name() = 0;          // slot 3
  virtual std::wstring RootPath() = 0;     // slot 4 (host's choice)
  // slot 5 (host's choice): one numeric setting, chosen by "which" (see CPolicySetting).
  virtual uint64_t Setting(uint32_t which) = 0;
};

// The settings that the database reads from its policy.
enum CPolicySetting : uint32_t {
  kTouchPeriodSeconds = 0,    // 0 switches the touched-recently query off
  kDbTouchPeriodSeconds = 1,  // how long a touch of the whole database silences that query
  kSecuritySetting = 2,       // handed to the root's security-attributes query
  kIndexEnabled = 3,          // non-zero: the hash index is kept
  kFoldCase = 4,              // non-zero: names differing only in case are one object
};
