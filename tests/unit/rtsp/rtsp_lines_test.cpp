#include "v2/rtsp/rtsp_lines.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tolm_utils/chomp.h"

namespace {

TEST(Chomp, RemovesEveryTrailingLineEndOnly) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"RTSP/1.0 200 OK\r\n", "RTSP/1.0 200 OK"}, {"abc\n\r\n\r", "abc"}, {"\r\n", ""}, {"", ""},
      {"a b \t\r\n", "a b \t"}, {"ab\rc\n", "ab\rc"}, {"plain", "plain"},
  };
  for (const auto& c : cases) {
    std::string buf = c.in;
    EXPECT_EQ(chomp(buf.data()), buf.data());
    EXPECT_STREQ(buf.c_str(), c.out) << "input: " << c.in;
  }
}

TEST(StatusLine, ParseAndVerdict) {
  const struct {
    const char* line;
    const char* protocol;
    int code;
    const char* reason;
    bool good;
  } cases[] = {
      {"RTSP/1.0 200 OK", "RTSP/1.0", 200, "OK", true},
      {" \t RTSP/1.0 200 OK", "RTSP/1.0", 200, "OK", true},
      {"RTSP/1.0   200   OK", "RTSP/1.0", 200, "OK", true},
      {"RTSP/1.0 200", "RTSP/1.0", 200, "", true},
      {"RTSP/1.0 200OK", "RTSP/1.0", 200, "", true},
      {"RTSP/ 200 OK", "RTSP/", 200, "OK", true},
      {"RTSP/1.0 404 Not Found", "RTSP/1.0", 404, "Not Found", false},
      {"RTSP/1.0 200 OK  but  more", "RTSP/1.0", 200, "OK  but  more", true},
      {"SIP/2.0 200 OK", "SIP/2.0", 200, "OK", false},
      {"rtsp/1.0 200 OK", "rtsp/1.0", 200, "OK", false},
      {"RTSP/1.0\t200 OK", "RTSP/1.0\t200", 0, "", false},
      {"RTSP/1.0", "RTSP/1.0", 0, "", false},
      {"", "", 0, "", false},
  };
  for (const auto& c : cases) {
    std::string buf = c.line;
    rtsp_status st;
    parse_status_line(buf.data(), st);
    EXPECT_STREQ(st.protocol, c.protocol) << "line: " << c.line;
    EXPECT_EQ(st.code, c.code) << "line: " << c.line;
    EXPECT_STREQ(st.reason, c.reason) << "line: " << c.line;
    EXPECT_EQ(status_is_good(st), c.good) << "line: " << c.line;
  }
}

TEST(HeaderLine, SplitAtFirstColon) {
  const struct {
    const char* line;
    int result;
    const char* name;
    const char* value;
  } cases[] = {
      {"CSeq: 2", 0, "CSeq", "2"},
      {"Public:DESCRIBE", 0, "Public", "DESCRIBE"},
      {"X:  two", 0, "X", " two"},
      {"Content-Base: rtsp://1.2.3.4:554/ts/", 0, "Content-Base", "rtsp://1.2.3.4:554/ts/"},
      {": v", 0, "", "v"},
      {"Name:", 0, "Name", ""},
      {"Name :v", 0, "Name ", "v"},
      {"no colon here", 1, "", ""},
  };
  for (const auto& c : cases) {
    std::string buf = c.line;
    char* name = nullptr;
    char* value = nullptr;
    ASSERT_EQ(split_header_line(buf.data(), name, value), c.result) << "line: " << c.line;
    if (c.result != 0) continue;
    EXPECT_STREQ(name, c.name) << "line: " << c.line;
    EXPECT_STREQ(value, c.value) << "line: " << c.line;
  }
}

}  // namespace
