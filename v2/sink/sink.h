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

// True when n is a multiple of 188 and every 188th byte from 0 is 0x47.
bool is_whole_ts_packets(const uint8_t* buf, size_t n);

// The AVIO write callback; `opaque` is the my_avio_ctx. Returns the count of
// the muxer's bytes taken (never negative).
int my_avio_write(void* opaque, const uint8_t* buf, int n);
