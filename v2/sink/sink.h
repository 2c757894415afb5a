// The output sink: the muxer's write callback. Bytes are staged in a
// sliding window and emptied to standard output; queued caption events are
// spliced in front of writes that consist of whole transport packets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolm_utils/sliding_window.h"

constexpr unsigned long sink_window_capacity = 2097152;  // 2 MiB
constexpr int sink_fd = 1;

struct my_avio_ctx {
  sliding_window_v4* out_buffer = nullptr;

  // One copy pass: reclaims room, then copies as much of src as fits.
  // Returns the count copied, 0 when the window is full.
  int take_data(const uint8_t* src, size_t len);
};

// While set, the sink stages bytes without writing them to standard output:
// the relay driver holds back what the muxer writes with its header until
// the optional HTTP response head is out, so that the head comes first.
extern bool sink_output_held;

// Writes out the bytes held so far (waits bounded as for any emptying).
void sink_release_output(my_avio_ctx& ctx);

// While set (by the relay loop, around each muxer call), a write that fits in
// the window is only copied; sink_flush empties the window once the muxer call
// has returned, so a packet that the muxer hands over in several pieces leaves
// in one system call. A write that does not fit, or that leaves a pending
// region of sink_defer_limit bytes or more, is emptied at once as usual.
// Emptying after every piece cost one write system call per 4096 bytes, a
// measurable share of the time spent on each relayed packet.
extern bool sink_defer_emptying;
constexpr size_t sink_defer_limit = 65536;  // a pipe's default capacity

// Makes the emptying attempts that deferred writes skipped (at most one per
// write), stopping early when nothing is pending, an attempt writes nothing
// (after its bounded wait) or the descriptor fails. None while output is held.
void sink_flush(my_avio_ctx& ctx);

// The errno of the first write error of standard output other than "try
// again" (0 while there is none). From then on the sink takes no more bytes
// and the relay loop ends the run as after a stop signal, so a client that
// has gone ends the run even when SIGPIPE does not.
extern int sink_output_error;

// True when n is a multiple of 188 and every 188th byte from 0 is 0x47.
bool is_whole_ts_packets(const uint8_t* buf, size_t n);

// Re-arms the 30-second watchdog (alarm) for the sink and the relay loop. The
// system call is made at most once per 100 ms (the clock read costs none), so
// the watchdog fires between 29.9 and 30 seconds after the last progress.
// Throttled because an alarm call on every packet and every muxer write was
// a measurable share of the system calls made per relayed packet.
void rearm_watchdog();
constexpr unsigned watchdog_seconds = 30;

// The AVIO write callback; `opaque` is the my_avio_ctx. Returns the count of
// the muxer's bytes taken (never negative).
int my_avio_write(void* opaque, const uint8_t* buf, int n);
