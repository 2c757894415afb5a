// The run's watchdog: a process alarm with no handler, so that a run which
// makes no progress for watchdog_seconds ends by SIGALRM. The relay loop
// re-arms it before every read and the output sink on every muxer write.
#pragma once

#include <cstdint>

constexpr unsigned watchdog_seconds = 30;

// Re-arms the alarm. The system call is made at most once per 100 ms (the
// clock read costs none), so the watchdog fires between 29.9 and 30 seconds
// after the last progress. Throttled because an alarm call on every packet
// and every muxer write was a measurable share of the system calls made per
// relayed packet.
void rearm_watchdog();

// Milliseconds on a clock that never jumps.
int64_t monotonic_ms();
