// CEA-608 pop-on converter: code tables, characters, the worked example and
// the scheduling rules.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/unit/cea/cea_test_util.h"
#include "tolm_utils/cea_internal.h"

using namespace tolm_cc;
using namespace cea_test;

namespace {

std::string hex(const std::vector<uint16_t>& v) {
  std::string s;
  char buf[8];
  for (uint16_t x : v) {
    snprintf(buf, sizeof buf, "%s%04X", s.empty() ? "" : " ", x);
    s += buf;
  }
  return s;
}

// The pairs (copies expanded) of a caption's load after RCL, ENM and the
// row's PAC, for a left-aligned one-row cue.
std::string char_pairs(const std::string& text, caption_options opt = {}) {
  cue_box box;
  box.align = h_align::left;
  const caption_layout lay = layout_cue_text(text, 32, cc_target::cea608, opt);
  std::vector<uint16_t> v;
  for (const load_unit& u : build_608_load(lay, box))
    for (int k = 0; k < u.copies; ++k) v.push_back(pair_value(u.pair));
  if (v.size() < 6) return "(no caption)";
  v.erase(v.begin(), v.begin() + 6);
  return hex(v);
}

}  // namespace

TEST(Cea608Tables, ParityMakesEveryByteOdd) {
  for (int b = 0; b < 128; ++b) {
    const uint8_t p = odd_parity(static_cast<uint8_t>(b));
    EXPECT_EQ(p & 0x7F, b) << b;
    EXPECT_EQ(__builtin_popcount(p) % 2, 1) << b;
  }
  EXPECT_EQ(odd_parity(0x00), 0x80);
  EXPECT_EQ(odd_parity(0x14), 0x94);
  EXPECT_EQ(odd_parity(0x2C), 0x2C);
  EXPECT_EQ(odd_parity(0x2E), 0xAE);
}

TEST(Cea608Tables, PreambleAddressCodes) {
  // Second bytes for indents 0..28 (parity set), by the row's base 40 or 60.
  const uint8_t odd[8] = {0xD0, 0x52, 0x54, 0xD6, 0x58, 0xDA, 0xDC, 0x5E};
  const uint8_t even[8] = {0x70, 0xF2, 0xF4, 0x76, 0xF8, 0x7A, 0x7C, 0xFE};
  const struct {
    int row;
    uint8_t first;
    bool base40;
  } rows[] = {{1, 0x91, true},  {2, 0x91, false}, {3, 0x92, true},   {4, 0x92, false},
              {5, 0x15, true},  {6, 0x15, false}, {7, 0x16, true},   {8, 0x16, false},
              {9, 0x97, true},  {10, 0x97, false}, {11, 0x10, true}, {12, 0x13, true},
              {13, 0x13, false}, {14, 0x94, true}, {15, 0x94, false}};
  for (const auto& r : rows) {
    for (int i = 0; i < 8; ++i) {
      const eia608_pair p = pac_608(r.row, 4 * i);
      EXPECT_EQ(p.b[0], r.first) << "row " << r.row;
      EXPECT_EQ(p.b[1], r.base40 ? odd[i] : even[i]) << "row " << r.row << " indent " << 4 * i;
      EXPECT_EQ(pair_value(pac_608(r.row, 4 * i + 3)), pair_value(p)) << "indent rounds down";
    }
    EXPECT_EQ(pac_608_italic(r.row).b[1], r.base40 ? 0xCE : 0x6E) << "row " << r.row;
    EXPECT_EQ(pac_608_italic(r.row).b[0], r.first);
  }
}

TEST(Cea608Characters, EachClassMapsToItsSet) {
  caption_options true_codes;
  true_codes.true_2a_codes = true;
  const struct {
    const char* name;
    std::string text;
    caption_options opt;
    const char* want;
  } cases[] = {
      {"plain pair", "Hi", {}, "C8E9"},
      {"odd character padded", "H", {}, "C880"},
      {"basic override é", "é", {}, "DC80"},
      {"basic override ñ", "ñ", {}, "FE80"},
      {"apostrophe", "'", {}, "A780"},
      {"right single quote", "\u2019", {}, "A780"},
      {"ASCII { goes extended after (", "{", {}, "A880 1329 1329"},
      {"ASCII * goes extended after a space", "*", {}, "2080 92A8 92A8"},
      {"extended ü after u", "ü", {}, "7580 9225 9225"},
      {"fallback is the character just before", "aü", {}, "6175 9225 9225"},
      {"special ♪", "\u266A", {}, "9137 9137"},
      {"special ® and ½", "®½", {}, "91B0 91B0 9132 9132"},
      {"no-break space is the transparent space", "a\u00A0b", {}, "6180 91B9 91B9 6280"},
      {"two notes get a space between", "\u266A\u266A", {}, "9137 9137 2080 9137 9137"},
      {"em dash as two hyphens", "a\u2014b", {}, "61AD AD62"},
      {"em dash with true codes", "\u2014", true_codes, "AD80 922A 922A"},
      {"} as ) by default", "}", {}, "2980"},
      {"} with true codes", "}", true_codes, "2980 132A 132A"},
      {"ellipsis spelled out", "\u2026", {}, "AEAE AE80"},
      {"grave accent as left quote", "`", {}, "A780 9226 9226"},
      {"decomposed to base letter", "\u0101", {}, "6180"},
      {"unmappable dropped", "a\u0416b", {}, "6162"},
  };
  for (const auto& c : cases) EXPECT_EQ(char_pairs(c.text, c.opt), c.want) << c.name;

  caption_options question;
  question.unmappable_as_question = true;
  EXPECT_EQ(char_pairs("a\u0416", question), "61BF") << "unmappable as ?";
  EXPECT_EQ(layout_cue_text("a\u0416\u4E2Db", 32, cc_target::cea608, {}).dropped_chars, 2);
}

TEST(Cea608Characters, ItalicsUseStylePacsAndMidRowCodes) {
  const struct {
    const char* name;
    std::string text;
    std::map<std::string, std::string> settings;
    const char* want;  // whole load after RCL RCL ENM ENM
  } cases[] = {
      {"italic from column 0 uses the italic PAC", "<i>Hi</i>", {{"align", "start"}},
       "946E 946E C8E9"},
      {"italic centred: PAC/TO before, MRC takes a cell", "<i>Hi</i>", {},
       "9476 9476 97A2 97A2 91AE 91AE C8E9"},
      {"toggle on a space replaces it", "a <i>b</i>", {{"align", "start"}},
       "9470 9470 6180 91AE 91AE 6280"},
      {"toggle between letters adds a cell", "a<i>b</i>c", {{"align", "start"}},
       "9470 9470 6180 91AE 91AE 6280 9120 9120 E380"},
      {"each row starts with its own PAC and style", "<i>ab\ncd</i>", {{"align", "start"}},
       "94CE 94CE 6162 946E 946E E364"},
  };
  for (const auto& c : cases) {
    const cue_box box = parse_cue_box(c.settings);
    const caption_layout lay = layout_cue_text(c.text, 32, cc_target::cea608, {});
    std::vector<uint16_t> v;
    for (const load_unit& u : build_608_load(lay, box))
      for (int k = 0; k < u.copies; ++k) v.push_back(pair_value(u.pair));
    ASSERT_GE(v.size(), 4u) << c.name;
    v.erase(v.begin(), v.begin() + 4);
    EXPECT_EQ(hex(v), c.want) << c.name;
  }
}

TEST(Cea608Converter, WorkedExampleByteForByte) {
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  const cc608_map out = to608(cue(1000, 3000, "Hello, world"), ctx);
  const std::vector<std::pair<uint64_t, uint16_t>> want = {
      {534, 0x9420}, {567, 0x9420}, {601, 0x94AE}, {634, 0x94AE}, {667, 0x94F4},  {701, 0x94F4},
      {734, 0x97A2}, {767, 0x97A2}, {801, 0xC8E5}, {834, 0xECEC}, {868, 0xEF2C},  {901, 0x20F7},
      {934, 0xEFF2}, {968, 0xEC64}, {1001, 0x942F}, {1034, 0x942F}, {3003, 0x942C}, {3036, 0x942C}};
  std::vector<std::pair<uint64_t, uint16_t>> got;
  for (const auto& [k, p] : out) got.emplace_back(k, pair_value(p));
  EXPECT_EQ(got, want);
  EXPECT_EQ(fields(ctx).counter, 1u);
  EXPECT_EQ(fields(ctx).pending_target, 0);
  EXPECT_EQ(fields(ctx).tag, 0x942C);
  EXPECT_EQ(fields(ctx).next_free_ms, key_of(32));
  EXPECT_EQ(fields(ctx).clear_at_ms, 3003u);
}

namespace {

// Frame of the first EOC of a map, or -1.
int64_t eoc_frame(const cc608_map& m) {
  for (const auto& [k, p] : m)
    if (pair_value(p) == 0x942F) return frame_of(k);
  return -1;
}

int64_t edm_frame(const cc608_map& m) {
  for (const auto& [k, p] : m)
    if (pair_value(p) == 0x942C) return frame_of(k);
  return -1;
}

}  // namespace

TEST(Cea608Schedule, CrossCueRules) {
  struct step {
    int64_t start, end;
    const char* text;
    int64_t want_eoc;  // frame, -1: dropped
    int64_t want_edm;
  };
  const struct {
    const char* name;
    uint64_t next_free;  // context's next_free before the steps
    std::vector<step> steps;
  } cases[] = {
      {"on time: EOC at the start frame, EDM at the end frame", 0, {{1000, 3000, "Hello", 30, 90}}},
      {"back to back: shown two frames after the old EDM",
       0,
       {{1000, 3000, "one", 30, 90}, {3000, 5000, "two", 92, 150}}},
      {"overlap: waits for the old EDM", 0, {{1000, 3000, "one", 30, 90}, {2000, 4000, "two", 92, 120}}},
      {"overlap without display time left is dropped",
       0,
       {{1000, 3000, "one", 30, 90}, {2000, 3050, "two", -1, -1}, {4000, 5000, "three", 120, 150}}},
      {"nested cue is dropped", 0, {{1000, 5000, "one", 30, 150}, {2000, 3000, "two", -1, -1}}},
      // nf = 150 (5005 ms); 14 pairs load in frames 150..163, EOC at 164.
      {"late: loads forwards from next_free", 5000, {{5100, 8000, "Hello, world", 164, 240}}},
      {"late without display time is dropped", 5000, {{5100, 5400, "Hello, world", -1, -1}}},
      {"short display: EDM right after the EOC pair", 0, {{1000, 1040, "x", 30, 32}}},
      {"starts before 0: loaded from frame 0", 0, {{-5000, 2000, "Hello, world", 14, 60}}},
      {"entirely before 0 is dropped", 0, {{-5000, -1000, "Hello", -1, -1}}},
  };
  for (const auto& c : cases) {
    WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
    ctx.next_free_ms = c.next_free;
    for (size_t i = 0; i < c.steps.size(); ++i) {
      const step& st = c.steps[i];
      const WebVTTConvContext_v1 before = ctx;
      const cc608_map m = to608(cue(st.start, st.end, st.text), ctx);
      EXPECT_EQ(eoc_frame(m), st.want_eoc) << c.name << ", cue " << i;
      EXPECT_EQ(edm_frame(m), st.want_edm) << c.name << ", cue " << i;
      if (st.want_eoc < 0) {
        EXPECT_TRUE(m.empty()) << c.name;
        EXPECT_EQ(memcmp(&before, &ctx, sizeof ctx), 0) << c.name << ": context changed by a drop";
      } else {
        EXPECT_GE(frame_of(m.begin()->first), grid_frame_at_or_after(frame_grid{}, before.next_free_ms))
            << c.name << ": load before next_free";
      }
    }
  }
}

TEST(Cea608Schedule, LoadSkipsThePendingEdmFrames) {
  WebVTTConvContext_v1 ctx = webvtt_conv_context_start();
  to608(cue(1000, 3000, "one"), ctx);  // EDM in frames 90, 91
  const cc608_map m = to608(cue(3500, 6000, "Hello, world, this is two"), ctx);
  ASSERT_FALSE(m.empty());
  EXPECT_EQ(eoc_frame(m), 105);
  for (const auto& [k, p] : m) {
    EXPECT_NE(frame_of(k), 90);
    EXPECT_NE(frame_of(k), 91);
  }
  EXPECT_LT(frame_of(m.begin()->first), 90) << "the load straddles the old EDM";
}
