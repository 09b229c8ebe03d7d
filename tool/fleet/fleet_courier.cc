#include "tool/fleet/fleet_courier.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "util/safe_text.h"

CFleetCourier::CFleetCourier(std::shared_ptr<CFleetPublisher> publisher,
                             std::vector<std::string> policies)
    : publisher_(std::move(publisher)),
      policies_(std::move(policies)),
      thread_([this] { Run(); }) {}

CFleetCourier::~CFleetCourier() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void CFleetCourier::Wake() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    due_ = true;
  }
  wake_.notify_one();
}

void CFleetCourier::Run() {
  using CClock = std::chrono::steady_clock;
  const std::chrono::seconds period(publisher_->settings().period);
  CClock::time_point alive_due = CClock::now() + period;
  std::chrono::seconds retry(0);  // 0: the last delivery went through
  CClock::time_point retry_at = CClock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // Asleep until woken with something to send (not before a back-off ends), or the period.
    CClock::time_point until = alive_due;
    if (due_) until = std::min(until, retry.count() > 0 ? retry_at : CClock::now());
    wake_.wait_until(lock, until, [&] {
      return stop_ || (due_ && (retry.count() == 0 || CClock::now() >= retry_at));
    });
    if (stop_) return;
    bool alive = CClock::now() >= alive_due;
    if (!due_ && !alive) continue;
    due_ = false;
    lock.unlock();
    std::string failure;
    bool delivered = false;
    try {
      if (alive) publisher_->SpoolChanges({}, policies_);
      publisher_->Deliver();
      delivered = true;
    } catch (const std::exception& e) {
      failure = EscapedText(e.what());
    }
    if (alive) alive_due = CClock::now() + period;
    if (delivered) {
      retry = std::chrono::seconds(0);
    } else {
      retry = retry.count() == 0 ? kFirstRetry : std::min(retry * 2, kLongestRetry);
      retry_at = CClock::now() + retry;
      std::cerr << "signdb watch: the fleet store did not take the spool: " << failure
                << "; tried again in " << retry.count() << " s\n";
    }
    lock.lock();
    if (!delivered) due_ = true;
  }
}
