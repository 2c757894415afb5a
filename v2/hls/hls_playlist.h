// HLS playlists as the subtitle rendition reader needs them: a master
// playlist's subtitle renditions and variants, a media playlist's segments,
// and the rules that pick the rendition, say which segments to fetch and
// when to load the playlist again. Pure functions over the playlist text.
//
//   #EXTM3U
//   #EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="en.m3u8"
//   #EXT-X-STREAM-INF:BANDWIDTH=1280000,RESOLUTION=640x360,SUBTITLES="subs"
//   video_360.m3u8
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Quoted values lose their quotes; every other value is kept as written.
using attribute_list = std::vector<std::pair<std::string, std::string>>;

// The attributes of a tag's value (`NAME=VALUE,NAME="quoted, value"`); an
// entry without '=' is skipped.
attribute_list parse_attribute_list(std::string_view s);

// An #EXT-X-MEDIA with TYPE=SUBTITLES.
struct subtitle_rendition {
  std::string group_id;
  std::string name;
  std::string language;
  std::string uri;  // as written: relative to the master playlist
  bool is_default = false;
  bool autoselect = false;
  bool forced = false;
};

// An #EXT-X-STREAM-INF and the URI line after it.
struct variant_stream {
  int64_t bandwidth = -1;
  int width = 0;  // from RESOLUTION; 0 when absent
  int height = 0;
  std::string subtitles;  // the SUBTITLES group; "" when none
  std::string uri;
};

struct master_playlist {
  bool valid = false;  // it starts with #EXTM3U
  std::vector<subtitle_rendition> subtitles;
  std::vector<variant_stream> variants;
};

master_playlist parse_master_playlist(std::string_view text);

// The variant the relayed video comes from: the first whose BANDWIDTH is one
// of `bitrates` (what the input says of the video's variants), preferring one
// whose RESOLUTION is width x height; -1 when none matches.
int variant_of_video(const master_playlist& m, const std::vector<int64_t>& bitrates, int width, int height);

// The SUBTITLES group that every variant naming one names; "" when no variant
// names one or they name different groups.
std::string shared_subtitle_group(const master_playlist& m);

// The rendition to read in `group`: DEFAULT=YES, else AUTOSELECT=YES, else the
// first; a FORCED=YES one only when the group has nothing else. Its index in
// m.subtitles, or -1 when the group has no rendition with a URI.
int choose_rendition(const master_playlist& m, std::string_view group);

struct media_segment {
  int64_t sequence = 0;  // media sequence number
  std::string uri;       // as written: relative to the media playlist
};

struct media_playlist {
  bool valid = false;     // #EXTM3U and a positive #EXT-X-TARGETDURATION
  int64_t target_ms = 0;  // the target duration
  bool ended = false;     // #EXT-X-ENDLIST
  std::vector<media_segment> segments;
};

media_playlist parse_media_playlist(std::string_view text);

// Where fetching goes on in a freshly loaded playlist: the index of the first
// segment to fetch (segments.size() when there is nothing new). `next` is the
// media sequence number of the next segment wanted, -1 on the first load.
// A first load starts three segments from the end of a live playlist, as the
// video's reader does, and at the first segment of a finished one. A playlist
// whose window has passed `next` goes on from its first segment; one that
// has started its numbering again is taken as a first load.
size_t first_segment_to_fetch(const media_playlist& p, int64_t next);

// Milliseconds from the start of one load of a live media playlist to the
// next. After a load that brought something new: the target duration; after
// 1 to 3 loads in a row that brought nothing: half of it, then the whole
// target duration. After `failed` failed loads in a row: the target duration
// doubled for each one after the first, at most 30 s. The target duration
// counts as 1 to 30 s whatever the playlist says.
int64_t reload_delay_ms(int64_t target_ms, int unchanged, int failed);
