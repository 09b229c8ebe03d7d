#pragma once

#include <cstdint>
#include <memory>
#include <string>

class CCfgService;
class CCryptoService;
class CLanguage;
class CLogService;
class CThreadPool;
class CTimeService;
class CUtilityService;

// What the HDB file code needs of the host and of the database whose file it reads or writes:
// the host's services, the message language and the database's fixed settings. Restore tasks
// that outlive a load keep it alive with their loader.
struct CHdbFileContext {
  std::shared_ptr<CUtilityService> utility;
  std::shared_ptr<CCryptoService> crypto;
  std::shared_ptr<CCfgService> cfg;
  std::shared_ptr<CLogService> log;
  std::shared_ptr<CThreadPool> pool;
  std::shared_ptr<CTimeService> time_service;
  std::shared_ptr<CLanguage> language;
  uint32_t policy_number = 0;
  uint32_t digest_descriptor = 0;
  std::wstring hdb_path;
  std::string hdb_path_text;
  std::wstring temporary_path;
  std::wstring root_path;
  uint64_t restore_time_limit_ms = 0;
};

// Logs the warning against the 32-bit build for a load or save of more than 900,000 nodes.
void WarnIfLargeCount(const CHdbFileContext& context, uint64_t count);
