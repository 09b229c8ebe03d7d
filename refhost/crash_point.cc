#include "refhost/crash_point.h"

#include <signal.h>

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
  if (++reached == kill_at) ::raise(SIGKILL);
}
