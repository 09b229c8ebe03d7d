#pragma once

#include <chrono>

#include "host/time_service.h"

// Milliseconds of the steady clock: the reference host's time service, and the database's own
// for hosts that offer none.
class CSteadyTimeService : public CTimeService {
 public:
  uint64_t Now() override {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
  }
  uint64_t ElapsedMs(uint64_t since) override {
    uint64_t now = Now();
    return now > since ? now - since : 0;
  }
};
