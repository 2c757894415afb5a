#include <gtest/gtest.h>

#include "v2/cc/caption_event_json.h"

namespace {

TEST(CaptionEventJson, EscapesArbitraryBytes) {
  const struct { const char* name; std::string in; const char* out; } cases[] = {
      {"quote, backslash, line ends, tab", "a\"b\\c\n\r\t", R"("a\"b\\c\n\r\t")"},
      {"control bytes and DEL", std::string("\x01\x00\x7f", 3), R"("\u0001\u0000\u007f")"},
      {"stray byte", "a\xff", R"("a\ufffd")"},
      {"surrogate", "\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},
      {"cut sequence", "\xe2\x99", R"("\ufffd\ufffd")"},
  };
  for (const auto& c : cases) EXPECT_EQ(json_string(c.in), c.out) << c.name;
}

}  // namespace
