#include "v2/hls/rendition_reader.h"

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include "v2/captions/captions.h"
#include "v2/hls/hls_fetch.h"
#include "v2/hls/hls_playlist.h"
#include "v2/hls/webvtt_segment.h"
#include "v2/settings.h"
#include "v2/watchdog.h"

namespace {

// The queue between the threads holds at most this much; the reading thread
// waits for room.
constexpr size_t handed_cues_max = 4096;
constexpr size_t handed_bytes_max = 4 << 20;
// At the end of the source, how long the relay waits for the thread to read
// the rendition to its end, and how often it takes what came in meanwhile.
constexpr int64_t finish_wait_ms = 2000;
constexpr int finish_poll_ms = 50;

// ---- set-up, on the driver's thread; read-only while a reading thread runs ----
master_playlist master;
std::string master_url;   // after redirects
int reading_index = -1;   // the rendition read (in master.subtitles); -1: none
std::string reading_url;  // its media playlist, absolute

// ---- between the threads, under `guard` ----
// A cue as the reading thread hands it over: its start on the 33-bit MPEG-TS clock.
struct handed_cue {
  int64_t start_mpegts = 0;
  int64_t duration_ms = 0;
  std::string identifier;
  std::string settings;
  std::string text;
};
std::mutex guard;
std::condition_variable wake;  // the end of the run, or room in the queue
std::deque<handed_cue> handed;
size_t handed_bytes = 0;
std::atomic<bool> stopping{false};     // written under `guard`
std::atomic<bool> cues_handed{false};  // `handed` may hold cues
std::atomic<bool> reader_done{false};  // the reading thread has returned
std::thread reader;

// ---- problems: counted by the reading thread, read once it is joined ----
enum problem_kind { fetch_failed, playlist_unreadable, segment_unreadable, problem_kinds };
size_t problems[problem_kinds] = {};

// ---- the relay loop's ----
bool video_relayed = false;
int64_t first_video_90k = 0;
int64_t latest_video_90k = 0;

bool reader_stopping() { return stopping.load(); }
bool run_stopping() { return stop_signal_count > 0; }

// The first problem of each kind is written out; later ones are counted.
void report(problem_kind kind, const std::string& what) {
  if (problems[kind]++ == 0)
    fprintf(stderr, "Subtitle rendition '%s': %s (further problems of this kind are counted)\n",
            reading_url.c_str(), what.c_str());
}

// Waits until the monotonic clock reads `deadline_ms` or the run ends.
void wait_until(int64_t deadline_ms) {
  std::unique_lock<std::mutex> lock(guard);
  const auto wait = std::chrono::milliseconds(std::max<int64_t>(0, deadline_ms - monotonic_ms()));
  wake.wait_for(lock, wait, [] { return stopping.load(); });
}

void hand_over(handed_cue c) {
  const size_t bytes = sizeof c + c.identifier.size() + c.settings.size() + c.text.size();
  std::unique_lock<std::mutex> lock(guard);
  wake.wait(lock, [bytes] {
    return stopping.load() || handed.empty() ||
           (handed.size() < handed_cues_max && handed_bytes + bytes <= handed_bytes_max);
  });
  if (stopping) return;
  handed_bytes += bytes;
  handed.push_back(std::move(c));
  cues_handed.store(true);
}

// Fetches one segment and hands over the cues not seen before.
void read_segment(fetcher& f, const std::string& playlist_url, const media_segment& s, cue_memory& seen) {
  std::string url;
  if (!resolve_uri(playlist_url, s.uri, url))
    return report(segment_unreadable, "segment '" + s.uri + "': not a URL");
  const fetch_result r = fetch_url(f, url);
  if (r.stopped) return;
  if (!r.ok) return report(fetch_failed, "segment '" + url + "': " + r.problem);
  const webvtt_segment seg = parse_webvtt_segment(r.body);
  if (!seg.valid) return report(segment_unreadable, "segment '" + url + "' is not WebVTT");
  if (seg.bad_map) return report(segment_unreadable, "segment '" + url + "': X-TIMESTAMP-MAP cannot be read");
  if (seg.dropped > 0)
    report(segment_unreadable,
           "segment '" + url + "' has more than " + std::to_string(segment_cues_max) + " cues");
  for (const segment_cue& c : seg.cues) {
    if (c.text.empty()) continue;  // as a WebVTT packet without data
    const int64_t start = cue_to_mpegts(seg.map, c.start_ms);
    const int64_t duration = c.end_ms - c.start_ms;
    if (first_sighting(seen, start, duration, c.text))
      hand_over({start, duration, c.identifier, c.settings, c.text});
  }
}

// The reading thread: the media playlist, loaded again while it is live, and
// each new segment in media sequence order.
void read_rendition() {
  fetcher f;
  if (!fetcher_start(f, reader_stopping)) return report(fetch_failed, "libcurl could not start");
  cue_memory seen;
  int64_t next = -1;  // media sequence number of the next segment
  int64_t target_ms = 0;
  int unchanged = 0;
  int failed = 0;
  while (!reader_stopping()) {
    const int64_t load_start = monotonic_ms();
    const fetch_result r = fetch_url(f, reading_url);
    if (r.stopped) break;
    const media_playlist p = r.ok ? parse_media_playlist(r.body) : media_playlist();
    if (!p.valid) {
      ++failed;
      if (r.ok) report(playlist_unreadable, "its playlist is not an HLS media playlist");
      else report(fetch_failed, "playlist: " + r.problem);
    } else {
      failed = 0;
      target_ms = p.target_ms;
      size_t i = first_segment_to_fetch(p, next);
      unchanged = i < p.segments.size() ? 0 : unchanged + 1;
      for (; i < p.segments.size() && !reader_stopping(); ++i) {
        read_segment(f, r.final_url, p.segments[i], seen);
        next = p.segments[i].sequence + 1;
      }
      if (p.ended) break;
    }
    wait_until(load_start + reload_delay_ms(target_ms, unchanged, failed));
  }
  fetcher_end(f);
  reader_done = true;
}

void stop_reading() {
  if (!reader.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(guard);
    stopping = true;
  }
  wake.notify_all();
  reader.join();
  size_t unshown = 0;
  for (size_t n : problems) unshown += n > 0 ? n - 1 : 0;
  if (unshown > 0)
    fprintf(stderr, "Subtitle rendition '%s': %zu further problems\n", reading_url.c_str(), unshown);
  handed.clear();
  handed_bytes = 0;
  cues_handed = false;
  reading_index = -1;
}

// The thread takes no signal: SIGINT, SIGQUIT, SIGPIPE and SIGALRM go on
// reaching the relay loop's thread.
void start_reading(int index) {
  std::string url;
  if (!resolve_uri(master_url, master.subtitles[index].uri, url)) {
    fprintf(stderr, "Subtitle rendition '%s': not a URL\n", master.subtitles[index].uri.c_str());
    return;
  }
  reading_index = index;
  reading_url = url;
  stopping = false;
  reader_done = false;
  for (size_t& n : problems) n = 0;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  reader = std::thread(read_rendition);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void read_rendition_index(int index) {
  if (index == reading_index && reader.joinable()) return;
  stop_reading();
  if (index >= 0) start_reading(index);
}

// What the input says of the bit rates of the variants the video stream
// belongs to: FFmpeg's HLS reader makes a program per variant.
std::vector<int64_t> video_bitrates(const AVFormatContext* in, int video_index) {
  std::vector<int64_t> out;
  const auto add = [&out](const AVDictionary* d) {
    if (const AVDictionaryEntry* e = av_dict_get(d, "variant_bitrate", nullptr, 0))
      out.push_back(strtoll(e->value, nullptr, 10));
  };
  add(in->streams[video_index]->metadata);
  for (unsigned i = 0; i < in->nb_programs; ++i) {
    const AVProgram* p = in->programs[i];
    for (unsigned j = 0; j < p->nb_stream_indexes; ++j)
      if (static_cast<int>(p->stream_index[j]) == video_index) add(p->metadata);
  }
  return out;
}

}  // namespace

void rendition_reader_open(const AVFormatContext* in) {
  if (allow_mp4 || !in || !in->iformat || strcmp(in->iformat->name, "hls") != 0) return;
  curl_global_init(CURL_GLOBAL_ALL);
  fetcher f;
  if (!fetcher_start(f, run_stopping)) return;
  const fetch_result r = fetch_url(f, source_url);
  fetcher_end(f);
  if (!r.ok) {
    if (!r.stopped)
      fprintf(stderr, "Could not read the master playlist '%s' for its subtitle renditions: %s\n",
              source_url.c_str(), r.problem.c_str());
    return;
  }
  master = parse_master_playlist(r.body);
  master_url = r.final_url;
  const std::string group = shared_subtitle_group(master);
  if (!group.empty()) read_rendition_index(choose_rendition(master, group));
}

void rendition_reader_choose(const AVFormatContext* in, int video_index, int vtt_index) {
  if (master.subtitles.empty()) return;
  int index = -1;
  if (vtt_index < 0 && video_index >= 0) {
    const AVCodecParameters* p = in->streams[video_index]->codecpar;
    const int v = variant_of_video(master, video_bitrates(in, video_index), p->width, p->height);
    const std::string group = v >= 0 ? master.variants[v].subtitles : shared_subtitle_group(master);
    if (!group.empty()) index = choose_rendition(master, group);
  }
  read_rendition_index(index);
}

bool rendition_reader_report() {
  if (reading_index < 0) return false;
  const subtitle_rendition& r = master.subtitles[reading_index];
  fprintf(stderr, "Found VTT rendition. Name \"%s\", language \"%s\": %s\n", r.name.c_str(), r.language.c_str(),
          reading_url.c_str());
  return true;
}

void rendition_reader_video(int64_t pts, AVRational time_base) {
  if (reading_index < 0 || pts == AV_NOPTS_VALUE) return;
  const int64_t pts_90k = av_rescale_q(pts, time_base, AVRational{1, 90000});
  if (!video_relayed) first_video_90k = pts_90k;
  latest_video_90k = pts_90k;
  video_relayed = true;
}

void rendition_reader_take() {
  if (!cues_handed.load() || !video_relayed) return;
  std::deque<handed_cue> taken;
  {
    const std::lock_guard<std::mutex> lock(guard);
    taken.swap(handed);
    handed_bytes = 0;
    cues_handed = false;
  }
  wake.notify_all();
  for (const handed_cue& c : taken) {
    int64_t start_ms = 0;
    int64_t end_ms = 0;
    if (place_cue(c.start_mpegts, c.duration_ms, first_video_90k, latest_video_90k, start_ms, end_ms))
      ingest_cue(start_ms, end_ms, c.identifier, c.settings, c.text);
  }
}

void rendition_reader_finish() {
  const int64_t give_up = monotonic_ms() + finish_wait_ms;
  while (reader.joinable() && !reader_done && stop_signal_count == 0 && monotonic_ms() < give_up) {
    rendition_reader_take();
    std::unique_lock<std::mutex> lock(guard);
    wake.wait_for(lock, std::chrono::milliseconds(finish_poll_ms));
  }
  rendition_reader_take();
}

void rendition_reader_stop() { stop_reading(); }
