#include "refhost/crash_point.h"

#ifdef _WIN32
#include "host/windows_api.h"
#else
#include <signal.h>
#endif

#include <atomic>
#include <cstdlib>
#include <string>

namespace {
std::function<void()>& Hook() {
  static std::function<void()> hook;
  return hook;
}
}  // namespace

void SetCrashPointHook(std::function<void()> hook) { Hook() = std::move(hook); }

void CrashPoint() {
  if (Hook()) Hook()();
  static const long kill_at = [] {
    const char* text = std::getenv("SIGNDB_TEST_KILL_AT_STEP");
    return text == nullptr ? 0L : std::strtol(text, nullptr, 10);
  }();
  if (kill_at <= 0) return;
  static std::atomic<long> reached{0};
  if (++reached != kill_at) return;
#ifdef _WIN32
  ::TerminateProcess(::GetCurrentProcess(), 137);  // no handler runs, as with SIGKILL
#else
  ::raise(SIGKILL);
#endif
}
