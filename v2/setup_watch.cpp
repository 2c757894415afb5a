#include "v2/setup_watch.h"

#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "v2/relay_rules.h"
#include "v2/watchdog.h"

namespace {

// While the input is opened and its streams are read, FFmpeg polls
// interrupt_on_stall (every 100 ms or so while it waits on the source). It
// interrupts once no byte has been read for watchdog_seconds, so a source
// that stops answering fails through the usual set-up messages instead of
// dying by SIGALRM, and one that keeps sending (a long playlist probe on a
// slow link) is never cut off. Bytes are counted over every I/O context the
// input opens (a playlist opens one per segment), followed through the
// context's open and close callbacks; an input that does its own I/O
// (rtsp://) shows none, and then the time since the set-up began counts.
struct setup_watch_state {
  bool active = false;
  bool fired = false;
  progress_clock clock;
  int64_t closed_bytes = 0;  // read by contexts already closed
  std::vector<AVIOContext*> open_ios;
  decltype(AVFormatContext::io_open) default_open = nullptr;
  decltype(AVFormatContext::io_close2) default_close = nullptr;
};
setup_watch_state setup_watch;

int interrupt_on_stall(void*) {
  if (!setup_watch.active) return 0;
  if (setup_watch.fired) return 1;
  int64_t bytes = setup_watch.closed_bytes;
  for (const AVIOContext* pb : setup_watch.open_ios) bytes += pb->bytes_read;
  setup_watch.fired = no_progress_for(setup_watch.clock, bytes, monotonic_ms(), watchdog_seconds * 1000);
  return setup_watch.fired ? 1 : 0;
}

int open_watched(AVFormatContext* s, AVIOContext** pb, const char* url, int flags, AVDictionary** options) {
  const int e = setup_watch.default_open(s, pb, url, flags, options);
  if (e >= 0 && *pb) setup_watch.open_ios.push_back(*pb);
  return e;
}

int close_watched(AVFormatContext* s, AVIOContext* pb) {
  for (auto it = setup_watch.open_ios.begin(); it != setup_watch.open_ios.end(); ++it) {
    if (*it != pb) continue;
    setup_watch.closed_bytes += pb->bytes_read;
    setup_watch.open_ios.erase(it);
    break;
  }
  return setup_watch.default_close(s, pb);
}

}  // namespace

void start_setup_watch(AVFormatContext* ctx) {
  setup_watch.active = true;
  setup_watch.clock = progress_clock{0, monotonic_ms()};
  setup_watch.default_open = ctx->io_open;
  setup_watch.default_close = ctx->io_close2;
  ctx->io_open = open_watched;
  ctx->io_close2 = close_watched;
  ctx->interrupt_callback.callback = interrupt_on_stall;
}

// From here on the relay loop's watchdog alone guards the run.
void end_setup_watch(AVFormatContext* ctx) {
  setup_watch.active = false;
  ctx->io_open = setup_watch.default_open;
  ctx->io_close2 = setup_watch.default_close;
  setup_watch.open_ios.clear();
}

bool setup_watch_fired() { return setup_watch.fired; }
