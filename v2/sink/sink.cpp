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

// Empties the window to standard output unless output is held; notes the
// first error of the descriptor.
long empty_window(my_avio_ctx& ctx) {
  if (output_held) return 0;
  const long written = sliding_window_v4_empty_to_fd(ctx.out_buffer, sink_fd, 0);
  if (written < 0 && sink_output_error == 0) sink_output_error = static_cast<int>(-written);
  return written;
}

// Puts one queued caption event in front of the muxer's bytes. The event is
// removed from the queue whatever happens to its bytes.
void splice_front_event(my_avio_ctx& ctx) {
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

sink_muxer_call::sink_muxer_call(my_avio_ctx& c) : ctx(c) { defer_emptying = true; }

sink_muxer_call::~sink_muxer_call() {
  defer_emptying = false;
  size_t attempts = deferred_emptyings;
  deferred_emptyings = 0;
  if (!ctx.out_buffer) return;
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
  if (!vtt_event_queue.empty() && is_whole_ts_packets(buf, len)) splice_front_event(ctx);

  rearm_watchdog();
  size_t done = 0;
  while (done < len) {
    if (stop_signal_count != 0 || sink_output_error != 0) break;
    const int copied = ctx.take_data(buf + done, len - done);
    done += static_cast<size_t>(copied);
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
