// vtt_event_ts_encode over events built from the input, oversize ones
// included (identifiers and texts up to 40,000 bytes, thousands of settings,
// CEA-608 pairs and CEA-708 words).
//
// Checked: whole 188-byte PID 0x1FFE packets within the packet area, the
// event start flag on the first only, the continuity counter moving on by one
// per packet, and the event read back by pelvane-cc's reader without a
// problem; when nothing had to be cut, every text, setting, pair and word
// reads back as it went in.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/captions/caption_event_format.h"
#include "v2/cc/caption_event_reader.h"

namespace {

std::string upto_nul(const std::string& s) { return s.substr(0, s.find('\0')); }

std::string some_text(FuzzedDataProvider& in) {
  return in.ConsumeIntegralInRange<int>(0, 3) ? in.ConsumeRandomLengthString(256)
                                              : std::string(in.ConsumeIntegralInRange<size_t>(0, 40000), in.ConsumeIntegral<char>());
}

VPVTTEvent build_event(FuzzedDataProvider& in) {
  VPVTTEvent ev;
  ev.start = std::chrono::milliseconds(in.ConsumeIntegral<int64_t>()), ev.end = std::chrono::milliseconds(in.ConsumeIntegral<int64_t>());
  ev.identifier = some_text(in), ev.text = some_text(in);
  const size_t settings = in.ConsumeBool() ? in.ConsumeIntegralInRange<size_t>(0, 4000) : 2;
  const std::string name = in.ConsumeRandomLengthString(12), value = in.ConsumeRandomLengthString(12);
  for (size_t i = 0; i < settings; ++i) ev.settings[name + std::to_string(i)] = value;
  uint64_t key = in.ConsumeIntegral<uint32_t>();
  for (size_t i = in.ConsumeIntegralInRange<size_t>(0, 12000); i > 0 && in.remaining_bytes() > 0; --i) {
    key += in.ConsumeIntegralInRange<uint64_t>(0, 100000);
    // Pairs as transmitted carry parity bits, so never 00 00, the section's end mark.
    ev.cc608[key] = eia608_pair{{static_cast<uint8_t>(in.ConsumeIntegral<uint8_t>() | 0x80),
                                 static_cast<uint8_t>(in.ConsumeIntegral<uint8_t>() | 0x80)}};
  }
  for (size_t i = in.ConsumeIntegralInRange<size_t>(0, 64); i > 0 && in.remaining_bytes() > 0; --i) {
    key += in.ConsumeIntegralInRange<uint64_t>(0, 100000);
    std::vector<q7ro_cea708_word>& list = ev.cc708[key];
    for (size_t w = in.ConsumeIntegralInRange<size_t>(0, 12000); w > 0; --w)
      list.push_back({static_cast<uint8_t>(w % 3 ? 0xFE : 0xFF), static_cast<uint16_t>(w * 2654435761u)});
  }
  return ev;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  vtt_ts_continuity = in.ConsumeIntegral<uint32_t>();
  const VPVTTEvent ev = build_event(in);
  const uint32_t continuity_before = vtt_ts_continuity;
  size_t n = 1;
  const unsigned char* p = vtt_event_ts_encode(ev, n);
  FUZZ_CHECK(p != nullptr && n >= ts_packet_size && n % ts_packet_size == 0 && n <= caption_packet_area_size);
  FUZZ_CHECK(vtt_ts_continuity - continuity_before == n / ts_packet_size);
  caption_stream_reader reader;
  caption_read_output out;
  for (const unsigned char* pkt = p; pkt < p + n; pkt += ts_packet_size) {
    const size_t k = (pkt - p) / ts_packet_size;  // PID 0x1FFE, start flag on the first, counter moving on by one
    FUZZ_CHECK(pkt[0] == 0x47 && (pkt[1] & 0x1F) == 0x1F && pkt[2] == 0xFE && ((pkt[1] & 0x40) != 0) == (k == 0) &&
               (pkt[3] & 0x0F) == ((continuity_before + k) & 0x0F));
    caption_reader_take(reader, pkt, out);
  }
  caption_reader_finish(reader, out);
  if (!out.problems.empty()) fuzz_fail(__FILE__, __LINE__, out.problems.front().c_str());
  FUZZ_CHECK(out.events.size() == 1);
  const caption_event_record& got = out.events.front();
  FUZZ_CHECK(got.start == ev.start.count() && got.end == ev.end.count());
  FUZZ_CHECK(upto_nul(ev.identifier).starts_with(got.identifier) && upto_nul(ev.text).starts_with(got.text));
  if (caption_payload_length(measure_caption_payload(ev)) > caption_payload_max) return 0;
  FUZZ_CHECK(got.identifier == upto_nul(ev.identifier) && got.text == upto_nul(ev.text));
  std::string settings;
  for (const auto& [name, value] : ev.settings) settings += (settings.empty() ? "" : " ") + upto_nul(name) + ':' + upto_nul(value);
  FUZZ_CHECK(got.settings == settings && got.cc608.size() == ev.cc608.size());
  size_t i = 0;
  for (const auto& [key, pair] : ev.cc608) FUZZ_CHECK(got.cc608[i].b0 == pair.b[0] && got.cc608[i++].b1 == pair.b[1]);
  i = 0;
  for (const auto& [key, list] : ev.cc708)
    for (const q7ro_cea708_word& w : list) FUZZ_CHECK(i < got.cc708.size() && got.cc708[i].type == w.type && got.cc708[i++].value == w.value);
  FUZZ_CHECK(i == got.cc708.size());
  return 0;
}
