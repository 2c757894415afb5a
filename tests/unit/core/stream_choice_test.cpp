#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "v2/relay_rules.h"

namespace {

stream_desc stream(int type, int codec, int w_or_rate = 0, int h = 0, bool params = true) {
  stream_desc s;
  s.codec_type = type;
  s.codec_id = codec;
  (type == AVMEDIA_TYPE_AUDIO ? s.sample_rate : s.width) = w_or_rate;
  s.height = h;
  s.has_params = params;
  return s;
}
stream_desc video(int w, int h, int codec = AV_CODEC_ID_H264) { return stream(AVMEDIA_TYPE_VIDEO, codec, w, h); }
stream_desc audio(int rate, int codec = AV_CODEC_ID_AAC) { return stream(AVMEDIA_TYPE_AUDIO, codec, rate); }

TEST(StreamChoice, Video) {
  const std::vector<stream_desc> two = {video(1280, 720), video(640, 360)};
  const struct {
    const char* name;
    std::vector<stream_desc> streams;
    int max_w, max_h, want;
  } cases[] = {
      {"largest without limits", two, -1, -1, 0},
      {"limit equal to the size fits", two, 1280, 720, 0},
      {"one pixel under: the next", two, 1279, -1, 1},
      {"nothing fits: smallest", two, 600, 300, 1},
      {"limit 17: smallest", two, 17, -1, 1},
      {"limit 16: no video", two, -1, 16, -1},
      {"taller wins at equal width", {video(1280, 720), video(1280, 1080)}, -1, -1, 1},
      {"HEVC is not relayed", {video(1920, 1080, AV_CODEC_ID_HEVC)}, -1, -1, -1},
      {"no parameters, no size: skipped", {stream(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_H264, 1920, 1080, false),
                                           video(0, 0), video(320, 240)}, -1, -1, 2},
  };
  for (const auto& c : cases) EXPECT_EQ(choose_video(c.streams, c.max_w, c.max_h), c.want) << c.name;
}

TEST(StreamChoice, Audio) {
  const struct {
    const char* name;
    std::vector<stream_desc> streams;
    int video_index, best_related;
    bool hls, mp4;
    int want;
    bool repaired;
  } cases[] = {
      {"related best taken", {video(640, 360), audio(44100), audio(48000)}, 0, 1, false, false, 1, false},
      {"related best of a refused codec", {video(640, 360), audio(48000, AV_CODEC_ID_OPUS), audio(8000)}, 0, 1,
       false, false, 2, false},
      {"related best an error: highest rate", {video(640, 360), audio(32000)}, 0, AVERROR_STREAM_NOT_FOUND, false,
       false, 1, false},
      {"equal rates keep the lowest index", {audio(48000), audio(48000)}, -1, -1, false, false, 0, false},
      {"zero rate only with HLS, repaired", {audio(0)}, -1, -1, true, false, 0, true},
      {"no repair with mp4", {audio(0)}, -1, -1, true, true, -1, false},
  };
  for (const auto& c : cases) {
    const audio_choice got = choose_audio(c.streams, c.video_index, c.best_related, c.hls, c.mp4);
    EXPECT_EQ(std::make_pair(got.index, got.rate_repaired), std::make_pair(c.want, c.repaired)) << c.name;
  }
  EXPECT_EQ(choose_vtt({video(640, 360), stream(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_SUBRIP),
                        stream(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_WEBVTT, 0, 0, false),
                        stream(AVMEDIA_TYPE_SUBTITLE, AV_CODEC_ID_WEBVTT)}), 3);
}

}  // namespace
