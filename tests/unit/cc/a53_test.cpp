#include <gtest/gtest.h>

#include "tests/unit/captions/caption_test_util.h"
#include "v2/cc/a53.h"

namespace {

const bytes sei_with_03 = hex_bytes("00 00 00 01 06 04 11 B5 00 31 \"GA94\" 03 C2 FF FA 00 00 03 03 00 00 FF 80");

TEST(A53, H264SeiBeforeFirstSlice) {
  const std::vector<cc_triplet> t = {{0xFA, 0x00, 0x00}, {0x03, 0x00, 0x00}};  // 00 00 03 inside: escaped
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

TEST(A53, CcCountOfTheFrameRate) {
  const struct { int num, den; size_t cc_count; } cases[] = {{24000, 1001, 25}, {24, 1, 25}, {25, 1, 24},
      {30000, 1001, 20}, {30, 1, 20}, {50, 1, 12}, {60000, 1001, 10}, {60, 1, 10}, {0, 1, 20}, {25, 0, 20}, {48, 1, 13}, {1, 1, 31}, {1000, 1, 3}};
  for (const auto& c : cases) EXPECT_EQ(a53_cc_count(c.num, c.den), c.cc_count) << c.num << "/" << c.den;
}

TEST(A53, HoldBoundedWhateverTheTimes) {
  const struct { const char* name; int64_t step; size_t bytes, most; } cases[] = {
      {"25 pictures a second: 3 s", 3600, 100, 76},
      {"one tick a picture", 1, 100, a53_hold_pictures_max},
      {"time standing still", 0, 100, 1},
      {"large pictures", 3600, 1 << 20, 15},
  };
  for (const auto& c : cases) {
    a53_hold h;
    a53_queue q;
    size_t most = 0;
    for (int64_t i = 0; i < 2000; ++i) {
      a53_hold_add(h, {nullptr, i * c.step, i * c.step, c.bytes, {}});
      while (a53_hold_full(h)) a53_hold_take_oldest(h, q, 20);
      most = std::max(most, h.pictures.size());
    }
    EXPECT_EQ(most, c.most) << c.name;
  }
}

TEST(A53, FindsCaptionsAlreadyInThePicture) {
  const struct { const char* name; bool h264; const char* pic; bool found; } cases[] = {
      {"SEI: another message, then cc_data", true,
       "00 00 00 01 06 00 01 C0 04 0E B5 00 31 \"GA94\" 03 C1 FF FC 80 80 FF 80 00 00 01 65 88", true},
      {"SEI: unregistered user data", true, "00 00 01 06 05 09 B5 00 31 \"GA94\" 03 C1 80 00 00 01 65 88", false},
      {"MPEG-2 cc_data", false, "00 00 01 00 01 4F 00 00 01 B2 \"GA94\" 03 C1 FF FC 80 80 FF 00 00 01 01 22", true},
      {"MPEG-2 other user data", false, "00 00 01 00 01 4F 00 00 01 B2 \"DTG1\" 00 00 01 01 22", false},
  };
  for (const auto& c : cases) {
    const bytes pic = hex_bytes(c.pic);
    EXPECT_EQ(a53_has_captions(pic.data(), pic.size(), c.h264), c.found) << c.name;
  }
}

TEST(A53, QueueTimesLayoutAndBound) {
  caption_event_record ev;
  ev.cc608 = {{2, 0x94, 0x20}}, ev.cc708 = {{1, 0xFF, 0x143F}};
  a53_queue q;
  a53_queue_event(q, ev, 1000);
  EXPECT_EQ(a53_user_data(a53_take_for_picture(q, 1180, 4)),
            hex_bytes("\"GA94\" 03 C4 FF FC 94 20 FD 80 80 FF 14 3F FA 00 00 FF"));

  ev.cc708 = {{-1, 0xFF, 0x1111}}, ev.cc608.clear();  // the oldest of all: the first to go
  for (int64_t i = 0; i < int64_t(a53_queue_limit) + 40; ++i) ev.cc608.push_back({i, 0x94, 0x20});
  a53_queue_event(q, ev, 0);
  EXPECT_EQ(std::make_tuple(q.dropped, q.dtvcc.size(), q.field1.begin()->first), std::make_tuple(41, 0, 40 * 90));
  EXPECT_EQ(a53_take_for_picture(q, INT64_MAX, a53_cc_count_max)[29].data1, 0x94);  // 30 now, the rest later
  EXPECT_EQ(q.field1.begin()->first, (40 + 30) * 90);
}

}  // namespace
