#include "v2/relay_rules.h"

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
}

const char usage_text[] =
    "pelvane [options] --url <url>\n"
    "RTSP/RTMP to MPEG-TS transform\n"
    "\n"
    "   --ignore-ssl-errors  Ignore SSL errors\n"
    "   --mime-type       Emit MIME type on output\n"
    "   --mp4             Allow MP4 output\n"
    "   --hls             Source is HLS\n"
    "   -w <width>\n"
    "   -h <height>\n";

static option_outcome stop_run(bool usage, std::string message) {
  option_outcome o;
  o.proceed = false;
  o.show_usage = usage;
  o.message = std::move(message);
  o.exit_status = 1;
  return o;
}

option_outcome parse_command_line(int argc, const char* const* argv, run_options& opts) {
  int i = 1;
  while (i < argc) {
    const char* arg = argv[i];
    if (arg[0] != '-') return stop_run(false, std::string("Unhandled argv ") + arg + "\n");
    const char* name = arg;
    while (*name == '-') ++name;
    const std::string n = name;
    const bool takes_value = n == "url" || n == "w" || n == "h";
    if (takes_value && i + 1 >= argc) return stop_run(true, "Missing value for " + n + "\n");
    if (n == "help") {
      return stop_run(true, "");
    } else if (n == "ignore-ssl-errors") {
      // accepted for the parent's sake; TLS checks are FFmpeg's defaults
    } else if (n == "mime-type") {
      opts.emit_mime_type = true;
    } else if (n == "url") {
      opts.url = argv[i + 1];
    } else if (n == "mp4") {
      opts.allow_mp4 = true;
    } else if (n == "hls") {
      opts.source_is_hls = true;
    } else if (n == "w") {
      opts.max_width = static_cast<int>(strtol(argv[i + 1], nullptr, 10));
    } else if (n == "h") {
      opts.max_height = static_cast<int>(strtol(argv[i + 1], nullptr, 10));
    } else {
      return stop_run(true, "Unknown switch " + n + "\n");
    }
    i += takes_value ? 2 : 1;
  }
  if (opts.url.empty()) return stop_run(false, "--url required\n");
  return option_outcome{};
}

bool is_accepted_video(const stream_desc& s) {
  if (!s.has_params || s.codec_type != AVMEDIA_TYPE_VIDEO) return false;
  return s.codec_id == AV_CODEC_ID_MPEG1VIDEO || s.codec_id == AV_CODEC_ID_MPEG2VIDEO ||
         s.codec_id == AV_CODEC_ID_H264;
}

bool is_accepted_audio(const stream_desc& s) {
  if (!s.has_params || s.codec_type != AVMEDIA_TYPE_AUDIO) return false;
  return s.codec_id == AV_CODEC_ID_MP2 || s.codec_id == AV_CODEC_ID_MP3 || s.codec_id == AV_CODEC_ID_AAC ||
         s.codec_id == AV_CODEC_ID_AC3;
}

int choose_video(const std::vector<stream_desc>& streams, int max_w, int max_h) {
  int smallest = -1;
  int largest = -1;
  for (int i = 0; i < static_cast<int>(streams.size()); ++i) {
    const stream_desc& s = streams[i];
    if (!is_accepted_video(s) || s.width <= 0 || s.height <= 0) continue;
    if (smallest < 0 || s.width < streams[smallest].width || s.height < streams[smallest].height) smallest = i;
    if ((max_w > 0 && s.width > max_w) || (max_h > 0 && s.height > max_h)) continue;
    if (largest < 0 || s.width > streams[largest].width || s.height > streams[largest].height) largest = i;
  }
  if (largest >= 0) return largest;
  if (smallest < 0) return -1;
  // Limits this small mean the client wants no picture at all.
  if ((max_w >= 0 && max_w <= 16) || (max_h >= 0 && max_h <= 16)) return -1;
  return smallest;
}

audio_choice choose_audio(const std::vector<stream_desc>& streams, int video_index, int best_related,
                          bool source_is_hls, bool allow_mp4) {
  audio_choice c;
  const int n = static_cast<int>(streams.size());
  if (video_index >= 0 && best_related >= 0 && best_related < n && is_accepted_audio(streams[best_related])) {
    c.index = best_related;
    return c;
  }
  for (int i = 0; i < n; ++i) {
    const stream_desc& s = streams[i];
    if (!is_accepted_audio(s) || s.sample_rate <= 0) continue;
    if (c.index < 0 || s.sample_rate > streams[c.index].sample_rate) c.index = i;
  }
  if (c.index >= 0 || !source_is_hls || allow_mp4) return c;
  // HLS renditions whose rate the demuxer could not find yet.
  for (int i = 0; i < n; ++i) {
    if (is_accepted_audio(streams[i]) && streams[i].sample_rate <= 0) {
      c.index = i;
      c.rate_repaired = true;
      break;
    }
  }
  return c;
}

int choose_vtt(const std::vector<stream_desc>& streams) {
  for (int i = 0; i < static_cast<int>(streams.size()); ++i) {
    const stream_desc& s = streams[i];
    if (s.has_params && s.codec_type == AVMEDIA_TYPE_SUBTITLE && s.codec_id == AV_CODEC_ID_WEBVTT) return i;
  }
  return -1;
}

// Moves dts past the last one written; pts keeps its distance to dts. False,
// with nothing changed, when the moved stamps cannot be represented (no stamp
// after the last one, or a moved pts past the largest).
static bool push_dts_forward(stamp_state& st, int64_t& pts, int64_t& dts) {
  if (st.last_dts >= dts) {
    int64_t moved = 0;
    if (__builtin_add_overflow(st.last_dts, 1, &moved)) return false;
    if (pts != AV_NOPTS_VALUE) {
      // Exact in 128 bits; above pts, so never the missing stamp.
      const __int128 moved_pts = static_cast<__int128>(pts) + moved - dts;
      if (moved_pts > INT64_MAX) return false;
      pts = static_cast<int64_t>(moved_pts);
    }
    dts = moved;
  }
  st.last_dts = dts;
  return true;
}

// Shared by video and audio; `synthesize` gives stamp-less packets of a
// started stream stamps of their own instead of passing them on as they are.
// A packet whose repaired stamps cannot be represented is a discontinuity
// that cannot be bridged: it is dropped and the state stays as it was, so the
// stamps written keep strictly increasing (restarting the repair state would
// let them go back).
static bool repair_stamps(stamp_state& st, int64_t& pts, int64_t& dts, bool key, bool synthesize) {
  if (st.waiting_for_key) {
    if (!key || dts == AV_NOPTS_VALUE) return false;
    st = stamp_state{dts, false};  // the first packet written keeps its stamps
    return true;
  }
  if (dts != AV_NOPTS_VALUE) return push_dts_forward(st, pts, dts);
  if (synthesize) {
    int64_t next = 0;
    if (__builtin_add_overflow(st.last_dts, synthetic_audio_step, &next)) return false;
    st.last_dts = next;
    pts = dts = next;
  }
  return true;
}

bool repair_video_stamps(stamp_state& st, int64_t& pts, int64_t& dts, bool key) {
  return repair_stamps(st, pts, dts, key, false);
}

bool repair_audio_stamps(stamp_state& st, int64_t& pts, int64_t& dts, bool key) {
  return repair_stamps(st, pts, dts, key, true);
}

bool too_little_progress(progress_clock& c, int64_t count, int64_t now_ms, int64_t limit_ms, int64_t least) {
  if (count - c.count >= least) {
    c.count = count;
    c.since_ms = now_ms;
    return false;
  }
  return now_ms - c.since_ms >= limit_ms;
}

bool needs_annexb_filter(bool has_video, bool is_h264, const uint8_t* extradata, int extradata_size,
                         bool allow_mp4) {
  if (!has_video || !is_h264 || allow_mp4 || !extradata || extradata_size < 4) return false;
  return extradata[0] != 0 || extradata[1] != 0 || extradata[2] != 0;
}

std::string format_extradata(const uint8_t* data, int size) {
  std::string out = "V extradata:\n";
  char hex[4];
  for (int i = 0; i < size; ++i) {
    if (i % 16 == 0) out += "    ";
    snprintf(hex, sizeof hex, "%02x ", data[i]);
    out += hex;
    if (i % 16 == 15 || i + 1 == size) out += "\n";
  }
  return out;
}
