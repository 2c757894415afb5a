#include "v2/setup_watch.h"

#include <poll.h>

#include <csignal>
#include <cstdio>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "v2/relay_rules.h"
#include "v2/watchdog.h"

namespace {

// While the input is opened and its streams are read, FFmpeg polls
// interrupt_on_stall (every 100 ms or so while it waits on the source). It
// interrupts once fewer than setup_least_bytes have been read in
// watchdog_seconds, so a source that stops answering, or sends a trickle,
// fails through the usual set-up messages instead of holding the set-up for
// ever, and one that keeps sending (a long playlist probe on a slow link) is
// never cut off. Bytes are counted over every I/O context the input opens
// (a playlist opens one per segment), followed through the context's open
// and close callbacks; an input that does its own I/O (rtsp://) shows none,
// and then the time since the set-up began counts.
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
  end_setup_if_client_gone();
  int64_t bytes = setup_watch.closed_bytes;
  for (const AVIOContext* pb : setup_watch.open_ios) bytes += pb->bytes_read;
  setup_watch.fired =
      too_little_progress(setup_watch.clock, bytes, monotonic_ms(), watchdog_seconds * 1000, setup_least_bytes);
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

// Nothing is written to standard output before the relay loop, so SIGPIPE
// cannot tell that the client has gone; polling the descriptor can. A pipe
// whose reader has closed shows POLLERR, a socket closed at both ends
// POLLHUP. A client that closes its TCP connection shows only as the end of
// its data (POLLRDHUP) until something is written: pelvane never reads its
// client and an HTTP client does not shut down its sending side while it
// waits for the answer, so on standard output that end means the client has
// gone. Descriptors that are neither (a file, /dev/null) show none of these.
void end_setup_if_client_gone() {
  static int64_t last_look_ms = INT64_MIN / 2;
  const int64_t now = monotonic_ms();
  // At most twice a second: libcurl's idle callbacks come about a second
  // apart, and skipping one for being a little early would double the wait.
  if (now - last_look_ms < 500) return;
  last_look_ms = now;
  pollfd p{1, POLLRDHUP, 0};
  if (poll(&p, 1, 0) != 1 || (p.revents & (POLLERR | POLLHUP | POLLRDHUP)) == 0) return;
  fputs("The client has gone during set-up. exiting.\n", stderr);
  signal(SIGPIPE, SIG_DFL);
  raise(SIGPIPE);
}
