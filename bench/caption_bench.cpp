// The caption event encoder: one event (a two-line cue with settings and a
// CEA-608 and CEA-708 conversion of typical size) to PID 0x1FFE packets.
#include <benchmark/benchmark.h>

#include "v2/captions/captions.h"

namespace {

VPVTTEvent typical_event() {
  VPVTTEvent ev;
  ev.start = std::chrono::milliseconds(754000);
  ev.end = std::chrono::milliseconds(757500);
  ev.identifier = "cue-1042";
  ev.settings = {{"align", "start"}, {"line", "90%"}, {"position", "10%"}};
  ev.text = "The harbour lights came on one by one,\nand nobody on the quay said a word.";
  // Pop-on CEA-608: control codes and two characters a frame, about 45 pairs.
  for (uint64_t i = 0; i < 45; ++i) ev.cc608[753500 + 33 * i] = eia608_pair{{0x94, 0x20}};
  // CEA-708: a service block split over about 25 frames of a few words each.
  for (uint64_t i = 0; i < 25; ++i)
    ev.cc708[753500 + 33 * i] = {{0xFF, 0x0321}, {0xFE, 0x4142}, {0xFE, 0x4344}, {0xFE, 0x4546}};
  return ev;
}

void BM_vtt_event_ts_encode(benchmark::State& state) {
  const VPVTTEvent ev = typical_event();
  size_t size = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(vtt_event_ts_encode(ev, size));
    benchmark::ClobberMemory();
  }
  state.counters["ts_bytes"] = static_cast<double>(size);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_vtt_event_ts_encode);

}  // namespace
