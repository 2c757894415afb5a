#include "tolm_utils/sliding_window.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// How long one emptying waits for the descriptor to take anything.
constexpr int empty_wait_ms = 10;
// A pipe that reports itself writable has at least one free page.
constexpr size_t pipe_page = 4096;
// What a file, terminal or other device is handed in one write.
constexpr size_t device_chunk = 65536;

size_t pending(const sliding_window_v4* w) { return static_cast<size_t>(w->write - w->read); }

// How much of `want` bytes `fd` takes without blocking, once poll() has
// reported it writable. Pipes and sockets in blocking mode would otherwise
// hold the caller until the reader has taken everything.
size_t writable_now(int fd, size_t want, bool& use_send) {
  use_send = false;
  const int fl = fcntl(fd, F_GETFL);
  if (fl >= 0 && (fl & O_NONBLOCK)) return want;
  struct stat st;
  if (fstat(fd, &st) != 0) return want < pipe_page ? want : pipe_page;
  if (S_ISSOCK(st.st_mode)) {
    use_send = true;  // MSG_DONTWAIT makes this one call non-blocking
    return want;
  }
  if (S_ISFIFO(st.st_mode)) {
    if (want <= pipe_page) return want;
    const int capacity = fcntl(fd, F_GETPIPE_SZ);
    int queued = 0;
    if (capacity <= 0 || ioctl(fd, FIONREAD, &queued) != 0) return pipe_page;
    // Pages partly read or partly written may each hold a slot: keep one
    // page in reserve.
    long free_pages = (static_cast<long>(capacity) - queued) / static_cast<long>(pipe_page) - 1;
    if (free_pages < 1) free_pages = 1;
    const size_t room = static_cast<size_t>(free_pages) * pipe_page;
    return want < room ? want : room;
  }
  return want < device_chunk ? want : device_chunk;
}

// One write that never waits, whatever the descriptor's blocking mode: a pipe
// or socket takes what fits now, or reports EAGAIN when it is full. Returns the
// count written or -errno; -EOPNOTSUPP where the descriptor (a regular file, a
// terminal) or the kernel has no such write.
long write_without_waiting(int fd, const unsigned char* p, size_t n) {
#ifdef RWF_NOWAIT
  iovec v{const_cast<unsigned char*>(p), n};
  const ssize_t done = pwritev2(fd, &v, 1, -1, RWF_NOWAIT);
  return done >= 0 ? static_cast<long>(done) : -errno;
#else
  return -EOPNOTSUPP;
#endif
}

int64_t monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

sliding_window_v4* sliding_window_v4_create_buffer(unsigned long capacity) {
  if (capacity == 0 || capacity > SIZE_MAX - sizeof(sliding_window_v4)) return nullptr;
  void* mem = malloc(sizeof(sliding_window_v4) + capacity);
  if (!mem) return nullptr;
  auto* w = new (mem) sliding_window_v4;
  w->begin = reinterpret_cast<unsigned char*>(w + 1);
  w->read = w->begin;
  w->write = w->begin;
  w->end = w->begin + capacity;
  w->last_fd = -1;
  w->waiting_write_fd = -1;
  return w;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* w) {
  if (!w) return nullptr;
  // The end of the stream (the trailer among it) still belongs to the client,
  // but a client that stopped reading must not hold a finished run.
  if (w->last_fd >= 0 && sliding_window_v4_is_sane(w)) {
    int64_t idle_since = monotonic_ms();
    while (pending(w) > 0) {
      const long n = sliding_window_v4_empty_to_fd(w, w->last_fd, 0);
      if (n < 0) break;
      if (n > 0) {
        idle_since = monotonic_ms();
      } else if (monotonic_ms() - idle_since >= 1000) {
        break;
      }
    }
  }
  w->~sliding_window_v4();
  free(w);
  return nullptr;
}

void sliding_window_v4_lazy_flush(sliding_window_v4* w) {
  if (!w) return;
  if (w->read == w->write) {
    w->read = w->write = w->begin;
    return;
  }
  const size_t storage = static_cast<size_t>(w->end - w->begin);
  if (static_cast<size_t>(w->read - w->begin) > storage / 2) {
    const size_t n = pending(w);
    memmove(w->begin, w->read, n);
    w->read = w->begin;
    w->write = w->begin + n;
  }
}

int sliding_window_v4_is_sane(const sliding_window_v4* w) {
  if (!w) return 0;
  return w->begin <= w->read && w->read <= w->write && w->write <= w->end &&
         w->begin == reinterpret_cast<const unsigned char*>(w + 1);
}

long sliding_window_v4_empty_to_fd(sliding_window_v4* w, int fd, unsigned long flags) {
  if (!w || flags != 0) return -EINVAL;
  w->last_fd = fd;
  const size_t want = pending(w);
  if (want == 0) return 0;
  // The common case, a pipe or socket with room, in one system call. When it
  // is full, or refuses such a write, the wait and the size are worked out
  // below.
  if (fd != w->waiting_write_fd) {
    const long done = write_without_waiting(fd, w->read, want);
    if (done >= 0) {
      w->read += done;
      return done;
    }
    if (done == -EOPNOTSUPP || done == -ENOSYS || done == -EINVAL) w->waiting_write_fd = fd;
    else if (done == -EINTR) return 0;
    else if (done != -EAGAIN && done != -EWOULDBLOCK) return done;
  }
  pollfd p{fd, POLLOUT, 0};
  const int ready = poll(&p, 1, empty_wait_ms);
  if (ready < 0) return errno == EINTR ? 0 : -errno;
  if (ready == 0) return 0;
  if (p.revents & POLLNVAL) return -EBADF;
  // POLLERR/POLLHUP: the write below reports what went wrong (a reader that
  // has gone raises SIGPIPE, or EPIPE where that signal is ignored).
  bool use_send = false;
  const size_t n = writable_now(fd, want, use_send);
  const ssize_t done = use_send ? send(fd, w->read, n, MSG_DONTWAIT) : write(fd, w->read, n);
  if (done < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    return -errno;
  }
  w->read += done;
  return static_cast<long>(done);
}
