// vtt_event_ts_encode over events built from the input, oversize ones
// included: identifiers and texts up to 40,000 bytes, thousands of settings,
// CEA-608 entries and CEA-708 words (all in one key, too).
//
// Checked: whole 188-byte packets on PID 0x1FFE within the packet area, the
// continuity counter moving on by one per packet, and the event read back by
// the pelvane-cc reader without a problem. When nothing had to be cut, the
// event reads back exactly: times, texts, settings, every pair and word at
// its own time.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <bit>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "v2/captions/caption_event_format.h"
#include "v2/captions/caption_event_reader.h"

namespace {

std::string upto_nul(const std::string& s) { return s.substr(0, s.find('\0')); }

// A text of `n` bytes repeating a short pattern taken from the input.
std::string long_text(FuzzedDataProvider& in, size_t max) {
  std::string pattern = in.ConsumeRandomLengthString(16);
  if (pattern.empty()) pattern = "x";
  const size_t n = in.ConsumeIntegralInRange<size_t>(0, max);
  std::string s;
  s.reserve(n);
  while (s.size() < n) s += pattern;
  s.resize(n);
  return s;
}

std::string some_text(FuzzedDataProvider& in, size_t small, size_t large) {
  return in.ConsumeIntegralInRange<int>(0, 3) == 0 ? long_text(in, large)
                                                   : in.ConsumeRandomLengthString(small);
}

uint8_t with_odd_parity(uint8_t b) {
  b &= 0x7F;
  return std::popcount(b) % 2 ? b : static_cast<uint8_t>(b | 0x80);
}

// The next key: mostly a short step on, sometimes a long one or anywhere.
uint64_t next_key(FuzzedDataProvider& in, uint64_t key) {
  switch (in.ConsumeIntegralInRange<int>(0, 9)) {
    case 0:
      return key + in.ConsumeIntegralInRange<uint64_t>(60000, 200000);
    case 1:
      return in.ConsumeIntegral<uint64_t>();
    default:
      return key + in.ConsumeIntegralInRange<uint64_t>(0, 100);
  }
}

VPVTTEvent build_event(FuzzedDataProvider& in) {
  VPVTTEvent ev;
  const int64_t start = in.ConsumeBool() ? in.ConsumeIntegralInRange<int64_t>(0, int64_t(1) << 40)
                                         : in.ConsumeIntegral<int64_t>();
  ev.start = std::chrono::milliseconds(start);
  ev.end = std::chrono::milliseconds(in.ConsumeIntegral<int64_t>());
  ev.identifier = some_text(in, 64, 40000);
  ev.text = some_text(in, 256, 40000);
  const size_t settings = in.ConsumeIntegralInRange<int>(0, 3) == 0
                              ? in.ConsumeIntegralInRange<size_t>(0, 4000)
                              : in.ConsumeIntegralInRange<size_t>(0, 4);
  const std::string name = in.ConsumeRandomLengthString(12);
  const std::string value = in.ConsumeRandomLengthString(12);
  for (size_t i = 0; i < settings; ++i) ev.settings[name + std::to_string(i)] = value;

  uint64_t key = static_cast<uint64_t>(start) - in.ConsumeIntegralInRange<uint64_t>(0, 70000);
  const size_t pairs = in.ConsumeBool() ? in.ConsumeIntegralInRange<size_t>(0, 12000)
                                        : in.ConsumeIntegralInRange<size_t>(0, 16);
  for (size_t i = 0; i < pairs && in.remaining_bytes() > 0; ++i) {
    key = next_key(in, key);
    ev.cc608[key] = eia608_pair{
        {with_odd_parity(in.ConsumeIntegral<uint8_t>()), with_odd_parity(in.ConsumeIntegral<uint8_t>())}};
  }
  key = static_cast<uint64_t>(start) - in.ConsumeIntegralInRange<uint64_t>(0, 70000);
  const size_t keys = in.ConsumeIntegralInRange<size_t>(0, 64);
  for (size_t i = 0; i < keys && in.remaining_bytes() > 0; ++i) {
    key = next_key(in, key);
    const size_t words = in.ConsumeIntegralInRange<int>(0, 7) == 0
                             ? in.ConsumeIntegralInRange<size_t>(0, 12000)
                             : in.ConsumeIntegralInRange<size_t>(0, 12);
    std::vector<q7ro_cea708_word>& list = ev.cc708[key];
    for (size_t w = 0; w < words; ++w)
      list.push_back(q7ro_cea708_word{static_cast<uint8_t>(in.ConsumeBool() ? 0xFF : 0xFE),
                                      static_cast<uint16_t>(w * 2654435761u)});
  }
  return ev;
}

std::string settings_text(const std::map<std::string, std::string>& settings) {
  std::string s;
  for (const auto& [name, value] : settings) {
    if (!s.empty()) s += ' ';
    s += upto_nul(name) + ':' + upto_nul(value);
  }
  return s;
}

// Times read back equal the keys when no lead or step had to be clamped. The
// lead comes from the first key (a CEA-708 key may hold no words); the steps
// run over the keys that have entries. Keys and start compare as signed.
bool times_exact(int64_t start, uint64_t first_key, const std::vector<uint64_t>& entry_keys) {
  int64_t running = std::min(static_cast<int64_t>(first_key), start);
  if (static_cast<uint64_t>(start) - static_cast<uint64_t>(running) > 65535) return false;
  for (uint64_t key : entry_keys) {
    const int64_t k = static_cast<int64_t>(key);
    if (k < running || static_cast<uint64_t>(k) - static_cast<uint64_t>(running) > 65535) return false;
    running = k;
  }
  return true;
}

void check_exact(const VPVTTEvent& ev, const caption_event_record& got) {
  FUZZ_CHECK(got.identifier == upto_nul(ev.identifier));
  FUZZ_CHECK(got.text == upto_nul(ev.text));
  FUZZ_CHECK(got.settings == settings_text(ev.settings));
  FUZZ_CHECK(got.cc608.size() == ev.cc608.size());
  std::vector<uint64_t> keys608;
  for (const auto& entry : ev.cc608) keys608.push_back(entry.first);
  const bool exact608 = ev.cc608.empty() || times_exact(ev.start.count(), ev.cc608.begin()->first, keys608);
  size_t i = 0;
  for (const auto& [key, pair] : ev.cc608) {
    const caption_pair_at& p = got.cc608[i++];
    FUZZ_CHECK(p.b0 == pair.b[0] && p.b1 == pair.b[1]);
    if (exact608) FUZZ_CHECK(static_cast<uint64_t>(p.time_ms) == key);
  }
  size_t words = 0;
  for (const auto& entry : ev.cc708) words += entry.second.size();
  FUZZ_CHECK(got.cc708.size() == words);
  std::vector<uint64_t> keys708;
  for (const auto& [key, list] : ev.cc708) keys708.insert(keys708.end(), list.size(), key);
  const bool exact708 = ev.cc708.empty() || times_exact(ev.start.count(), ev.cc708.begin()->first, keys708);
  i = 0;
  for (const auto& [key, list] : ev.cc708) {
    for (const q7ro_cea708_word& w : list) {
      const caption_word_at& g = got.cc708[i++];
      FUZZ_CHECK(g.type == w.type && g.value == w.value);
      if (exact708) FUZZ_CHECK(static_cast<uint64_t>(g.time_ms) == key);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_quiet_stderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  vtt_ts_continuity = in.ConsumeIntegral<uint32_t>();
  const VPVTTEvent ev = build_event(in);

  const uint32_t continuity_before = vtt_ts_continuity;
  size_t n = 1;  // set to 0 first by the encoder
  const unsigned char* p = vtt_event_ts_encode(ev, n);
  FUZZ_CHECK(p != nullptr);
  FUZZ_CHECK(n >= ts_packet_size && n % ts_packet_size == 0 && n <= caption_packet_area_size);
  const size_t packets = n / ts_packet_size;
  FUZZ_CHECK(vtt_ts_continuity - continuity_before == packets);

  caption_stream_reader reader;
  caption_read_output out;
  for (size_t k = 0; k < packets; ++k) {
    const unsigned char* pkt = p + k * ts_packet_size;
    FUZZ_CHECK(pkt[0] == 0x47 && (pkt[1] & 0x1F) == 0x1F && pkt[2] == 0xFE);
    FUZZ_CHECK(((pkt[1] & 0x40) != 0) == (k == 0));
    FUZZ_CHECK((pkt[3] & 0x0F) == ((continuity_before + k) & 0x0F));
    caption_reader_take(reader, pkt, out);
  }
  caption_reader_finish(reader, out);
  if (!out.problems.empty()) fuzz_fail(__FILE__, __LINE__, out.problems.front().c_str());
  FUZZ_CHECK(out.events.size() == 1);
  const caption_event_record& got = out.events.front();
  FUZZ_CHECK(got.start == ev.start.count() && got.end == ev.end.count());
  FUZZ_CHECK(upto_nul(ev.identifier).compare(0, got.identifier.size(), got.identifier) == 0);
  FUZZ_CHECK(upto_nul(ev.text).compare(0, got.text.size(), got.text) == 0);

  const size_t full = caption_payload_length(measure_caption_payload(ev));
  if (full <= caption_payload_max) check_exact(ev, got);
  return 0;
}
