#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/captions/caption_test_util.h"
#include "tests/unit/test_support.h"
#include "v2/captions/caption_event_format.h"
#include "v2/cc/caption_event_reader.h"

namespace {

// Built into an area of exactly its size followed by guard bytes, which must stay untouched.
bytes payload_of(const VPVTTEvent& ev, const caption_payload_keep& keep = caption_payload_keep()) {
  bytes buf(caption_payload_area_size + 4096, 0xA5);
  byte_writer w = make_byte_writer(buf.data(), caption_payload_area_size);
  const size_t n = write_caption_payload(w, ev, keep);
  EXPECT_TRUE(std::all_of(buf.begin() + caption_payload_area_size, buf.end(), [](auto c) { return c == 0xA5; }));
  return bytes(buf.begin(), buf.begin() + static_cast<long>(n));
}

// 50 bytes besides the text: 32 fixed, two 608 entries (EOC, EDM), one DTVCC packet of two words.
// An oversize event loses whole maps, 708 first, before its text; entry times read back exact,
// for a cue that starts before 0 too.
TEST(CaptionEncode, CutsAndEntryTimes) {
  auto event = [](int64_t start, size_t text, std::vector<uint64_t> keys = {0, 2074}) {
    VPVTTEvent ev = make_event(start, start + 4000, std::string(text, 'x'));
    for (uint64_t k : keys) ev.cc608[k] = eia608_pair{{0x94, 0x2C}};
    ev.cc708 = {{33, {q7ro_cea708_word{0xFF, 0x0102}, q7ro_cea708_word{0xFE, 0x0304}}}};
    return ev;
  };
  // The times of 608 pairs, then 708 words, as read back; the payload length, text length and message.
  const struct { const char* name; VPVTTEvent ev; std::vector<int64_t> times; size_t length, text; const char* message; } cases[] = {
      {"cue before 0", event(-1926, 5), {0, 2074, 33, 33}, 55, 5, ""},
      {"steps over 65,535 ms spill into the next entries", event(0, 0, {0, 140000, 140100, 140200}), {0, 65535, 131070, 140200, 33, 33}, 58, 0, ""},
      {"exactly at the limit: nothing cut", event(1000, caption_payload_max - 50), {0, 2074, 33, 33}, 15995, caption_payload_max - 50, ""},
      {"1 byte over: all 708 words go, 608 whole", event(1000, caption_payload_max - 49), {0, 2074}, 15986,
       caption_payload_max - 49, "VTT event cut to 15986 bytes\n"},
      {"both maps go before the text is cut", event(1000, caption_payload_max - 31), {}, 15995, 15963,
       "VTT event cut to 15995 bytes\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    stderr_capture err;
    const bytes packets = encode(c.ev);
    ASSERT_EQ(std::make_pair(err.take(), packets.size()), std::make_pair(std::string(c.message), caption_packet_count(c.length) * 188));
    EXPECT_EQ(packets[15] | (packets[16] << 8), static_cast<int>(c.length));
    bool cut = false;
    const bytes p = payload_of(c.ev, plan_caption_payload(measure_caption_payload(c.ev), caption_payload_max, cut));
    caption_event_record back;
    std::string problem;
    ASSERT_TRUE(read_caption_payload(p.data(), p.size(), back, problem)) << problem;
    std::vector<int64_t> times;
    for (const caption_pair_at& pair : back.cc608) times.push_back(pair.time_ms);
    for (const caption_word_at& word : back.cc708) times.push_back(word.time_ms);
    EXPECT_EQ(std::make_pair(times, back.text.size()), std::make_pair(c.times, c.text));
  }
}

}  // namespace
