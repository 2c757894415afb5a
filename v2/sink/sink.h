// The output sink: the muxer's write callback. Bytes are staged in a
// sliding window and emptied to standard output; queued caption events are
// spliced between the muxer's transport packets: in front of a write that
// consists of whole packets, else at the end of the muxer call.
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

// Holding output: from sink_hold_output on, the sink stages bytes without
// writing them to standard output; sink_release_output writes out what was
// held (waits bounded as for any emptying) and ends the hold. The relay
// driver holds what the muxer writes with its header until the optional
// HTTP response head is out, so that the head comes first.
void sink_hold_output();
void sink_release_output(my_avio_ctx& ctx);

// Deferred emptying for the span of one muxer call (a scoped guard): a write
// that fits in the window is only copied, and the window is emptied when the
// guard ends, so a packet that the muxer hands over in several pieces leaves
// in one system call. A write that does not fit, or that leaves a pending
// region of sink_defer_limit bytes or more, is emptied at once as usual.
// Emptying after every piece cost one write system call per 4096 bytes, a
// measurable share of the time spent on each relayed packet. When the guard
// ends it makes the emptying attempts the deferred writes skipped (at most
// one per write), stopping early when nothing is pending, an attempt writes
// nothing (after its bounded wait) or the descriptor fails. Before that, a
// call that handed over bytes, ending between two packets, and spliced no
// event in front of one of its writes takes the oldest queued event.
struct sink_muxer_call {
  explicit sink_muxer_call(my_avio_ctx& ctx);
  ~sink_muxer_call();
  sink_muxer_call(const sink_muxer_call&) = delete;
  sink_muxer_call& operator=(const sink_muxer_call&) = delete;
  my_avio_ctx& ctx;
};
constexpr size_t sink_defer_limit = 65536;  // a pipe's default capacity

// The errno of the first write error of standard output other than "try
// again" (0 while there is none). From then on the sink takes no more bytes
// and the relay loop ends the run as after a stop signal, so a client that
// has gone ends the run even when SIGPIPE does not.
extern int sink_output_error;

// True when n is a multiple of 188 and every 188th byte from 0 is 0x47:
// the write stands between two transport packets (the splice test).
bool is_whole_ts_packets(const uint8_t* buf, size_t n);

// The AVIO write callback; `opaque` is the my_avio_ctx. Returns the count of
// the muxer's bytes taken (never negative).
int my_avio_write(void* opaque, const uint8_t* buf, int n);
