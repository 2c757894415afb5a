// pelvane-cc: reads an MPEG transport stream written by pelvane on standard
// input and prints its caption events: one JSON object per line, or with
// --srt the CEA-608 captions decoded back into SRT; with --a53 it writes the
// stream again with the captions inside the video (a53_remux.h). Problems
// found in the stream go to standard error; reading goes on.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "v2/cc/a53_remux.h"
#include "v2/cc/caption_event_json.h"
#include "v2/cc/caption_event_reader.h"
#include "v2/cc/cc608_decoder.h"

namespace {

const char usage_text[] =
    "usage: pelvane-cc [--srt | --a53] < stream.ts\n"
    "  Prints the caption events (PID 0x1FFE, \"MOLVAR:VTT\") of a transport stream\n"
    "  read on standard input, one JSON object per line.\n"
    "  --srt  decode the CEA-608 captions (CC1) instead and print them as SRT\n"
    "  --a53  write the stream again with the captions inside the video as A/53 cc_data\n";

// Turns the CEA-608 pairs of successive events into SRT. Events overlap in
// time (an event's pairs load before the previous caption's erase), so pairs
// wait here and are decoded in time order: the pairs earlier than the first
// pair of a new event are complete. The wait is bounded: past
// srt_waiting_max pairs, or srt_lag_max_ms behind the newest pair, the oldest
// are decoded anyway (a pair arriving later than that is decoded late).
constexpr size_t srt_waiting_max = 4096;
constexpr int64_t srt_lag_max_ms = 60000;
struct srt_writer {
  cc608_decoder decoder;
  std::multimap<int64_t, std::pair<uint8_t, uint8_t>> waiting;
  size_t cues_written = 0;
};

// Decodes and prints the waiting pairs before `end`; at the end of the data
// (`finish`) also the caption still on screen.
void decode_until(srt_writer& s, std::multimap<int64_t, std::pair<uint8_t, uint8_t>>::iterator end, bool finish) {
  std::vector<srt_cue> cues;
  for (auto it = s.waiting.begin(); it != end; ++it)
    cc608_decode_pair(s.decoder, it->first, it->second.first, it->second.second, cues);
  s.waiting.erase(s.waiting.begin(), end);
  if (finish) cc608_decode_finish(s.decoder, cues);
  for (const srt_cue& cue : cues) fputs(srt_block(++s.cues_written, cue).c_str(), stdout);
}

// Times come from the stream and may lie anywhere in 64 bits: the lag is
// measured without signed overflow.
bool srt_wait_too_long(const srt_writer& s) {
  const uint64_t lag =
      static_cast<uint64_t>(s.waiting.rbegin()->first) - static_cast<uint64_t>(s.waiting.begin()->first);
  return s.waiting.size() > srt_waiting_max || lag > static_cast<uint64_t>(srt_lag_max_ms);
}

void srt_take_event(srt_writer& s, const caption_event_record& ev) {
  if (ev.cc608.empty()) return;
  decode_until(s, s.waiting.lower_bound(ev.cc608.front().time_ms), false);
  for (const caption_pair_at& p : ev.cc608) s.waiting.emplace(p.time_ms, std::make_pair(p.b0, p.b1));
  while (!s.waiting.empty() && srt_wait_too_long(s))
    decode_until(s, s.waiting.upper_bound(s.waiting.begin()->first), false);
}

bool output_ok() {
  if (fflush(stdout) == 0 && !ferror(stdout)) return true;
  fprintf(stderr, "pelvane-cc: failed to write standard output: %s\n", strerror(errno));
  return false;
}

// A reader that has gone ends the run by SIGPIPE's default action, even under
// a parent that ignores or blocks the signal: reading on would keep an
// upstream pelvane and its source connection busy for nobody.
void restore_sigpipe() {
  signal(SIGPIPE, SIG_DFL);
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  sigprocmask(SIG_UNBLOCK, &pipe, nullptr);
}

void report_problems(const std::vector<std::string>& problems) {
  for (const std::string& p : problems) fprintf(stderr, "%s\n", p.c_str());
}

// False once standard output has failed.
bool print_events(const caption_read_output& found, bool srt, srt_writer& s) {
  report_problems(found.problems);
  for (const caption_event_record& ev : found.events) {
    if (srt) srt_take_event(s, ev);
    else printf("%s\n", caption_event_json(ev).c_str());
  }
  return output_ok();
}

// 0: run; 1: bad arguments; 2: help asked for.
int parse_arguments(int argc, char** argv, bool& srt, bool& a53) {
  srt = a53 = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return 2;
    bool& mode = strcmp(argv[i], "--srt") == 0 ? srt : a53;
    if ((strcmp(argv[i], "--srt") == 0 || strcmp(argv[i], "--a53") == 0) && !srt && !a53) {
      mode = true;
      continue;
    }
    fprintf(stderr, "pelvane-cc: unexpected argument '%s'\n", argv[i]);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool srt = false;
  bool a53 = false;
  const int args = parse_arguments(argc, argv, srt, a53);
  if (args != 0) {
    fputs(usage_text, stderr);
    return args == 2 ? 0 : 1;
  }
  restore_sigpipe();
  if (a53) return a53_remux_run();

  caption_byte_reader captions;
  srt_writer srt_out;
  std::vector<unsigned char> chunk(1 << 16);
  for (;;) {
    // read(), not fread(): a live stream's events are printed as they come.
    const ssize_t got = read(0, chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      fprintf(stderr, "pelvane-cc: failed to read standard input: %s\n", strerror(errno));
      return 1;
    }
    const bool eof = got == 0;
    caption_read_output found;
    caption_bytes_take(captions, chunk.data(), static_cast<size_t>(got), eof, found);
    if (!print_events(found, srt, srt_out)) return 1;
    if (eof) break;
  }
  if (srt) decode_until(srt_out, srt_out.waiting.end(), true);
  return output_ok() ? 0 : 1;
}
