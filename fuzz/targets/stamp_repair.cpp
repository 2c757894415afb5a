// The per-packet time-stamp repair under arbitrary stamps: for each stream the
// dts written strictly increase, a moved packet keeps its pts-dts distance, a
// packet without pts keeps none, synthetic audio stamps have pts = dts, and no
// arithmetic overflows (the sanitizers end the run on any).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

extern "C" {
#include <libavutil/avutil.h>
}

#include "fuzz/fuzz_support.h"
#include "v2/relay_rules.h"

namespace {

// Mostly stamps near the edges of the range and near each other, some missing.
int64_t pick_stamp(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: return AV_NOPTS_VALUE;
    case 1: return in.ConsumeIntegral<int64_t>();
    case 2: return INT64_MAX - in.ConsumeIntegral<uint16_t>();
    default: return in.ConsumeIntegral<int16_t>();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool audio = in.ConsumeBool();
  stamp_state st;
  bool any_written = false;
  int64_t last = 0;
  while (in.remaining_bytes() > 0) {
    const int64_t pts_in = pick_stamp(in), dts_in = pick_stamp(in);
    const bool key = in.ConsumeBool();
    int64_t pts = pts_in, dts = dts_in;
    if (!(audio ? repair_audio_stamps(st, pts, dts, key) : repair_video_stamps(st, pts, dts, key))) continue;
    if (dts == AV_NOPTS_VALUE) {  // video without dts passes as it came
      FUZZ_CHECK(!audio && pts == pts_in);
      continue;
    }
    FUZZ_CHECK(!any_written || dts > last);
    if (dts_in == AV_NOPTS_VALUE)
      FUZZ_CHECK(audio && pts == dts);
    else if (pts_in == AV_NOPTS_VALUE)
      FUZZ_CHECK(pts == AV_NOPTS_VALUE);
    else
      FUZZ_CHECK(static_cast<__int128>(pts) - dts == static_cast<__int128>(pts_in) - dts_in);
    any_written = true;
    last = dts;
  }
  return 0;
}
