// The output sink's hot path: the splice test on every muxer write, and one
// muxer write through my_avio_write (copy into the window, emptying to
// descriptor 1) with descriptor 1 on /dev/null or on a pipe that a thread
// drains.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <thread>
#include <vector>

#include "v2/captions/captions.h"
#include "v2/settings.h"
#include "v2/sink/sink.h"

namespace {

std::vector<uint8_t> ts_packets(size_t count) {
  std::vector<uint8_t> v(count * 188, 0xAB);
  for (size_t i = 0; i < count; ++i) v[i * 188] = 0x47;
  return v;
}

// Whole-packet writes of 1, 7, 21 and 348 packets, and the full 4096-byte AVIO
// buffer, which the length check rejects at once.
void BM_is_whole_ts_packets(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf = ts_packets((n + 187) / 188);
  for (auto _ : state) benchmark::DoNotOptimize(is_whole_ts_packets(buf.data(), n));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}
BENCHMARK(BM_is_whole_ts_packets)->Arg(188)->Arg(1316)->Arg(3948)->Arg(4096)->Arg(65424);

// Descriptor 1 redirected for the time of one benchmark; what the benchmark
// library prints in between is flushed first.
struct stdout_redirect {
  int saved = -1;
  explicit stdout_redirect(int fd) {
    fflush(stdout);
    saved = dup(1);
    dup2(fd, 1);
  }
  ~stdout_redirect() {
    dup2(saved, 1);
    close(saved);
  }
};

// One muxer write of `n` bytes, as the relay makes them, per iteration.
void run_sink_writes(benchmark::State& state, int out_fd) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf = ts_packets((n + 187) / 188);
  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
  vtt_event_queue.clear();
  stop_signal_count = 0;
  {
    stdout_redirect redirect(out_fd);
    for (auto _ : state) benchmark::DoNotOptimize(my_avio_write(&ctx, buf.data(), static_cast<int>(n)));
    while (ctx.out_buffer->read != ctx.out_buffer->write)
      if (sliding_window_v4_empty_to_fd(ctx.out_buffer, 1, 0) < 0) break;
    ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  }
  alarm(0);  // the sink re-arms the watchdog on every call
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void BM_sink_write_devnull(benchmark::State& state) {
  const int fd = open("/dev/null", O_WRONLY);
  run_sink_writes(state, fd);
  close(fd);
}
BENCHMARK(BM_sink_write_devnull)->Arg(376)->Arg(1316)->Arg(4096);

void BM_sink_write_pipe(benchmark::State& state) {
  int p[2];
  if (pipe(p) != 0) {
    state.SkipWithError("pipe failed");
    return;
  }
  std::thread reader([fd = p[0]] {
    std::vector<char> sink(1 << 20);
    while (read(fd, sink.data(), sink.size()) > 0) {
    }
  });
  run_sink_writes(state, p[1]);
  close(p[1]);
  reader.join();
  close(p[0]);
}
BENCHMARK(BM_sink_write_pipe)->Arg(376)->Arg(1316)->Arg(4096)->UseRealTime();

// One muxer call for a 20,000-byte video packet, handed over as the AVIO
// buffer does it (four 4096-byte writes and the rest), with descriptor 1 on
// /dev/null so that only the sink's own work and system calls are timed (into
// a pipe that a thread drains, the timing is mostly the two threads meeting on
// a full pipe). Argument 1 defers the emptying to the end of the call, as
// the relay loop does around each muxer call.
void BM_sink_packet(benchmark::State& state) {
  const bool deferred = state.range(0) != 0;
  const int devnull = open("/dev/null", O_WRONLY);
  std::vector<uint8_t> packet(20000, 0x5A);
  my_avio_ctx ctx;
  ctx.out_buffer = sliding_window_v4_create_buffer(sink_window_capacity);
  vtt_event_queue.clear();
  stop_signal_count = 0;
  {
    stdout_redirect redirect(devnull);
    for (auto _ : state) {
      std::optional<sink_muxer_call> one_call;
      if (deferred) one_call.emplace(ctx);
      for (size_t off = 0; off < packet.size(); off += 4096) {
        const int n = static_cast<int>(std::min<size_t>(4096, packet.size() - off));
        benchmark::DoNotOptimize(my_avio_write(&ctx, packet.data() + off, n));
      }
    }
    ctx.out_buffer = sliding_window_v4_destroy(ctx.out_buffer);
  }
  alarm(0);
  close(devnull);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(packet.size()));
}
BENCHMARK(BM_sink_packet)->ArgName("deferred")->Arg(0)->Arg(1);

}  // namespace
