// WebVTTTo608 and WebVTTTo708 over runs of cues built from the input, each
// converted on its own as caption ingestion does it, with both conversion
// contexts carried from cue to cue, with the relay's arguments (milliseconds,
// pop-on, channel/service 1, 29.97 fps).
//
// Checked: every CEA-608 byte carries odd parity; every CEA-708 word is a
// DTVCC packet start (0xFF) or packet data (0xFE) triplet; keys stay far
// inside 64 bits; one cue never makes a runaway amount of data.
#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/captions/captions.h"

namespace {

// Mostly in order, as a live source sends them; sometimes anywhere, the extremes included.
int64_t cue_time(FuzzedDataProvider& in, int64_t last) {
  if (in.ConsumeBool()) return in.ConsumeIntegral<int64_t>();
  return static_cast<int64_t>(static_cast<uint64_t>(last) + static_cast<uint64_t>(in.ConsumeIntegralInRange<int64_t>(-2000, 20000)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  WebVTTConvContext_v1 ctx608 = webvtt_conv_context_start(), ctx708 = webvtt_conv_context_start();
  int64_t start = 0;
  for (int i = in.ConsumeIntegralInRange<int>(1, 8); i > 0 && in.remaining_bytes() > 0; --i) {
    WebVTTFileEvent_v1 cue;
    start = cue_time(in, start);
    cue.start = std::chrono::milliseconds(start);
    cue.end = std::chrono::milliseconds(cue_time(in, start));
    cue.identifier = in.ConsumeRandomLengthString(64);
    CueSettingsStringToVTTFileEvent(cue, in.ConsumeRandomLengthString(128));
    cue.text = in.ConsumeRandomLengthString(4096);
    const vtt_cue_map one_cue = {{cue.start, cue}};
    cc608_map cc608;
    cc708_map cc708;
    WebVTTTo608(cc608, {1000, 1}, false, {}, one_cue.cbegin(), one_cue.cend(), 1, ctx608);
    WebVTTTo708(cc708, {1000, 1}, false, {}, one_cue.cbegin(), one_cue.cend(), 1, ctx708, {30000, 1001});
    // Keys below 2^62, odd parity in every 608 byte, 708 words of two types only, both bounded per cue.
    FUZZ_CHECK(cc608.size() <= 1 << 14 && (cc608.empty() || cc608.rbegin()->first < uint64_t(1) << 62));
    for (const auto& [key, pair] : cc608) FUZZ_CHECK(std::popcount(pair.b[0]) % 2 == 1 && std::popcount(pair.b[1]) % 2 == 1);
    size_t words = 0;
    for (const auto& [key, list] : cc708) {
      for (const q7ro_cea708_word& w : list) FUZZ_CHECK(key < uint64_t(1) << 62 && (w.type == 0xFF || w.type == 0xFE));
      words += list.size();
    }
    FUZZ_CHECK(words <= 1 << 16);
  }
  return 0;
}
