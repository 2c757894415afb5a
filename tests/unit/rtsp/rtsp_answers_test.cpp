#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/unit/test_support.h"
#include "v2/rtsp/rtsp_answers.h"

namespace {

const std::string ok = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n", sdp = ok + "Content-Type: application/sdp\r\n";

struct answer_case {
  const char* name;
  int (*read)(FILE*, std::vector<std::string>&);
  std::string capture;
  int result;
  std::string err_tail;  // the end of what goes to standard error
  std::vector<std::string> lines = {};
};

int options(FILE* f, std::vector<std::string>&) { return read_options_answer(f); }
int setup(FILE* f, std::vector<std::string>&) { return read_setup_answer(f); }

// A response capture as libcurl's default writer leaves it, read back.
TEST(RtspAnswers, Cases) {
  const std::string incomplete = "RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n";
  const std::string l1022(1022, 'x'), l1023(1023, 'y');
  const answer_case cases[] = {
      {"methods in any case, across two headers", options,
       ok + "public:describe,Setup\r\nPUBLIC: pLAY, TearDown\r\n\r\n", 0, "    'pLAY'\n    'TearDown'\n"},
      {"space before a comma", options, ok + "Public: DESCRIBE ,SETUP, PLAY, TEARDOWN\r\n\r\n", 1, incomplete},
      {"404", options, "RTSP/1.0 404 Not Found\r\nPublic: DESCRIBE, SETUP, PLAY, TEARDOWN\r\n\r\n", 1,
       "'RTSP/1.0' 404 'Not Found'\nFAIL\n"},
      {"nothing", options, "", 1, "'' 0 ''\nFAIL\n"},
      {"461", setup, "RTSP/1.0 461 Unsupported Transport\r\n\r\n", 1, "'RTSP/1.0' 461 'Unsupported Transport'\nFAIL\n"},
      {"SDP lines, the last unterminated", read_describe_answer, sdp + "Content-Length: 9\r\n\r\nv=0\r\n\r\ns=x", 0,
       "'Content-Length' = '9'\n", {"v=0", "", "s=x"}},
      {"a charset is not SDP", read_describe_answer,
       ok + "Content-Type: application/sdp; charset=utf-8\r\nContent-Length: 5\r\n\r\nv=0\r\n", 1,
       "Description is not SDP\n"},
      {"length 0", read_describe_answer, sdp + "Content-Length: 0\r\n\r\n", 1, "Description is not SDP\n"},
      // One read takes at most 1022 characters; what is left of a line comes as a line of its own.
      {"1022 and LF", read_describe_answer, sdp + "Content-Length: 1\r\n\r\n" + l1022 + "\n", 0, "", {l1022, ""}},
      {"1023 and LF", read_describe_answer, sdp + "Content-Length: 1\r\n\r\n" + l1023 + "\n", 0, "",
       {l1023.substr(0, 1022), "y"}},
  };
  for (const answer_case& c : cases) {
    FILE* f = tmpfile();
    fwrite(c.capture.data(), 1, c.capture.size(), f);
    rewind(f);
    std::vector<std::string> lines;
    stderr_capture err;
    EXPECT_EQ(c.read(f, lines), c.result) << c.name;
    const std::string text = err.take();
    fclose(f);
    EXPECT_TRUE(text.ends_with(c.err_tail)) << c.name << "\nstderr:\n" << text;
    EXPECT_EQ(lines, c.lines) << c.name;
  }
}

}  // namespace
