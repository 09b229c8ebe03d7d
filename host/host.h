#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class CCfgService;
class CCfgExService;
class CCryptoService;
class CLocaleService;
class CLogService;
class CReadContextBuilder;
class CSignDB;
class CThreadPool;
class CTimeService;
class CUtilityService;

// The host's service object: the module's only way to the outside. Each accessor returns a
// reference to a pointer that the host keeps; the module copies it, so every owner keeps the
// services it uses alive for its own lifetime. An accessor may return an empty pointer when the
// host does not (yet) offer that service. Safe for concurrent use.
class CHost {
 public:
  virtual ~CHost() = default;
  virtual const std::shared_ptr<CCfgService>& Cfg() = 0;                    // slot 1
  virtual const std::shared_ptr<CLogService>& Log() = 0;                    // slot 2
  virtual const std::shared_ptr<CLocaleService>& Locale() = 0;              // slot 3
  virtual const std::shared_ptr<CUtilityService>& Utility() = 0;            // slot 5
  virtual const std::shared_ptr<CCryptoService>& Crypto() = 0;              // slot 6
  virtual const std::shared_ptr<CReadContextBuilder>& ReadContextBuilder() = 0;  // slot 18
  virtual const std::shared_ptr<CCfgExService>& CfgEx() = 0;                // slot 29
  virtual const std::shared_ptr<CThreadPool>& ThreadPool() = 0;             // slot 30 (host's choice)
  virtual const std::shared_ptr<CTimeService>& TimeService() = 0;           // slot 31 (host's choice)
  // slot 66: takes the module's front; the host keeps a copy.
  virtual void TakeSignDB(const std::shared_ptr<CSignDB>& front) = 0;
  // slots 74-75: the process-wide instance counts by class tag and the mutex that guards them.
  virtual std::mutex& InstanceCounterMutex() = 0;                           // slot 74
  virtual std::map<std::string, uint64_t>& InstanceCounterMap() = 0;        // slot 75
};
