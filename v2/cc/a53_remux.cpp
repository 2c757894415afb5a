// pelvane-cc --a53. Standard input is read once and shared: every byte goes
// to the transport stream demuxer (which ignores PID 0x1FFE: it is not in the
// program map), and the caption packets also go to the event reader, whose
// events are queued as cc_data triplets. Video and audio packets are copied
// with their time stamps; every video picture gets a cc_data of the cc_count
// its frame rate calls for, with the triplets due by its presentation time
// and padding, as a broadcast encoder writes it: decoders such as VLC's
// expect that steady flow from the first picture on, and without it show a
// caption for part of its time, or not at all.
//
// Clock: an event's entry times are milliseconds on the source's clock, and
// pelvane writes the source's time stamps unchanged (mpegts_copyts). Seen
// with Matroska over HTTP: the first picture at 21 ms comes out with pts 1890,
// the cue at 1000 ms with its display code at 1001 ms shows on the picture
// with pts 90090; so an entry is due at time_ms * 90. The transport stream
// keeps 33 bits of that and the demuxer unwraps later wraps into a count that
// keeps growing, so the due time is time_ms * 90 + k * 2^33, with k the whole
// number of wraps that puts it nearest the video read so far.
//
// A video that already carries A/53 captions keeps them: writing ours into
// the same pictures would garble both, so once a picture read holds cc_data,
// the pictures not yet written are left as they are and the events dropped.
#include "v2/cc/a53_remux.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "v2/captions/caption_event_format.h"
#include "v2/cc/a53.h"
#include "v2/cc/caption_event_reader.h"
#include "v2/ff_util.h"

namespace {

constexpr int64_t pts_wrap = int64_t{1} << 33;
constexpr int avio_size = 1 << 16;

enum class carrier { none, h264, mpeg2 };

volatile sig_atomic_t stop_asked = 0;

// Reading standard input.
caption_byte_reader input_captions;
bool input_ended = false;
uint64_t input_bytes = 0;

// The caption queue and what it knows of the video.
a53_queue captions;
bool captions_carried = true;  // false once there is no video to carry them, or it has its own
bool video_read = false;
int64_t video_pts_read = 0;  // latest video pts read
bool video_written = false;
int64_t video_pts_written = 0;  // latest video pts written
bool drop_reported = false;
size_t late_events = 0;      // events whose every entry was due before the video written
size_t refused_packets = 0;  // packets the muxer refused (stamps out of order in a damaged input)

// The copy.
struct remux {
  AVFormatContext* in = nullptr;
  AVFormatContext* out = nullptr;
  std::vector<int> out_index;  // per input stream; -1: not copied
  int video = -1;              // input index of the picture stream taking captions
  carrier kind = carrier::none;
  size_t cc_count = 0;  // triplets in every picture's cc_data
  a53_hold held;
  AVPacket* pkt = nullptr;
};

int64_t floor_div(int64_t a, int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

int64_t last_entry_ms(const caption_event_record& ev) {
  int64_t last = ev.start;
  for (const caption_pair_at& p : ev.cc608) last = std::max(last, p.time_ms);
  for (const caption_word_at& w : ev.cc708) last = std::max(last, w.time_ms);
  return last;
}

bool entries_in_range(const caption_event_record& ev) {
  const auto ok = [](int64_t t) { return t > -a53_time_ms_max && t < a53_time_ms_max; };
  for (const caption_pair_at& p : ev.cc608)
    if (!ok(p.time_ms)) return false;
  for (const caption_word_at& w : ev.cc708)
    if (!ok(w.time_ms)) return false;
  return ok(ev.start);
}

void queue_event(const caption_event_record& ev) {
  if (!captions_carried) return;
  if (!entries_in_range(ev)) {
    fprintf(stderr, "pelvane-cc: caption event at %lld ms has times out of range; dropped\n",
            static_cast<long long>(ev.start));
    return;
  }
  const int64_t offset = a53_clock_offset(ev.start, video_read, video_pts_read);
  if (video_written && last_entry_ms(ev) * 90 + offset < video_pts_written) {
    if (late_events++ == 0)
      fprintf(stderr,
              "pelvane-cc: caption event at %lld ms came after its video; dropped (later ones are counted)\n",
              static_cast<long long>(ev.start));
    return;
  }
  a53_queue_event(captions, ev, offset);
  if (captions.dropped > 0 && !drop_reported) {
    fputs("pelvane-cc: caption data is far ahead of the video; dropping the oldest\n", stderr);
    drop_reported = true;
  }
}

void take_caption_bytes(const unsigned char* data, size_t n) {
  if (input_ended) return;
  input_ended = n == 0;
  input_bytes += n;
  caption_read_output found;
  caption_bytes_take(input_captions, data, n, input_ended, found);
  for (const std::string& p : found.problems) fprintf(stderr, "%s\n", p.c_str());
  for (const caption_event_record& ev : found.events) queue_event(ev);
}

int read_input(void*, uint8_t* buf, int size) {
  for (;;) {
    if (stop_asked) return AVERROR_EOF;
    const ssize_t got = read(0, buf, static_cast<size_t>(size));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      fprintf(stderr, "pelvane-cc: failed to read standard input: %s\n", strerror(errno));
      return AVERROR(EIO);
    }
    take_caption_bytes(buf, static_cast<size_t>(got));
    return got == 0 ? AVERROR_EOF : static_cast<int>(got);
  }
}

int write_output(void*, PELVANE_AVIO_WRITE_CONST uint8_t* buf, int size) {
  while (size > 0) {
    const ssize_t put = write(1, buf, static_cast<size_t>(size));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) {
      stop_asked = 1;
      return AVERROR(errno);
    }
    buf += put;
    size -= static_cast<int>(put);
  }
  return 0;
}

int interrupt_check(void*) { return stop_asked ? 1 : 0; }

void on_stop_signal(int) { stop_asked = 1; }

// No SA_RESTART: a read waiting for input returns so the copy can end.
void install_stop_handler() {
  struct sigaction sa = {};
  sa.sa_handler = on_stop_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

bool open_input(remux& r) {
  auto* buf = static_cast<unsigned char*>(av_malloc(avio_size));
  r.in = avformat_alloc_context();
  if (!buf || !r.in) return false;
  r.in->pb = avio_alloc_context(buf, avio_size, 0, nullptr, read_input, nullptr, nullptr);
  if (!r.in->pb) return false;
  r.in->interrupt_callback.callback = interrupt_check;
  int e = avformat_open_input(&r.in, nullptr, av_find_input_format("mpegts"), nullptr);
  if (e >= 0) e = avformat_find_stream_info(r.in, nullptr);
  if (e >= 0) return true;
  if (input_bytes == 0) fputs("pelvane-cc: standard input is empty; there is no stream to copy\n", stderr);
  else report_ff_failure("pelvane-cc: found no audio or video in standard input. ", e);
  return false;
}

carrier carrier_of(AVCodecID id) {
  if (id == AV_CODEC_ID_H264) return carrier::h264;
  if (id == AV_CODEC_ID_MPEG2VIDEO) return carrier::mpeg2;
  return carrier::none;
}

void stop_captions() {
  captions_carried = false;
  captions.field1.clear();
  captions.dtvcc.clear();
}

// Picks the streams to copy and the video that takes the captions; says once
// when there is none.
void choose_streams(remux& r) {
  r.out_index.assign(r.in->nb_streams, -1);
  int copied = 0;
  for (unsigned i = 0; i < r.in->nb_streams; ++i) {
    const AVCodecParameters* p = r.in->streams[i]->codecpar;
    const bool av = p->codec_type == AVMEDIA_TYPE_VIDEO || p->codec_type == AVMEDIA_TYPE_AUDIO;
    if (!av || p->codec_id == AV_CODEC_ID_NONE) continue;
    r.out_index[i] = copied++;
    if (p->codec_type == AVMEDIA_TYPE_VIDEO && r.video < 0) r.video = static_cast<int>(i);
  }
  if (r.video >= 0) r.kind = carrier_of(r.in->streams[r.video]->codecpar->codec_id);
  if (r.kind != carrier::none) {
    const AVStream* v = r.in->streams[r.video];
    const AVRational rate = v->avg_frame_rate.num > 0 ? v->avg_frame_rate : v->r_frame_rate;
    r.cc_count = a53_cc_count(rate.num, rate.den);
    return;
  }
  if (r.video < 0)
    fputs("pelvane-cc: the stream has no video, so captions cannot be carried; copying it without them\n", stderr);
  else
    fprintf(stderr, "pelvane-cc: captions cannot be carried in this video (%s); copying the stream without them\n",
            avcodec_get_name(r.in->streams[r.video]->codecpar->codec_id));
  stop_captions();
}

bool open_output(remux& r) {
  if (avformat_alloc_output_context2(&r.out, nullptr, "mpegts", nullptr) < 0) return false;
  auto* buf = static_cast<unsigned char*>(av_malloc(avio_size));
  if (!buf) return false;
  r.out->pb = avio_alloc_context(buf, avio_size, 1, nullptr, nullptr, write_output, nullptr);
  if (!r.out->pb) return false;
  for (unsigned i = 0; i < r.in->nb_streams; ++i) {
    if (r.out_index[i] < 0) continue;
    AVStream* s = avformat_new_stream(r.out, nullptr);
    if (!s || avcodec_parameters_copy(s->codecpar, r.in->streams[i]->codecpar) < 0) return false;
    s->codecpar->codec_tag = 0;
    s->time_base = r.in->streams[i]->time_base;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "mpegts_copyts", "1", 0);
  const int e = avformat_write_header(r.out, &options);
  av_dict_free(&options);
  if (e < 0) report_ff_failure("pelvane-cc: failed to write the output header. ", e);
  return e >= 0;
}

bool write_packet(remux& r, AVPacket* p) {
  const int in_index = p->stream_index;
  p->stream_index = r.out_index[in_index];
  av_packet_rescale_ts(p, r.in->streams[in_index]->time_base, r.out->streams[p->stream_index]->time_base);
  const int e = av_interleaved_write_frame(r.out, p);
  if (e >= 0 || stop_asked) return e >= 0;
  // A damaged input is no reason to stop: the packet is left out.
  if (refused_packets++ == 0) report_ff_failure("pelvane-cc: a packet was left out (later ones are counted). ", e);
  return true;
}

// Replaces the packet's data with the picture carrying `t`. A packet
// without a picture cannot take them: its caption triplets are counted as
// dropped.
void put_captions(const remux& r, AVPacket* p, const std::vector<cc_triplet>& t) {
  const std::vector<uint8_t> with =
      r.kind == carrier::h264 ? h264_with_captions(p->data, p->size, t) : mpeg2_with_captions(p->data, p->size, t);
  AVPacket* n = with.size() == static_cast<size_t>(p->size) ? nullptr : av_packet_alloc();
  if (!n || av_new_packet(n, static_cast<int>(with.size())) < 0 || av_packet_copy_props(n, p) < 0) {
    for (const cc_triplet& c : t)
      captions.dropped +=
          c.header == 0xFF || c.header == 0xFE || (c.header == 0xFC && (c.data1 != 0x80 || c.data2 != 0x80));
    av_packet_free(&n);
    return;
  }
  memcpy(n->data, with.data(), with.size());
  av_packet_unref(p);
  av_packet_move_ref(p, n);
  av_packet_free(&n);
}

bool write_oldest_video(remux& r) {
  a53_picture pic = a53_hold_take_oldest(r.held, captions, r.cc_count);
  AVPacket* p = pic.packet;
  if (captions_carried) put_captions(r, p, pic.cc);
  if (p->pts != AV_NOPTS_VALUE) {
    video_pts_written = video_written ? std::max(video_pts_written, p->pts) : p->pts;
    video_written = true;
  }
  const bool ok = write_packet(r, p);
  av_packet_free(&p);
  return ok;
}

int64_t held_time(const AVPacket* p) { return p->dts != AV_NOPTS_VALUE ? p->dts : p->pts; }

bool hold_video(remux& r) {
  if (r.pkt->pts != AV_NOPTS_VALUE) {
    video_pts_read = video_read ? std::max(video_pts_read, r.pkt->pts) : r.pkt->pts;
    video_read = true;
  }
  if (captions_carried && a53_has_captions(r.pkt->data, r.pkt->size, r.kind == carrier::h264)) {
    fputs("pelvane-cc: the video already carries captions; caption events are dropped\n", stderr);
    stop_captions();
  }
  AVPacket* p = av_packet_alloc();
  if (!p) return false;
  av_packet_move_ref(p, r.pkt);
  a53_hold_add(r.held, {p, held_time(p), p->pts, static_cast<size_t>(p->size), {}});
  while (a53_hold_full(r.held))
    if (!write_oldest_video(r)) return false;
  return true;
}

bool copy_packets(remux& r) {
  while (!stop_asked) {
    const int e = av_read_frame(r.in, r.pkt);
    if (e == AVERROR(EAGAIN)) continue;
    if (e < 0) {
      if (e != AVERROR_EOF && e != AVERROR_EXIT && !stop_asked) report_ff_failure("pelvane-cc: read failed. ", e);
      break;
    }
    const int i = r.pkt->stream_index;
    bool ok = true;
    if (i < 0 || i >= static_cast<int>(r.out_index.size()) || r.out_index[i] < 0) av_packet_unref(r.pkt);
    else if (i == r.video && r.kind != carrier::none) ok = hold_video(r);
    else ok = write_packet(r, r.pkt);
    if (!ok) return false;
  }
  while (!r.held.pictures.empty())
    if (!write_oldest_video(r)) return false;
  return true;
}

void close_remux(remux& r) {
  for (a53_picture& p : r.held.pictures) av_packet_free(&p.packet);
  av_packet_free(&r.pkt);
  if (r.in) {
    if (r.in->pb) av_freep(&r.in->pb->buffer);
    avio_context_free(&r.in->pb);
    avformat_close_input(&r.in);
  }
  if (r.out) {
    if (r.out->pb) av_freep(&r.out->pb->buffer);
    avio_context_free(&r.out->pb);
    avformat_free_context(r.out);
  }
}

}  // namespace

int64_t a53_clock_offset(int64_t time_ms, bool have_video, int64_t video_pts) {
  const int64_t due = time_ms * 90;
  if (!have_video) return -floor_div(due, pts_wrap) * pts_wrap;
  return floor_div(video_pts - due + pts_wrap / 2, pts_wrap) * pts_wrap;
}

int a53_remux_run() {
  install_stop_handler();
  av_log_set_level(AV_LOG_FATAL);  // problems are reported here, once each
  remux r;
  r.pkt = av_packet_alloc();
  bool ok = r.pkt && open_input(r);
  if (ok) choose_streams(r);
  ok = ok && open_output(r);
  const bool copied = ok && copy_packets(r);
  if (ok && av_write_trailer(r.out) < 0) ok = false;
  if (refused_packets > 0) fprintf(stderr, "pelvane-cc: %zu packets left out in all\n", refused_packets);
  if (late_events > 0) fprintf(stderr, "pelvane-cc: %zu caption events came after their video\n", late_events);
  if (captions.dropped > 0) fprintf(stderr, "pelvane-cc: %zu caption triplets dropped in all\n", captions.dropped);
  fflush(stderr);
  close_remux(r);
  return ok && (copied || stop_asked) ? 0 : 1;
}
