// The per-packet time-stamp repair of video (dts made strictly increasing),
// over a stream with B-frames, a key frame a second and a few repeated dts.
#include <benchmark/benchmark.h>

#include <vector>

#include "v2/relay_rules.h"

namespace {

struct stamped {
  int64_t pts, dts;
  bool key;
};

std::vector<stamped> video_stream(size_t n) {
  std::vector<stamped> v(n);
  for (size_t i = 0; i < n; ++i) {
    const int64_t dts = 90000 + static_cast<int64_t>(i) * 40 - (i % 97 == 5 ? 40 : 0);  // 1/1000, 25 fps
    v[i] = {dts + (i % 3 == 0 ? 80 : 40), dts, i % 25 == 0};
  }
  return v;
}

void BM_repair_video_stamps(benchmark::State& state) {
  const std::vector<stamped> in = video_stream(4096);
  for (auto _ : state) {
    stamp_state st;
    for (const stamped& p : in) {
      int64_t pts = p.pts, dts = p.dts;
      benchmark::DoNotOptimize(repair_video_stamps(st, pts, dts, p.key));
      benchmark::DoNotOptimize(dts);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_repair_video_stamps);

}  // namespace
