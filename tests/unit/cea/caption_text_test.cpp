// Cue text front end, wrapping and placement of the caption converters.
#include <gtest/gtest.h>

#include "tests/unit/cea/cea_test_util.h"
#include "tolm_utils/caption_layout.h"
#include "tolm_utils/caption_text.h"

using namespace tolm_cc;

namespace {

// Items as text: italics in [], line breaks as |.
std::u32string read_all(std::string_view text, bool voice_prefix = false) {
  cue_text_reader r = make_cue_text_reader(text, voice_prefix);
  text_item it;
  std::u32string s;
  bool italic = false;
  while (next_text_item(r, it)) {
    if (it.cp != U'\n' && it.italic != italic) {
      s += it.italic ? U'[' : U']';
      italic = it.italic;
    }
    s += it.cp == U'\n' ? U'|' : it.cp;
  }
  if (italic) s += U']';
  return s;
}

// Rows of a layout as text (608 cells shown by their basic byte or code).
std::vector<std::string> rows_of(const caption_layout& lay) {
  std::vector<std::string> v;
  for (const caption_row& r : lay.rows) {
    std::string s;
    for (const caption_cell& c : r.cells) s += c.kind == cell_kind::basic || c.kind == cell_kind::g0g1 ? static_cast<char>(c.b0) : '#';
    v.push_back(s);
  }
  return v;
}

}  // namespace

TEST(CueText, Utf8Decoding) {
  const struct {
    const char* name;
    std::string bytes;
    char32_t want;
    size_t want_pos;
  } cases[] = {
      {"ASCII", "A", U'A', 1},
      {"two bytes", "\xC3\xA9", 0xE9, 2},
      {"three bytes", "\xE2\x82\xAC", 0x20AC, 3},
      {"four bytes", "\xF0\x9F\x98\x80", 0x1F600, 4},
      {"C0 lead", "\xC0\x80", 0xFFFD, 1},
      {"overlong three bytes", "\xE0\x80\x80", 0xFFFD, 3},
      {"surrogate", "\xED\xA0\x80", 0xFFFD, 3},
      {"above U+10FFFF", "\xF4\x90\x80\x80", 0xFFFD, 4},
      {"truncated at the end", "\xC3", 0xFFFD, 1},
      {"broken by an ASCII byte", "\xC3" "A", 0xFFFD, 1},
      {"stray continuation", "\x80", 0xFFFD, 1},
      {"F5 lead", "\xF5\x80", 0xFFFD, 1},
  };
  for (const auto& c : cases) {
    size_t pos = 0;
    EXPECT_EQ(decode_utf8(c.bytes, pos), c.want) << c.name;
    EXPECT_EQ(pos, c.want_pos) << c.name;
  }
}

TEST(CueText, TagsEntitiesAndControls) {
  const struct {
    const char* name;
    std::string text;
    bool voice_prefix;
    std::u32string want;
  } cases[] = {
      {"bold, underline, class removed", "a<b>b</b><u>c</u><c.red.loud>d</c>", false, U"abcd"},
      {"italics", "<i>x</i>y", false, U"[x]y"},
      {"nested italics are counted", "<i><i>x</i>y</i>z", false, U"[xy]z"},
      {"stray closing italics", "</i>x<i>y", false, U"x[y]"},
      {"voice removed", "<v Bob>hi</v>", false, U"hi"},
      {"voice as a prefix", "<v.loud Bob Smith>hi", true, U"Bob Smith: hi"},
      {"ruby text dropped", "<ruby>\xE6\xBC\xA2<rt>kan</rt></ruby>!", false, U"\u6F22!"},
      {"timestamp tag", "a<00:00:01.000>b", false, U"ab"},
      {"named entities", "a &amp; b &lt;c&gt;&nbsp;", false, U"a & b <c>\u00A0"},
      {"numeric entities", "&#65;&#x42;&#X43;", false, U"ABC"},
      {"numeric zero, surrogate, too large", "&#0;&#xD800;&#99999999;", false, U"\uFFFD\uFFFD\uFFFD"},
      {"unknown and unterminated entities stay", "&bogus; &amp", false, U"&bogus; &amp"},
      {"tab becomes a space", "a\tb", false, U"a b"},
      {"CR, LF and CRLF break lines", "a\r\nb\rc\nd", false, U"a|b|c|d"},
      {"control characters vanish", "a\x01\x7F\xC2\x85" "b", false, U"ab"},
      {"direction marks vanish", "a&lrm;\xE2\x80\x8F" "b&rlm;", false, U"ab"},
      {"unterminated tag swallows the rest", "a<i b c", false, U"a"},
      {"zero byte inside", std::string("a\0b", 3), false, U"ab"},
  };
  for (const auto& c : cases) EXPECT_EQ(read_all(c.text, c.voice_prefix), c.want) << c.name;
}

TEST(CaptionLayout, WrappingAndRows) {
  caption_options two_rows;
  two_rows.max_rows = 2;
  const std::string w40(40, 'x');
  const struct {
    const char* name;
    std::string text;
    int width;
    caption_options opt;
    std::vector<std::string> want;
    bool truncated;
  } cases[] = {
      {"greedy at 32", "abcde abcde abcde abcde abcde abcde abcde abcde", 32, {},
       {"abcde abcde abcde abcde abcde", "abcde abcde abcde"}, false},
      {"a word exactly 32 wide", std::string(32, 'y'), 32, {}, {std::string(32, 'y')}, false},
      {"a longer word is split", w40, 32, {}, {std::string(32, 'x'), std::string(8, 'x')}, false},
      {"split after a short row", "ab " + w40 + " cd", 32, {},
       {"ab", std::string(32, 'x'), std::string(8, 'x') + " cd"}, false},
      {"inner spaces kept, ends trimmed", "  a  b  ", 32, {}, {"a  b"}, false},
      {"spaces at a break vanish", "abcd    efgh", 6, {}, {"abcd", "efgh"}, false},
      {"newline forces a break, empty lines vanish", "a\n\n\nb", 32, {}, {"a", "b"}, false},
      {"narrow width", "one two three", 5, {}, {"one", "two", "three"}, false},
      {"four rows at most", "1\n2\n3\n4\n5\n6", 32, {}, {"1", "2", "3", "4"}, true},
      {"configurable row limit", "1\n2\n3", 32, two_rows, {"1", "2"}, true},
      {"nothing displayable", "<i></i> \n \t", 32, {}, {}, false},
  };
  for (const auto& c : cases) {
    const caption_layout lay = layout_cue_text(c.text, c.width, cc_target::cea708, c.opt);
    EXPECT_EQ(rows_of(lay), c.want) << c.name;
    EXPECT_EQ(lay.truncated, c.truncated) << c.name;
  }
}

TEST(CaptionLayout, MidRowCodesTakeACellIn608Only) {
  // 16 plain and 16 italic letters: 32 cells in 708, 33 in 608 (the style
  // change between two letters costs a cell), so 608 splits the word.
  const std::string text = std::string(16, 'a') + "<i>" + std::string(16, 'b') + "</i>";
  const caption_layout l708 = layout_cue_text(text, 32, cc_target::cea708, {});
  const caption_layout l608 = layout_cue_text(text, 32, cc_target::cea608, {});
  ASSERT_EQ(l708.rows.size(), 1u);
  EXPECT_EQ(l708.rows[0].width, 32);
  ASSERT_EQ(l608.rows.size(), 2u);
  EXPECT_EQ(l608.rows[0].width, 32);
  EXPECT_EQ(l608.rows[0].cells.size(), 31u);
  EXPECT_EQ(l608.rows[1].cells.size(), 1u);

  // A change on a space costs nothing: the space takes the next word's style.
  const caption_layout at_space = layout_cue_text("<i>ab</i> cd", 32, cc_target::cea608, {});
  ASSERT_EQ(at_space.rows.size(), 1u);
  EXPECT_EQ(at_space.rows[0].width, 5);
  EXPECT_FALSE(at_space.rows[0].cells[2].italic);

  // Two identical special characters get a standard space between them.
  const caption_layout notes = layout_cue_text("\u266A\u266A", 32, cc_target::cea608, {});
  ASSERT_EQ(notes.rows.size(), 1u);
  EXPECT_EQ(notes.rows[0].width, 3);
  EXPECT_TRUE(notes.rows[0].cells[1].space);
}

TEST(CaptionPlacement, RowsAndColumnsFromSettings) {
  const struct {
    const char* name;
    std::map<std::string, std::string> settings;
    int rows, width;
    int want_top, want_col;
    bool want_bottom;
  } cases[] = {
      {"default: bottom, centred", {}, 1, 12, 15, 10, true},
      {"default two rows", {}, 2, 12, 14, 10, true},
      {"line 0", {{"line", "0"}}, 1, 4, 1, 14, false},
      {"line 14 clamps to fit two rows", {{"line", "14"}}, 2, 4, 14, 14, false},
      {"line -1: last row on row 15", {{"line", "-1"}}, 2, 4, 14, 14, true},
      {"line -20 clamps", {{"line", "-20"}}, 1, 4, 1, 14, true},
      {"line huge clamps", {{"line", "99999999999999999999"}}, 1, 4, 15, 14, false},
      {"line 90%, two rows", {{"line", "90%"}}, 2, 4, 14, 14, true},
      {"line 50%,center, three rows", {{"line", "50%,center"}}, 3, 4, 7, 14, true},
      {"line 50%,end, three rows", {{"line", "50%,end"}}, 3, 4, 6, 14, true},
      {"line 49.5%", {{"line", "49.5%"}}, 1, 4, 8, 14, false},
      {"line 100%", {{"line", "100%"}}, 1, 4, 15, 14, true},
      {"invalid line ignored", {{"line", "abc"}}, 1, 4, 15, 14, true},
      {"line with a bad alignment ignored", {{"line", "0,top"}}, 1, 4, 15, 14, true},
      {"align start", {{"align", "start"}}, 1, 12, 15, 0, true},
      {"align end", {{"align", "end"}}, 1, 12, 15, 20, true},
      {"position 10% centred clamps at 0", {{"position", "10%"}}, 1, 12, 15, 0, true},
      {"position 50% line-left", {{"position", "50%,line-left"}}, 1, 12, 15, 16, true},
      {"position 90% line-left clamps", {{"position", "90%,line-left"}}, 1, 12, 15, 20, true},
      {"position 75% line-right", {{"position", "75%,line-right"}}, 1, 4, 15, 20, true},
      {"position alignment follows align", {{"position", "25%"}, {"align", "start"}}, 1, 4, 15, 8, true},
  };
  for (const auto& c : cases) {
    const cue_box b = parse_cue_box(c.settings);
    EXPECT_EQ(box_top_row(b, c.rows), c.want_top) << c.name;
    EXPECT_EQ(box_column(b, c.width), c.want_col) << c.name;
    EXPECT_EQ(box_from_bottom(b), c.want_bottom) << c.name;
  }
}

TEST(CaptionPlacement, SizeSetsTheWrapWidth) {
  const struct {
    const char* size;
    int want;
  } cases[] = {{"100%", 32}, {"50%", 16}, {"33.3%", 10}, {"0%", 1}, {"5", 32}, {"150%", 32}};
  for (const auto& c : cases) EXPECT_EQ(box_wrap_width(parse_cue_box({{"size", c.size}})), c.want) << c.size;
}
