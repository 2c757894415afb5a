#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "v2/relay_rules.h"

namespace {

stream_desc video(int w, int h, int codec = AV_CODEC_ID_H264) {
  stream_desc s;
  s.codec_type = AVMEDIA_TYPE_VIDEO;
  s.codec_id = codec;
  s.width = w;
  s.height = h;
  return s;
}

stream_desc audio(int rate, int codec = AV_CODEC_ID_AAC) {
  stream_desc s;
  s.codec_type = AVMEDIA_TYPE_AUDIO;
  s.codec_id = codec;
  s.sample_rate = rate;
  return s;
}

stream_desc subtitle(int codec = AV_CODEC_ID_WEBVTT) {
  stream_desc s;
  s.codec_type = AVMEDIA_TYPE_SUBTITLE;
  s.codec_id = codec;
  return s;
}

stream_desc without_params(stream_desc s) {
  s.has_params = false;
  return s;
}

TEST(StreamChoice, Video) {
  const struct {
    const char* name;
    std::vector<stream_desc> streams;
    int max_w, max_h;
    int want;
  } cases[] = {
      {"largest without limits", {video(1280, 720), video(640, 360)}, -1, -1, 0},
      {"largest listed second", {video(640, 360), video(1280, 720)}, -1, -1, 1},
      {"width limit", {video(1280, 720), video(640, 360)}, 800, -1, 1},
      {"limit equal to width fits", {video(1280, 720), video(640, 360)}, 1280, 720, 0},
      {"nothing fits: smallest", {video(1280, 720), video(640, 360)}, 600, 300, 1},
      {"tiny width limit: no video", {video(1280, 720), video(640, 360)}, 10, -1, -1},
      {"width limit 16: no video", {video(1280, 720), video(640, 360)}, 16, -1, -1},
      {"width limit 17: smallest", {video(1280, 720), video(640, 360)}, 17, -1, 1},
      {"zero limits are no limits", {video(1280, 720)}, 0, 0, 0},
      {"taller wins at equal width", {video(1280, 720), video(1280, 1080)}, -1, -1, 1},
      {"tie keeps the earlier", {video(640, 360), video(640, 360)}, -1, -1, 0},
      {"taller but narrower replaces", {video(1280, 720), video(640, 1080)}, -1, -1, 1},
      {"HEVC is not relayed", {video(1920, 1080, AV_CODEC_ID_HEVC), audio(48000)}, -1, -1, -1},
      {"MPEG-2 accepted", {video(720, 576, AV_CODEC_ID_MPEG2VIDEO)}, -1, -1, 0},
      {"MPEG-1 accepted", {video(352, 288, AV_CODEC_ID_MPEG1VIDEO)}, -1, -1, 0},
      {"zero size skipped", {video(0, 0), video(320, 240)}, -1, -1, 1},
      {"missing parameters skipped", {without_params(video(1920, 1080)), video(320, 240)}, -1, -1, 1},
      {"no streams", {}, -1, -1, -1},
      {"audio only", {audio(48000)}, -1, -1, -1},
  };
  for (const auto& c : cases) EXPECT_EQ(choose_video(c.streams, c.max_w, c.max_h), c.want) << c.name;
}

TEST(StreamChoice, Audio) {
  const struct {
    const char* name;
    std::vector<stream_desc> streams;
    int video_index;
    int best_related;
    bool hls, mp4;
    int want;
    bool repaired;
  } cases[] = {
      {"related best taken", {video(640, 360), audio(44100), audio(48000)}, 0, 1, false, false, 1, false},
      {"related best not audio: highest rate", {video(640, 360), audio(44100), audio(48000)}, 0, 0, false, false, 2, false},
      {"related best error code: highest rate", {video(640, 360), audio(32000)}, 0, AVERROR_STREAM_NOT_FOUND, false, false, 1, false},
      {"related best out of range", {video(640, 360), audio(32000)}, 0, 7, false, false, 1, false},
      {"related best of a refused codec", {video(640, 360), audio(48000, AV_CODEC_ID_OPUS), audio(8000)}, 0, 1, false, false, 2, false},
      {"no video ignores related best", {audio(22050), audio(48000)}, -1, 0, false, false, 1, false},
      {"equal rates keep lowest index", {audio(48000), audio(48000)}, -1, -1, false, false, 0, false},
      {"each accepted codec", {audio(8000, AV_CODEC_ID_MP2), audio(9000, AV_CODEC_ID_MP3), audio(10000, AV_CODEC_ID_AC3)}, -1, -1, false, false, 2, false},
      {"zero rate not picked without HLS", {audio(0)}, -1, -1, false, false, -1, false},
      {"HLS rate repair", {audio(0, AV_CODEC_ID_OPUS), audio(0), audio(0)}, -1, -1, true, false, 1, true},
      {"HLS rate repair not with mp4", {audio(0)}, -1, -1, true, true, -1, false},
      {"HLS with a real rate needs no repair", {audio(0), audio(44100)}, -1, -1, true, false, 1, false},
      {"missing parameters never picked", {without_params(audio(48000))}, -1, -1, true, false, -1, false},
  };
  for (const auto& c : cases) {
    const audio_choice got = choose_audio(c.streams, c.video_index, c.best_related, c.hls, c.mp4);
    EXPECT_EQ(got.index, c.want) << c.name;
    EXPECT_EQ(got.rate_repaired, c.repaired) << c.name;
  }
}

TEST(StreamChoice, Captions) {
  EXPECT_EQ(choose_vtt({video(640, 360), subtitle(AV_CODEC_ID_SUBRIP), subtitle(), subtitle()}), 2);
  EXPECT_EQ(choose_vtt({video(640, 360), audio(48000)}), -1);
  EXPECT_EQ(choose_vtt({without_params(subtitle()), subtitle()}), 1);
}

TEST(AnnexBFilter, Decision) {
  const uint8_t avcc[] = {1, 0x64, 0, 0x1f};
  const uint8_t start3[] = {0, 0, 1, 0x67};
  const uint8_t start4[] = {0, 0, 0, 1};
  const uint8_t short3[] = {1, 0x64, 0};
  const struct {
    const char* name;
    bool has_video, h264;
    const uint8_t* extra;
    int size;
    bool mp4;
    bool want;
  } cases[] = {
      {"avcC", true, true, avcc, 4, false, true},
      {"three-byte start code", true, true, start3, 4, false, true},
      {"four-byte start code", true, true, start4, 4, false, false},
      {"too short", true, true, short3, 3, false, false},
      {"no extradata", true, true, nullptr, 0, false, false},
      {"mp4 output", true, true, avcc, 4, true, false},
      {"MPEG-2", true, false, avcc, 4, false, false},
      {"no video", false, true, avcc, 4, false, false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(needs_annexb_filter(c.has_video, c.h264, c.extra, c.size, c.mp4), c.want) << c.name;
}

TEST(ExtradataDump, SixteenBytesALine) {
  uint8_t data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<uint8_t>(i * 17);
  EXPECT_EQ(format_extradata(data, 20),
            "V extradata:\n"
            "    00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff \n"
            "    10 21 32 43 \n");
  EXPECT_EQ(format_extradata(data, 16), "V extradata:\n    00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff \n");
}

}  // namespace
