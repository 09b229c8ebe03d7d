#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/host.h"
#include "refhost/settings.h"

class CRefCfgService;
class CRefCryptoService;
class CRefLogService;
class CRefThreadPool;
class CRefUtilityService;

// The reference host: real services built from settings, offered through the host service
// object. Receives the module's front through TakeSignDB. Thread-safe.
class CRefHost : public CHost {
 public:
  // Throws std::runtime_error when a setting cannot be honoured (an unreadable catalogue, an
  // unknown policy number, a log file that cannot be opened).
  explicit CRefHost(const CRefSettings& settings);
  ~CRefHost() override;

  const std::shared_ptr<CCfgService>& Cfg() override { return cfg_; }
  const std::shared_ptr<CLogService>& Log() override { return log_; }
  const std::shared_ptr<CLocaleService>& Locale() override { return locale_; }
  const std::shared_ptr<CUtilityService>& Utility() override { return utility_; }
  const std::shared_ptr<CCryptoService>& Crypto() override { return crypto_; }
  const std::shared_ptr<CReadContextBuilder>& ReadContextBuilder() override {
    return read_context_builder_;
  }
  const std::shared_ptr<CCfgExService>& CfgEx() override { return cfgex_; }
  const std::shared_ptr<CThreadPool>& ThreadPool() override { return thread_pool_; }
  const std::shared_ptr<CTimeService>& TimeService() override { return time_service_; }
  void TakeSignDB(const std::shared_ptr<CSignDB>& front) override;
  std::mutex& InstanceCounterMutex() override;
  std::map<std::string, uint64_t>& InstanceCounterMap() override;

  // The front that the module handed over, or empty.
  std::shared_ptr<CSignDB> Front();
  // Drops the host's reference to the front (before the module is unloaded).
  void ReleaseFront();
  // Waits until the worker pool holds no task at all, not even one being released.
  void WaitForIdlePool();

  const CRefSettings& settings() const { return settings_; }
  CRefLogService& log() { return *ref_log_; }
  CRefUtilityService& ref_utility() { return *ref_utility_; }
  CRefCryptoService& ref_crypto() { return *ref_crypto_; }

 private:
  CRefSettings settings_;
  std::shared_ptr<CRefLogService> ref_log_;
  std::shared_ptr<CLogService> log_;
  std::shared_ptr<CLocaleService> locale_;
  std::shared_ptr<CUtilityService> utility_;
  std::shared_ptr<CRefUtilityService> ref_utility_;
  std::shared_ptr<CCryptoService> crypto_;
  std::shared_ptr<CRefCryptoService> ref_crypto_;
  std::shared_ptr<CCfgService> cfg_;
  std::shared_ptr<CCfgExService> cfgex_;
  std::shared_ptr<CReadContextBuilder> read_context_builder_;
  std::shared_ptr<CRefThreadPool> ref_pool_;
  std::shared_ptr<CThreadPool> thread_pool_;
  std::shared_ptr<CTimeService> time_service_;
  std::mutex front_lock_;
  std::shared_ptr<CSignDB> front_;  // guarded by front_lock_
};
