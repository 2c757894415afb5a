#include <gtest/gtest.h>

#include "tests/unit/captions/caption_test_util.h"
#include "v2/cc/a53.h"

namespace {

const bytes sei_with_03 = hex_bytes("00 00 00 01 06 04 11 B5 00 31 \"GA94\" 03 C2 FF FA 00 00 03 01 00 00 FF 80");

TEST(A53, H264SeiBeforeFirstSlice) {
  const std::vector<cc_triplet> t = {{0xFA, 0x00, 0x00}, {0x01, 0x00, 0x00}};  // 00 00 01 inside: escaped
  // The access unit and where the SEI goes (SIZE_MAX: unchanged).
  const struct { const char* name; const char* au; size_t at; } cases[] = {
      {"after AUD, SPS and SEI", "00 00 00 01 09 F0 00 00 00 01 67 AA 00 00 01 06 05 80 00 00 01 65 88", 18},
      {"before a four-byte start code", "00 00 00 01 09 F0 00 00 00 01 41 9A", 6},
      {"slice first", "00 00 01 41 9A 00 00 01 41 9B", 0},
      {"no slice", "00 00 00 01 67 AA 00 00 01 68 CE", SIZE_MAX},
  };
  for (const auto& c : cases) {
    const bytes in = hex_bytes(c.au);
    bytes want = in;
    if (c.at != SIZE_MAX) want.insert(want.begin() + c.at, sei_with_03.begin(), sei_with_03.end());
    EXPECT_EQ(h264_with_captions(in.data(), in.size(), t), want) << c.name;
  }
}

TEST(A53, Mpeg2UserDataAfterPictureExtensions) {
  const bytes in = hex_bytes("00 00 01 B3 16 00 00 01 B8 00 00 01 00 01 4F 00 00 01 B5 8F 00 00 01 01 22 00 00 01 02");
  bytes want = in;
  const bytes ud = hex_bytes("00 00 01 B2 \"GA94\" 03 C1 FF FC 00 00 FF");  // header 04 gets its marker bits
  want.insert(want.begin() + 20, ud.begin(), ud.end());
  EXPECT_EQ(mpeg2_with_captions(in.data(), in.size(), {{0x04, 0x00, 0x00}}), want);
}

TEST(A53, TakesDueTripletsForEachPicture) {
  // One picture: its pts, the pending pictures, data1 of the triplets it takes.
  struct call { int64_t pts; std::vector<int64_t> pending; bytes taken; };
  // Queued: due time and triplet, in arrival order.
  const struct { const char* name; std::vector<std::pair<int64_t, cc_triplet>> queued; std::vector<call> calls; } cases[] = {
      {"never early", {{100, {0xFC, 1}}}, {{99, {}, {}}, {100, {}, {1}}}},
      {"due order, arrival order on ties, 608 first",
       {{50, {0xFC, 2}}, {10, {0xFF, 1}}, {50, {0xFC, 3}}, {20, {0xFE, 4}}},
       {{60, {}, {2, 3, 1, 4}}}},
      {"pending pictures before it keep theirs",
       {{10, {0xFC, 1}}, {25, {0xFC, 2}}, {30, {0xFC, 3}}, {35, {0xFC, 4}}},
       {{30, {10, 20, 40}, {2, 3}}, {10, {20, 40}, {1}}, {20, {40}, {}}, {40, {}, {4}}}},
  };
  for (const auto& c : cases) {
    a53_queue q;
    for (const auto& [due, t] : c.queued) q.waiting.emplace(due, t);
    for (const call& k : c.calls) {
      bytes got;
      for (const cc_triplet& t : a53_take_for_picture(q, k.pts, k.pending)) got.push_back(t.data1);
      EXPECT_EQ(got, k.taken) << c.name << ", pts " << k.pts;
    }
  }
}

TEST(A53, QueueTimesCapAndBound) {
  caption_event_record ev;
  ev.cc608 = {{2, 0x94, 0x20}}, ev.cc708 = {{1, 0xFF, 0x143F}};
  a53_queue q;
  a53_queue_event(q, ev, 1000);
  EXPECT_EQ(a53_user_data(a53_take_for_picture(q, 1180, {})), hex_bytes("\"GA94\" 03 C2 FF FC 94 20 FF 14 3F FF"));

  ev.cc708.clear(), ev.cc608.clear();
  for (int64_t i = 0; i < int64_t(a53_queue_limit) + 40; ++i) ev.cc608.push_back({i, 0x80, 0x80});
  a53_queue_event(q, ev, 0);
  EXPECT_EQ(std::make_pair(q.dropped, q.waiting.begin()->first), std::make_pair(size_t{40}, int64_t{40 * 90}));
  EXPECT_EQ(a53_take_for_picture(q, INT64_MAX, {}).size(), a53_cc_count_max);  // 31 now, the rest later
  EXPECT_EQ(q.waiting.begin()->first, (40 + 31) * 90);
}

}  // namespace
