#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "tests/unit/test_support.h"
#include "v2/captions/captions.h"

namespace {

using side_data = std::vector<std::pair<AVPacketSideDataType, std::string>>;

// Ingests one caption packet as the demuxer delivers it; `payload` nullopt: no data at all.
void ingest(std::optional<std::string> payload, int64_t pts, int64_t duration, const side_data& sides = {}) {
  AVPacket* pkt = av_packet_alloc();
  if (payload) {
    ASSERT_EQ(av_new_packet(pkt, static_cast<int>(payload->size())), 0);
    memcpy(pkt->data, payload->data(), payload->size());
  }
  pkt->pts = pts;
  pkt->duration = duration;
  for (const auto& [type, value] : sides) {
    uint8_t* d = av_packet_new_side_data(pkt, type, value.size());
    ASSERT_NE(d, nullptr);
    memcpy(d, value.data(), value.size());
  }
  ingest_caption_packet(pkt);
  av_packet_free(&pkt);
}

void reset_caption_state() {
  vtt_event_queue.clear();
  vtt_608_context = webvtt_conv_context_start();
  vtt_708_context = webvtt_conv_context_start();
}

// The queue is bounded: an overrun keeps the newest events and says so.
TEST(CaptionIngest, QueueOverrunKeepsTheNewest) {
  reset_caption_state();
  vtt_event_queue.resize(131072);
  for (size_t i = 0; i < vtt_event_queue.size(); ++i) vtt_event_queue[i].start = std::chrono::milliseconds(i);
  for (size_t size_after : {131073, 257}) {
    stderr_capture quiet;
    ingest("cue", 200000, 10);
    EXPECT_EQ(vtt_event_queue.size(), size_after);
  }
  EXPECT_EQ(vtt_event_queue.front().start.count(), 131072 - 255);  // the 256 newest were kept
  vtt_event_queue.clear();
}

}  // namespace
