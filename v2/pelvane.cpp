// pelvane: relays one live source to standard output as MPEG-TS (or
// fragmented MP4), packets copied, time stamps repaired, WebVTT cues carried
// as caption events. main runs the stages once each, in order: command line,
// input, output, relay loop, clean-up.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

#include "v2/captions/captions.h"
#include "v2/ff_util.h"
#include "v2/hls/rendition_reader.h"
#include "v2/relay_rules.h"
#include "v2/rtsp/rtsp_probe.h"
#include "v2/settings.h"
#include "v2/setup_watch.h"
#include "v2/sink/sink.h"
#include "v2/watchdog.h"

namespace {

constexpr int avio_buffer_size = 4096;

// main's sink; its window is destroyed on every way out of the run.
my_avio_ctx* run_sink = nullptr;

struct input_side {
  AVFormatContext* ctx = nullptr;
  int video_index = -1;
  int audio_index = -1;
  int vtt_index = -1;
};

struct output_side {
  AVFormatContext* ctx = nullptr;
  AVStream* video = nullptr;
  AVStream* audio = nullptr;
  AVBSFContext* annexb_filter = nullptr;
  AVPacket* packet = nullptr;
  AVPacket* filtered = nullptr;  // the filter's output, reused for every video packet
};

[[noreturn]] void end_run(int status) {
  rendition_reader_stop();
  if (run_sink) run_sink->out_buffer = sliding_window_v4_destroy(run_sink->out_buffer);
  exit(status);
}

void run_failure_pause() { sleep(3); }

// Every failure from opening the input to the start of the relay loop.
[[noreturn]] void fail_run() {
  run_failure_pause();
  end_run(1);
}

std::string with_url(const char* format) {
  std::vector<char> buf(source_url.size() + 128);
  snprintf(buf.data(), buf.size(), format, source_url.c_str());
  return buf.data();
}

void print_usage() { fputs(usage_text, stderr); }

// ---- command line ----

void take_command_line(int argc, char** argv) {
  run_options opts;
  const option_outcome o = parse_command_line(argc, argv, opts);
  if (!o.proceed) {
    if (o.show_usage) print_usage();
    fputs(o.message.c_str(), stderr);
    end_run(o.exit_status);
  }
  source_url = opts.url;
  max_width = opts.max_width;
  max_height = opts.max_height;
  emit_mime_type = opts.emit_mime_type;
  allow_mp4 = opts.allow_mp4;
  source_is_hls = opts.source_is_hls;
}

void check_source() {
  switch (classify_source_url(source_url)) {
    case scheme_rtsp:
      // The probe has answered the client itself (a redirect): nothing to relay.
      if (rtsp_probe() == 0) end_run(1);
      break;
    case scheme_relayed: break;
    case scheme_refused:
      fputs("URL must be rtsp://, rtmp://, rtmps://, http://, https://, or tcp:// address\n", stderr);
      end_run(1);
  }
}

// A set-up failure the watch caused gets a line of its own first. FFmpeg's
// RTSP client shows the watch no bytes: for it the limit is on the set-up.
void report_input_failure(const char* format, int e) {
  const char* watch_line = classify_source_url(source_url) == scheme_rtsp
                               ? "Source '%s' was not set up within 30 seconds\n"
                               : "Source '%s' stopped answering: less than 1 KiB read in 30 seconds\n";
  if (setup_watch_fired()) fputs(with_url(watch_line).c_str(), stderr);
  report_ff_failure(with_url(format), e);
}

// ---- input ----

std::vector<stream_desc> describe_streams(const AVFormatContext* in) {
  std::vector<stream_desc> out(in->nb_streams);
  for (unsigned i = 0; i < in->nb_streams; ++i) {
    const AVCodecParameters* par = in->streams[i]->codecpar;
    stream_desc& d = out[i];
    d.has_params = par != nullptr;
    if (!par) continue;
    d.codec_type = par->codec_type;
    d.codec_id = par->codec_id;
    d.width = par->width;
    d.height = par->height;
    d.sample_rate = par->sample_rate;
  }
  return out;
}

// Opens source_url with the run's input options; set-up failures end the run.
// The set-up watch guards the open and the stream-information read.
AVFormatContext* open_source() {
  AVDictionary* input_options = nullptr;
  av_dict_set(&input_options, "seekable", "0", 0);
  if (source_is_hls) {
    av_dict_set(&input_options, "http_multiple", "1", 0);
    av_dict_set(&input_options, "probesize", "32000000", 0);
  }
  AVFormatContext* ctx = avformat_alloc_context();
  int e = AVERROR(ENOMEM);
  if (ctx) {
    start_setup_watch(ctx);
    e = avformat_open_input(&ctx, source_url.c_str(), nullptr, &input_options);  // frees ctx on failure
  }
  av_dict_free(&input_options);  // what the input did not take is not used
  if (e < 0) {
    report_input_failure("Failed to open input stream '%s'. ", e);
    if (e == AVERROR(EPROTONOSUPPORT)) fputs("FFMPEG says not supported.\n", stderr);
    fail_run();
  }
  rendition_reader_open(ctx);  // an HLS source's subtitles start loading beside the stream probe
  e = avformat_find_stream_info(ctx, nullptr);
  if (e >= 0 && setup_watch_fired()) e = AVERROR_EXIT;  // streams found before the stall are not enough
  if (e < 0) {
    report_input_failure("Failed to get input stream info for '%s'. ", e);
    fail_run();
  }
  end_setup_watch(ctx);
  return ctx;
}

// Picks the video, audio and WebVTT streams by the relay's own rules.
void choose_streams(input_side& in) {
  const std::vector<stream_desc> streams = describe_streams(in.ctx);
  in.video_index = choose_video(streams, max_width, max_height);
  int best_related = -1;
  if (in.video_index >= 0)
    best_related = av_find_best_stream(in.ctx, AVMEDIA_TYPE_AUDIO, -1, in.video_index, nullptr, 0);
  const audio_choice audio = choose_audio(streams, in.video_index, best_related, source_is_hls, allow_mp4);
  in.audio_index = audio.index;
  if (audio.rate_repaired) {
    fprintf(stderr,
            "NONE of the audio streams have sample rate (FFMPEG HLS issue). Picking stream %d and "
            "hacking it\n",
            audio.index);
    in.ctx->streams[audio.index]->codecpar->sample_rate = 48000;
  }
  in.vtt_index = choose_vtt(streams);
}

// The stream-choice report: one line for each of video, audio and WebVTT.
void report_streams(const input_side& in) {
  if (in.video_index >= 0) {
    const AVCodecParameters* p = in.ctx->streams[in.video_index]->codecpar;
    fprintf(stderr, "Found video stream. Index %d, %d x %u. %u bytes extradata\n", in.video_index, p->width,
            static_cast<unsigned>(p->height), static_cast<unsigned>(p->extradata_size));
  } else {
    fputs("Did not find video stream\n", stderr);
  }
  if (in.audio_index >= 0) {
    const AVCodecParameters* p = in.ctx->streams[in.audio_index]->codecpar;
    fprintf(stderr, "Found audio stream. Index %d, %uHz %u-channel. %u bytes extradata\n", in.audio_index,
            static_cast<unsigned>(p->sample_rate), static_cast<unsigned>(p->ch_layout.nb_channels),
            static_cast<unsigned>(p->extradata_size));
  } else {
    fputs("Did not find audio stream\n", stderr);
  }
  if (in.vtt_index >= 0) fprintf(stderr, "Found VTT stream. Index %d\n", in.vtt_index);
  else if (!rendition_reader_report()) fputs("Did not find VTT stream\n", stderr);
}

// Input stage: the source opened, its streams listed and chosen. A source
// without video or audio ends the run.
input_side open_input() {
  input_side in;
  in.ctx = open_source();
  av_dump_format(in.ctx, 0, source_url.c_str(), 0);
  choose_streams(in);
  rendition_reader_choose(in.ctx, in.video_index, in.vtt_index);
  report_streams(in);
  if (in.video_index < 0 && in.audio_index < 0) {
    fputs("Did not find any streams\n", stderr);
    fail_run();
  }
  return in;
}

// ---- output ----

int write_callback(void* opaque, PELVANE_AVIO_WRITE_CONST uint8_t* buf, int n) {
  return my_avio_write(opaque, buf, n);
}

AVStream* add_output_stream(AVFormatContext* out, const AVStream* src, const char* failure_format) {
  AVStream* st = avformat_new_stream(out, nullptr);
  int e = st ? 0 : AVERROR(ENOMEM);
  if (st) e = avcodec_parameters_copy(st->codecpar, src->codecpar);
  if (e < 0) {
    report_ff_failure(with_url(failure_format), e);
    fail_run();
  }
  st->codecpar->codec_tag = 0;  // the muxer picks its own
  st->time_base = src->time_base;
  st->start_time = src->start_time;
  return st;
}

// Length-prefixed H.264 (RTMP, Matroska, MP4 sources) is rewritten with start
// codes, as MPEG-TS carries it. Returns null when the filter cannot be made.
AVBSFContext* make_annexb_filter(const AVStream* in_video, const AVStream* out_video) {
  fputs("H.264 video may need 'h264_mp4toannexb' filter, creating...\n", stderr);
  AVBSFContext* f = nullptr;
  const AVBitStreamFilter* def = av_bsf_get_by_name("h264_mp4toannexb");
  if (!def) {
    fputs("Unable to find h264_mp4toannexb bitstream filter\n", stderr);
  } else if (av_bsf_alloc(def, &f) >= 0) {
    if (avcodec_parameters_copy(f->par_in, in_video->codecpar) < 0) {
      av_bsf_free(&f);
    } else {
      f->time_base_in = out_video->time_base;  // packets reach it rescaled
      if (av_bsf_init(f) < 0) av_bsf_free(&f);
    }
  }
  if (!f) fputs("WARNING: Unable to create h264_mp4toannexb bitstream filter\n", stderr);
  return f;
}

void log_time_bases(const char* label, const AVStream* in, const AVStream* out) {
  fprintf(stderr, "%s In->out timescale: %lu/%lu -> %lu/%lu\n", label,
          static_cast<unsigned long>(static_cast<int64_t>(in->time_base.num)),
          static_cast<unsigned long>(static_cast<int64_t>(in->time_base.den)),
          static_cast<unsigned long>(static_cast<int64_t>(out->time_base.num)),
          static_cast<unsigned long>(static_cast<int64_t>(out->time_base.den)));
}

// Only the picked streams are demuxed from here on.
void apply_discard_rule(AVFormatContext* in, const input_side& picked) {
  for (unsigned i = 0; i < in->nb_streams; ++i) in->streams[i]->discard = AVDISCARD_ALL;
  for (int idx : {picked.video_index, picked.audio_index, picked.vtt_index})
    if (idx >= 0 && idx < static_cast<int>(in->nb_streams)) in->streams[idx]->discard = AVDISCARD_DEFAULT;
}

// The muxer for the run's container: MPEG-TS, or fragmented MP4 with --mp4.
AVFormatContext* open_muxer() {
  AVFormatContext* ctx = nullptr;
  const int e = avformat_alloc_output_context2(&ctx, nullptr, allow_mp4 ? "mov" : "mpegts", nullptr);
  if (e < 0) {
    report_ff_failure(with_url("Failed to open output stream '%s'. "), e);
    fail_run();
  }
  if (ctx->pb) avio_close(ctx->pb), ctx->pb = nullptr;
  return ctx;
}

// Points the muxer's output at the sink: a 4096-byte AVIO buffer whose
// writes go to my_avio_write, which stages them in the sink's 2 MiB window.
// main owns `sink`; the window is destroyed on every way out of the run.
void attach_sink(AVFormatContext* muxer, my_avio_ctx& sink) {
  auto* avio_buffer = static_cast<unsigned char*>(av_malloc(avio_buffer_size));
  if (!avio_buffer) {
    fputs("Failed to alloc AVIO buffer\n", stderr);
    fail_run();
  }
  sink.out_buffer = sliding_window_v4_destroy(sink.out_buffer);
  sink.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
  if (!sink.out_buffer) {
    fputs("Failed to alloc buffer\n", stderr);
    fail_run();
  }
  muxer->pb = avio_alloc_context(avio_buffer, avio_buffer_size, 1, &sink, nullptr, write_callback, nullptr);
  if (!muxer->pb) {
    fputs("Failed to alloc AVIO\n", stderr);
    fail_run();
  }
}

// Output streams for the chosen video and audio, in that order.
void add_streams(const input_side& in, output_side& out) {
  if (in.video_index >= 0)
    out.video =
        add_output_stream(out.ctx, in.ctx->streams[in.video_index], "Failed to open output video stream '%s'. ");
  if (in.audio_index >= 0)
    out.audio =
        add_output_stream(out.ctx, in.ctx->streams[in.audio_index], "Failed to open output audio stream '%s'. ");
}

// Writes the container header with the run's muxer options. Its bytes are
// held in the window until announce() has written the response head.
void write_header(AVFormatContext* muxer) {
  AVDictionary* output_options = nullptr;
  if (allow_mp4) {
    av_dict_set(&output_options, "mov_flags", "empty_moov", 0);
    av_dict_set(&output_options, "frag_duration", "1000000", 0);
    av_dict_set(&output_options, "min_frag_duration", "500000", 0);
    av_dict_set(&output_options, "frag_size", "8000000", 0);
  } else {
    av_dict_set(&output_options, "mpegts_copyts", "1", 0);
  }
  sink_hold_output();
  const int e = avformat_write_header(muxer, &output_options);
  av_dict_free(&output_options);  // options the muxer did not know are left in it
  if (e < 0) {
    report_ff_failure(with_url("Failed to write output header for '%s'. "), e);
    fail_run();
  }
}

// After the header: the H.264 filter decision, the time-base and extradata
// reports, the discard rule, the packet for the relay loop, and the optional
// response head, after which the held output goes out.
void announce(const input_side& in, output_side& out, my_avio_ctx& sink) {
  const AVStream* in_video = in.video_index >= 0 ? in.ctx->streams[in.video_index] : nullptr;
  const AVStream* in_audio = in.audio_index >= 0 ? in.ctx->streams[in.audio_index] : nullptr;
  if (out.video) {
    const AVCodecParameters* p = out.video->codecpar;
    if (needs_annexb_filter(true, p->codec_id == AV_CODEC_ID_H264, p->extradata, p->extradata_size, allow_mp4))
      out.annexb_filter = make_annexb_filter(in_video, out.video);
  }
  if (out.audio) log_time_bases("A", in_audio, out.audio);
  if (out.video) log_time_bases("V", in_video, out.video);
  if (out.video && out.video->codecpar->extradata_size > 0)
    fputs(format_extradata(out.video->codecpar->extradata, out.video->codecpar->extradata_size).c_str(), stderr);
  apply_discard_rule(in.ctx, in);
  out.packet = av_packet_alloc();
  if (!out.packet) {
    fputs("av_packet_alloc == NULL?\n", stderr);
    end_run(1);
  }
  if (emit_mime_type) {
    fputs(relay_response_head(allow_mp4), stdout);
    fflush(stdout);
  }
  sink_release_output(sink);
  av_packet_unref(out.packet);
}

// Output stage: open the muxer, attach the sink, add the streams, write the
// header, announce.
output_side setup_output(const input_side& in, my_avio_ctx& sink) {
  output_side out;
  out.ctx = open_muxer();
  attach_sink(out.ctx, sink);
  add_streams(in, out);
  write_header(out.ctx);
  announce(in, out, sink);
  return out;
}

// ---- relay loop ----

// The muxer may hand one packet to the sink in several writes (a 4096-byte
// AVIO buffer); they leave standard output together once the call returns.
void write_packet(AVFormatContext* out, AVPacket* pkt) {
  int e = 0;
  {
    const sink_muxer_call one_call(*run_sink);
    e = av_interleaved_write_frame(out, pkt);
  }
  if (e < 0) report_ff_failure("Failed to write A/V packet. ", e);
}

void relay_video(const input_side& in, output_side& out, stamp_state& st, AVPacket* pkt) {
  if (!repair_video_stamps(st, pkt->pts, pkt->dts, pkt->flags & AV_PKT_FLAG_KEY)) return;
  rendition_reader_video(pkt->pts, in.ctx->streams[in.video_index]->time_base);
  av_packet_rescale_ts(pkt, in.ctx->streams[in.video_index]->time_base, out.video->time_base);
  if (!out.annexb_filter || !pkt->data || pkt->size <= 0) {
    pkt->stream_index = out.video->index;
    write_packet(out.ctx, pkt);
    return;
  }
  if (!out.filtered) out.filtered = av_packet_alloc();
  AVPacket* filtered = out.filtered;
  if (av_bsf_send_packet(out.annexb_filter, pkt) >= 0 && av_bsf_receive_packet(out.annexb_filter, filtered) >= 0) {
    filtered->stream_index = out.video->index;
    write_packet(out.ctx, filtered);
  }
  av_packet_unref(filtered);
}

void relay_audio(const input_side& in, output_side& out, stamp_state& st, AVPacket* pkt) {
  if (!repair_audio_stamps(st, pkt->pts, pkt->dts, pkt->flags & AV_PKT_FLAG_KEY)) return;
  av_packet_rescale_ts(pkt, in.ctx->streams[in.audio_index]->time_base, out.audio->time_base);
  pkt->stream_index = out.audio->index;
  write_packet(out.ctx, pkt);
}

void relay_packets(input_side& in, output_side& out) {
  stamp_state video_stamps;
  stamp_state audio_stamps;
  AVPacket* pkt = out.packet;
  bool stop_handlers_installed = false;
  while (stop_signal_count == 0 && sink_output_error == 0) {
    // Installed by the first iteration; the handler stays in place after a
    // signal (BSD semantics of signal()), so once is enough, and two
    // sigaction calls per packet were a measurable share of its system calls.
    if (!stop_handlers_installed) {
      signal(SIGINT, on_stop_signal);
      signal(SIGQUIT, on_stop_signal);
      stop_handlers_installed = true;
    }
    rearm_watchdog();
    const int e = av_read_frame(in.ctx, pkt);
    if (e < 0) {
      fputs(e == AVERROR_EOF ? "end of stream. exiting..\n" : "av_read_frame() failed. exiting.\n", stderr);
      if (e == AVERROR_EOF) rendition_reader_finish();  // the rendition's last cues
      break;
    }
    rendition_reader_take();  // an HLS subtitle rendition's cues that have come in
    if (pkt->stream_index == in.video_index && out.video) relay_video(in, out, video_stamps, pkt);
    else if (pkt->stream_index == in.audio_index && out.audio) relay_audio(in, out, audio_stamps, pkt);
    else if (pkt->stream_index == in.vtt_index && out.video && !allow_mp4)  // events go only into MPEG-TS
      ingest_caption_packet(pkt);
    av_packet_unref(pkt);
  }
  if (sink_output_error != 0)
    fprintf(stderr, "Standard output failed (%s). exiting.\n", strerror(sink_output_error));
}

// Served straight from a socket (inetd style, systemd's Accept=yes),
// standard input is the client's connection, holding its request, which the
// relay never reads. Closing a socket with unread data resets the connection,
// and the client may then lose the stream's last bytes: drop what it sent.
void drop_client_request() {
  struct stat st;
  if (fstat(0, &st) != 0 || !S_ISSOCK(st.st_mode)) return;
  char buf[4096];
  for (int i = 0; i < 64 && recv(0, buf, sizeof buf, MSG_DONTWAIT) > 0; ++i) {
  }
}

[[noreturn]] void clean_up(input_side& in, output_side& out) {
  alarm(watchdog_seconds);
  av_packet_unref(out.packet);
  av_packet_free(&out.packet);
  avformat_close_input(&in.ctx);
  av_write_trailer(out.ctx);  // through the sink, which drops it after a stop signal
  av_freep(&out.ctx->pb->buffer);
  avio_context_free(&out.ctx->pb);
  avformat_free_context(out.ctx);
  out.ctx = nullptr;
  av_bsf_free(&out.annexb_filter);
  av_packet_free(&out.filtered);
  drop_client_request();
  end_run(0);
}

// Ignored signals stay ignored across exec, and a blocked mask is inherited:
// whatever the parent did, a client that has gone ends the run through
// SIGPIPE and the watchdog through SIGALRM, their default actions.
void restore_default_signals() {
  signal(SIGPIPE, SIG_DFL);
  signal(SIGALRM, SIG_DFL);
  sigset_t ours;
  sigemptyset(&ours);
  sigaddset(&ours, SIGPIPE);
  sigaddset(&ours, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &ours, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  restore_default_signals();
  caption_contexts_start();
  my_avio_ctx sink;
  run_sink = &sink;

  take_command_line(argc, argv);
  // A server that stops answering during set-up fails it with a message: the
  // probe's requests by their own time limits, the input by its set-up watch.
  check_source();
  input_side in = open_input();
  output_side out = setup_output(in, sink);
  relay_packets(in, out);
  clean_up(in, out);
}
