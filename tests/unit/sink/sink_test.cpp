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
  std::vector<uint8_t> two = ts_packets(2, 0);
  std::vector<uint8_t> off = two;
  off[188] = 0x48;
  std::vector<uint8_t> big(4096, 0x47);
  const struct {
    const char* name;
    const uint8_t* buf;
    size_t n;
    bool want;
  } cases[] = {
      {"empty write", two.data(), 0, true},
      {"two packets", two.data(), 376, true},
      {"second sync byte wrong", off.data(), 376, false},
      {"not a multiple of 188", two.data(), 375, false},
      {"full AVIO buffer is never whole", big.data(), 4096, false},
      {"starts mid-packet", two.data() + 1, 188, false},
  };
  for (const auto& c : cases) EXPECT_EQ(is_whole_ts_packets(c.buf, c.n), c.want) << c.name;
}

class Sink : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
    vtt_event_queue.clear();
    stop_signal_count = 0;
  }
  void TearDown() override {
    ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
    vtt_event_queue.clear();
    stop_signal_count = 0;
    alarm(0);
  }
  // Runs the writes with descriptor 1 captured; returns what reached it.
  std::string run(const std::vector<std::pair<const uint8_t*, int>>& writes, std::vector<int>* results) {
    stdout_capture cap;
    for (const auto& [buf, n] : writes) {
      const int r = my_avio_write(&ctx, buf, n);
      if (results) results->push_back(r);
    }
    while (ctx.out_buffer->read != ctx.out_buffer->write)
      sliding_window_v4_empty_to_fd(ctx.out_buffer, 1, 0);
    return cap.take();
  }
  my_avio_ctx ctx;
};

TEST_F(Sink, PassesBytesThroughInOrderUnlessStopped) {
  std::vector<uint8_t> a(5000, 'a'), b(3, 'b');
  std::vector<int> results;
  EXPECT_EQ(run({{a.data(), 5000}, {b.data(), 3}, {b.data(), 0}}, &results), std::string(5000, 'a') + "bbb");
  EXPECT_EQ(results, (std::vector<int>{5000, 3, 0}));
  stop_signal_count = 1;  // the rest of the call is dropped
  results.clear();
  EXPECT_EQ(run({{a.data(), 100}}, &results), "");
  EXPECT_EQ(results, std::vector<int>{0});
}

VPVTTEvent cue(const char* text) {
  VPVTTEvent ev;
  ev.start = std::chrono::milliseconds(1000);
  ev.end = std::chrono::milliseconds(2000);
  ev.text = text;
  return ev;
}

bool is_caption_packet(const std::string& s, size_t off) {
  return static_cast<uint8_t>(s[off]) == 0x47 && (static_cast<uint8_t>(s[off + 1]) & 0x1F) == 0x1F &&
         static_cast<uint8_t>(s[off + 2]) == 0xFE;
}

TEST_F(Sink, SplicesOneEventBeforeAWholePacketWrite) {
  vtt_event_queue.push_back(cue("first"));
  vtt_event_queue.push_back(cue("second"));
  const std::vector<uint8_t> mux = ts_packets(2, 0x11);
  std::vector<uint8_t> partial(4096, 0x22);
  partial[0] = 0x47;
  std::vector<int> results;
  const std::string out =
      run({{partial.data(), 4096}, {mux.data(), 376}, {mux.data(), 376}, {mux.data(), 376}}, &results);
  EXPECT_EQ(results, (std::vector<int>{4096, 376, 376, 376}));
  EXPECT_TRUE(vtt_event_queue.empty());
  // 4096 muxer bytes, event 1, 376 muxer bytes, event 2, 376, 376.
  ASSERT_GE(out.size(), 4096u + 3 * 376 + 2 * 188);
  EXPECT_EQ(out.substr(0, 4096), std::string(partial.begin(), partial.end()));
  size_t off = 4096;
  for (int event = 0; event < 2; ++event) {
    ASSERT_TRUE(is_caption_packet(out, off)) << "event " << event;
    EXPECT_EQ(out.substr(off + 4, 10), "MOLVAR:VTT");
    while (off < out.size() && is_caption_packet(out, off)) off += 188;
    EXPECT_EQ(out.substr(off, 376), std::string(mux.begin(), mux.end())) << "after event " << event;
    off += 376;
  }
  EXPECT_EQ(out.size(), off + 376);
}

TEST_F(Sink, ZeroLengthCallSplicesAndStopSignalStillSplices) {
  vtt_event_queue.push_back(cue("a"));
  vtt_event_queue.push_back(cue("b"));
  std::vector<int> results;
  const std::vector<uint8_t> mux = ts_packets(1, 0);
  std::string out = run({{mux.data(), 0}}, &results);
  EXPECT_EQ(results, std::vector<int>{0});
  EXPECT_EQ(vtt_event_queue.size(), 1u);
  ASSERT_EQ(out.size(), 188u);
  EXPECT_TRUE(is_caption_packet(out, 0));

  stop_signal_count = 1;
  results.clear();
  out = run({{mux.data(), 188}}, &results);
  EXPECT_EQ(results, std::vector<int>{0}) << "the muxer's bytes are dropped";
  EXPECT_TRUE(vtt_event_queue.empty()) << "the event still goes";
  EXPECT_EQ(out.size(), 188u);
}

TEST_F(Sink, HeldOutputWaitsForRelease) {
  std::vector<uint8_t> a(10, 'h');
  stdout_capture cap;
  sink_output_held = true;
  EXPECT_EQ(my_avio_write(&ctx, a.data(), 10), 10);
  fputs("HEAD", stdout);
  fflush(stdout);
  sink_release_output(ctx);
  EXPECT_FALSE(sink_output_held);
  EXPECT_EQ(cap.take(), "HEADhhhhhhhhhh");
}

}  // namespace
