#include "v2/watchdog.h"

#include <time.h>
#include <unistd.h>

#include <cstdint>

namespace {

constexpr int64_t rearm_step_ns = 100000000;  // 100 ms

// When rearm_watchdog last called alarm (CLOCK_MONOTONIC_COARSE, ns).
int64_t last_rearm_ns = INT64_MIN / 2;

}  // namespace

void rearm_watchdog() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  const int64_t now = static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
  if (now - last_rearm_ns < rearm_step_ns) return;
  last_rearm_ns = now;
  alarm(watchdog_seconds);
}

int64_t monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
