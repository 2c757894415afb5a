#include <gtest/gtest.h>

#include <tuple>

#include "v2/hls/hls_playlist.h"
#include "v2/hls/webvtt_segment.h"

namespace {

TEST(HlsPlaylist, MasterGivesTheRenditionOfTheVideosVariant) {
  const master_playlist m = parse_master_playlist(
      "\xEF\xBB\xBF#EXTM3U\r\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"a\",NAME=\"x\",URI=\"a.m3u8\"\r\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"Forced, en\",LANGUAGE=\"en\",DEFAULT=YES,FORCED=YES,URI=\"f.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"De\",URI=\"de.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"s\",NAME=\"En\",AUTOSELECT=YES,URI=\"en.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"t\",NAME=\"Only forced\",FORCED=YES,URI=\"t.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"u\",NAME=\"No URI\",DEFAULT=YES\n"
      "#EXT-X-STREAM-INF:BANDWIDTH=900,CODECS=\"avc1,mp4a\",SUBTITLES=\"s\"\n\n# a comment\n  lo.m3u8  \n"
      "#EXT-X-STREAM-INF:BANDWIDTH=900,RESOLUTION=640x360,SUBTITLES=\"t\"\nhi.m3u8\n"
      "#EXT-X-STREAM-INF:BANDWIDTH=5\n#EXT-X-STREAM-INF:BANDWIDTH=7,SUBTITLES=\"s\"\nlast.m3u8\n");
  ASSERT_TRUE(m.valid);
  ASSERT_EQ(m.subtitles.size(), 5u);
  EXPECT_EQ(std::tie(m.subtitles[0].name, m.subtitles[0].language, m.subtitles[0].uri),
            std::make_tuple("Forced, en", "en", "f.m3u8"));
  ASSERT_EQ(m.variants.size(), 3u);  // the one without a URI line is dropped
  EXPECT_EQ(std::tie(m.variants[0].uri, m.variants[1].width, m.variants[1].height), std::make_tuple("lo.m3u8", 640, 360));
  // Non-forced first, then DEFAULT, then AUTOSELECT; forced only when alone; none without a URI.
  EXPECT_EQ(std::make_tuple(choose_rendition(m, "s"), choose_rendition(m, "t"), choose_rendition(m, "u")),
            std::make_tuple(2, 3, -1));
  EXPECT_EQ(variant_of_video(m, {900}, 640, 360), 1);
  EXPECT_EQ(variant_of_video(m, {1, 900}, 320, 180), 0);
  EXPECT_EQ(variant_of_video(m, {1}, 640, 360), -1);
  EXPECT_EQ(shared_subtitle_group(m), "");
  EXPECT_FALSE(parse_master_playlist("#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n").valid);
}

TEST(HlsPlaylist, MediaPlaylistSegmentsAndReloads) {
  const media_playlist p = parse_media_playlist(
      "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXT-X-MEDIA-SEQUENCE:10\n#EXTINF:4,\na.vtt\n#EXTINF:4,\nb.vtt\n"
      "#EXT-X-DISCONTINUITY\n#EXTINF:4,\nc.vtt\n#EXTINF:4,\nd.vtt\n");
  ASSERT_TRUE(p.valid && !p.ended && p.segments.size() == 4);
  EXPECT_EQ(std::tie(p.target_ms, p.segments[3].sequence, p.segments[3].uri), std::make_tuple(4000, 13, "d.vtt"));
  // next wanted -> first index: first load 3 from the end, a passed window, a restart, nothing new.
  const std::pair<int64_t, size_t> starts[] = {{-1, 1}, {5, 0}, {12, 2}, {14, 4}, {15, 1}};
  for (auto [next, index] : starts) EXPECT_EQ(first_segment_to_fetch(p, next), index) << next;
  EXPECT_EQ(first_segment_to_fetch(parse_media_playlist("#EXTM3U\n#EXT-X-TARGETDURATION:1\na\nb\n#EXT-X-ENDLIST"), -1), 0u);
  EXPECT_FALSE(parse_media_playlist("#EXTM3U\n#EXTINF:4,\na.vtt\n").valid);
  // (target ms, unchanged, failed) -> delay ms
  const std::tuple<int64_t, int, int, int64_t> delays[] = {{6000, 0, 0, 6000}, {6000, 1, 0, 3000}, {6000, 3, 0, 3000},
                                                          {6000, 4, 0, 6000}, {0, 1, 0, 500},     {90000, 0, 0, 30000},
                                                          {6000, 0, 2, 12000}, {6000, 9, 9, 30000}};
  for (auto [target, unchanged, failed, delay] : delays)
    EXPECT_EQ(reload_delay_ms(target, unchanged, failed), delay) << target << " " << unchanged << " " << failed;
}

TEST(WebvttSegment, TimestampMapAndCueTimes) {
  const struct { const char* value; bool ok; int64_t mpegts, local_ms; } maps[] = {
      {"MPEGTS:900000,LOCAL:00:00:00.000", true, 900000, 0},
      {"LOCAL:01:00.500, MPEGTS:8589934593", true, 1, 60500},
      {"MPEGTS:1", false, 0, 0}, {"MPEGTS:x,LOCAL:00:00.000", false, 0, 0},
      {"MPEGTS:1,LOCAL:00:60.000", false, 0, 0}, {"MPEGTS:1,LOCAL:00:00.000,X:1", false, 0, 0}};
  for (const auto& c : maps) {
    timestamp_map m;
    EXPECT_EQ(parse_timestamp_map(c.value, m), c.ok) << c.value;
    if (c.ok) EXPECT_EQ(std::tie(m.mpegts, m.local_ms), std::tie(c.mpegts, c.local_ms)) << c.value;
  }
  const timestamp_map m{mpegts_wrap - 90, 10000};
  EXPECT_EQ(std::make_tuple(cue_to_mpegts(m, 10000), cue_to_mpegts(m, 10002), cue_to_mpegts(m, 9000)),
            std::make_tuple(mpegts_wrap - 90, 90, mpegts_wrap - 90090));
  // (start, duration, first picture, latest picture) -> kept, start ms: the wrap nearest the latest picture.
  const struct { int64_t start, duration, first, latest; bool kept; int64_t start_ms; } places[] = {
      {mpegts_wrap - 900, 10, 0, 9000, true, -10}, {9000, 0, 9000, 9000, true, 100}, {9000, 0, 9091, 9000, false, 100}};
  for (const auto& c : places) {
    int64_t s = 0;
    int64_t e = 0;
    EXPECT_EQ(place_cue(c.start, c.duration, c.first, c.latest, s, e), c.kept) << c.start;
    EXPECT_EQ(std::make_tuple(s, e), std::make_tuple(c.start_ms, c.start_ms + c.duration)) << c.start;
  }
}

// A cue repeated in later segments is one event; two speakers with the same times are two.
TEST(WebvttSegment, ACueIsKnownByItsTimesAndText) {
  cue_memory m;
  EXPECT_TRUE(first_sighting(m, 90, 1000, "a") && !first_sighting(m, 90, 1000, "a") && first_sighting(m, 90, 1000, "b"));
}

}  // namespace
