// The relay driver's decisions as functions of values: the option loop, the
// address check, stream choice and the per-packet time-stamp rules.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "v2/relay_contract.h"

// ---- command line ----

struct run_options {
  std::string url;
  int max_width = -1;
  int max_height = -1;
  bool emit_mime_type = false;
  bool allow_mp4 = false;
  bool source_is_hls = false;
};

// What the option loop decided. When `proceed` is false the run ends with
// `exit_status` after the usage text (if `show_usage`) and then `message`.
struct option_outcome {
  bool proceed = true;
  bool show_usage = false;
  std::string message;
  int exit_status = 0;
};

option_outcome parse_command_line(int argc, const char* const* argv, run_options& opts);

extern const char usage_text[];

// ---- stream choice ----

// What stream choice needs to know of one input stream.
struct stream_desc {
  int codec_type = -1;  // AVMediaType
  int codec_id = 0;     // AVCodecID
  int width = 0;
  int height = 0;
  int sample_rate = 0;
  bool has_params = true;
};

bool is_accepted_video(const stream_desc& s);
bool is_accepted_audio(const stream_desc& s);

// The largest video within the limits, else (limits permitting) the smallest.
int choose_video(const std::vector<stream_desc>& streams, int max_w, int max_h);

struct audio_choice {
  int index = -1;
  bool rate_repaired = false;  // HLS stream without a sample rate, to be given 48000 Hz
};

// `best_related` is what the demuxer's own best-audio search returned for the
// chosen video (ignored when video_index is -1).
audio_choice choose_audio(const std::vector<stream_desc>& streams, int video_index, int best_related,
                          bool source_is_hls, bool allow_mp4);

int choose_vtt(const std::vector<stream_desc>& streams);

// ---- per-packet time stamps ----

struct stamp_state {
  int64_t last_dts = 0;
  bool waiting_for_key = true;
};

// Decides whether a packet of the stream is written and repairs its stamps
// in place so that dts strictly increases. Returns true to write; the state
// then counts the stream as started. Audio packets without dts get synthetic
// stamps 1920 ticks apart once the stream has started. A packet whose
// repaired stamps would not fit in 64 bits is dropped, the state unchanged.
bool repair_video_stamps(stamp_state& st, int64_t& pts, int64_t& dts, bool key);
bool repair_audio_stamps(stamp_state& st, int64_t& pts, int64_t& dts, bool key);
constexpr int64_t synthetic_audio_step = 1920;

// ---- set-up watch ----

// A count that shows progress (bytes read so far): its value at the last
// mark, and when that mark was set.
struct progress_clock {
  int64_t count = 0;
  int64_t since_ms = 0;
};

// Notes `count` as seen at `now_ms`: a count `least` or more past the mark
// sets a new mark; true once `limit_ms` have passed since the mark, that is,
// once fewer than `least` have come in `limit_ms`.
bool too_little_progress(progress_clock& c, int64_t count, int64_t now_ms, int64_t limit_ms, int64_t least);

// ---- output ----

// Whether H.264 needs the length-prefix to start-code filter.
bool needs_annexb_filter(bool has_video, bool is_h264, const uint8_t* extradata, int extradata_size,
                         bool allow_mp4);

// The "V extradata:" dump lines (16 bytes a line).
std::string format_extradata(const uint8_t* data, int size);
