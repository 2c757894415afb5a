// The output window under random sequences of the sink's operations: copy
// passes (my_avio_ctx::take_data), emptying to a descriptor, reclaiming room,
// a client reading some of what came out. The descriptor is a pipe or a
// stream socket, blocking or not.
//
// A model of the byte stream is kept beside the window: after every step the
// window must be sane, its pending bytes must be exactly the ones written in
// and not yet emptied, in order, and at the end the client must have read
// every byte once, in order.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/sink/sink.h"

namespace {

struct stream_model {
  std::vector<uint8_t> written;  // every byte taken into the window, in order
  size_t emptied = 0;            // how many of them the window handed to the descriptor
  std::vector<uint8_t> read;     // what the client read back
  uint8_t next = 0;              // source of the bytes written in
};

size_t pending(const sliding_window_v4* w) { return static_cast<size_t>(w->write - w->read); }

void client_reads(int fd, size_t want, stream_model& m) {
  uint8_t buf[65536];
  while (want > 0) {
    const ssize_t n = read(fd, buf, want < sizeof buf ? want : sizeof buf);
    if (n <= 0) return;
    m.read.insert(m.read.end(), buf, buf + n);
    want -= static_cast<size_t>(n);
  }
}

void empty_once(sliding_window_v4* w, int fd, stream_model& m) {
  const size_t before = pending(w);
  const long n = sliding_window_v4_empty_to_fd(w, fd, 0);
  FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) <= before);
  m.emptied += static_cast<size_t>(n);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_quiet_stderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  int fds[2];
  const bool use_socket = in.ConsumeBool();
  if (use_socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 : pipe(fds) != 0) return 0;
  const int client = fds[0], out = fds[1];
  fcntl(client, F_SETFL, O_NONBLOCK);
  if (in.ConsumeBool()) fcntl(out, F_SETFL, O_NONBLOCK);

  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(in.ConsumeIntegralInRange<unsigned long>(1, 1 << 17));
  FUZZ_CHECK(ctx.out_buffer != nullptr);
  sliding_window_v4* w = ctx.out_buffer;
  const size_t capacity = static_cast<size_t>(w->end - w->begin);
  stream_model m;

  std::vector<uint8_t> src;
  while (in.remaining_bytes() > 0) {
    switch (in.ConsumeIntegralInRange<int>(0, 2)) {
      case 0: {  // one copy pass of the sink
        src.resize(in.ConsumeIntegralInRange<size_t>(0, 3 * capacity));
        for (uint8_t& b : src) b = m.next++;
        sliding_window_v4_lazy_flush(w);
        const size_t room = static_cast<size_t>(w->end - w->write);
        static const uint8_t none = 0;  // the sink never hands a null source, even for 0 bytes
        const int n = ctx.take_data(src.empty() ? &none : src.data(), src.size());
        FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) == (src.size() < room ? src.size() : room));
        m.written.insert(m.written.end(), src.begin(), src.begin() + n);
        m.next = static_cast<uint8_t>(m.next - (src.size() - static_cast<size_t>(n)));
        break;
      }
      case 1:
        empty_once(w, out, m);
        break;
      case 2:
        client_reads(client, in.ConsumeIntegralInRange<size_t>(0, 1 << 18), m);
        break;
    }
    FUZZ_CHECK(sliding_window_v4_is_sane(w));
    FUZZ_CHECK(pending(w) == m.written.size() - m.emptied);
    FUZZ_CHECK(pending(w) == 0 || memcmp(w->read, m.written.data() + m.emptied, pending(w)) == 0);
  }

  // The client reads everything: the window empties and destroying it
  // writes nothing more.
  for (int rounds = 0; pending(w) > 0 && rounds < 10000; ++rounds) {
    empty_once(w, out, m);
    client_reads(client, 1 << 20, m);
  }
  FUZZ_CHECK(pending(w) == 0);
  ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  FUZZ_CHECK(ctx.out_buffer == nullptr);
  close(out);
  client_reads(client, SIZE_MAX, m);
  close(client);
  FUZZ_CHECK(m.read == m.written);
  return 0;
}
