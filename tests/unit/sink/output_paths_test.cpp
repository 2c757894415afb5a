// The cheaper output paths: the window's one-call write on pipes and sockets
// (with its fallback for descriptors that refuse it), and the sink's deferred
// emptying around a muxer call.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/test_support.h"
#include "v2/captions/captions.h"
#include "v2/settings.h"
#include "v2/sink/sink.h"

namespace {

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return s;
}

// Everything read from `fd` until end of file, on a thread of its own.
struct collector {
  std::string got;
  std::thread t;
  explicit collector(int fd) {
    t = std::thread([this, fd] {
      char buf[8192];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0) got.append(buf, static_cast<size_t>(n));
    });
  }
  std::string finish() {
    t.join();
    return got;
  }
};

// Streams `data` through a 64 KiB window to `fd` in uneven chunks, as the sink
// does: reclaim room, copy what fits, one emptying attempt; then empties the
// rest. Returns 0 on success, else the failing result.
long stream_through_window(const std::string& data, int fd) {
  sliding_window_v4* w = sliding_window_v4_create_buffer(65536);
  size_t off = 0;
  long r = 0;
  for (size_t step = 0; off < data.size(); ++step) {
    sliding_window_v4_lazy_flush(w);
    const size_t room = static_cast<size_t>(w->end - w->write);
    const size_t n = std::min({room, data.size() - off, static_cast<size_t>(1000 + (step * 3989) % 9000)});
    memcpy(w->write, data.data() + off, n);
    w->write += n;
    off += n;
    if ((r = sliding_window_v4_empty_to_fd(w, fd, 0)) < 0) break;
  }
  while (r >= 0 && w->read != w->write) r = sliding_window_v4_empty_to_fd(w, fd, 0);
  w->read = w->write;
  sliding_window_v4_destroy(w);
  return r < 0 ? r : 0;
}

TEST(WindowOutput, EveryKindOfDescriptorGetsEveryByteInOrder) {
  const std::string data = pattern(700000);
  enum kind { pipe_fd, socket_fd, file_fd, null_fd };
  const struct {
    const char* name;
    kind k;
  } cases[] = {
      {"blocking pipe", pipe_fd},
      {"blocking stream socket", socket_fd},
      {"regular file (refuses writes without waiting)", file_fd},
      {"/dev/null", null_fd},
  };
  for (const auto& c : cases) {
    int fds[2] = {-1, -1};
    std::string got;
    if (c.k == pipe_fd || c.k == socket_fd) {
      ASSERT_EQ(c.k == pipe_fd ? pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0) << c.name;
      collector reader(fds[0]);
      EXPECT_EQ(stream_through_window(data, fds[1]), 0) << c.name;
      close(fds[1]);
      got = reader.finish();
      close(fds[0]);
      EXPECT_TRUE(got == data) << c.name << ": " << got.size() << " of " << data.size() << " bytes, or reordered";
    } else if (c.k == file_fd) {
      FILE* f = tmpfile();
      ASSERT_NE(f, nullptr);
      EXPECT_EQ(stream_through_window(data, fileno(f)), 0) << c.name;
      rewind(f);
      std::vector<char> buf(data.size() + 1);
      got.assign(buf.data(), fread(buf.data(), 1, buf.size(), f));
      fclose(f);
      EXPECT_TRUE(got == data) << c.name << ": " << got.size() << " of " << data.size() << " bytes, or reordered";
    } else {
      const int fd = open("/dev/null", O_WRONLY);
      EXPECT_EQ(stream_through_window(data, fd), 0) << c.name;
      close(fd);
    }
  }
}

// A full socket in blocking mode must not hold the writer (a blocking write
// here would hang the test).
TEST(WindowOutput, FullBlockingSocketTakesNothingInsteadOfBlocking) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  const size_t cap = 4 << 20;
  sliding_window_v4* w = sliding_window_v4_create_buffer(cap);
  memset(w->write, 's', cap);
  w->write += cap;
  long n;
  size_t written = 0;
  while ((n = sliding_window_v4_empty_to_fd(w, fds[1], 0)) > 0) written += static_cast<size_t>(n);
  EXPECT_EQ(n, 0);
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, cap);
  w->read = w->write;
  sliding_window_v4_destroy(w);
  close(fds[0]);
  close(fds[1]);
}

class DeferredSink : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
    vtt_event_queue.clear();
    stop_signal_count = 0;
  }
  void TearDown() override {
    sink_defer_emptying = false;
    sink_flush(ctx);
    ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
    alarm(0);
  }
  size_t pending() const { return static_cast<size_t>(ctx.out_buffer->write - ctx.out_buffer->read); }
  my_avio_ctx ctx;
};

// One muxer call handing over a packet in AVIO-sized pieces: nothing leaves
// until the call has returned, then everything leaves, in order.
TEST_F(DeferredSink, PiecesOfOneMuxerCallLeaveTogether) {
  const std::string data = pattern(3 * 4096 + 1000);
  stdout_capture cap;
  sink_defer_emptying = true;
  for (size_t off = 0; off < data.size(); off += 4096) {
    const int n = static_cast<int>(std::min<size_t>(4096, data.size() - off));
    EXPECT_EQ(my_avio_write(&ctx, reinterpret_cast<const uint8_t*>(data.data() + off), n), n);
  }
  EXPECT_EQ(pending(), data.size()) << "written before the muxer call returned";
  sink_defer_emptying = false;
  sink_flush(ctx);
  EXPECT_EQ(pending(), 0u);
  EXPECT_TRUE(cap.take() == data);
}

// A large packet does not pile up: once sink_defer_limit bytes are pending,
// the write empties the window as an undeferred one would.
TEST_F(DeferredSink, LargePacketIsEmptiedOnTheWay) {
  const std::string data = pattern(sink_defer_limit + 4096);
  stdout_capture cap;
  sink_defer_emptying = true;
  size_t max_pending = 0;
  for (size_t off = 0; off < data.size(); off += 4096) {
    ASSERT_EQ(my_avio_write(&ctx, reinterpret_cast<const uint8_t*>(data.data() + off), 4096), 4096);
    max_pending = std::max(max_pending, pending());
  }
  EXPECT_LT(max_pending, sink_defer_limit + 4096);
  sink_defer_emptying = false;
  sink_flush(ctx);
  EXPECT_TRUE(cap.take() == data);
}

// Without deferred writes a flush makes no attempt: bytes the muxer did not
// write in this call (here, output held back) stay where they are.
TEST_F(DeferredSink, FlushWithoutDeferredWritesTouchesNothing) {
  const std::string data = pattern(500);
  stdout_capture cap;
  sink_output_held = true;
  EXPECT_EQ(my_avio_write(&ctx, reinterpret_cast<const uint8_t*>(data.data()), 500), 500);
  sink_output_held = false;
  sink_flush(ctx);
  EXPECT_EQ(pending(), 500u);
  sink_release_output(ctx);
  EXPECT_TRUE(cap.take() == data);
}

}  // namespace
