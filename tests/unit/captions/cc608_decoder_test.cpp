#include <gtest/gtest.h>

#include <tuple>

#include "v2/captions/cc608_decoder.h"

namespace {

uint8_t odd(uint8_t v) { return (__builtin_popcount(v) & 1) ? v : static_cast<uint8_t>(v | 0x80); }

// CC1 pairs one frame (33 ms) apart; codes are sent twice, parity is added.
struct pairs {
  std::vector<std::tuple<int64_t, uint8_t, uint8_t>> seq;
  int64_t t = 0;
  pairs& at(int64_t ms) { return t = ms, *this; }
  pairs& raw(uint8_t a, uint8_t b) { return seq.emplace_back(t, a, b), t += 33, *this; }
  pairs& code(unsigned c) { return raw(odd(c >> 8), odd(c & 0xFF)).raw(odd(c >> 8), odd(c & 0xFF)); }
  pairs& text(const std::string& s) {
    for (size_t i = 0; i < s.size(); i += 2) raw(odd(s[i]), odd(i + 1 < s.size() ? s[i + 1] : 0));
    return *this;
  }
};

enum : unsigned {
  RCL = 0x1420, BS = 0x1421, DER = 0x1424, EDM = 0x142C, ENM = 0x142E, EOC = 0x142F, TO1 = 0x1721, TO2 = 0x1722,
  ROW14 = 0x1450, ROW15 = 0x1470, ROW15_ITALIC = 0x146E, MRC_WHITE = 0x1120, MRC_ITALIC = 0x112E
};

// RCL, ENM and row 15, then `body`.
pairs load(void (*body)(pairs&)) {
  pairs p;
  p.code(RCL).code(ENM).code(ROW15);
  body(p);
  return p;
}

TEST(Cc608Decoder, DecodesPopOnCaptions) {
  const struct {
    const char* name;
    pairs input;
    std::vector<std::tuple<int64_t, int64_t, std::string>> shown;
  } cases[] = {
      {"two rows, then a caption back to back",
       load([](pairs& p) {
         p.code(ROW14).text("One").code(ROW15).text("Two").at(1000).code(EOC);
         p.code(RCL).code(ENM).code(ROW15).text("Next").at(3000).code(EOC).at(5000).code(EDM);
       }),
       {{1000, 3000, "One\nTwo"}, {3000, 5000, "Next"}}},
      {"basic overrides, special and extended characters",
       load([](pairs& p) { p.text("ma~ana ").code(0x1137).text(" U").code(0x1224).text("ber /").code(0x132B).at(2000).code(EOC); }),
       {{2000, 2033, "mañana ♪ Über \\"}}},
      {"italics from a style PAC and a mid-row code",
       load([](pairs& p) {
         p.code(ROW15_ITALIC).text("Hi").code(MRC_WHITE).text("you ").code(ROW14).text("a").code(MRC_ITALIC).text("b");
         p.at(2000).code(EOC);
       }),
       {{2000, 2033, "a <i>b</i>\n<i>Hi</i> you"}}},
      {"ENM clears what was loaded",
       load([](pairs& p) { p.text("Hello").code(ENM).code(ROW15).text("Hi").at(2000).code(EOC).at(2500).code(EDM); }),
       {{2000, 2500, "Hi"}}},
      {"tab offset, backspace and delete to end of row",
       load([](pairs& p) {
         p.text("abcd").code(BS).code(ROW15).code(TO1).text("X").code(ROW14).text("wxyz").code(ROW14).code(TO2).code(DER);
         p.at(2000).code(EOC);
       }),
       {{2000, 2033, "wx\naXc"}}},
      {"other channels are ignored",
       load([](pairs& p) { p.text("A").code(0x1C70).text("X").code(0x152F).text("Y").at(2000).code(EOC); }),
       {{2000, 2033, "A"}}},
      {"a damaged first copy lets the second act; a third copy acts again",
       load([](pairs& p) { p.text("A").at(2000).raw(0x14, 0x2F).raw(0x94, 0x2F).raw(0x94, 0x2F).raw(0x94, 0x2F); }),
       {{2033, 2099, "A"}}},
      {"a full row overwrites its last column",
       load([](pairs& p) { p.text("abcdefghijklmnopqrstuvwxyz0123456").at(2000).code(EOC); }),
       {{2000, 2033, "abcdefghijklmnopqrstuvwxyz012346"}}},
  };
  for (const auto& c : cases) {
    cc608_decoder d;
    std::vector<srt_cue> out;
    for (const auto& [t, a, b] : c.input.seq) cc608_decode_pair(d, t, a, b, out);
    cc608_decode_finish(d, out);
    std::vector<std::tuple<int64_t, int64_t, std::string>> got;
    for (const srt_cue& cue : out) got.emplace_back(cue.start_ms, cue.end_ms, cue.text);
    EXPECT_EQ(got, c.shown) << c.name;
  }
}

TEST(Cc608Decoder, SrtBlocks) {
  EXPECT_EQ(srt_block(1, {1001, 3003, "Hello, world"}), "1\n00:00:01,001 --> 00:00:03,003\nHello, world\n\n");
  EXPECT_EQ(srt_block(12, {-5, 360061001, "a\nb"}), "12\n00:00:00,000 --> 100:01:01,001\na\nb\n\n");
}

}  // namespace
