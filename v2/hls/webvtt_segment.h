// The WebVTT segments of a subtitle rendition: their cues, the
// X-TIMESTAMP-MAP that ties cue times to the video's 90 kHz MPEG-TS clock,
// and the rules that put a cue on the relayed video's clock once.
//
//   WEBVTT
//   X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:00:00:00.000
//
//   cue-7
//   00:00:04.000 --> 00:00:06.500 align:start line:90%
//   Text, one or more lines
//
// A parser of our own rather than FFmpeg's WebVTT demuxer over the segment's
// bytes: as a pure function of the text it can be fuzzed and bounded (cues
// per segment, bytes per cue), and it gives each cue's identifier and
// settings exactly as written, which the caption event carries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

constexpr int64_t mpegts_wrap = int64_t{1} << 33;  // the 90 kHz clock's period
constexpr size_t segment_cues_max = 1000;
constexpr size_t cue_field_max = 16384;  // bytes of an identifier, settings or text

// MPEG-TS time `mpegts` (90 kHz) is cue time `local_ms`.
struct timestamp_map {
  int64_t mpegts = 0;  // below 2^33
  int64_t local_ms = 0;
};

// The value of X-TIMESTAMP-MAP: MPEGTS:<90 kHz ticks> and LOCAL:<cue time>,
// in either order, separated by a comma. False when it is not that.
bool parse_timestamp_map(std::string_view value, timestamp_map& out);

struct segment_cue {
  int64_t start_ms = 0;  // cue time, as written
  int64_t end_ms = 0;
  std::string identifier;
  std::string settings;  // as written after the end time, blanks trimmed
  std::string text;      // its lines joined by '\n'
};

struct webvtt_segment {
  bool valid = false;             // it starts with the WEBVTT signature
  bool bad_map = false;           // an X-TIMESTAMP-MAP that could not be read
  timestamp_map map;              // MPEG-TS 0 is cue time 0 without the header
  std::vector<segment_cue> cues;  // at most segment_cues_max, in file order
  size_t dropped = 0;             // cues past segment_cues_max
};

// Cues whose timing line cannot be read, or that end before they start, are
// left out; identifiers, settings and texts are cut to cue_field_max bytes.
webvtt_segment parse_webvtt_segment(std::string_view text);

// The MPEG-TS time of cue time `cue_ms`: map.mpegts + (cue_ms - map.local_ms)
// x 90, on the 33-bit clock (0 to 2^33 - 1).
int64_t cue_to_mpegts(const timestamp_map& map, int64_t cue_ms);

// The time `t` + k x 2^33 nearest `reference` (both 90 kHz).
int64_t nearest_wrap(int64_t t, int64_t reference);

// A cue's place on the relayed video's clock: its start (33-bit MPEG-TS
// time) taken to the wrap nearest the latest relayed picture, in
// milliseconds, and its end `duration_ms` later. False when the cue ends
// before the first relayed picture.
bool place_cue(int64_t start_mpegts, int64_t duration_ms, int64_t first_video_90k, int64_t latest_video_90k,
               int64_t& start_ms, int64_t& end_ms);

// The cues already handed on, by start, duration and text, newest last: a cue
// that spans a segment boundary is written into each segment it overlaps.
struct cue_memory {
  struct key {
    int64_t start_mpegts;
    int64_t duration_ms;
    size_t text_hash;
    bool operator==(const key&) const = default;
  };
  std::deque<key> keys;
};
constexpr size_t cue_memory_keys = 1024;  // far more than a few segments' cues

// True, and remembered (forgetting the oldest past cue_memory_keys), the first
// time a cue is seen; false for a repeat.
bool first_sighting(cue_memory& m, int64_t start_mpegts, int64_t duration_ms, std::string_view text);
