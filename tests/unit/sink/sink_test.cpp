#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "tests/unit/test_support.h"
#include "v2/captions/captions.h"
#include "v2/settings.h"
#include "v2/sink/sink.h"

namespace {

std::vector<uint8_t> ts_packets(size_t count, uint8_t fill) {
  std::vector<uint8_t> v(count * 188, fill);
  for (size_t i = 0; i < count; ++i) v[i * 188] = 0x47;
  return v;
}

// Muxer calls as the relay makes them, five events queued. An event goes in
// front of a write of whole packets; a call that has none (a picture larger
// than the AVIO buffer: pieces that are not whole packets) takes one after its
// last write, unless that ends inside a packet; a call that spliced in front,
// or wrote nothing, takes no other. What a call wrote is out when it returns.
// Once a stop signal is counted the muxer's bytes are refused and the event
// still goes. Last, an output that fails while the window has no room for an
// event: the splice gives up on it instead of spinning.
TEST(Sink, SplicesEventsBetweenPackets) {
  my_avio_ctx ctx{sliding_window_v4_create_buffer(sink_window_capacity)};
  vtt_event_queue.assign(5, VPVTTEvent{});
  const std::vector<uint8_t> mux = ts_packets(4, 0x11);
  // Each call's writes in bytes, a stop signal, and what went out, a letter per
  // 188 bytes: E an event, M a muxer packet.
  const struct { std::vector<int> writes; int stop; const char* out; } calls[] = {
      {{200, 176}, 0, "MME"}, {{376}, 0, "EMM"}, {{376, 200, 176}, 0, "EMMMM"}, {{}, 0, ""},
      {{200}, 0, "MM"},       {{176}, 0, "ME"},  {{376}, 1, "E"},
  };
  for (const auto& c : calls) {
    stdout_capture cap;
    std::vector<int> taken;
    stop_signal_count = c.stop;
    {
      const sink_muxer_call one_call(ctx);
      for (size_t n = 0, at = 0; n < c.writes.size(); at += static_cast<size_t>(c.writes[n++]))
        taken.push_back(my_avio_write(&ctx, mux.data() + at, c.writes[n]));
    }
    std::string shape, out = cap.take();
    for (size_t off = 0; off < out.size(); off += 188) shape += out[off + 1] == 0x11 ? 'M' : 'E';
    EXPECT_EQ(shape, c.out);
    EXPECT_EQ(taken, c.stop ? std::vector<int>{0} : c.writes) << c.out;
  }
  stop_signal_count = 0;
  EXPECT_TRUE(vtt_event_queue.empty());
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  ctx.out_buffer = sliding_window_v4_create_buffer(400);
  ctx.take_data(mux.data(), 376);
  vtt_event_queue.assign(1, VPVTTEvent{});
  const int saved = dup(1);
  dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), 1);
  const int taken = my_avio_write(&ctx, mux.data(), 376);
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  dup2(saved, 1);
  EXPECT_EQ(std::tuple(taken, sink_output_error, vtt_event_queue.size()), std::tuple(0, ENOSPC, size_t{0}));
  sink_output_error = 0;
}

}  // namespace
