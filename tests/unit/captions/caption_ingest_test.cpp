#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <tuple>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "tests/unit/test_support.h"
#include "v2/captions/caption_event_format.h"

namespace {

using side_data = std::vector<std::pair<AVPacketSideDataType, std::string>>;

// Ingests one caption packet as the demuxer delivers it; `payload` nullopt: no data at all.
void ingest(std::optional<std::string> payload, int64_t pts, int64_t duration, const side_data& sides = {}) {
  AVPacket* pkt = av_packet_alloc();
  ASSERT_EQ(payload ? av_new_packet(pkt, static_cast<int>(payload->size())) : 0, 0);
  if (payload) memcpy(pkt->data, payload->data(), payload->size());
  pkt->pts = pts, pkt->duration = duration;
  for (const auto& [type, value] : sides) memcpy(av_packet_new_side_data(pkt, type, value.size()), value.data(), value.size());
  ingest_caption_packet(pkt);
  av_packet_free(&pkt);
}

void reset_caption_state() {
  vtt_event_queue.clear();
  vtt_608_context = webvtt_conv_context_start();
  vtt_708_context = webvtt_conv_context_start();
}

TEST(CaptionIngest, HugeCuesAreCutToWhatOneEventCarries) {
  constexpr size_t room = caption_payload_max - caption_payload_fixed;  // identifier, settings and text
  // Sizes sent (settings being "a:" and the value), then sizes kept.
  const struct { size_t identifier, value, text, kept_identifier, kept_value, kept_text; } cases[] = {{0, 0, 100000, 0, 0, room - 2}, {1000, 20000, 100, 1000, room - 1002, 0}, {20000, 10, 100, room, 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.identifier);
    reset_caption_state();
    ingest(std::string(c.text, 't'), 1000, 2000,
           {{AV_PKT_DATA_WEBVTT_IDENTIFIER, std::string(c.identifier, 'i')},
            {AV_PKT_DATA_WEBVTT_SETTINGS, "a:" + std::string(c.value, 'v')}});
    ASSERT_EQ(vtt_event_queue.size(), 1u);
    const VPVTTEvent& ev = vtt_event_queue.front();
    EXPECT_EQ(std::make_tuple(ev.identifier.size(), ev.settings.count("a") ? ev.settings.at("a").size() : 0, ev.text.size(), ev.end.count()),
              std::make_tuple(c.kept_identifier, c.kept_value, c.kept_text, 3000));
  }
}

// Big cues that nobody takes: the first overrun keeps the newest events within a
// quarter of the bound. Once the sink has taken them, as many again fit.
TEST(CaptionIngest, ByteBoundTrimsTheQueue) {
  reset_caption_state();
  std::string message;
  size_t cues = 0;
  while (message.empty() && cues < 1000) {
    stderr_capture err;
    ingest(std::string(100000, 'x'), 1000 + 10 * static_cast<int64_t>(cues++), 5);
    message = err.take();
  }
  ASSERT_LE(cues, vtt_event_queue_byte_limit / (caption_payload_max - caption_payload_fixed) + 2) << message;
  EXPECT_EQ(message, "VTT event queue overrun (count=" + std::to_string(cues - 1) + ")\n");
  size_t bytes = 0;
  for (const VPVTTEvent& ev : vtt_event_queue) bytes += ev.bytes;
  const size_t n = vtt_event_queue.size();
  ASSERT_GT(n, 1u);
  EXPECT_TRUE(bytes - vtt_event_queue.back().bytes <= vtt_event_queue_keep_bytes);
  EXPECT_EQ(vtt_event_queue[n - 2].start.count(), 1000 + 10 * static_cast<int64_t>(cues - 2));
  vtt_event_queue.clear();
  stderr_capture err;
  for (size_t i = 0; i + 2 < cues; ++i) ingest(std::string(100000, 'y'), 50000, 5);
  EXPECT_EQ(err.take(), "");
  vtt_event_queue.clear();
}

}  // namespace
