// CEA-608 pop-on converter: code tables, the characters of both converters,
// the worked example and the scheduling rules.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/unit/cea/cea_test_util.h"
#include "tolm_utils/cea608.h"
#include "v2/captions/cc608_decoder.h"

using namespace tolm_cc;
using namespace cea_test;

namespace {

// The pairs (copies expanded) of a caption's load after RCL, ENM and the
// row's PAC, for a left-aligned one-row cue.
std::string char_pairs_608(const std::string& text, caption_options opt) {
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

// The CEA-708 bytes of a cue's characters (EXT1 included).
std::string char_bytes_708(const std::string& text) {
  std::vector<uint8_t> v;
  for (const caption_row& r : layout_cue_text(text, 32, cc_target::cea708, {}).rows)
    for (const caption_cell& cell : r.cells) {
      if (cell.kind == cell_kind::ext1) v.push_back(0x10);
      v.push_back(cell.kind == cell_kind::ext1 ? cell.b1 : cell.b0);
    }
  return hex(v);
}

}  // namespace

// Each preamble address code, read back by pelvane-cc's decoder (whose row
// table is written the other way round), reaches its row, indent and style.
TEST(Cea608Tables, PreambleAddressCodes) {
  for (int row = 1; row <= 15; ++row)
    for (int indent = -1; indent < 32; ++indent) {  // -1: the italic PAC
      const eia608_pair pac = indent < 0 ? pac_608_italic(row) : pac_608(row, indent);
      cc608_decoder d;
      std::vector<srt_cue> out;
      for (const eia608_pair& p : {control_608(0x20), pac}) cc608_decode_pair(d, 0, p.b[0], p.b[1], out);
      EXPECT_EQ(d.row + 1, row) << "indent " << indent;
      EXPECT_EQ(d.col, std::max(indent, 0) / 4 * 4) << "row " << row;
      EXPECT_EQ(d.italic, indent < 0) << "row " << row;
    }
}

TEST(CeaCharacters, EachClassMapsToItsSet) {
  caption_options true_codes;
  true_codes.true_2a_codes = true;
  const struct {
    const char* name;
    std::string text;
    caption_options opt;
    const char* want608;  // pairs after the PAC
    const char* want708;  // nullptr: the case is about 608 only
  } cases[] = {
      {"plain pair", "Hi", {}, "C8E9", "48 69"},
      {"odd character padded", "H", {}, "C880", "48"},
      {"basic override é", "é", {}, "DC80", "E9"},
      {"basic override ñ", "ñ", {}, "FE80", "F1"},
      {"apostrophe", "'", {}, "A780", "27"},
      {"right single quote", "\u2019", {}, "A780", "10 32"},
      {"ASCII { goes extended after (", "{", {}, "A880 1329 1329", "7B"},
      {"ASCII * goes extended after a space", "*", {}, "2080 92A8 92A8", "2A"},
      {"extended ü after u", "ü", {}, "7580 9225 9225", "FC"},
      {"fallback is the character just before", "aü", {}, "6175 9225 9225", "61 FC"},
      {"special ♪, at 7F in 708", "\u266A", {}, "9137 9137", "7F"},
      {"special ® and ½", "®½", {}, "91B0 91B0 9132 9132", "AE BD"},
      {"no-break space is the transparent space", "a\u00A0b", {}, "6180 91B9 91B9 6280", "61 A0 62"},
      {"two notes get a space between", "\u266A\u266A", {}, "9137 9137 2080 9137 9137", nullptr},
      {"em dash as two hyphens, one in 708", "a\u2014b", {}, "61AD AD62", "61 2D 62"},
      {"em dash with true codes", "\u2014", true_codes, "AD80 922A 922A", nullptr},
      {"} as ) by default", "}", {}, "2980", "7D"},
      {"} with true codes", "}", true_codes, "2980 132A 132A", nullptr},
      {"ellipsis spelled out, G2 in 708", "\u2026", {}, "AEAE AE80", "10 25"},
      {"G2 via EXT1", "\u2122\u0160", {}, nullptr, "10 39 10 2A"},
      {"G0 has the ASCII that 608 lacks", "|~", {}, nullptr, "7C 7E"},
      {"grave accent as left quote", "`", {}, "A780 9226 9226", nullptr},
      {"decomposed to base letter", "\u0101", {}, "6180", "61"},
      {"unmappable dropped", "a\u0416b", {}, "6162", "61 62"},
  };
  for (const auto& c : cases) {
    if (c.want608) {
      EXPECT_EQ(char_pairs_608(c.text, c.opt), c.want608) << c.name;
    }
    if (c.want708) {
      EXPECT_EQ(char_bytes_708(c.text), c.want708) << c.name;
    }
  }
  caption_options question;
  question.unmappable_as_question = true;
  EXPECT_EQ(char_pairs_608("a\u0416", question), "61BF") << "unmappable as ?";
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
}

namespace {

// Frame of the first `code` pair (EOC 942F, EDM 942C) of a map, or -1.
int64_t frame_of_code(const cc608_map& m, uint16_t code) {
  for (const auto& [k, p] : m)
    if (pair_value(p) == code) return frame_of(k);
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
      {"back to back: shown two frames after the old EDM", 0,
       {{1000, 3000, "one", 30, 90}, {3000, 5000, "two", 92, 150}}},
      {"overlap: waits for the old EDM", 0, {{1000, 3000, "one", 30, 90}, {2000, 4000, "two", 92, 120}}},
      {"overlap without display time left is dropped", 0,
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
      EXPECT_EQ(frame_of_code(m, 0x942F), st.want_eoc) << c.name << ", cue " << i;
      EXPECT_EQ(frame_of_code(m, 0x942C), st.want_edm) << c.name << ", cue " << i;
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
  EXPECT_EQ(frame_of_code(m, 0x942F), 105);
  for (const auto& [k, p] : m) {
    EXPECT_NE(frame_of(k), 90);
    EXPECT_NE(frame_of(k), 91);
  }
  EXPECT_LT(frame_of(m.begin()->first), 90) << "the load straddles the old EDM";
}
