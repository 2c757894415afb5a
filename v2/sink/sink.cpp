#include "v2/sink/sink.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "v2/captions/captions.h"
#include "v2/invariant.h"
#include "v2/settings.h"
#include "v2/watchdog.h"

namespace {

constexpr useconds_t idle_pass_sleep_us = 10000;

bool output_held = false;     // see sink_hold_output
bool defer_emptying = false;  // inside a sink_muxer_call
// Emptying attempts that deferred writes have left to the end of the muxer
// call. Making at most that many keeps the waits on a slow reader what they
// would have been.
size_t deferred_emptyings = 0;
// Where the muxer's output stands: the count of its bytes taken, modulo the
// packet size (0 between two packets); and whether the current muxer call has
// handed over bytes, and spliced an event in front of one of its writes.
size_t muxer_phase = 0;
bool call_wrote = false;
bool call_spliced = false;

// Empties the window to standard output unless output is held; notes the
// first error of the descriptor.
long empty_window(my_avio_ctx& ctx) {
  if (output_held) return 0;
  const long written = sliding_window_v4_empty_to_fd(ctx.out_buffer, sink_fd, 0);
  if (written < 0 && sink_output_error == 0) sink_output_error = static_cast<int>(-written);
  return written;
}

// Puts the oldest queued caption event into the output, between two of the
// muxer's packets. The event is removed from the queue whatever happens to
// its bytes.
void splice_event(my_avio_ctx& ctx) {
  size_t sz = 0;
  const unsigned char* p = vtt_event_ts_encode(vtt_event_queue.front(), sz);
  if (p && sz != 0) {
    // The assertion's text is part of the program's messages, hence the literal.
    static_assert(ts_packet_size == 188u);
    pelvane_invariant((sz % 188u) == 0u);
    while (sz > 0) {
      const int copied = ctx.take_data(p, sz);
      p += copied;
      sz -= static_cast<size_t>(copied);
      const long written = empty_window(ctx);
      if (written < 0) break;  // the output is gone: the rest of the event with it
      if (copied == 0 && written == 0) usleep(idle_pass_sleep_us);
    }
  }
  vtt_event_queue.pop_front();
}

}  // namespace

int sink_output_error = 0;

sink_muxer_call::sink_muxer_call(my_avio_ctx& c) : ctx(c) {
  defer_emptying = true;
  call_wrote = call_spliced = false;
}

sink_muxer_call::~sink_muxer_call() {
  defer_emptying = false;
  size_t attempts = deferred_emptyings;
  deferred_emptyings = 0;
  if (!ctx.out_buffer) return;
  // The end of a muxer call is the second splice point, for an event that
  // found no whole-packet write during the call. A large picture reaches the
  // sink as 4096-byte pieces (the AVIO buffer) and a remainder, none of them
  // whole packets, so without it a source of video alone would keep its
  // events queued for good. After each packet the muxer writes, FFmpeg
  // flushes its AVIO buffer (the per-packet flush point, which has no minimum
  // size on an I/O context of the caller's own): when the call returns, every
  // byte it produced has been handed over, and they end where a packet ends.
  // The phase check keeps an event out of a packet all the same should a
  // muxer ever hold bytes back.
  if (call_wrote && !call_spliced && muxer_phase == 0 && !vtt_event_queue.empty()) splice_event(ctx);
  while (attempts-- > 0 && ctx.out_buffer->read != ctx.out_buffer->write)
    if (empty_window(ctx) <= 0) break;
}

void sink_hold_output() { output_held = true; }

void sink_release_output(my_avio_ctx& ctx) {
  output_held = false;
  if (!ctx.out_buffer) return;
  int idle_passes = 0;
  while (ctx.out_buffer->read != ctx.out_buffer->write && idle_passes < 100) {
    const long written = empty_window(ctx);
    if (written < 0) break;
    idle_passes = written == 0 ? idle_passes + 1 : 0;
  }
}

bool is_whole_ts_packets(const uint8_t* buf, size_t n) {
  if (n % ts_packet_size != 0) return false;
  for (size_t off = 0; off < n; off += ts_packet_size)
    if (buf[off] != ts_sync_byte) return false;
  return true;
}

int my_avio_ctx::take_data(const uint8_t* src, size_t len) {
  sliding_window_v4_lazy_flush(out_buffer);
  pelvane_invariant(sliding_window_v4_is_sane(out_buffer));
  const size_t room = static_cast<size_t>(out_buffer->end - out_buffer->write);
  const size_t n = std::min(len, room);
  memcpy(out_buffer->write, src, n);
  out_buffer->write += n;
  pelvane_invariant(sliding_window_v4_is_sane(out_buffer));
  return static_cast<int>(n);
}

int my_avio_write(void* opaque, const uint8_t* buf, int n) {
  auto& ctx = *static_cast<my_avio_ctx*>(opaque);
  const size_t len = n > 0 ? static_cast<size_t>(n) : 0;

  // Caption events may only stand between two of the muxer's packets.
  if (!vtt_event_queue.empty() && is_whole_ts_packets(buf, len)) {
    splice_event(ctx);
    call_spliced = true;
  }

  rearm_watchdog();
  size_t done = 0;
  while (done < len) {
    if (stop_signal_count != 0 || sink_output_error != 0) break;
    const int copied = ctx.take_data(buf + done, len - done);
    done += static_cast<size_t>(copied);
    muxer_phase = (muxer_phase + static_cast<size_t>(copied)) % ts_packet_size;
    call_wrote = call_wrote || copied > 0;
    if (defer_emptying && done == len &&
        static_cast<size_t>(ctx.out_buffer->write - ctx.out_buffer->read) < sink_defer_limit) {
      ++deferred_emptyings;  // written out when the muxer call returns
      break;
    }
    const long written = empty_window(ctx);
    if (written < 0) break;
    if (copied == 0 && written == 0) usleep(idle_pass_sleep_us);
  }
  return static_cast<int>(done);
}
