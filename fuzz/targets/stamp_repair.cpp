// The per-packet time-stamp repair under arbitrary stamps: for each stream the
// dts written strictly increase, a moved packet keeps its pts-dts distance, a
// packet without pts keeps none, synthetic audio stamps have pts = dts, and no
// arithmetic overflows (the sanitizers end the run on any).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <optional>

extern "C" {
#include <libavutil/avutil.h>
}

#include "fuzz/fuzz_support.h"
#include "v2/relay_rules.h"

namespace {

// Mostly stamps near the edges of the range and near each other, some missing.
// Missing, anywhere, near the largest, or near 0.
int64_t pick_stamp(FuzzedDataProvider& in) {
  const int64_t kind = in.ConsumeIntegralInRange<int>(0, 3), v = in.ConsumeIntegral<int64_t>();
  return kind == 0 ? AV_NOPTS_VALUE : kind == 1 ? v : kind == 2 ? INT64_MAX - uint16_t(v) : int16_t(v);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool audio = in.ConsumeBool();
  stamp_state st;
  std::optional<int64_t> last;
  while (in.remaining_bytes() > 0) {
    const int64_t pts_in = pick_stamp(in), dts_in = pick_stamp(in);
    const bool key = in.ConsumeBool();
    int64_t pts = pts_in, dts = dts_in;
    if (!(audio ? repair_audio_stamps(st, pts, dts, key) : repair_video_stamps(st, pts, dts, key))) continue;
    if (dts == AV_NOPTS_VALUE) {  // video without dts passes as it came
      FUZZ_CHECK(!audio && pts == pts_in);
      continue;
    }
    FUZZ_CHECK(!last || dts > *last);
    // Synthetic audio stamps are equal; a missing pts stays missing; else pts - dts is kept.
    FUZZ_CHECK(dts_in == AV_NOPTS_VALUE ? audio && pts == dts
               : pts_in == AV_NOPTS_VALUE ? pts == AV_NOPTS_VALUE
                                          : static_cast<__int128>(pts) - dts == static_cast<__int128>(pts_in) - dts_in);
    last = dts;
  }
  return 0;
}
