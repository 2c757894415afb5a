// The HLS subtitle rendition's parsers over arbitrary text: the master and
// media playlists and the WebVTT segment, and the cue-time rules.
//
// Checked: a chosen rendition is in its group, has a URI and is forced only
// when the group has nothing else; fetching never starts past the end; cues
// are bounded, end at or after their start, and written out again read back
// the same; cue times land on the 33-bit clock and at the wrap nearest the
// video.
#include <cstdint>
#include <cstdio>

#include "fuzz/fuzz_support.h"
#include "v2/hls/hls_playlist.h"
#include "v2/hls/webvtt_segment.h"

namespace {

std::string vtt_time(int64_t ms) {
  char s[48];
  snprintf(s, sizeof s, "%02lld:%02lld:%02lld.%03lld", static_cast<long long>(ms / 3600000),
           static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
           static_cast<long long>(ms % 1000));
  return s;
}

void check_master(const master_playlist& m) {
  for (const variant_stream& v : m.variants) {
    FUZZ_CHECK(!v.uri.empty() && v.uri[0] != '#');
    const int r = choose_rendition(m, v.subtitles);
    bool any = false;
    bool unforced = false;
    for (const subtitle_rendition& s : m.subtitles)
      if (s.group_id == v.subtitles && !s.uri.empty()) any = true, unforced |= !s.forced;
    FUZZ_CHECK((r >= 0) == any);
    if (r >= 0) FUZZ_CHECK(m.subtitles[r].group_id == v.subtitles && (!m.subtitles[r].forced || !unforced));
  }
}

void check_segment(const webvtt_segment& s) {
  FUZZ_CHECK(s.cues.size() <= segment_cues_max);
  std::string again = "WEBVTT\n\n";
  bool cut = s.dropped > 0;
  for (const segment_cue& c : s.cues) {
    FUZZ_CHECK(c.end_ms >= c.start_ms && c.text.find("\n\n") == std::string::npos);
    for (const std::string* f : {&c.identifier, &c.settings, &c.text}) cut |= f->size() == cue_field_max;
    again += (c.identifier.empty() ? "" : c.identifier + "\n") + vtt_time(c.start_ms) + " --> " + vtt_time(c.end_ms) +
             (c.settings.empty() ? "" : " " + c.settings) + "\n" + c.text + "\n\n";
    const int64_t t = cue_to_mpegts(s.map, c.start_ms);
    FUZZ_CHECK(t >= 0 && t < mpegts_wrap);
    for (int64_t video : {int64_t{0}, mpegts_wrap - 1, int64_t{-1} << 40, c.end_ms * 90}) {
      const int64_t near = nearest_wrap(t, video);
      FUZZ_CHECK((near - t) % mpegts_wrap == 0 && near - video <= mpegts_wrap / 2 && video - near <= mpegts_wrap / 2);
      int64_t start_ms = 0;
      int64_t end_ms = 0;
      place_cue(t, c.end_ms - c.start_ms, video, video, start_ms, end_ms);
      FUZZ_CHECK(start_ms * 90 <= near && near < start_ms * 90 + 90 && end_ms - start_ms == c.end_ms - c.start_ms);
    }
  }
  if (cut) return;
  const webvtt_segment read = parse_webvtt_segment(again);
  FUZZ_CHECK(read.cues.size() == s.cues.size());
  for (size_t i = 0; i < s.cues.size(); ++i) {
    const segment_cue& a = s.cues[i];
    const segment_cue& b = read.cues[i];
    FUZZ_CHECK(a.identifier == b.identifier && a.start_ms == b.start_ms && a.end_ms == b.end_ms &&
               a.settings == b.settings && a.text == b.text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check_master(parse_master_playlist(text));
  const media_playlist p = parse_media_playlist(text);
  FUZZ_CHECK(first_segment_to_fetch(p, -1) <= p.segments.size());
  check_segment(parse_webvtt_segment(text));
  return 0;
}
