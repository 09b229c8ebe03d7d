#include "hashdb/monotonic_clock.h"

#ifdef _WIN32
#include "host/windows_api.h"
#else
#include <time.h>
#endif

int64_t MonotonicNowNs() {
#ifdef _WIN32
  LARGE_INTEGER counter, frequency;
  QueryPerformanceCounter(&counter);
  QueryPerformanceFrequency(&frequency);
  return CounterToNanoseconds(counter.QuadPart, frequency.QuadPart);
#else
  // The POSIX counter already counts nanoseconds: frequency 1,000,000,000.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr int64_t kFrequency = 1000000000;
  return CounterToNanoseconds(static_cast<int64_t>(now.tv_sec) * kFrequency + now.tv_nsec,
                              kFrequency);
#endif
}
