// What pelvane-cc prints: an event as JSON, a caption as SRT.
#include <gtest/gtest.h>

#include "v2/cc/caption_event_json.h"
#include "v2/cc/cc608_decoder.h"

namespace {

TEST(CcOutput, JsonEscapesArbitraryBytes) {
  const struct { const char* name; std::string in; const char* out; } cases[] = {
      {"quote, backslash, line ends, tab", "a\"b\\c\n\r\t", R"("a\"b\\c\n\r\t")"},
      {"control bytes and DEL", std::string("\x01\x00\x7f", 3), R"("\u0001\u0000\u007f")"},
      {"stray byte", "a\xff", R"("a\ufffd")"},
      {"surrogate", "\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},
      {"cut sequence", "\xe2\x99", R"("\ufffd\ufffd")"},
      {"overlong", "\xc0\xaf", R"("\ufffd\ufffd")"},
  };
  for (const auto& c : cases) EXPECT_EQ(json_string(c.in), c.out) << c.name;
}

TEST(CcOutput, EventAndSrtBlock) {
  caption_event_record ev;
  ev.start = -5, ev.end = 3000, ev.identifier = "c1", ev.settings = "align:start", ev.text = "Hi";
  ev.cc608 = {{934, 0x94, 0x20}}, ev.cc708 = {{1001, 0xFE, 0x0089}, {1001, 0xFF, 0x4222}};
  EXPECT_EQ(caption_event_json(ev), R"({"start":-5,"end":3000,"identifier":"c1","settings":"align:start","text":"Hi",)"
                                    R"("cc608":[[934,"9420"]],"cc708":[[1001,"FE","0089"],[1001,"FF","4222"]]})");
  EXPECT_EQ(srt_block(12, {3723004, 363599999, "a\nb"}), "12\n01:02:03,004 --> 100:59:59,999\na\nb\n\n");
}

}  // namespace
