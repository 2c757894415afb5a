// The relay's decisions as pure functions: the command line, which streams
// are relayed. (The per-packet time-stamp repair is held to its rules by
// its fuzz target, which every build replays.)
#include "v2/relay_rules.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
}

namespace {

TEST(CommandLine, Table) {
  // Arguments after argv[0]; the message, "" when the run proceeds; usage shown; the limits and URL kept.
  const struct { std::vector<const char*> args; const char* message; bool usage; int width, height; const char* url; }
  cases[] = {
      {{}, "--url required\n", false, -1, -1, ""},
      {{"-help"}, "", true, -1, -1, ""},
      {{"--URL", "x"}, "Unknown switch URL\n", true, -1, -1, ""},
      {{"--url", "x", "-w"}, "Missing value for w\n", true, -1, -1, "x"},
      {{"-h", "480", "---url", "rtmp://h/a"}, "", false, -1, 480, "rtmp://h/a"},
      {{"-w", "100", "-w", "640x", "--url", "x", "--url", "--mp4"}, "", false, 640, -1, "--mp4"},
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv{"pelvane"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    run_options got;
    const option_outcome o = parse_command_line(static_cast<int>(argv.size()), argv.data(), got);
    const bool proceed = *c.message == 0 && !c.usage;
    EXPECT_EQ(std::make_tuple(o.proceed, o.exit_status, o.show_usage, o.message, got.url, got.max_width, got.max_height),
              std::make_tuple(proceed, proceed ? 0 : 1, c.usage, std::string(c.message), std::string(c.url), c.width,
                              c.height));
  }
}

stream_desc video(int w, int h, int codec = AV_CODEC_ID_H264) { return {AVMEDIA_TYPE_VIDEO, codec, w, h}; }
stream_desc subtitle(int codec, bool params = true) { return {AVMEDIA_TYPE_SUBTITLE, codec, 0, 0, 0, params}; }

TEST(StreamChoice, Rules) {
  const std::vector<stream_desc> two = {video(1280, 720), video(640, 360)};
  const struct { const char* name; std::vector<stream_desc> streams; int max_w, max_h, want; } cases[] = {
      {"limit equal to the size fits", two, 1280, 720, 0},
      {"one pixel under: the next", two, 1279, -1, 1},
      {"limit 17: smallest", two, 17, -1, 1},
      {"limit 16: no video", two, -1, 16, -1},
      {"width limit 16: no video", two, 16, -1, -1},
      {"taller wins at equal width", {video(1280, 720), video(1280, 1080)}, -1, -1, 1},
      {"HEVC is not relayed", {video(1920, 1080, AV_CODEC_ID_HEVC)}, -1, -1, -1},
      {"no parameters, no size: skipped",
       {{AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_H264, 1920, 1080, 0, false}, video(0, 0), video(320, 240)}, -1, -1, 2},
  };
  for (const auto& c : cases) EXPECT_EQ(choose_video(c.streams, c.max_w, c.max_h), c.want) << c.name;
  EXPECT_EQ(choose_vtt({video(640, 360), subtitle(AV_CODEC_ID_SUBRIP), subtitle(AV_CODEC_ID_WEBVTT, false),
                        subtitle(AV_CODEC_ID_WEBVTT)}), 3);
  const stream_desc aac{AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, 0, 0, 48000};
  EXPECT_EQ(choose_audio({aac, aac}, -1, -1, false, false).index, 0);  // of two audio streams of one rate, the first
}

}  // namespace
