#pragma once

#include <cstdint>

// Nanoseconds of the monotonic performance counter, for node change and touch times.
int64_t MonotonicNowNs();

// Converts a counter reading to nanoseconds in two parts (whole seconds, then the remainder scaled),
// so that large readings do not overflow.
inline int64_t CounterToNanoseconds(int64_t counter, int64_t frequency) {
  constexpr int64_t kNanosecondsPerSecond = 1000000000;
  return (counter / frequency) * kNanosecondsPerSecond +
         (counter % frequency) * kNanosecondsPerSecond / frequency;
}
