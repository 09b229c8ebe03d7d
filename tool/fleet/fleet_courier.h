#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tool/fleet/fleet_publisher.h"

// The watch service's delivery of the fleet spool, on a thread of its own so that a slow or
// absent store never holds up the service's events: it sends what the service spooled when woken,
// tries again with back-off (1 s, doubling, at most 5 minutes) while the store cannot take it,
// and says that the host is alive once a period (the hosts' publication of every policy kept,
// as of its last) even when nothing changed.
class CFleetCourier {
 public:
  static constexpr std::chrono::seconds kFirstRetry{1};
  static constexpr std::chrono::seconds kLongestRetry{300};

  // "policies": the policies whose publication says the host is alive.
  CFleetCourier(std::shared_ptr<CFleetPublisher> publisher, std::vector<std::string> policies);
  // Stops the thread (a delivery under way ends first); what is left stays in the spool.
  ~CFleetCourier();
  CFleetCourier(const CFleetCourier&) = delete;
  CFleetCourier& operator=(const CFleetCourier&) = delete;

  // Something was spooled: deliver it (at once, or when the back-off ends).
  void Wake();

 private:
  void Run();

  std::shared_ptr<CFleetPublisher> publisher_;
  std::vector<std::string> policies_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable wake_;
  bool stop_ = false;
  bool due_ = true;     // a first delivery of what an earlier run left
  std::thread thread_;  // last: starts once the members above are made
};
