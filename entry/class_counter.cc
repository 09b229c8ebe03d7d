#include "entry/class_counter.h"

#include <iostream>
#include <mutex>
#include <stdexcept>

#include "host/host.h"
#include "host/message.h"
#include "host/utility_service.h"

CClassCounter::CClassCounter(const std::shared_ptr<CHost>& host, const std::string& name)
    : host_(host) {
  if (!host_) throw std::runtime_error("[kvxcc] bad glb cls!");
  name_ = name;
  uint64_t count = 0;
  {
    std::lock_guard<std::mutex> guard(host_->InstanceCounterMutex());
    count = ++host_->InstanceCounterMap()[name_];
  }
  // Reported outside the mutex: reports of concurrent changes may appear out of order, each with
  // the count its own change produced.
  Report("[After New][" + std::to_string(count) + "]:" + name_);
}

CClassCounter::~CClassCounter() {
  uint64_t count = 0;
  if (host_) {
    std::lock_guard<std::mutex> guard(host_->InstanceCounterMutex());
    auto& counts = host_->InstanceCounterMap();
    auto it = counts.find(name_);
    if (it != counts.end()) count = --it->second;
  }
  Report("[After Del][" + std::to_string(count) + "]:" + name_);
  host_.reset();
}

void CClassCounter::Report(const std::string& text) const {
  if (!host_) {
    std::cout << text << std::endl;
    return;
  }
  std::shared_ptr<CUtilityService> utility = host_->Utility();
  if (utility) utility->Message(kMessageInstanceCount, text, kMessageTrailer);
}
