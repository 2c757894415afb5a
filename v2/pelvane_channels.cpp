// pelvane-channels: one port for a whole channel list. Started once per
// connection with the connection as standard input and output, as pelvane is
// (systemd's Accept=yes, socat), it reads the list named on its command line
// and the client's request head, then either answers (the list, the network
// tuner's lineup, an error) or becomes pelvane for the channel asked for.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "v2/channels/answers.h"
#include "v2/channels/channel_list.h"
#include "v2/channels/command_line.h"
#include "v2/channels/http_request.h"

namespace {

// A list larger than this is refused rather than read.
constexpr size_t list_max = 32 << 20;

// After an answer, what the client still sends is read and dropped, at most
// this much and this long: closing with unread data would reset the
// connection and could lose the answer on its way.
constexpr size_t drain_max = 64 << 10;
constexpr int drain_ms = 1000;

// Reads the list file whole. The only file this program opens.
bool read_list_file(const std::string& path, std::string& text, std::string& error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = strerror(errno);
    return false;
  }
  char buf[65536];
  ssize_t n = 0;
  while (text.size() <= list_max && (n = read(fd, buf, sizeof buf)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  const int read_errno = errno;
  close(fd);
  if (n < 0) error = strerror(read_errno);
  else if (text.size() > list_max) error = "larger than 32 MiB";
  return error.empty();
}

int ms_left(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Reads standard input until the request head has ended, never more than
// request_head_max bytes, within request_head_seconds.
head_outcome read_request_head(std::string& data) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(request_head_seconds);
  char buf[request_head_max];
  for (;;) {
    if (request_head_end(data) > 0) return head_complete;
    if (data.size() >= request_head_max) return head_too_long;
    pollfd p = {0, POLLIN, 0};
    const int ready = poll(&p, 1, ms_left(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return head_read_error;
    if (ready == 0) return head_too_slow;
    const ssize_t n = read(0, buf, request_head_max - data.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return head_read_error;
    if (n == 0) return head_closed;
    data.append(buf, static_cast<size_t>(n));
  }
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Writes the answer, ends the sending side and lets the client finish.
void answer_and_close(std::string_view bytes) {
  if (bytes.empty()) return;
  if (!write_all(1, bytes)) {
    fprintf(stderr, "pelvane-channels: writing the answer failed: %s\n", strerror(errno));
    return;
  }
  if (shutdown(1, SHUT_WR) != 0) return;  // not a socket: nothing to drain
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(drain_ms);
  char buf[4096];
  size_t dropped = 0;
  pollfd p = {0, POLLIN, 0};
  while (dropped < drain_max && poll(&p, 1, ms_left(deadline)) > 0) {
    const ssize_t n = read(0, buf, sizeof buf);
    if (n <= 0) return;
    dropped += static_cast<size_t>(n);
  }
}

// "pelvane" in the directory of this program's own executable.
std::string pelvane_beside_us() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "pelvane";
  const std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/') + 1) + "pelvane";
}

// Becomes pelvane for the channel; returns only when that failed.
void start_relay(const channels_settings& s, const channel& ch) {
  const std::vector<std::string> args = relay_command(s.pelvane.empty() ? pelvane_beside_us() : s.pelvane, ch);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  signal(SIGPIPE, SIG_DFL);
  execv(argv[0], argv.data());
  fprintf(stderr, "pelvane-channels: cannot start %s: %s\n", argv[0], strerror(errno));
  signal(SIGPIPE, SIG_IGN);
}

// --check: the channels as kept, one a line: number, title, source, options.
void print_channels(const channel_list& list) {
  for (const channel& ch : list.channels) {
    std::string options;
    for (const std::string& o : ch.relay_options) options += " " + o;
    printf("%s\t%s\t%s%s\n", ch.number.c_str(), ch.title.c_str(), ch.url.c_str(), options.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  // A client that has gone shows as a failed write, not a killed process.
  signal(SIGPIPE, SIG_IGN);
  channels_settings s;
  std::string message;
  bool help = false;
  if (!parse_channels_command_line(argc, argv, s, message, help)) {
    fputs(channels_usage_text, stderr);
    if (!help) fprintf(stderr, "pelvane-channels: %s\n", message.c_str());
    return 1;
  }
  std::string text;
  std::string error;
  if (!read_list_file(s.list_path, text, error)) {
    fprintf(stderr, "pelvane-channels: cannot read the channel list %s: %s\n", s.list_path.c_str(), error.c_str());
    if (!s.check) answer_and_close(error_response(500, "the channel list cannot be read"));
    return 1;
  }
  const channel_list list = read_channel_list(text);
  for (const std::string& p : list.problems) fprintf(stderr, "%s: %s\n", s.list_path.c_str(), p.c_str());
  if (s.check) {
    print_channels(list);
    return 0;
  }
  std::string data;
  const head_outcome outcome = read_request_head(data);
  const reply r = answer_connection(outcome, data, list, s.identity);
  if (r.relay) {
    start_relay(s, *r.relay);
    answer_and_close(error_response(500, "the relay could not be started"));
    return 1;
  }
  answer_and_close(r.bytes);
  return 0;
}
