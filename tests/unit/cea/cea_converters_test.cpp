// The CEA-608 and CEA-708 converters: one cue byte for byte, and the rules
// that carry over from one cue to the next.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "tolm_utils/webvtt.h"

namespace {

using words_by_key = std::map<uint64_t, std::vector<std::string>>;

// One cue converted the way the relay does: a one-cue map, milliseconds,
// channel or service 1, 29.97 fps for CEA-708. Pairs as "9420", words as "FE 8CFF".
words_by_key convert(bool cea708, int64_t start, int64_t end, const char* text, WebVTTConvContext_v1& ctx) {
  WebVTTFileEvent_v1 c;
  c.start = std::chrono::milliseconds(start), c.end = std::chrono::milliseconds(end), c.text = text;
  const vtt_cue_map m = {{c.start, c}};
  words_by_key got;
  char buf[16];
  cc608_map out608;
  cc708_map out708;
  if (cea708) WebVTTTo708(out708, {1000, 1}, false, WebVTTFile_v1{}, m.begin(), m.end(), 1, ctx, {30000, 1001});
  else WebVTTTo608(out608, {1000, 1}, false, WebVTTFile_v1{}, m.begin(), m.end(), 1, ctx);
  for (const auto& [k, words] : out708)
    for (const q7ro_cea708_word& w : words) got[k].push_back((snprintf(buf, sizeof buf, "%02X %04X", w.type, w.value), buf));
  for (const auto& [k, p] : out608) got[k].push_back((snprintf(buf, sizeof buf, "%02X%02X", p.b[0], p.b[1]), buf));
  return got;
}

int64_t frame_of(uint64_t key) { return (static_cast<int64_t>(key) * 60 + 1001) / 2002; }

TEST(CeaConverters, WorkedExamplesByteForByte) {
  WebVTTConvContext_v1 c608 = webvtt_conv_context_start(), c708 = webvtt_conv_context_start();
  const words_by_key want608 = {
      {534, {"9420"}},  {567, {"9420"}},  {601, {"94AE"}},  {634, {"94AE"}},  {667, {"94F4"}},  {701, {"94F4"}},
      {734, {"97A2"}},  {767, {"97A2"}},  {801, {"C8E5"}},  {834, {"ECEC"}},  {868, {"EF2C"}},  {901, {"20F7"}},
      {934, {"EFF2"}},  {968, {"EC64"}},  {1001, {"942F"}}, {1034, {"942F"}}, {3003, {"942C"}}, {3036, {"942C"}}};
  const words_by_key want708 = {
      {934, {"FF 143F", "FE 8CFF", "FE 9818", "FE E332", "FE 700B", "FE 0997", "FE 0000", "FE 0C00", "FE 9005",
             "FE 0091"}},
      {968, {"FE 2A00", "FE 0092", "FE 0000", "FE 4865", "FE 6C6C", "FE 6F2C", "FE 2026", "FE 776F", "FE 726C",
             "FE 6403"}},
      {1001, {"FF 4222", "FE 8901"}},
      {3003, {"FF 8222", "FE 8C01"}},
  };
  EXPECT_EQ(convert(false, 1000, 3000, "Hello, world", c608), want608);
  EXPECT_EQ(convert(true, 1000, 3000, "Hello, world", c708), want708);
}

// Frames of the 608 caption display (EOC 942F) and erasure (EDM 942C) per cue,
// -1 when the cue is dropped: a caption waits for the one before it to go.
TEST(CeaConverters, Cea608CrossCueRules) {
  struct step { int64_t start, end, eoc, edm; };
  const struct { const char* name; std::vector<step> steps; } cases[] = {
      {"back to back: shown two frames after the old EDM", {{1000, 3000, 30, 90}, {3000, 5000, 92, 150}}},
      {"overlap without display time left is dropped",
       {{1000, 3000, 30, 90}, {2000, 3050, -1, -1}, {4000, 5000, 120, 150}}},
      {"starts before 0: loaded from frame 0", {{-5000, 2000, 14, 60}}},
      {"entirely before 0 is dropped", {{-5000, -1000, -1, -1}}},
  };
  for (const auto& c : cases) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    for (const step& st : c.steps) {
      int64_t eoc = -1, edm = -1;
      for (const auto& [k, pairs] : convert(false, st.start, st.end, "Hello, world", ctx)) {
        if (pairs[0] == "942F" && eoc < 0) eoc = frame_of(k);
        if (pairs[0] == "942C" && edm < 0) edm = frame_of(k);
      }
      EXPECT_EQ(std::make_pair(eoc, edm), std::make_pair(st.eoc, st.edm)) << c.name << ", cue at " << st.start;
    }
  }
}

// DTVCC packet sequence numbers run on across cues in the order packets go
// out: a load sent before the previous cue's end packet is padded with null
// packets, so the end packet keeps its number.
TEST(CeaConverters, Cea708SequenceNumbersRunOn) {
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  words_by_key merged = convert(true, 1000, 3000, "Hello, world", ctx);
  for (const auto& [k, w] : convert(true, 3000, 5000, "Hello, world", ctx)) {
    ASSERT_EQ(merged.count(k), 0u) << "key collision at " << k;
    merged[k] = w;
  }
  std::vector<std::pair<int64_t, int>> got;  // (frame, sequence number) of each packet start
  for (const auto& [k, words] : merged)
    for (const std::string& w : words)
      if (w.starts_with("FF")) got.emplace_back(frame_of(k), std::stoi(w.substr(3, 1), nullptr, 16) >> 2);
  const std::vector<std::pair<int64_t, int>> want = {{28, 0}, {30, 1}, {88, 2}, {89, 3}, {89, 0},
                                                     {89, 1}, {90, 2}, {91, 3}, {150, 0}};
  EXPECT_EQ(got, want);
}

}  // namespace
