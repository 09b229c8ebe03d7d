#include "refhost/ref_host.h"

#include "front/sign_db.h"
#include "hashdb/steady_time_service.h"
#include "refhost/catalogue.h"
#include "refhost/cfg_service.h"
#include "refhost/cfgex_service.h"
#include "refhost/crypto_service.h"
#include "refhost/log_service.h"
#include "refhost/read_context.h"
#include "refhost/thread_pool.h"
#include "refhost/utility_service.h"

CRefHost::CRefHost(const CRefSettings& settings) : settings_(settings) {
  ref_log_ = std::make_shared<CRefLogService>(settings_.log_level, settings_.log_console,
                                              settings_.log_file);
  log_ = ref_log_;
  locale_ = std::make_shared<CRefCatalogue>(settings_.catalogue.empty()
                                                ? CRefCatalogue()
                                                : CRefCatalogue::FromFile(settings_.catalogue));
  ref_utility_ = std::make_shared<CRefUtilityService>(ref_log_, settings_.sed_text);
  utility_ = ref_utility_;
  auto crypto = std::make_shared<CRefCryptoService>(settings_);
  crypto->DigestDescriptor(settings_.policy_number);  // refuses an unknown policy number now
  crypto_ = crypto;
  ref_crypto_ = crypto;
  cfg_ = std::make_shared<CRefCfgService>(settings_);
  cfgex_ = std::make_shared<CRefCfgExService>(settings_);
  read_context_builder_ = std::make_shared<CRefReadContextBuilder>();
  ref_pool_ = std::make_shared<CRefThreadPool>(settings_.threads, log_);
  thread_pool_ = ref_pool_;
  time_service_ = std::make_shared<CSteadyTimeService>();
}

CRefHost::~CRefHost() = default;

void CRefHost::TakeSignDB(const std::shared_ptr<CSignDB>& front) {
  std::lock_guard<std::mutex> guard(front_lock_);
  front_ = front;
}

std::shared_ptr<CSignDB> CRefHost::Front() {
  std::lock_guard<std::mutex> guard(front_lock_);
  return front_;
}

void CRefHost::ReleaseFront() {
  std::lock_guard<std::mutex> guard(front_lock_);
  front_.reset();
}

void CRefHost::WaitForIdlePool() { ref_pool_->WaitIdle(); }

// The counts are process-wide: every host object, and every module, shares them.
std::mutex& CRefHost::InstanceCounterMutex() {
  static std::mutex mutex;
  return mutex;
}

std::map<std::string, uint64_t>& CRefHost::InstanceCounterMap() {
  static std::map<std::string, uint64_t> counts;
  return counts;
}
