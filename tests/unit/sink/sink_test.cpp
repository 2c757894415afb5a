#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include <string>
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

TEST(SpliceTest, WholePackets) {
  const std::vector<uint8_t> two = ts_packets(2, 0);
  std::vector<uint8_t> off = two, big(4096, 0x47);
  off[188] = 0x48;
  const struct { const char* name; const uint8_t* buf; size_t n; bool want; } cases[] = {
      {"empty write", two.data(), 0, true},        {"two packets", two.data(), 376, true},
      {"second sync byte wrong", off.data(), 376, false}, {"one byte short", two.data(), 375, false},
      {"one packet and a byte", big.data(), 189, false},  {"full AVIO buffer", big.data(), 4096, false},
  };
  for (const auto& c : cases) EXPECT_EQ(is_whole_ts_packets(c.buf, c.n), c.want) << c.name;
}

// Muxer calls as the relay makes them, five events queued. An event goes in
// front of a write of whole packets; a call that has none (a picture larger
// than the AVIO buffer: pieces that are not whole packets) takes one after its
// last write, unless that ends inside a packet; a call that spliced in front,
// or wrote nothing, takes no other.
// What a call wrote is out when it returns. Once a stop signal is counted the
// muxer's bytes are dropped and the event still goes.
TEST(Sink, SplicesEventsBetweenPackets) {
  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
  vtt_event_queue.assign(5, VPVTTEvent{});
  const std::vector<uint8_t> mux = ts_packets(4, 0x11);
  // Each call's writes in bytes, a stop signal, what my_avio_write returned and
  // what went out, a letter per 188 bytes: E an event, M a muxer packet.
  const struct { std::vector<int> writes; int stop; std::vector<int> results; const char* out; } calls[] = {
      {{200, 176}, 0, {200, 176}, "MME"},
      {{376}, 0, {376}, "EMM"},
      {{376, 200, 176}, 0, {376, 200, 176}, "EMMMM"},
      {{}, 0, {}, ""},
      {{200}, 0, {200}, "MM"},
      {{176}, 0, {176}, "ME"},
      {{376}, 1, {0}, "E"},
  };
  for (const auto& c : calls) {
    std::vector<int> results;
    stdout_capture cap;
    {
      const sink_muxer_call one_call(ctx);
      stop_signal_count = c.stop;
      for (size_t n = 0, at = 0; n < c.writes.size(); at += static_cast<size_t>(c.writes[n++]))
        results.push_back(my_avio_write(&ctx, mux.data() + at, c.writes[n]));
    }
    const std::string out = cap.take();
    std::string shape;
    for (size_t off = 0; off < out.size(); off += 188) shape += out[off + 1] == 0x11 ? 'M' : 'E';
    EXPECT_EQ(results, c.results) << c.out;
    EXPECT_EQ(shape, c.out);
  }
  stop_signal_count = 0;
  EXPECT_TRUE(vtt_event_queue.empty());
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
}

// An output that fails while the window has no room for an event: the splice
// gives up on it instead of spinning, and the muxer's bytes are refused.
TEST(Sink, SpliceStopsAtAWriteError) {
  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(400);
  const std::vector<uint8_t> mux = ts_packets(2, 0x11);
  ctx.take_data(mux.data(), 376);
  vtt_event_queue.assign(1, VPVTTEvent{});
  const int saved = dup(1), full = open("/dev/full", O_WRONLY);
  dup2(full, 1);
  const int taken = my_avio_write(&ctx, mux.data(), 376);
  EXPECT_EQ(std::tuple(taken, sink_output_error, vtt_event_queue.size()), std::tuple(0, ENOSPC, size_t{0}));
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  dup2(saved, 1);
  close(saved), close(full);
  sink_output_error = 0;
}

}  // namespace
