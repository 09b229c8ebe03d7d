#pragma once

#include <cstdint>

// The host's monotonic clock in milliseconds.
class CTimeService {
 public:
  virtual ~CTimeService() = default;
  virtual uint64_t Now() = 0;                     // slot 0: a reading
  virtual uint64_t ElapsedMs(uint64_t since) = 0;  // slot 1: milliseconds since a reading
};
