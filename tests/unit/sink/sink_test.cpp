#include <gtest/gtest.h>
#include <unistd.h>

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

// One queued event goes out before each muxer write of whole packets (or a
// zero-length call), never inside a partial write; once a stop signal is
// counted the muxer's bytes are dropped and the event still goes.
TEST(Sink, SplicesEventsBetweenWholePacketWrites) {
  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
  vtt_event_queue.clear();
  stop_signal_count = 0;
  for (const char* text : {"a", "b", "c"}) {
    VPVTTEvent ev;
    ev.text = text;
    vtt_event_queue.push_back(ev);
  }
  std::vector<uint8_t> partial(4096, 0x22), mux = ts_packets(2, 0x11);
  partial[0] = 0x47;
  std::vector<int> results;
  std::string out;
  {
    stdout_capture cap;
    for (auto [buf, n, stop] : {std::tuple(partial.data(), 4096, 0), std::tuple(mux.data(), 376, 0),
                                std::tuple(mux.data(), 0, 0), std::tuple(mux.data(), 376, 1)}) {
      stop_signal_count = stop;
      results.push_back(my_avio_write(&ctx, buf, n));
    }
    while (ctx.out_buffer->read != ctx.out_buffer->write) sliding_window_v4_empty_to_fd(ctx.out_buffer, 1, 0);
    out = cap.take();
  }
  stop_signal_count = 0;
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  EXPECT_EQ(results, (std::vector<int>{4096, 376, 0, 0}));
  EXPECT_TRUE(vtt_event_queue.empty());
  // What went out, a letter per 188 bytes: P partial write, E event, M muxer packet.
  std::string shape;
  for (size_t off = 4096; off + 188 <= out.size(); off += 188)
    shape += out.compare(off + 4, 10, "MOLVAR:VTT") == 0 ? 'E' : out[off + 1] == 0x11 ? 'M' : '?';
  EXPECT_EQ(out.substr(0, 4096), std::string(partial.begin(), partial.end()));
  EXPECT_EQ(shape, "EMMEE");
}

}  // namespace
