#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tolm_utils/sliding_window.h"

namespace {

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

void put(sliding_window_v4* w, const std::string& s) {
  ASSERT_LE(s.size(), static_cast<size_t>(w->end - w->write));
  memcpy(w->write, s.data(), s.size());
  w->write += s.size();
}

std::string pending(const sliding_window_v4* w) {
  return std::string(reinterpret_cast<const char*>(w->read), static_cast<size_t>(w->write - w->read));
}

struct pipe_pair {
  int r = -1, w = -1;
  pipe_pair() {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    r = fds[0], w = fds[1];
  }
  ~pipe_pair() {
    if (r >= 0) close(r);
    if (w >= 0) close(w);
  }
  std::string drain() {
    std::string out;
    fcntl(r, F_SETFL, O_NONBLOCK);
    char buf[65536];
    ssize_t n;
    while ((n = read(r, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
  }
};

TEST(SlidingWindow, CreateDestroyAndSanity) {
  EXPECT_EQ(sliding_window_v4_destroy(nullptr), nullptr);
  EXPECT_EQ(sliding_window_v4_create_buffer(0), nullptr);
  sliding_window_v4* w = sliding_window_v4_create_buffer(16);
  ASSERT_NE(w, nullptr);
  EXPECT_TRUE(w->end - w->begin == 16 && w->read == w->begin && w->write == w->begin);
  EXPECT_TRUE(sliding_window_v4_is_sane(w));
  w->read = w->write + 1;
  EXPECT_FALSE(sliding_window_v4_is_sane(w)) << "read past write";
  w->read = w->begin;
  w->write = w->end + 1;
  EXPECT_FALSE(sliding_window_v4_is_sane(w)) << "write past the end";
  w->write = w->begin;
  EXPECT_EQ(sliding_window_v4_destroy(w), nullptr);
}

// Room is reclaimed without losing or reordering pending bytes. Long random runs of
// copying, emptying and reclaiming are fuzzed (fuzz/targets/sliding_window.cpp).
TEST(SlidingWindow, LazyFlush) {
  const struct {
    const char* name;
    size_t consumed;   // bytes taken from the front before the flush
    bool moved_to_start;
  } cases[] = {
      {"all emptied rewinds", 10, true},
      {"front before the middle stays", 4, false},
      {"front past the middle moves", 9, true},
  };
  for (const auto& c : cases) {
    sliding_window_v4* w = sliding_window_v4_create_buffer(16);
    put(w, "0123456789");
    w->read += c.consumed;
    const std::string before = pending(w);
    sliding_window_v4_lazy_flush(w);
    EXPECT_EQ(pending(w), before) << c.name;
    EXPECT_EQ(w->read == w->begin, c.moved_to_start) << c.name;
    EXPECT_TRUE(sliding_window_v4_is_sane(w)) << c.name;
    sliding_window_v4_destroy(w);
  }
}

TEST(SlidingWindow, ErrorsAndNothingPending) {
  sliding_window_v4* w = sliding_window_v4_create_buffer(16);
  EXPECT_EQ(sliding_window_v4_empty_to_fd(w, 1, 0), 0) << "nothing pending";
  put(w, "abc");
  EXPECT_LT(sliding_window_v4_empty_to_fd(w, 1, 1), 0) << "unknown flags";
  EXPECT_LT(sliding_window_v4_empty_to_fd(w, 12345, 0), 0) << "closed descriptor";
  EXPECT_EQ(pending(w), "abc");
  sliding_window_v4_destroy(w);
}

// A reader that has stopped must not hold the writer: a full blocking pipe
// gives 0 after a short wait instead of blocking.
TEST(SlidingWindow, FullBlockingPipeDoesNotBlock) {
  pipe_pair p;
  const size_t cap = 1 << 20;
  sliding_window_v4* w = sliding_window_v4_create_buffer(cap);
  put(w, std::string(cap, 'x'));
  size_t written = 0;
  long n;
  while ((n = sliding_window_v4_empty_to_fd(w, p.w, 0)) > 0) written += static_cast<size_t>(n);
  EXPECT_EQ(n, 0);
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, cap) << "the pipe cannot hold a whole MiB";
  const double t0 = now_s();
  EXPECT_EQ(sliding_window_v4_empty_to_fd(w, p.w, 0), 0);
  EXPECT_LT(now_s() - t0, 0.5);
  // Once the reader takes some, emptying goes on where it stopped.
  const std::string first = p.drain();
  EXPECT_EQ(first.size(), written);
  EXPECT_GT(sliding_window_v4_empty_to_fd(w, p.w, 0), 0);
  w->read = w->write;  // nothing left for destroy to wait on
  sliding_window_v4_destroy(w);
}

TEST(SlidingWindow, DestroyWritesOutWhatIsPending) {
  pipe_pair p;
  sliding_window_v4* w = sliding_window_v4_create_buffer(64);
  put(w, "head");
  ASSERT_EQ(sliding_window_v4_empty_to_fd(w, p.w, 0), 4);
  put(w, "trailer");
  EXPECT_EQ(sliding_window_v4_destroy(w), nullptr);
  EXPECT_EQ(p.drain(), "headtrailer");
}

TEST(SlidingWindow, DestroyGivesUpOnAReaderThatStopped) {
  pipe_pair p;
  const size_t cap = 1 << 20;
  sliding_window_v4* w = sliding_window_v4_create_buffer(cap);
  put(w, std::string(cap, 'y'));
  sliding_window_v4_empty_to_fd(w, p.w, 0);
  const double t0 = now_s();
  sliding_window_v4_destroy(w);
  const double took = now_s() - t0;
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 3.0);
}

TEST(SlidingWindow, DestroyStopsAtAReaderThatHasGone) {
  signal(SIGPIPE, SIG_IGN);
  pipe_pair p;
  sliding_window_v4* w = sliding_window_v4_create_buffer(64);
  put(w, "abc");
  ASSERT_EQ(sliding_window_v4_empty_to_fd(w, p.w, 0), 3);
  close(p.r);
  p.r = -1;
  put(w, "def");
  EXPECT_LT(sliding_window_v4_empty_to_fd(w, p.w, 0), 0);
  const double t0 = now_s();
  sliding_window_v4_destroy(w);
  EXPECT_LT(now_s() - t0, 0.5);
  signal(SIGPIPE, SIG_DFL);
}

}  // namespace
